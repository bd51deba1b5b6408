// The views of a queue triple written into an answer stream: the short,
// name and full tables, the status lines and the comma-separated lines.
// Each view is built as one text and written with one pipe_printf: a listing
// of a thousand triples would otherwise cost a wait for writability per line.
#pragma once

#include <cstdio>

#include "model/records.h"
#include "protocol/request.h"
#include "views/job_view.h"

/// The table of the triple with its jobs as short lines (program names).
void ViewQue(QueueTriple* triple, FILE* out);
/// The same table with job names.
void ViewQueNames(QueueTriple* triple, FILE* out);
/// The table with every job as a full block.
void ViewQueFull(QueueTriple* triple, FILE* out);
/// The triple's status line (queue sizes, the first resource queue's job
/// limit) and a status line per resource queue, without jobs.
void ViewQueStatus(QueueTriple* triple, FILE* out);
/// The comma-separated lines of every job of the triple into the peer's
/// open answer stream: executing, pending, holding (or terminating).
void ViewQueCSV(QueueTriple* triple, HPEER* peer);
/// The comma-separated lines of the jobs of one resource queue behind prefix.
void ViewExecQueCSV(Queue* queue, const char* prefix, HPEER* peer);
/// The line of a resource queue (limits or counter, slots, allocation,
/// state, weight) followed by its jobs in the job mode (none for "status").
void PrintQue(Queue* queue, const char* mode, FILE* out);
/// Appends what PrintQue writes to text instead of a stream.
void PrintQue(Queue* queue, const char* mode, AppendString* text);
