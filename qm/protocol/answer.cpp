#include "protocol/answer.h"

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
#include "protocol/globals.h"
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

void answer_text(Query* q, int status, const std::string& text) {
  std::string format;
  format.reserve(text.size() + 16);
  for (char c : text) {
    format += c;
    if (c == '%') format += '%';
  }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  answer(&q->peer, status, format.c_str());
#pragma GCC diagnostic pop
}
