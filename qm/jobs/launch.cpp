#include "jobs/launch.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "model/job.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "xutil.h"

namespace {

constexpr int kForkRetries = 5;
constexpr int kLastArgvIndex = kMaxArgvEntries - 1;  // 309

// Set when BuildArgv has reported an overflow with W003; cleared by the next
// argument that fits, so one overlong command line gives one message.
bool gbArgvOverflowReported = false;

/// Fills argv (kMaxArgvEntries + 1 entries, all null) with the executable and
/// the job's arguments; the entries stay valid while the job's list is unchanged.
void FillArgv(Job* job, const char* (&argv)[kMaxArgvEntries + 1]) {
  argv[0] = job->file_name.c_str();
  int index = 1;
  WalkList(&job->ListOfArguments, BuildArgv, &index, argv);
}

/// "\"%s\"" of argv[0], then one blank and each further entry, cut at
/// kCommandLineSize - 1 characters.
std::string FormatCommandLine(const char* const (&argv)[kMaxArgvEntries + 1]) {
  std::string line;
  line.reserve(256);
  line += '"';
  line += argv[0];
  line += '"';
  for (int i = 1; i < kMaxArgvEntries && argv[i] != nullptr; ++i) {
    line += ' ';
    line += argv[i];
  }
  if (line.size() > kCommandLineSize - 1) line.resize(kCommandLineSize - 1);
  return line;
}

}  // namespace

int jobAddArg_str(Job* job, const char* text) {
  auto* arg = new (std::nothrow) Argument{};
  if (arg == nullptr) {
    trace("%l1 jobAddArg_str: error unable to allocate memory for argument");
    return 1;
  }
  arg->argument = text != nullptr ? text : "";
  AddTail(&job->ListOfArguments, NodeOf(arg));
  ++job->arg_count;
  return 0;
}

int jobAddArg_int(Job* job, int value) {
  auto* arg = new (std::nothrow) Argument{};
  if (arg == nullptr) {
    trace("%l1 jobAddArg_int: error unable to allocate memory for argument");
    return 1;
  }
  char text[32];
  x_Snprintf(text, sizeof text, "%d", value);
  arg->argument = text;
  AddTail(&job->ListOfArguments, NodeOf(arg));
  ++job->arg_count;
  return 0;
}

void BuildArgv(Node* argument, void* index, void* argv) {
  int* const i = static_cast<int*>(index);
  auto** const v = static_cast<const char**>(argv);
  v[*i] = ElementOf<Argument>(argument)->argument.c_str();
  if (*i < kLastArgvIndex) {
    ++*i;
    gbArgvOverflowReported = false;
    return;
  }
  // Entry 309 is the last one: every further argument overwrites it.
  trace("%l1 BuildArgv: WARNING: Index reached maximal value: %d", *i);
  if (gbArgvOverflowReported) return;
  gbArgvOverflowReported = true;
  char name[] = "gv_prot";
  char value[512] = {};
  glbv('r', name, value);
  if (value[0] == '?') return;
  char number[32];
  x_Snprintf(number, sizeof number, "%d", *i);
  FPROT(nullptr, msg_text(MSG_W003_CMD_WARNING), "QueueManager Submit: Argument index reached max value", number);
}

std::string JobCommandLine(Job* job) {
  const char* argv[kMaxArgvEntries + 1] = {};
  FillArgv(job, argv);
  return FormatCommandLine(argv);
}

void NotifyAndInvalidateyPeer(Peer* peer, const char* format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  answer(&peer->handle, KD_SUCCESS, "%s", text);
  peer->handle.valid = false;  // answered: later notices pass it by
}

void NotifyPeers(Job* job, const char* format, ...) {
  if (job->ListOfPeers.Head == nullptr) return;
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  for (Peer* peer : Elements<Peer>(job->ListOfPeers)) NotifyAndInvalidateyPeer(peer, "%s", text);
}

pid_t runjob(Job* job) {
  iContext = job->EntryNumb;
  trace("+++ runjob");
  WriteTime(&job->StartTime);
  NotifyPeers(job, "STATUS=SUCCESS MSG=%d\n", job->EntryNumb);

  // Everything the child needs is made here: after fork it only execs.
  const char* argv[kMaxArgvEntries + 1] = {};
  FillArgv(job, argv);
  if (strLocalLog.iLogLevel >= 2) trace("%l2 [CTX:%d] cmd [%s]", iContext, FormatCommandLine(argv).c_str());

  // The child must not replay buffered trace or stdio lines.
  v_set_log_all_close(pstrFirstLog != nullptr ? pstrFirstLog : &strLocalLog);
  std::fflush(nullptr);

  pid_t pid = -1;
  for (int remaining = kForkRetries;; --remaining) {
    pid = fork();
    if (pid >= 0) break;
    if (remaining == 0) {
      trace("%l0 [CTX:%d] Fork failed after several retries. Job will not be started. Try increasing number of "
            "supported processes 'sysctl fs.file-nr'",
            iContext);
      trace("--- runjob");
      return -1;
    }
    trace("%l1 [CTX:%d] fork failed errno = %d. Sleep and retry. Retries remaining %d", iContext, errno,
          remaining);
    sleep(1);
  }

  if (pid == 0) {
    setpgid(0, 0);
    // One call where the kernel has it; a loop of 255 closes where not.
    if (close_range(1, 255, 0) != 0) {
      for (int fd = 1; fd < 256; ++fd) close(fd);
    }
    // Standard output and error become copies of standard input.
    if (dup(0) < 0 || dup(0) < 0) {
      // Nothing to report to: the job runs without output descriptors.
    }
    if (close_range(3, ~0U, 0) != 0) {
      for (int fd = getdtablesize() - 1; fd >= 3; --fd) close(fd);
    }
    sigprocmask(SIG_UNBLOCK, &blockmaske, nullptr);
    execv(argv[0], const_cast<char* const*>(argv));
    const int err = errno;
    char message[1200];
    const int n = std::snprintf(message, sizeof message, "runjob: starting process failed %s (%d)\n",
                                std::strerror(err), err);
    if (n > 0) {
      const ssize_t ignored = write(2, message, static_cast<std::size_t>(n) < sizeof message
                                                    ? static_cast<std::size_t>(n)
                                                    : sizeof message - 1);
      (void)ignored;
    }
    _exit(127);
  }

  // The child does the same; doing it here as well means the group exists
  // before the first signal to it, however the two are scheduled.
  setpgid(pid, pid);
  job->eJobState = job_running;
  if (job->MaxAnswerStep > 0) NotifyPeers(job, "STATUS=RUNNING MSG=%ld\n", static_cast<long>(pid));
  trace("--- runjob");
  return pid;
}
