#include "daemon/signals.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cm_signal.h"
#include "cm_trace.h"
#include "daemon/shutdown.h"
#include "protocol/globals.h"
#include "protocol/request.h"

struct sigaction sig_action;

namespace {

constexpr int kSelfRequestRetries = 20;

constexpr std::array<int, 5> kHandledSignals{SIGTERM, SIGCHLD, SIGPIPE, SIGALRM, SIGINT};
static_assert(kHandledSignals.size() == 5);

/// Writes the request line "26 0" into the request pipe (from the handler).
void write_self_request() {
  constexpr int kFlags = O_WRONLY | O_NONBLOCK;
  trace("%l3 sig_handler: open to_qm file [%s] mode 0x%x", qmd_to_qm, kFlags);
  int fd = -1;
  int err = 0;
  for (int retry = 1;; ++retry) {
    fd = open(qmd_to_qm, kFlags);
    if (fd >= 0) break;
    err = errno;
    if (err == ENOENT) {
      trace("%l3 sig_handler: errno ENOENT (%d): %s", err, std::strerror(err));
      break;
    }
    if (err == EACCES) {
      trace("%l3 sig_handler: errno EACCES (%d): %s", err, std::strerror(err));
      break;
    }
    if (retry > kSelfRequestRetries) break;
    trace("%l3 sig_handler: errno %d: %s (retry %d/%d)", err, std::strerror(err), retry, kSelfRequestRetries);
    usleep(100);
  }
  if (fd < 0) {
    if (err == ENXIO)
      trace("%l3 sig_handler: Pipe %s can't be opened (%d): %s", qmd_to_qm, err, std::strerror(err));
    else
      trace("%l1 sig_handler: ERROR: Pipe %s can't be opened (%d): %s", qmd_to_qm, err, std::strerror(err));
    return;
  }
  char command[32];
  const int n = std::snprintf(command, sizeof command, "%d 0", static_cast<int>(process_signal));
  trace("%l3 sig_handler: Command: %s", command);
  command[n] = '\n';
  if (write(fd, command, static_cast<std::size_t>(n) + 1) < 0)
    trace("%l3 sig_handler: write %s failed (%d)", qmd_to_qm, errno);
  close(fd);
}

/// Reaps every ended child of the own process group (the answer writers).
void reap_answer_writers() {
  for (;;) {
    int status = 0;
    const pid_t pid = waitpid(0, &status, WNOHANG);
    if (pid < 0 && errno == EINTR) continue;
    if (pid <= 0) return;
    if (WIFSIGNALED(status))
      trace("%l2 answer_... process [%d] terminated", static_cast<int>(pid));
    else
      trace("%l3 answer_... process [%d] exited with %d", static_cast<int>(pid), WEXITSTATUS(status));
  }
}

}  // namespace

void InstallSignalHandler() {
  sigemptyset(&blockmaske);
  for (int sig : kHandledSignals) sigaddset(&blockmaske, sig);
  sig_action = {};
  sig_action.sa_sigaction = sig_handler;
  // No SA_RESTART: a signal must end the wait for the next request.
  sig_action.sa_flags = SA_SIGINFO;
  sigemptyset(&sig_action.sa_mask);
  for (int sig : kHandledSignals) sigaction(sig, &sig_action, nullptr);
}

void sig_handler(int sig, siginfo_t* info, void*) {
  const int saved_errno = errno;
  sigprocmask(SIG_BLOCK, &blockmaske, nullptr);
  if (strLocalLog.iLogLevel >= 3) print_smask("in sig_handler after sigprocmask(SIG_BLOCK, ...)");
  const long sender = info != nullptr ? static_cast<long>(info->si_pid) : 0L;

  if (sig == SIGINT || sig == SIGTERM) {
    if (getpid() == g_PID) {
      trace("%l3 sig_handler: signal %d (SIGINT/SIGTERM) received in %ld send by %ld.", sig,
            static_cast<long>(getpid()), sender);
      Query none{};  // peer not valid: nobody is answered
      que_shutdown(&none);
      trace("--- sig_handler: exit in signal handler");
      std::exit(1);
    }
    trace("%l3 sig_handler: signal %d (SIGINT/SIGTERM) received for PID %ld send by %ld. QM_MAIN PID %ld. Skip "
          "signal processing",
          sig, static_cast<long>(getpid()), sender, static_cast<long>(g_PID));
  } else {
    if (sig == SIGALRM)
      trace("%l3 sig_handler: signal %d (SIGALRM) received", sig);
    else if (sig == SIGCHLD)
      trace("%l3 sig_handler: signal %d (SIGCHLD) received", sig);
    else
      trace("%l3 signal %d received", sig);
    reap_answer_writers();
    write_self_request();
  }

  trace("%l3 sig_handler: install signal handler for SIGCHLD, SIGALRM, SIGPIPE, SIGINT, SIGTERM again");
  for (int s : kHandledSignals) sigaction(s, &sig_action, nullptr);
  sigprocmask(SIG_UNBLOCK, &blockmaske, nullptr);
  if (strLocalLog.iLogLevel >= 3) print_smask("in sig_handler after sigprocmask(SIG_UNBLOCK, ...)");
  alarm(kAlarmSeconds);
  errno = saved_errno;
}

void print_smask(const char* label) {
  sigset_t current;
  if (sigprocmask(SIG_BLOCK, nullptr, &current) != 0) {
    std::fputs("Fatal: sigprocmask error\n", stderr);
    std::exit(1);
  }
  char text[1024];
  std::size_t n = static_cast<std::size_t>(std::snprintf(text, sizeof text, "%s: ", label));
  if (n >= sizeof text) n = sizeof text - 1;
  for (const SignalName& s : kSignalNames) {
    if (sigismember(&current, s.sig) == 1 && n + std::strlen(s.name) + 2 < sizeof text)
      n += static_cast<std::size_t>(std::snprintf(text + n, sizeof text - n, "%s,", s.name));
  }
  text[n++] = '\n';
  // One write, so that the line cannot be torn by another writer of the stream.
  std::fflush(stderr);
  if (write(STDERR_FILENO, text, n) < 0) return;
}
