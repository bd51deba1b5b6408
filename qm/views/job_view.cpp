#include "views/job_view.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

#include "jobs/launch.h"
#include "model/global_resources.h"
#include "model/job.h"
#include "model/triple.h"
#include "protocol/answer.h"

namespace {

constexpr std::size_t kCsvLineSize = 4096;
constexpr std::size_t kUsagePieceSize = 128;

void write_text(FILE* out, const AppendString& text) {
  if (out != nullptr && !text.empty()) pipe_printf(out, "%s", text.c_str());
}

/// The last path component of the executable: behind the last "/", failing
/// that behind the last "\".
const char* program_name(const Job* job) {
  const char* path = job->file_name.c_str();
  std::string_view view(path);
  std::size_t at = view.rfind('/');
  if (at == std::string_view::npos) at = view.rfind('\\');
  return at == std::string_view::npos ? path : path + at + 1;
}

/// The executable in double quotes, then each argument after one blank, cut
/// to the command-line buffer of the exit log.
std::string command_line(const Job* job) {
  std::string line;
  line.reserve(256);
  line += '"';
  line += job->file_name.view();
  line += '"';
  for (const Argument* argument : Elements<Argument>(job->ListOfArguments)) {
    line += ' ';
    line += argument->argument.view();
    if (line.size() >= kCommandLineSize) break;
  }
  if (line.size() > kCommandLineSize - 1) line.resize(kCommandLineSize - 1);
  return line;
}

void append_full_block(Job* job, AppendString* text) {
  AppendPrintf(text, "Entry: %d\tJob name: %s\tServer: %s\n", job->EntryNumb, job->job_name.c_str(),
               job->server.c_str());
  AppendPrintf(text, "File: \"%s\"", job->file_name.c_str());
  for (const Argument* argument : Elements<Argument>(job->ListOfArguments))
    AppendPrintf(text, " \"%s\"", argument->argument.c_str());
  *text += "\n";
  const std::string resources = JobResourcesToStr(job);
  if (job->bLazy)
    AppendPrintf(text, "Priority: %d;  Allocate: %s;  Preferred Resource: %s;  PID: %d\n", job->priority,
                 job->allocate.c_str(), resources.c_str(), static_cast<int>(job->PID));
  else
    AppendPrintf(text, "Priority: %d;  Allocate: %s;  Resource: %s;  PID: %d\n", job->priority,
                 job->allocate.c_str(), resources.c_str(), static_cast<int>(job->PID));
  char time_text[20];
  TimeToISOStr(job->SubmitTime, time_text, sizeof time_text);
  AppendPrintf(text, "Submit time= %s\n", time_text);
  TimeToISOStr(job->StartTime, time_text, sizeof time_text);
  AppendPrintf(text, "Start time= %s\n", time_text);
  if (job->MaxStartTimeSet)
    TimeToISOStr(job->MaxStartTime, time_text, sizeof time_text);
  AppendPrintf(text, "Wait time= %s\n", job->MaxStartTimeSet ? time_text : "NOT_SPECIFIED");
  if (job->MaxCompleteTimestampSet)
    TimeToISOStr(job->MaxCompleteTimestamp, time_text, sizeof time_text);
  AppendPrintf(text, "End time= %s\n", job->MaxCompleteTimestampSet ? time_text : "NOT_SPECIFIED");
  if (job->ListOfGlobalResourceNames.Head != nullptr) {
    *text += "Resources= ";
    ViewJobGlobalResourceUsage(job, false, &gGlobalResources, text);
  }
}

void append_job_line(Job* job, const char* mode, AppendString* text) {
  char time_text[20];
  TimeToISOStr(job->Time, time_text, sizeof time_text);
  std::string resource_part;
  const std::string resources = JobResourcesToStr(job);
  if (!resources.empty() && !job->allocate.empty()) resource_part = "/" + resources;
  std::string usage;
  if (job->ListOfGlobalResourceNames.Head != nullptr) {
    usage = "  ";
    ViewJobGlobalResourceUsage(job, false, &gGlobalResources, &usage);
    if (!usage.empty() && usage.back() == '\n') usage.pop_back();
    if (!usage.empty() && usage.back() == '\r') usage.pop_back();
  }
  if (std::string_view(mode) == "name")
    AppendPrintf(text, "%3d    %-19s %3d %s%s %8d %s%s\n", job->EntryNumb, job->job_name.c_str(), job->priority,
                 job->allocate.c_str(), resource_part.c_str(), static_cast<int>(job->PID), time_text, usage.c_str());
  else
    AppendPrintf(text, "%3d  %-21s %3d %s%s %8d %s%s\n", job->EntryNumb, program_name(job), job->priority,
                 job->allocate.c_str(), resource_part.c_str(), static_cast<int>(job->PID), time_text, usage.c_str());
}

}  // namespace

void AppendPrintf(AppendString* text, const char* format, ...) {
  char small[1024];
  va_list ap;
  va_start(ap, format);
  va_list again;
  va_copy(again, ap);
  const int n = std::vsnprintf(small, sizeof small, format, ap);
  va_end(ap);
  if (n > 0 && static_cast<std::size_t>(n) < sizeof small) {
    text->append(small, static_cast<std::size_t>(n));
  } else if (n > 0) {
    const std::size_t old = text->size();
    text->resize(old + static_cast<std::size_t>(n) + 1);
    std::vsnprintf(text->data() + old, static_cast<std::size_t>(n) + 1, format, again);
    text->resize(old + static_cast<std::size_t>(n));
  }
  va_end(again);
}

void ViewJobGlobalResourceUsage(const Job* job, bool with_name, List* resources, std::string* text) {
  char piece[kUsagePieceSize];
  if (with_name) {
    std::snprintf(piece, sizeof piece, "%s: ", job->job_name.c_str());
    *text += piece;
  }
  for (const GlobalResourceName* name : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames)) {
    const GlobalResource* resource = FindGlobalResource(name->name.view(), resources);
    if (resource == nullptr) continue;
    // R: a unit can still be had; W: a job naming it must wait.
    std::snprintf(piece, sizeof piece, "%s(%c,%d/%d) ", resource->name.c_str(),
                  resource->allocated < resource->slots ? 'R' : 'W', resource->allocated, resource->slots);
    *text += piece;
  }
  *text += "\n";
}

void PrintArguments(Node* argument, void* out, void*) {
  pipe_printf(static_cast<FILE*>(out), " \"%s\"", ElementOf<Argument>(argument)->argument.c_str());
}

void PrintJob(Job* job, const char* mode, AppendString* text) {
  if (std::string_view(mode) == "full")
    append_full_block(job, text);
  else
    append_job_line(job, mode, text);
}

void PrintJob(Job* job, const char* mode, FILE* out) {
  AppendString text;
  PrintJob(job, mode, &text);
  write_text(out, text);
}

void PrintJobCSV(Job* job, const char* queue, AppendString* text) {
  const std::string command = command_line(job);
  char line[kCsvLineSize];
  const int n = std::snprintf(line, sizeof line, "%s,%s,%d,%ld,%d,%s\n", queue, job->job_name.c_str(),
                              job->priority, static_cast<long>(job->PID), job->EntryNumb, command.c_str());
  if (n > 0) text->append(line, std::min(static_cast<std::size_t>(n), sizeof line - 1));
}

void PrintJobCSV(Job* job, const char* queue, FILE* out) {
  AppendString text;
  PrintJobCSV(job, queue, &text);
  write_text(out, text);
}
