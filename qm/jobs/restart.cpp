#include "jobs/restart.h"

#include <cstdlib>
#include <new>

#include "cm_trace.h"
#include "jobs/exit_log.h"
#include "jobs/launch.h"
#include "protocol/globals.h"

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
    // A failed allocation is traced where it failed; the run goes on without the code.
    if (jobAddArg_str(job, "-d") == 0) static_cast<void>(jobAddArg_int(job, job->iPendingStateExitCode));
    // No custom kill program for a run that only reports.
    job->stopJobExecutable.clear();
    job->PID = runjob(job);
  }
  trace("[CTX:%d] --- RunWithPendingStateExitCode", iContext);
}
