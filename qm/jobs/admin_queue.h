// The admin triple "qu_admin" and its terminating queue, where jobs that
// must end are stopped in stages.
#pragma once

#include "qm_job.h"

extern QueueTriple* gAdminQueue;  ///< the admin triple, null before start-up
extern List gJobStack;            ///< daemon-wide job stack

/// Creates the admin triple and appends it to Root; 0, or -1.
int InitQMAdminQueue();
/// Moves a job into the terminating queue (unlinking it from queue's job
/// list when a queue is given).
void JobToAdminQueueTerminate(Job* job, Queue* queue);
/// Works the terminating queue (once per loop cycle).
void ProcessQMAdminQueue();
void TerminateTerminatingJobs();
void ProcessTerminatingQueJob(Node* job, void*, void*);
void RunCustomKillProcess(Job* job);
int MinimalJobRunTimeExpired(Job* job);
int JobGracefullStopPeriodExpired(Job* job);
int JobHasCustomKillProcess(Job* job);
