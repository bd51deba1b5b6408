#include "jobs/exit_log.h"

#include <execinfo.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string>
#include <string_view>

#include "cm_kernel.h"
#include "cm_trace.h"
#include "jobs/launch.h"
#include "model/job.h"
#include "model/records.h"
#include "xutil.h"

char gszKdQmExitLog[1024] = {};

namespace {

constexpr int kExitLogOpenTries = 3;
constexpr int kMaxStackFrames = 64;

/// Writes the caller's stack into the trace, one frame a line.
void PrintStack() {
  void* frames[kMaxStackFrames];
  const int n = backtrace(frames, kMaxStackFrames);
  char** names = backtrace_symbols(frames, n);
  if (names == nullptr) return;
  for (int i = 0; i < n; ++i) trace("%l1   [%d] %s", i, names[i]);
  std::free(names);
}

/// "CTX:%d;PID:%ld;name:%s" of the job's end and restart records.
std::string JobRecordHeader(const Job* job) {
  char header[1200];
  x_Snprintf(header, sizeof header, "CTX:%d;PID:%ld;name:%s", job->EntryNumb, static_cast<long>(job->PID),
             job->job_name.c_str());
  return header;
}

/// Grows an accumulated text by one item, a blank between items.
void Accumulate(std::string*& text, std::string_view item) {
  if (text == nullptr) {
    text = new (std::nothrow) std::string(item);
    return;
  }
  if (!text->empty()) *text += ' ';
  *text += item;
}

}  // namespace

void SetKdQmExitLog(const char* day_tag) {
  gszKdQmExitLog[0] = '\0';
  char dir[1024] = {};
  char err[1024] = {};
  if (i_READ_INI("KD_INI", "Pathes", "gv_rw_lgc", dir, sizeof dir, err, sizeof err) != 1 || dir[0] == '\0') {
    FPROT(nullptr, msg_text(MSG_E003_NOT_EXISTING), "SET_LOG_MAIN", "gv_rw_lgc");
    std::fprintf(stderr, "FATAL: SET_LOG_MAIN: gv_rw_lgc not set\n");
    return;
  }
  x_Snprintf(gszKdQmExitLog, sizeof gszKdQmExitLog, "%s/kd_qm_exit_%s.log", dir, day_tag != nullptr ? day_tag : "");
  trace("%l2 Set QM exit log to: %s", gszKdQmExitLog);
}

void AppendKdQmExitLog(const char* text) {
  // The exit log is switched together with the trace log.
  if (strLocalLog.iLogLevel < 1) return;
  if (text == nullptr) {
    trace("%l1 Cannot append to exit log. Nothing to append");
    PrintStack();
    return;
  }
  FILE* out = nullptr;
  int err = 0;
  for (int attempt = 0; attempt < kExitLogOpenTries && out == nullptr; ++attempt) {
    out = std::fopen(gszKdQmExitLog, "a+");
    if (out == nullptr) err = errno;
  }
  if (out == nullptr) {
    trace("%l1 Cannot append to exit log. Cannot open file [%s] (errno = %d)", gszKdQmExitLog, err);
    PrintStack();
    return;
  }
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::fprintf(out, "%s %s\n", stamp, text);
  std::fclose(out);
}

void JobCreatedKdQmExitLog(Job* job) {
  char header[1200];
  x_Snprintf(header, sizeof header, "CTX:%d;name:%s", job->EntryNumb, job->job_name.c_str());
  char submit[20];
  char start[20];
  TimeToISOStr(job->SubmitTime, submit, sizeof submit);
  TimeToISOStr(job->StartTime, start, sizeof start);
  std::string line = header;
  line += ";submit:";
  line += submit;
  line += ";start:";
  line += start;
  line += ";command: ";
  if (job->pFullCommand != nullptr) line += *job->pFullCommand;
  AppendKdQmExitLog(line.c_str());
}

void FlushJobKdQmExitLog(Job* job) {
  if (job->pTermReason != nullptr && !job->pTermReason->empty()) {
    char submit[20];
    char start[20];
    TimeToISOStr(job->SubmitTime, submit, sizeof submit);
    TimeToISOStr(job->StartTime, start, sizeof start);
    std::string line = JobRecordHeader(job);
    line += ";submit:";
    line += submit;
    line += ";start:";
    line += start;
    line += ';';
    line += *job->pTermReason;
    line += ';';
    line += JobCommandLine(job);
    line += ';';
    AppendKdQmExitLog(line.c_str());
    delete job->pTermReason;
    job->pTermReason = nullptr;
  }
  if (job->pRestarts != nullptr && !job->pRestarts->empty()) {
    const std::string line = JobRecordHeader(job) + *job->pRestarts;
    AppendKdQmExitLog(line.c_str());
    delete job->pRestarts;
    job->pRestarts = nullptr;
  }
}

void AppendJobTerminationReason(Job* job, const char* reason) {
  Accumulate(job->pTermReason, reason != nullptr ? reason : "");
  FlushJobKdQmExitLog(job);
}

void AppendJobRestart(Job* job, const char* note) {
  Accumulate(job->pRestarts, note != nullptr ? note : "");
  FlushJobKdQmExitLog(job);
}

void AppendJobTerminationReasonExitStatus(Job* job, const char* reason, int64_t exit_code) {
  char code[32];
  x_Snprintf(code, sizeof code, "[exit code: %lld]", static_cast<long long>(exit_code));
  std::string item = reason != nullptr ? reason : "";
  item += ' ';
  item += code;
  Accumulate(job->pTermReason, item);
  FlushJobKdQmExitLog(job);
}
