// The entry requests: delete, move and signal one job, addressed by its
// entry number in the query's que_name. Each handler answers the client
// itself and returns 0 done or 1 refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "model/records.h"
#include "protocol/request.h"

/// The words of the query's argument text split at single blanks (empty
/// words kept); word 0 is the entry number.
std::vector<std::string> EntryRequestWords(const Query* q);

/// Reads word as a signed number when it begins with a digit, or with "-"
/// followed by a digit; 1 and *value set, else 0 and *value untouched.
int EntryRequestNumber(const std::string& word, int* value);

/// The job of that entry number in the holding, pending or executing queues
/// of a triple, or in the admin triple's terminating queue; its triple in
/// *triple. Null when no triple holds it.
Job* FindEntryJob(int32_t entry, QueueTriple** triple);

/// queue_del_entry: "<entry> [timeout] [-K path|none] [-e code] [-o not_executing]".
int process_que_del_entry(Query* q);

/// Parses the delete options ("K:e:o:") of the query's text and applies them
/// to the job: -e sets the pending-state exit code, -K the custom kill
/// program ("none" clears it; a path that is no executable ends the parse
/// without error), neither -K nor -e clears it; a number as word 1 replaces
/// the hard kill timeout by its absolute value. Returns 1 normal delete,
/// 2 delete only if not executing, 0 error (text in error, job unchanged).
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name its traces print
int _que_del_entry_ParseArgs(Query* q, Job* job, char* error, std::size_t error_size);

/// queue_move_entry: "<entry> <queue>[/<resource>]".
int process_que_move_entry(Query* q);

/// queue_signal_entry: "<entry> <-2|-3|-4|-5>".
int process_queue_signal_entry(Query* q);

/// 0 when word 1 of the query's text is one of -2, -3, -4, -5, else 1.
// NOLINTNEXTLINE(bugprone-reserved-identifier): named like its twin _que_del_entry_ParseArgs
int _process_queue_signal_entryParseArgs(Query* q);
