// Job processes: launch, supervision, stop, restart policy.
//
// Every job runs as a child that leads a process group of its own, so the
// daemon signals the whole job (its grandchildren included) through the
// negated process id and reaps only that one child, never blocking.
#include "kd_hal_qm.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"
#include "kd_qm_daemon.h"
#include "qm_common.h"
#include "qm_globalresource.h"
#include "qm_queue.h"
#include "xutil.h"

uint32_t eQMOptions = 0;

time_t QmSystemNow() { return time(nullptr); }
time_t (*gQmNow)() = QmSystemNow;

namespace {

constexpr int kForkRetries = 5;
constexpr int kLastArgvIndex = kMaxArgvEntries - 1;  // 309
constexpr int kMaxAnswerFinished = 2;                // MaxAnswerStep from which FINISHED is sent

// Set when BuildArgv has reported an overflow with W003; cleared by the next
// argument that fits, so one overlong command line gives one message.
bool gbArgvOverflowReported = false;

/// The last path component of a path.
std::string_view BaseName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

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

/// Sends the same answer with code 0 to every peer of the job.
void NotifyPeers(Job* job, const char* format, ...) __attribute__((format(printf, 2, 3)));
void NotifyPeers(Job* job, const char* format, ...) {
  if (job->ListOfPeers.Head == nullptr) return;
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  for (Peer* peer : Elements<Peer>(job->ListOfPeers)) NotifyAndInvalidateyPeer(peer, "%s", text);
}

/// kill(2) that is not interrupted by our own signals.
int KillGroup(int64_t pid, int sig) {
  if (pid <= 0) {  // never our own group, never every process
    errno = ESRCH;
    return -1;
  }
  int r;
  do {
    r = kill(static_cast<pid_t>(-pid), sig);
  } while (r < 0 && errno == EINTR);
  return r;
}

/// Non-blocking wait for the job's own child only.
pid_t ReapJob(int64_t pid, int* status) {
  if (pid <= 0) return 0;  // waitpid(0 or -1) would reap children that are not this job's
  pid_t r;
  do {
    r = waitpid(static_cast<pid_t>(pid), status, WNOHANG);
  } while (r < 0 && errno == EINTR);
  return r;
}

/// Releases the global resources the job holds and deregisters every name.
void ForgetGlobalResources(Job* job) {
  if (job->bGLORESAllocated) {
    for (GlobalResourceName* r : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames))
      ReleaseGlobalResource(r->name.view(), &gGlobalResources);
    job->bGLORESAllocated = false;
  }
  for (GlobalResourceName* r : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames))
    DeregisterGlobalResource(r->name.view(), &gGlobalResources);
}

/// Synchronises the queue's global counter with the queue's own limit.
void SyncCounter(Queue* queue) {
  if (queue->pCounter == nullptr) return;
  queue->pCounter->current_job_limit = queue->current_job_limit;
  trace("%l3 [CTX:%d] JobControl: global counter '%s', current_job_limit %d", iContext,
        queue->pCounter->name.c_str(), queue->pCounter->current_job_limit);
}

/// The end of a reaped job that is not restarted: slot, follow-up or
/// removal, and the queue's free place.
void EndJob(Job* job, Queue* queue, int exit_code) {
  const int slot_released =
      ReleasePrioritySlot(&queue->ListOfJobLimitsByJobPriority, job->priority, job->EntryNumb);
  if (bRemJobStartFollow(job, queue, exit_code) && slot_released == 0) ++queue->current_job_limit;
}

}  // namespace

// ---------------------------------------------------------------------------
// Arguments
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// Launch
// ---------------------------------------------------------------------------

void NotifyAndInvalidateyPeer(Peer* peer, const char* format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  answer(&peer->handle, KD_SUCCESS, "%s", text);
  peer->handle.valid = false;  // answered: later notices pass it by
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

// ---------------------------------------------------------------------------
// Supervision
// ---------------------------------------------------------------------------

void JobControl(Node* node, void* queue_arg, void*) {
  Job* const job = ElementOf<Job>(node);
  auto* const queue = static_cast<Queue*>(queue_arg);
  iContext = job->EntryNumb;
  trace("%l3 [CTX:%d] JobControl: current queue %s original queue %s pid: %d", iContext, queue->name.c_str(),
        job->resourceTaken.c_str(), static_cast<int>(job->PID));
  if (job->PID == 0) return;
  if (job->PID < 0) {
    // Its start failed (runjob gave -1): there is no process to wait for, and
    // waitpid(-1) or kill(1) must never be reached. It ends here as a job
    // that exited with 127, like one whose program cannot be executed.
    trace("%l1 [CTX:%d] JobControl: job [%s] has no process (start failed)", iContext, job->job_name.c_str());
    AppendJobTerminationReasonExitStatus(job, "Job exited with status", 127);
    job->PID = 0;
    if (JobRestart(job, 127) <= 0) EndJob(job, queue, 127);
    SyncCounter(queue);
    return;
  }

  int status = 0;
  if (ReapJob(job->PID, &status) == static_cast<pid_t>(job->PID)) {
    // No grandchild may outlive its job.
    if (KillGroup(job->PID, SIGKILL) != 0) {
      if (errno == ESRCH)
        trace("%l3 [CTX:%d] JobControl: Can't kill the process", iContext);
      else
        trace("%l1 [CTX:%d] JobControl: Can't kill the process", iContext);
    }

    int32_t restarted = 0;
    int exit_code = 0;
    if (WIFEXITED(status)) {
      const int code = WEXITSTATUS(status);
      AppendJobTerminationReasonExitStatus(job, "Job exited with status", code);
      trace("%l2 [CTX:%d] Process clean exit - examine if restart required", iContext);
      restarted = JobRestart(job, code);
      exit_code = code;
      if (job->MaxAnswerStep >= kMaxAnswerFinished) NotifyPeers(job, "STATUS=FINISHED MSG=%d", code);
    } else if (WIFSIGNALED(status)) {
      const int sig = WTERMSIG(status);
      AppendJobTerminationReasonExitStatus(job, "Job terminated with signal", sig);
      exit_code = -sig;
      // s + 127, not the shell's 128 + s: restart conditions are matched against this value.
      restarted = JobRestart(job, sig + 127);
      if (WCOREDUMP(status)) trace("%l1 [CTX:%d] JobControl: ERROR: A core dump was generated!", iContext);
      if (job->MaxAnswerStep >= kMaxAnswerFinished) NotifyPeers(job, "STATUS=FINISHED MSG=Got signal %d", sig);
    } else if (WIFSTOPPED(status)) {
      // Not asked for with WNOHANG alone; kept so that every status has a meaning.
      const int sig = WSTOPSIG(status);
      AppendJobTerminationReasonExitStatus(job, "Job stopped with signal", sig);
      if (job->MaxAnswerStep >= kMaxAnswerFinished)
        NotifyPeers(job, "STATUS=FINISHED MSG=Process stopped with signal %d", sig);
    }
    if (restarted <= 0) EndJob(job, queue, exit_code);  // job is gone or replaced now
  }
  SyncCounter(queue);
}

bool bRemJobStartFollow(Job* job, Queue* queue, int exit_code) {
  iContext = job->EntryNumb;
  trace("[CTX:%d] +++ RemJobStartFollow", iContext);
  RemNode(&queue->ListOfJobs, NodeOf(job));

  Job* const follow = job->pFollowUpJob;
  if (follow != nullptr && (eQMOptions & follow_up) != 0) {
    if (jobAddArg_str(follow, "-i") != 0 || jobAddArg_int(follow, exit_code) != 0) {
      trace("%l1 [CTX:%d] --- RemJobStartFollow: error unable to allocate memory for argument", iContext);
      return true;
    }
    follow->iSoftKillTimeout = job->iSoftKillTimeout;
    follow->iHardKillTimeout = job->iHardKillTimeout;
    follow->resourceTaken = job->resourceTaken.view();
    if (queue->name.view() != "single") {
      if (jobAddArg_str(follow, "-d") != 0 || jobAddArg_str(follow, queue->name.c_str()) != 0) {
        trace("%l1 [CTX:%d] --- RemJobStartFollow: error unable to allocate memory for argument", iContext);
        return true;
      }
    }
    if (job->ListOfArguments.Head != nullptr) {
      const std::string base(BaseName(job->file_name.view()));
      if (jobAddArg_str(follow, "--") != 0 || jobAddArg_str(follow, base.c_str()) != 0) {
        trace("%l1 [CTX:%d] --- RemJobStartFollow: Can't get memory", iContext);
        return true;
      }
      // The job's own arguments move over as they are.
      while (Node* arg = RemHead(&job->ListOfArguments)) {
        AddTail(&follow->ListOfArguments, arg);
        ++follow->arg_count;
      }
      job->arg_count = 0;
    }
    NotifyPeers(job, "STATUS=SUCCESS MSG=%ld\n", static_cast<long>(job->PID));

    follow->EntryNumb = job->EntryNumb;
    follow->bFollowUpJobIsExecuted = true;
    job->pFollowUpJob = nullptr;
    // Hands the entry number back to the pool although the follow-up carries it on.
    DestroyJob(job);
    trace("%l2 [CTX:%d] START follow_up job [%s]", iContext, follow->file_name.c_str());
    follow->PID = runjob(follow);
    trace("%l2 [CTX:%d] pid from runjob = %ld", iContext, static_cast<long>(follow->PID));
    AddTail(&queue->ListOfJobs, NodeOf(follow));
    trace("[CTX:%d] --- RemJobStartFollow return %s", iContext, "FALSE");
    return false;
  }

  if (follow != nullptr) {
    trace("%l1 [CTX:%d] follow_up job configured [%s] but disabled!", iContext,
          std::string(BaseName(follow->file_name.view())).c_str());
    job->pFollowUpJob = nullptr;
    DestroyJobChain(follow);
  }
  NotifyPeers(job, "STATUS=SUCCESS MSG=%ld\n", static_cast<long>(job->PID));
  ForgetGlobalResources(job);
  DestroyJob(job);
  trace("[CTX:%d] --- RemJobStartFollow return %s", iContext, "TRUE");
  return true;
}

void RemJob(Job* job, List* list) {
  trace("+++ RemJob: %s, file %s eno %d", job->job_name.c_str(), job->file_name.c_str(), job->EntryNumb);
  if (Job* follow = job->pFollowUpJob) {
    trace("%l2 Remove FollowUpJob [%s] eno: %d", follow->job_name.c_str(), follow->EntryNumb);
    job->pFollowUpJob = nullptr;
    RemJob(follow, nullptr);
  }
  NotifyPeers(job, "STATUS=SUCCESS MSG=%ld\n", static_cast<long>(job->PID));
  trace("%l3 Remove list of global resource names");
  ForgetGlobalResources(job);
  if (list != nullptr) RemNode(list, NodeOf(job));
  DestroyJob(job);
  trace("--- RemJob");
}

// ---------------------------------------------------------------------------
// Stopping
// ---------------------------------------------------------------------------

void JobGracefullStop(Job* job) {
  if (job->PID == 0) return;
  iContext = job->EntryNumb;
  AppendJobTerminationReason(job, "Gracefull stop requested");
  trace("%l1 [CTX:%d] JobGracefullStop: Send signal %d to process group %d of '%s'; iHardKillTimeout=%d", iContext,
        SIGINT, static_cast<int>(job->PID), job->job_name.c_str(), job->iHardKillTimeout);
  job->iGracefullStopRequested = 1;
  job->GracefullStopRequestTimestamp = gQmNow();
  if (job->PID < 0) {
    trace("%l1 [CTX:%d] JobGracefullStop: Warning: Cannot kill process with negative PID '%ld'!", iContext,
          static_cast<long>(job->PID));
    return;
  }
  if (KillGroup(job->PID, SIGINT) != 0) trace("%l1 [CTX:%d] JobGracefullStop: Can't kill the process", iContext);
}

void JobStopControl(Job* job, Queue* queue, int immediate) {
  iContext = job->EntryNumb;
  trace("[CTX:%d] +++ JobStopControl: bImmediate %d", iContext, immediate);
  trace("%l2 [CTX:%d] stopping process %s", iContext, job->job_name.c_str());
  int status = 0;
  if (job->PID < 0) {
    trace("%l1 [CTX:%d] JobStopControl: Warning: Cannot kill process with negative PID '%ld'!", iContext,
          static_cast<long>(job->PID));
    return;
  }
  if (job->PID != 0) {
    const int64_t pid = job->PID;
    trace("%l2 [CTX:%d] stopping process %s. Sending signal %d to %d process group", iContext,
          job->job_name.c_str(), SIGINT, static_cast<int>(pid));
    KillGroup(pid, SIGINT);
    pid_t reaped = ReapJob(pid, &status);
    trace("%l3 [CTX:%d] kill complete processgroup waitpid lPid = %d errno = %d", iContext, static_cast<int>(reaped),
          reaped < 0 ? errno : 0);
    if (reaped == static_cast<pid_t>(pid)) {
      trace("%l2 [CTX:%d] complete processgroup killed with signal %d", iContext, SIGINT);
      const int slot_released =
          ReleasePrioritySlot(&queue->ListOfJobLimitsByJobPriority, job->priority, job->EntryNumb);
      // The flag "ended normally" is recorded, not the code.
      AppendJobTerminationReasonExitStatus(job, "Terminated with SIGINT", WIFEXITED(status) ? 1 : 0);
      if (bRemJobStartFollow(job, queue, -1) && slot_released == 0) ++queue->current_job_limit;
      return;
    }
    if (KillGroup(pid, SIGKILL) != 0) {
      trace("%l1 [CTX:%d] Can't kill the process group errno = %d", iContext, errno);
      return;
    }
    reaped = ReapJob(pid, &status);
    trace("%l3 [CTX:%d] waitpid after kill 9 lPid = %d errno = %d", iContext, static_cast<int>(reaped),
          reaped < 0 ? errno : 0);
    if (reaped == static_cast<pid_t>(pid)) {
      AppendJobTerminationReasonExitStatus(job, "Terminated with SIGKILL", WIFEXITED(status) ? 1 : 0);
      EndJob(job, queue, -1);
    }
    // Not reaped yet: the next JobControl sees the end as signal 9.
  }
  trace("[CTX:%d] --- JobStopControl: process terminated with state: %d", iContext, status);
  SyncCounter(queue);
}

// ---------------------------------------------------------------------------
// Restart policy
// ---------------------------------------------------------------------------

int32_t JobRestart(Job* job, int64_t exit_code) {
  iContext = job->EntryNumb;
  trace("%l2 [CTX:%d] +++ JobRestart [%s][%s]. Job exit code: %lld", iContext, job->job_name.c_str(),
        job->file_name.c_str(), static_cast<long long>(exit_code));
  if (exit_code == 0) {
    trace("%l2 [CTX:%d] --- JobRestart clean exit code", iContext);
    return 0;
  }
  const int count = CountList(&job->ListOfRestartTimes);
  const time_t now = gQmNow();
  const time_t first =
      job->ListOfRestartTimes.Head != nullptr ? ElementOf<JobRestartTime>(job->ListOfRestartTimes.Head)->RestartTime
                                              : now;
  const time_t elapsed = now - first;

  JobRestartCondition* cond = nullptr;
  for (JobRestartCondition* c : Elements<JobRestartCondition>(job->ListOfJobRestartConditions)) {
    if (c->iRestartConditionMask == exit_code) {
      cond = c;
      break;
    }
  }
  if (cond == nullptr) {
    trace("%l2 [CTX:%d] --- JobRestart iRet = %d", iContext, 0);
    return 0;
  }

  if (cond->iRestartLimitIntervalSec == 0) {
    // Without a window the burst limits the restarts of the job's life.
    if (count + 1 > cond->iRestartLimitBurst) {
      AppendJobRestart(job, "Job not restarted - job restarts too often (too many restarts)");
      trace("%l2 [CTX:%d] --- JobRestart iRet = %d", iContext, 0);
      return 0;
    }
  } else if (count + 1 > cond->iRestartLimitBurst && elapsed < cond->iRestartLimitIntervalSec) {
    AppendJobRestart(job, "Job not restarted - job restarts too often (too many restarts in time window)");
    trace("%l2 [CTX:%d] --- JobRestart iRet = %d", iContext, 0);
    return 0;
  }
  // The window slides from the oldest remembered restart; an elapsed time
  // equal to the interval neither refuses nor drops.
  if (cond->iRestartLimitIntervalSec > 0 && elapsed > cond->iRestartLimitIntervalSec) {
    if (Node* oldest = RemHead(&job->ListOfRestartTimes)) delete ElementOf<JobRestartTime>(oldest);
  }

  trace("%l1 [CTX:%d] Restarting job [%s]. Restarts executed %d limit %d. Time since first restart: %d(s)", iContext,
        job->job_name.c_str(), count, cond->iRestartLimitBurst, static_cast<int>(elapsed));
  AppendJobRestart(job, "Job restart");
  const pid_t pid = runjob(job);
  job->PID = pid;
  if (auto* t = new (std::nothrow) JobRestartTime{}) {
    t->RestartTime = now;
    AddTail(&job->ListOfRestartTimes, NodeOf(t));
  }
  trace("%l2 [CTX:%d] --- JobRestart iRet = %d", iContext, static_cast<int>(pid));
  return pid;
}

void SetPendingStateExitCode(Node* job, void* text, void*) {
  ElementOf<Job>(job)->iPendingStateExitCode = std::atoi(static_cast<const char*>(text));
}

void RunWithPendingStateExitCode(Job* job) {
  iContext = job->EntryNumb;
  trace("[CTX:%d] +++ RunWithPendingStateExitCode: %d", iContext, job->iPendingStateExitCode);
  if (job->iPendingStateExitCode != 0) {
    if (jobAddArg_str(job, "-d") == 0) jobAddArg_int(job, job->iPendingStateExitCode);
    // No custom kill program for a run that only reports.
    job->stopJobExecutable.clear();
    job->PID = runjob(job);
  }
  trace("[CTX:%d] --- RunWithPendingStateExitCode", iContext);
}
