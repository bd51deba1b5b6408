// The daemon's calls into the subsystems that grow around it: the entry-number
// pool, the root lists, the admin queue, global resources, the scheduling
// pass, task processing, the exit log, queue views and the request handlers
// of the queue, job and entry requests.
//
// Each hook is the one place where the daemon's spine calls a subsystem.
// A hook whose subsystem is not there yet does nothing (or answers the
// request with "not yet supported"); the subsystem's work replaces the body.
#pragma once

#include <cstdio>

#include "qm_lib.h"

struct QueueTriple;

/// Fills the entry-number pool with the numbers 1 to count - 1.
void qm_hook_QmEntry_init(int count);

/// Initialises the root lists of queue triples, counters and global resources.
void qm_hook_InitRootLists();

/// Creates the admin queue; 0, or -1 when it cannot be allocated.
int qm_hook_InitQMAdminQueue();

/// Removes global resources that no job registers any more (once per loop cycle).
void qm_hook_CheckUnregisteredGlobalResources();

/// Works the admin queue (once per loop cycle).
void qm_hook_ProcessQMAdminQueue();

/// Runs the scheduling pass on every queue triple of the root list.
void qm_hook_ProcessAllQueTriples();
/// Makes the next scheduling pass look at every triple again.
void qm_hook_UnsettleQueTriples();

/// Runs the queue manager's task processing.
void qm_hook_process_qm_tasks();

/// Starts the exit log of the business day given as compact stamp.
void qm_hook_SetKdQmExitLog(const char* day_stamp);

/// Records the exit code text on every waiting job at shutdown: the holding
/// and pending jobs of each triple, the terminating jobs of the admin queue.
void qm_hook_SetPendingStateExitCodes(const char* exit_code);

/// Number of queue triples in the root list.
int qm_hook_QueTripleCount();

/// Shutdown listing: walks the root list with the selector "s", which writes
/// each triple's view into the multi-part answer of the query and removes it.
void qm_hook_ShutdownListQueues(Query* q);

/// Writes the view of a triple that the selector names into an open answer
/// stream (selector "s" also removes the triple from the root list).
void qm_hook_WriteQueueView(FILE* out, QueueTriple* triple, char selector);

/// Request handlers of the subsystems (return 0 done, 1 refused, 2 shutdown).
int qm_request_queue_admin(Query* q);         ///< queue_init ... queue_stop
int qm_request_submit(Query* q);              ///< queue_submit and its variants
int qm_request_entry(Query* q);               ///< queue_del_entry, signal, move
int qm_request_queue_show(Query* q);          ///< queue_sho and its variants
int qm_request_job(Query* q);                 ///< job_del, job_sho*, job_set
int qm_request_global_resources(Query* q);    ///< show_global_resources

/// Answers Error "STATUS=ERROR MSG=request %s not yet supported\n" with the
/// mode's display name; returns 1.
int answer_not_supported(Query* q);
