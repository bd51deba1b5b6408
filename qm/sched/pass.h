// The scheduling pass: once per main-loop cycle every queue triple reaps and
// expires jobs, moves due holding jobs into the pending queue and offers the
// pending jobs to its resource queues, priority level by priority level.
#pragma once

#include <cstdint>

#include "model/list.h"
#include "model/records.h"

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
