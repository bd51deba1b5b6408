// Job selection on one resource queue: which pending jobs start on it now,
// checked in an order that is the scheduling policy itself (state,
// allocation, job limit and priority slots, global resources, weight), and
// the weighted random order of the resource queues.
#pragma once

#include <cstdint>

#include "model/list.h"
#include "model/records.h"

/// The selectors of check_que_and_pending_jobs, compared as exact texts.
inline constexpr const char* kSelectPermanent = "[ExecQueues_eAllocMode]_e_allocation_permanent";
inline constexpr const char* kSelectAllocated = "allocated";
inline constexpr const char* kSelectIdle = "idle";

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

// Helpers shared with the scheduling pass.

/// The job at the head of the list, or null.
Job* HeadJob(const List& list);
/// A waiting job leaves its queue for good: its global-resource names go
/// with it, so that nobody counts it as a user any more.
void ForgetGlobalResourceNames(Job* job);
/// Reports a failed start: trace and the operator's error line.
void ReportStartFailure();
