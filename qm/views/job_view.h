// Job listings: the job lines and blocks of the queue views and of the job
// requests, the comma-separated line, and the global-resource usage of a job.
// Every view is built as one growing text (AppendString) and written with
// one write into the answer stream.
#pragma once

#include <cstdio>
#include <string>

#include "model/list.h"
#include "model/records.h"

/// Growing text of the views.
using AppendString = std::string;

/// Formats and appends to text.
void AppendPrintf(AppendString* text, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Writes one job line (mode "" the program name, "name" the job name), or
/// a block (mode "full").
void PrintJob(Job* job, const char* mode, FILE* out);
/// Appends what PrintJob writes to text instead of a stream.
void PrintJob(Job* job, const char* mode, AppendString* text);
/// Writes "%s,%s,%d,%ld,%d,%s\n" for the job: queue, job name, priority,
/// pid, entry number, command line.
void PrintJobCSV(Job* job, const char* queue, FILE* out);
/// Appends what PrintJobCSV writes (cut at 4095 characters) to text.
void PrintJobCSV(Job* job, const char* queue, AppendString* text);
/// Appends "name(R|W,allocated/slots) " for each global resource the job
/// names (R: a unit can still be had, W: the job must wait), behind
/// "<job name>: " when with_name, and a line feed.
void ViewJobGlobalResourceUsage(const Job* job, bool with_name, List* resources, std::string* text);
/// Walk callback over ListOfArguments: writes " \"%s\"" to the stream out.
void PrintArguments(Node* argument, void* out, void*);
