#include "qm_common.h"

#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "kd_hal_qm.h"
#include "kd_qm_daemon.h"
#include "kd_qm_hooks.h"
#include "qm_job.h"
#include "xutil.h"

namespace {

constexpr int kOpenRetries = 20;
constexpr useconds_t kOpenRetryPause = 100000;  // 100 ms
constexpr int kWriteWaitMs = 1000;
constexpr int kForkRetries = 5;

const char* status_word(int status) {
  switch (status) {
    case KD_SUCCESS: return "Ok";
    case KD_WARNING: return "Warning";
    default: return "Error";
  }
}

/// Waits until fd takes data; > 0 ready, 0 the time passed, < 0 the wait failed.
int wait_writable(int fd, int timeout_ms) {
  pollfd p{fd, POLLOUT, 0};
  int r;
  do {
    r = poll(&p, 1, timeout_ms);
  } while (r < 0 && errno == EINTR);
  return r;
}

/// Ends an answer writer: the daemon itself through exit, a forked writer
/// without running the daemon's exit handlers a second time.
[[noreturn]] void end_writer(int code) {
  if (getpid() == g_PID) std::exit(code);
  _exit(code);
}

/// The answer child: opens the pipe, writes digit and text, exits.
[[noreturn]] void write_answer_and_exit(long pid, int status, const char* text) {
  SetAnswerWriterTimers();
  const int fd = iOpen_From_QM_Pipe(pid);
  if (fd < 0) {
    const int err = errno;
    char path[1024];
    if (pid != 0)
      BuildAnswerPipePath(pid, path);
    else
      CopyCut(path, qmd_from_qm);
    trace("%l0 [%d] ERROR: Can't open from_qm pipe %s (%d)", static_cast<int>(getpid()), path, err);
    _exit(1);
  }
  FILE* out = fdopen(fd, "w");
  if (out == nullptr) {
    const int err = errno;
    trace("%l0 [%d] ERROR: fdopen from_qm pipe failed (%d): %s", static_cast<int>(getpid()), err,
          std::strerror(err));
    close(fd);
    _exit(1);
  }
  // Digit and text in one write: the client sees the whole answer at once.
  pipe_printf(out, "%d%s", status, text);
  trace("%l3 closing out stream");
  std::fclose(out);
  trace("--- answer [%d]: done", static_cast<int>(getpid()));
  _exit(0);
}

}  // namespace

void BuildAnswerPipePath(long pid, char (&path)[1024]) {
  x_Snprintf(path, sizeof path, "%scom%sfrom_qm_pipe%ld", gszQmDir, "/", pid);
}

void SetAnswerWriterTimers() { prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL); }

int iOpen_From_QM_Pipe(long pid) {
  char path[1024];
  if (pid != 0)
    BuildAnswerPipePath(pid, path);
  else
    CopyCut(path, qmd_from_qm);
  trace("%l3 iOpen_From_QM_Pipe: [PID = %d] for [%s]", static_cast<int>(pid), path);

  usleep(10);
  int fd = -1;
  int err = 0;
  int retry = 0;
  for (;;) {
    // Non-blocking: a client that has gone away must not hold the writer.
    // Never through a symbolic link: the name lies in a directory that the
    // whole group may write to.
    fd = open(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY);
    if (fd >= 0) break;
    err = errno;
    if (err == ELOOP) {
      trace("%l0 [%d] ERROR: from_qm pipe [%s] is a symbolic link - refused", static_cast<int>(getpid()), path);
      errno = err;
      return -1;
    }
    if (retry >= kOpenRetries) break;
    ++retry;
    trace("%l3 [%d] open( [%s], ... ) returned (%d): %s (retry %d/%d)", static_cast<int>(getpid()), path,
          err, std::strerror(err), retry, kOpenRetries);
    usleep(kOpenRetryPause);
  }
  if (retry > 0)
    trace("%l3 Open_From_QM_Pipe: some retries done: iRetry %d", retry);
  else
    trace("%l4 iRetry %d", retry);

  if (fd < 0) {
    char text[1200];
    x_Snprintf(text, sizeof text, "ERROR: Can't open [%s] (%d)", path, err);
    char name[] = "gv_prot";
    char value[512] = {};
    glbv('r', name, value);
    if (value[0] != '?' && value[0] != '\0')
      FPROT(nullptr, msg_text(MSG_W003_CMD_WARNING), text, std::strerror(err));
    else
      trace("%l1 %s: %s", text, std::strerror(err));
    errno = err;
    return -1;
  }
  // Checked on what was opened, not on the name: a regular file planted
  // under the pipe's name is never written to.
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    trace("%l0 [%d] ERROR: from_qm pipe [%s] is no FIFO - refused", static_cast<int>(getpid()), path);
    close(fd);
    errno = EINVAL;
    return -1;
  }
  if (fcntl(fd, F_SETFD, FD_CLOEXEC) < 0)
    trace("%l1 Open_From_QM_Pipe: cannot change pipe mode error = %d", errno);
  return fd;
}

int pipe_printf(FILE* stream, const char* format, ...) {
  const int fd = fileno(stream);
  if (wait_writable(fd, kWriteWaitMs) < 0) {
    trace("%l0 Timeout writing to pipe %d", fd);
    end_writer(1);
  }
  // When the second passes without readiness the text is written all the same.

  char small[4096];
  std::unique_ptr<char[]> large;
  char* text = small;
  va_list ap;
  va_start(ap, format);
  va_list again;
  va_copy(again, ap);
  int n = std::vsnprintf(small, sizeof small, format, ap);
  va_end(ap);
  if (n >= static_cast<int>(sizeof small)) {
    large = std::make_unique<char[]>(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(large.get(), static_cast<std::size_t>(n) + 1, format, again);
    text = large.get();
  }
  va_end(again);
  if (n <= 0) return 0;

  // Straight to the descriptor, behind whatever the stream still holds: the
  // descriptor is non-blocking, and a stream would drop a part that does
  // not fit into a full pipe.
  std::fflush(stream);
  std::size_t done = 0;
  const auto total = static_cast<std::size_t>(n);
  while (done < total) {
    const ssize_t w = write(fd, text + done, total - done);
    if (w > 0) {
      done += static_cast<std::size_t>(w);
    } else if (w < 0 && errno == EINTR) {
      continue;
    } else if (w < 0 && errno == EAGAIN) {
      if (wait_writable(fd, kWriteWaitMs) <= 0) break;
    } else {
      break;
    }
  }
  return static_cast<int>(done);
}

pid_t answer(const HPEER* peer, int status, const char* format, ...) {
  const std::size_t size = std::strlen(format) + 1024;
  // Short answers stay on the stack: every heap page the daemon writes after
  // the fork costs a copy while the writer lives.
  char small[4096];
  std::unique_ptr<char[]> large;
  if (size > sizeof small) large = std::make_unique<char[]>(size);
  char* const text = large ? large.get() : small;
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, size, format, ap);
  va_end(ap);

  if (strLocalLog.iLogLevel >= 2)
    trace("%l2 +++ answer: pid %ld %s: %s", static_cast<long>(peer->PID), status_word(status), text);
  else if (status != KD_SUCCESS)
    trace("%l1 answer: pid %ld %s: %s", static_cast<long>(peer->PID), status_word(status), text);

  if (!peer->valid) {
    trace("--- answer [%d]: no need to answer - peer not valid - done", static_cast<int>(peer->PID));
    return 0;
  }

  // Nothing buffered may be written twice, once by the child.
  std::fflush(nullptr);
  pid_t child = -1;
  for (int remaining = kForkRetries;; --remaining) {
    child = fork();
    if (child >= 0 || remaining == 0) break;
    const int err = errno;
    trace("%l1 [CTX:%d] fork failed %s (%d). Sleep and retry. Retries remaining %d", 0, std::strerror(err), err,
          remaining);
    sleep(1);
  }
  if (child < 0) {
    const int err = errno;
    trace("%l0 --- answer: ERROR: Fork into background failed: %s (%d)", std::strerror(err), err);
    return 0;
  }
  if (child == 0) write_answer_and_exit(static_cast<long>(peer->PID), status, text);
  trace("--- answer: Further work will be done by child process with pid %d", static_cast<int>(child));
  return child;
}

void answer_wildcard(HPEER* peer, int status, const char* text, QueueTriple* triple, char selector) {
  if (!peer->valid) {
    trace("--- answer_wildcard [%d]: no need to answer - peer not valid - done", static_cast<int>(peer->PID));
    return;
  }
  if (peer->iStatusFlag == 2) {
    if (peer->fOut != nullptr) {
      if (text != nullptr) pipe_printf(peer->fOut, "%s\n", text);
      std::fclose(peer->fOut);  // closes fd as well
      peer->fd = -1;
      peer->fOut = nullptr;
    }
    return;
  }
  if (peer->iStatusFlag == 0) {
    peer->iStatusFlag = 1;
    const int fd = iOpen_From_QM_Pipe(static_cast<long>(peer->PID));
    if (fd < 0) {
      char what[128];
      x_Snprintf(what, sizeof what, "File from_qm_pipe%ld can't be opened", static_cast<long>(peer->PID));
      std::perror(what);
      return;
    }
    FILE* out = fdopen(fd, "w");
    if (out == nullptr) {
      std::perror("Cannot open from_qm pipe");
      close(fd);
      return;
    }
    peer->fd = fd;
    peer->fOut = out;
    pipe_printf(out, "%d", status);
  }
  if (peer->fOut == nullptr) return;  // the pipe could not be opened by the first part
  if (text != nullptr) pipe_printf(peer->fOut, "%s", text);
  if (triple != nullptr) qm_hook_WriteQueueView(peer->fOut, triple, selector);
}

// ---------------------------------------------------------------------------
// Job exit log
// ---------------------------------------------------------------------------

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
