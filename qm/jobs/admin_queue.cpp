#include "jobs/admin_queue.h"

#include <ctime>
#include <new>

#include "cm_trace.h"
#include "jobs/exit_log.h"
#include "jobs/launch.h"
#include "jobs/supervision.h"
#include "model/job.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "xutil.h"

QueueTriple* gAdminQueue = nullptr;
List gJobStack{nullptr, nullptr, Jobs};

int InitQMAdminQueue() {
  trace("+++ InitQMAdminQueue");
  QueueTriple* triple = NewQueTriple("qu_admin", 1);
  if (triple == nullptr) {
    trace("%l1 --- InitQMAdminQueue: cannot allocate the admin queue");
    return -1;
  }
  Queue* const terminating = triple->TerminatingQueue.get();
  terminating->name = "qu_admin_terminating";
  terminating->eState = running;
  InitList(&terminating->ListOfJobs, Jobs);
  InitList(&terminating->ListOfJobLimitsByJobPriority, JobLimitsByJobPriority);
  // In the root list, so that the listings show it.
  LinkQueTriple(triple);
  gAdminQueue = triple;
  InitList(&gJobStack, Jobs);
  trace("--- InitQMAdminQueue");
  return 0;
}

void JobToAdminQueueTerminate(Job* job, Queue* queue) {
  trace("%l2 [CTX:%d] JobToAdminQueueTerminate [%s] eno:%d soft kill timeout = %d[s] hard kill timeout = %d[s]",
        job->EntryNumb, job->job_name.c_str(), job->EntryNumb, job->iSoftKillTimeout, job->iHardKillTimeout);
  if (queue != nullptr) RemNode(&queue->ListOfJobs, NodeOf(job));
  if (gAdminQueue == nullptr) {
    // Only before start-up: the job stays with the caller, unlinked.
    trace("%l1 [CTX:%d] JobToAdminQueueTerminate: no admin queue for job [%s]", job->EntryNumb,
          job->job_name.c_str());
    return;
  }
  AddTail(&gAdminQueue->TerminatingQueue->ListOfJobs, NodeOf(job));
}

void ProcessQMAdminQueue() { TerminateTerminatingJobs(); }

void TerminateTerminatingJobs() {
  if (gAdminQueue == nullptr) return;
  trace("%l2 +++ TerminateTerminatingJobs");
  Queue* const terminating = gAdminQueue->TerminatingQueue.get();
  // Ended children first, so that the stages below see only living jobs.
  WalkList(&terminating->ListOfJobs, JobControl, terminating, nullptr);
  WalkList(&terminating->ListOfJobs, ProcessTerminatingQueJob, terminating, nullptr);
  trace("%l2 --- TerminateTerminatingJobs");
}

void ProcessTerminatingQueJob(Node* node, void* queue_arg, void*) {
  Job* const job = ElementOf<Job>(node);
  Queue* const queue = queue_arg != nullptr ? static_cast<Queue*>(queue_arg) : gAdminQueue->TerminatingQueue.get();
  iContext = job->EntryNumb;
  trace("%l2 [CTX:%d] Terminating job [%s] eno:%d", iContext, job->job_name.c_str(), job->EntryNumb);
  if (MinimalJobRunTimeExpired(job) == 0) {
    trace("%l3 [CTX:%d] Job not expired yet. Minimal runtime not met", iContext);
    return;
  }
  if (job->iGracefullStopRequested == 0) {
    if (JobHasCustomKillProcess(job) != 0)
      RunCustomKillProcess(job);
    else
      JobGracefullStop(job);
    // A hard timeout of 0 goes on to the kill in this very pass.
    if (job->iHardKillTimeout != 0) return;
  }
  if (gQmNow() - job->GracefullStopRequestTimestamp >= job->iHardKillTimeout) {
    trace("%l1 [CTX:%d] Job graceful stop timeout expired - terminating job", iContext);
    JobStopControl(job, queue, 1);
  }
}

int MinimalJobRunTimeExpired(Job* job) {
  struct tm start {};
  start.tm_year = job->StartTime.year - 1900;
  start.tm_mon = job->StartTime.month - 1;
  start.tm_mday = job->StartTime.day;
  start.tm_hour = job->StartTime.hour;
  start.tm_min = job->StartTime.min;
  start.tm_sec = job->StartTime.sec;
  // Read as standard time even in summer: the wait is then one hour longer.
  start.tm_isdst = 0;
  const time_t started = mktime(&start);
  return gQmNow() - started >= job->iSoftKillTimeout ? 1 : 0;
}

int JobGracefullStopPeriodExpired(Job* job) {
  // Strictly greater here; the terminating queue kills at "at least".
  return job->iGracefullStopRequested != 0 && gQmNow() - job->GracefullStopRequestTimestamp > job->iHardKillTimeout
             ? 1
             : 0;
}

int JobHasCustomKillProcess(Job* job) { return job->stopJobExecutable.empty() ? 0 : 1; }

void RunCustomKillProcess(Job* job) {
  iContext = job->EntryNumb;
  const int context = job->EntryNumb;
  trace("%l1 [CTX:%d] ++RunCustomKillProcess", context);
  AppendJobTerminationReason(job, "Custom kill process");
  // Set before the kill job runs, so that no later pass starts a second one.
  job->iGracefullStopRequested = 1;
  job->GracefullStopRequestTimestamp = gQmNow();
  job->CustomStopJobExecuted = true;

  auto* kill_job = new (std::nothrow) Job{};
  if (kill_job == nullptr) {
    trace("%l1 [CTX:%d] --RunCustomKillProcess: cannot allocate memory for the kill job", context);
    return;
  }
  kill_job->iSoftKillTimeout = job->iSoftKillTimeout;
  kill_job->iHardKillTimeout = job->iHardKillTimeout;
  kill_job->file_name = job->stopJobExecutable.view();
  char text[1100];
  x_Snprintf(text, sizeof text, "custom_kill_%s", job->job_name.c_str());
  kill_job->job_name = text;

  char pid[32];
  char entry[32];
  char hard[32];
  x_Snprintf(pid, sizeof pid, "%ld", static_cast<long>(job->PID));
  x_Snprintf(entry, sizeof entry, "%d", job->EntryNumb);
  x_Snprintf(hard, sizeof hard, "%d", job->iHardKillTimeout);
  x_Snprintf(text, sizeof text, "\"%s\"", job->file_name.c_str());
  // Whom to stop, how long it may take, and the job's whole command.
  int failed = 0;
  for (const char* arg : {"-p", static_cast<const char*>(pid), "-n", static_cast<const char*>(entry), "-j",
                          job->job_name.c_str(), "-d", job->resourceTaken.c_str(), "-w",
                          static_cast<const char*>(hard), "--", static_cast<const char*>(text)})
    failed |= jobAddArg_str(kill_job, arg);
  for (Argument* arg : Elements<Argument>(job->ListOfArguments))
    failed |= jobAddArg_str(kill_job, arg->argument.c_str());
  if (failed != 0) {
    trace("%l1 [CTX:%d] --RunCustomKillProcess: cannot allocate memory for argument", context);
    DestroyJob(kill_job);
    return;
  }

  kill_job->PID = runjob(kill_job);
  iContext = context;
  if (kill_job->PID <= 0) {
    // Without a process there is nothing to supervise; a pid of -1 must
    // never reach the non-blocking wait of the terminating queue.
    trace("%l1 [CTX:%d] --RunCustomKillProcess: kill program [%s] could not be started", context,
          kill_job->file_name.c_str());
    DestroyJob(kill_job);
    return;
  }
  JobToAdminQueueTerminate(kill_job, nullptr);
  trace("%l1 [CTX:%d] --RunCustomKillProcess", context);
}
