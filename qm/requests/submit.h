// The submit requests: admission of a new job into a queue triple.
#pragma once

#include "protocol/request.h"

/// The requests queue_submit, queue_submit_sync and queue_submit_proc_only
/// (the lazy variants arrive with q->bLazy set). allocate and resource are
/// the parts of field 3 behind the queue name: the allocation wish and the
/// resource wish (everything behind the second "/"; only its first
/// "/"-separated piece is used, none means "*").
/// Builds the job, gives it an entry number, checks it against the triple,
/// inserts it into the holding queue by start time, runs the scheduling pass
/// at once and answers (a synchronous submit is answered by the job itself).
/// 0 done, 1 refused (the client has been answered).
int process_que_submit(Query* q, const char* allocate, const char* resource);
