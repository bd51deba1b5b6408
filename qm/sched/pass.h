// The scheduling pass: once per main-loop cycle every queue triple reaps and
// expires jobs, moves due holding jobs into the pending queue and offers the
// pending jobs to its resource queues, priority level by priority level.
#pragma once

#include "qm_job.h"
#include "queue.h"

/// The selectors of check_que_and_pending_jobs, compared as exact texts.
inline constexpr const char* kSelectPermanent = "[ExecQueues_eAllocMode]_e_allocation_permanent";
inline constexpr const char* kSelectAllocated = "allocated";
inline constexpr const char* kSelectIdle = "idle";

/// iLogFlags bits: the expiry line of a job was written for the holding
/// queue, the pending queue, an executing queue.
inline constexpr int32_t kLogExpiredHolding = 1;
inline constexpr int32_t kLogExpiredPending = 2;
inline constexpr int32_t kLogExpiredExec = 4;

// ---------------------------------------------------------------------------
// The pass
// ---------------------------------------------------------------------------

/// One pass over one triple: reap and stop executing jobs, retire overdue and
/// expired ones, move due holding jobs to pending and start what may start.
void ProcessQueTriple(QueueTriple* triple);
/// ProcessQueTriple over every triple of Root. Triples at rest (no job, no
/// running resource queue) are skipped, and so is the whole walk while no job
/// exists and nothing has unsettled the triples since a walk found them all
/// at rest; flow traces (level 2 and up) see every triple.
void ProcessAllQueTriples();
/// Forgets that the last walk found every triple at rest: the next walk
/// looks at them again. Called before every request that can change a queue
/// triple other than by creating it.
void UnsettleQueTriples();
/// A triple whose pass would change nothing: no job in its holding, pending
/// or executing queues and no resource queue running.
bool TripleAtRest(const QueueTriple* triple);

/// Walk callback over a triple's ExecQueues (triple as first argument):
/// stops the jobs of stopped queues or triples, reaps ended jobs, and makes a
/// queue (or its whole share) idle when its last job is gone.
void check_executing_que(Node* queue, void* triple, void*);
/// Runs at most one job whose latest start time has passed (holding queue
/// before pending queue) outside any resource, from the admin queue.
void check_start_overdue_jobs(QueueTriple* triple);
/// Retires holding and pending jobs past their end time and asks executing
/// ones to stop (graceful, custom kill, hard), one queue search per resource.
void check_expired_jobs(QueueTriple* triple);
/// Moves due jobs from the head of the holding queue into the pending queue
/// in priority order and marks the resource queues that may take them.
void check_holding_que(QueueTriple* triple);
/// 1 when the holding queue has a head job whose start time has been reached.
int checktime(List* holding_que);

// ---------------------------------------------------------------------------
// Job selection on one resource queue
// ---------------------------------------------------------------------------

/// Walk callback over ExecQueues (triple, selector text): starts on this
/// resource queue the pending jobs that may start on it now.
void check_que_and_pending_jobs(Node* queue, void* triple, void* selector);

/// Calls fn(queue, a, b) once for each resource queue of the triple, in a
/// random order weighted by dWeight (by count when the weights left are 0).
void WalkRandomExecQueues(QueueTriple* triple, VoidFnPtr3 fn, void* a, void* b);

/// A double in [low, high): low when both are equal, else
/// low + rand() / 2147483648.0 * (high - low).
double dGetRandom(double low, double high);
/// Seeds the generator behind dGetRandom (the C library's srand).
void SetQmRandomSeed(unsigned seed);

// Match predicates over the pending queue (SearchList2 callbacks): node a
// Job, queue the resource queue, flags and priority as IntArg where used;
// "room" is a free place within the job limit or a free priority slot.
// 1 match, 0 not.

/// 1 when the job accepts the queue's resource and server: any resource of a
/// job without particular resources, else one of its preferred resources
/// names the queue (and its server, where one is named).
int JobAcceptsResource(const Job* job, const Queue* queue);
/// The queue has room for the job: a free place within the job limit, or a
/// free priority slot for the job's priority.
int JobHasPlaceOnQueue(const Job* job, Queue* queue);
/// The job names no global resources, or all of them have a free unit.
int JobGlobalResourcesReady(Job* job);

/// The job accepts the queue (counted in its iLoopFoundJobRequest), and
/// passes the allocation test where it applies: with flags 0, or flags 1 and
/// a priority not below the job's, a bound queue ("*" and empty are not)
/// takes only jobs of its allocation, or jobs for all resources.
int JobMatches(Node* job, void* queue, void* flags, void* priority);
/// Room on the queue, and the job's global resources ready.
int JobMatchesGLORESandPrioSlots(Node* job, void* queue, void*, void*);
/// Room on the queue, then JobMatches, then JobMatchesGLORESandPrioSlots.
int JobMatchesWithGLORESandPrioSlots(Node* job, void* queue, void* flags, void* priority);
/// The job's priority is not below *min_priority, then JobMatches.
int JobMatchesWithPrio(Job* job, Queue* queue, const int* min_priority, int flags, int priority);
/// Room on the queue, the job names particular resources and this queue
/// among them, and its global resources are ready.
int JobRequestsResource(Node* job, void* queue, void*, void*);
/// Room on the queue, the queue is not bound to another allocation, then
/// JobRequestsResource.
int JobRequestsResourceAndAllocation(Node* job, void* queue, void*, void*);
/// A lazy job that accepts the queue and whose global resources are ready.
int JobRequestsAnyResourceLazy(Node* job, void* queue, void*, void*);
