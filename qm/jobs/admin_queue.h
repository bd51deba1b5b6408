// The admin triple "qu_admin" and its terminating queue, where jobs that
// must end (deleted, expired, removed with their queue) are stopped in
// stages: after their minimal run time a graceful stop (or the job's custom
// kill program), after the hard kill timeout SIGKILL.
#pragma once

#include "model/list.h"
#include "model/records.h"

extern QueueTriple* gAdminQueue;  ///< the admin triple, null before start-up
extern List gJobStack;            ///< daemon-wide job stack

/// Creates the admin triple with its running terminating queue
/// "qu_admin_terminating" and links it into Root; 0, or -1.
[[nodiscard]] int InitQMAdminQueue();
/// Moves a job into the terminating queue (unlinking it from queue's job
/// list when a queue is given); before start-up the job stays unlinked.
void JobToAdminQueueTerminate(Job* job, Queue* queue);
/// Works the terminating queue (once per loop cycle).
void ProcessQMAdminQueue();
/// Reaps the ended jobs of the terminating queue, then moves every living
/// one on by its stage (ProcessTerminatingQueJob).
void TerminateTerminatingJobs();
/// Walk callback over the terminating queue (queue, or null for the admin
/// triple's): once the minimal run time is over, the first visit asks the
/// job to stop (custom kill program or SIGINT); when the hard kill timeout
/// has passed since, the job is stopped hard.
void ProcessTerminatingQueJob(Node* job, void*, void*);
/// Starts the job's custom kill program as a job of its own in the
/// terminating queue, with "-p pid -n entry -j name -d resource -w hard --
/// \"program\" args..."; marks the job as asked to stop.
void RunCustomKillProcess(Job* job);
/// 1 when the job has run at least iSoftKillTimeout seconds (its start time
/// read as standard time).
int MinimalJobRunTimeExpired(Job* job);
/// 1 when a graceful stop was asked for more than iHardKillTimeout seconds ago.
int JobGracefullStopPeriodExpired(Job* job);
/// 1 when the job names a custom kill program.
int JobHasCustomKillProcess(Job* job);
