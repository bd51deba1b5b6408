#include "jobs/supervision.h"

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "cm_trace.h"
#include "jobs/exit_log.h"
#include "jobs/launch.h"
#include "jobs/restart.h"
#include "model/global_resources.h"
#include "model/job.h"
#include "model/priority_slots.h"
#include "model/triple.h"
#include "protocol/globals.h"

namespace {

constexpr int kMaxAnswerFinished = 2;  // MaxAnswerStep from which FINISHED is sent

/// The last path component of a path.
std::string_view BaseName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
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
