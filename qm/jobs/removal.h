// Removing queues and entries with their jobs: a resource queue or a whole
// triple goes down with its jobs stopped or handed to the admin queue, and
// one entry of a triple is deleted, expired or given an end time.
#pragma once

#include "model/list.h"
#include "model/records.h"
#include "protocol/request.h"

/// Stops every job of the queue (a job not reaped at once goes to the
/// terminating queue), destroys its slots, unlinks and frees it.
void RemoveResourceQue(Queue* queue, List* list);
/// Unlinks and frees a triple with everything it holds: its waiting jobs
/// go to the terminating queue and run with their pending-state exit code
/// (a code of 0 removes them), its resource queues are removed.
void RemoveQueTriple(List* root, QueueTriple* triple);
/// Search callback over resource queues (entry: IntArg): stops the job of
/// that entry number (JobStopControl); 1 when the queue holds it.
int QueDelQueEntry(Node* node, void* entry, void*);

// Entry operations on one triple, by the query's EntryNumb. Each looks in the
// holding queue, then the pending queue, then the resource queues, stops at
// the first find and returns 1 when the entry was found, else 0.

/// A waiting job is removed (RemJob); an executing one stopped (QueDelQueEntry).
int QueDelEntry(QueueTriple* triple, Query* q);
/// As QueDelEntry; a waiting job first gets the termination reason "Job expired".
int QueDelExpiredEntry(QueueTriple* triple, Query* q);
/// A waiting job's end time becomes now; an executing job's now plus
/// q->Timeout, and it is asked to stop (custom kill program or SIGINT). The
/// query's peer becomes a peer of the job. 0 also when no peer could be had.
int QueJobMaxCompleteTimestamp(QueueTriple* triple, Query* q);
/// As QueJobMaxCompleteTimestamp for waiting jobs only.
int QueJobDeleteNonExecuting(QueueTriple* triple, Query* q);
