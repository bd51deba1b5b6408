// The job record's life outside the grammar: destruction, look-up by entry
// number, the preferred-resource type, and the times of a job (record
// times, start order, expiry).
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "model/list.h"
#include "model/records.h"

/// Frees a job with its lists and texts and returns its entry number to the
/// pool. Does not free the follow-up job. A null job is ignored.
void DestroyJob(Job* job);
/// Destroys a job that never ran together with its whole follow-up chain.
void DestroyJobChain(Job* job);

/// Sets the job's preferred-resource type from its resource list: one item
/// "*" or "" is arbitrary, one item "all" is all, anything else a set (an
/// empty list counts as arbitrary). Returns the type.
PreferredResourceType SpecifyJobResource(Job* job);
/// The job's preferred resources as text ("share_name@server;...").
std::string JobResourcesToStr(const Job* job);

/// The job of that entry number in the triple's holding queue, pending
/// queue or one of its executing queues (not the terminating queue), or null.
Job* FindJobByEntryNumber(QueueTriple* triple, int32_t entry);

// ---------------------------------------------------------------------------
// Times
// ---------------------------------------------------------------------------

/// year = tm_year + 1900, month = tm_mon + 1, the other fields copied.
QMTime tm_time_to_Time(const struct tm& tm);
/// Sets t to the current local time.
void WriteTime(QMTime* t);
/// "%02d-%02d-%02d %02d:%02d:%02d".
void TimeToISOStr(const QMTime& t, char* buffer, std::size_t size);
/// 1 when the job's planned start time is later than time, down to the
/// minute (seconds ignored; equal is not later).
int JobTime(Job* job, const QMTime* time);
/// 1 when the latest start time (-W) is set and at or before now.
int JobStartTimeExpired(Job* job, time_t now);
/// 1 when the job's end time (-E) is set and at or before now; 0 for a
/// job that is being stopped.
int JobTimeExpired(Job* job, time_t now);
/// Search callback over resource queues (time: time_t*): 1 when a job of
/// the queue is past its end time (JobTimeExpired).
int QueCheckJobExpired(Node* node, void* time, void*);
