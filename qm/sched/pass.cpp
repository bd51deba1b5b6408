// ProcessQueTriple runs once per main-loop cycle for every queue triple. The
// order of its steps is the scheduling policy itself: reaping before
// starting, retiring before moving, moving before offering.
#include "sched/pass.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "cm_trace.h"
#include "jobs/admin_queue.h"
#include "jobs/launch.h"
#include "jobs/restart.h"
#include "jobs/supervision.h"
#include "model/job.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "sched/selection.h"

namespace {

/// Broken-down local time of t, as the records keep it.
QMTime LocalQMTime(time_t t) {
  struct tm tm {};
  localtime_r(&t, &tm);
  return QMTime{tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

/// True when time is at or before now, compared from the year down to the second.
bool TimeReached(const QMTime& time, const QMTime& now) {
  const int a[] = {time.year, time.month, time.day, time.hour, time.min, time.sec};
  const int b[] = {now.year, now.month, now.day, now.hour, now.min, now.sec};
  for (int i = 0; i < 6; ++i)
    if (a[i] != b[i]) return a[i] < b[i];
  return true;
}

/// First job of the list for which the time test holds at now.
Job* FirstJob(List* list, int (*test)(Job*, time_t), time_t now) {
  for (Job* job : Elements<Job>(*list))
    if (test(job, now) != 0) return job;
  return nullptr;
}

/// One scheduling pass of the selector over the triple's resource queues, in
/// list order or in weighted random order as the triple's decision mode says.
void OfferPendingJobs(QueueTriple* triple, const char* selector) {
  auto* sel = const_cast<char*>(selector);
  if (triple->eDecMode == e_decision_random || triple->eDecMode == e_decision_weight)
    WalkRandomExecQueues(triple, check_que_and_pending_jobs, triple, sel);
  else
    WalkList(&triple->ExecQueues, check_que_and_pending_jobs, triple, sel);
}

/// Expiry of the waiting jobs of one list (holding or pending).
void ExpireWaitingJobs(List* list, int32_t flag, const char* where, time_t now) {
  // One walk from the head: retiring a job leaves the others in place, and a
  // job found not expired stays so for this now.
  for (Job* job : Elements<Job>(*list)) {
    if (JobTimeExpired(job, now) == 0) continue;
    iContext = job->EntryNumb;
    if ((job->iLogFlags & flag) == 0) {
      trace("%l1 [CTX:%d] Job [%s] entity id %d has expired on %s queue", iContext, job->job_name.c_str(),
            job->EntryNumb, where);
      job->iLogFlags |= flag;
    }
    RemNode(list, NodeOf(job));
    ForgetGlobalResourceNames(job);
    char text[128];
    std::snprintf(text, sizeof text, "STATUS=SUCCESS MSG=Job start time expired: %d\n", job->iPendingStateExitCode);
    for (Peer* peer : Elements<Peer>(job->ListOfPeers)) NotifyAndInvalidateyPeer(peer, "%s", text);
    if (job->iPendingStateExitCode != 0) {
      JobToAdminQueueTerminate(job, nullptr);
      RunWithPendingStateExitCode(job);
    } else {
      // Nothing is left to run for it: the record goes, its entry number returns.
      RemJob(job, nullptr);
    }
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// The pass
// ---------------------------------------------------------------------------

int checktime(List* holding_que) {
  const Job* head = HeadJob(*holding_que);
  if (head == nullptr) return 0;
  return TimeReached(head->Time, LocalQMTime(gQmNow())) ? 1 : 0;
}

void check_holding_que(QueueTriple* triple) {
  trace("%l2 +++ check_holding_que");
  while (checktime(&triple->HoldingQue) != 0) {
    Job* job = ElementOf<Job>(RemHead(&triple->HoldingQue));
    iContext = job->EntryNumb;
    if (Node* before = SearchList(&triple->PendingQue, Priority, IntArg(job->priority), nullptr)) {
      PreInsert(&triple->PendingQue, before, NodeOf(job));
      trace("%l2 check_holding_que: PreInsert Entry Number %d", job->EntryNumb);
    } else {
      AddTail(&triple->PendingQue, NodeOf(job));
      trace("%l2 check_holding_que: AddTail Entry Number %d", job->EntryNumb);
    }
    const PreferredResourceType type = job->s_preferredResource.i_resourceType;
    if (type == e_prt_arbitrary || type == e_prt_all) {
      WalkList(&triple->ExecQueues, que_set_job_request, nullptr, nullptr);
    } else {
      int matched = 0;
      for (Queue* queue : Elements<Queue>(triple->ExecQueues))
        matched += CheckResourceListSetJobRequest(NodeOf(queue), &job->s_preferredResource.l_preferredResources,
                                                  nullptr);
      if (matched == 0) trace("%l1 check_holding_que: Error resource list does not match");
    }
  }
  trace("%l2 --- check_holding_que");
}

void check_start_overdue_jobs(QueueTriple* triple) {
  const time_t now = gQmNow();
  Job* job = FirstJob(&triple->HoldingQue, JobStartTimeExpired, now);
  if (job != nullptr) {
    iContext = job->EntryNumb;
    trace("%l1 [CTX:%d] Job %s eno %d start time expired on holding queue", iContext, job->job_name.c_str(),
          job->EntryNumb);
    RemNode(&triple->HoldingQue, NodeOf(job));
    ForgetGlobalResourceNames(job);
  } else if ((job = FirstJob(&triple->PendingQue, JobStartTimeExpired, now)) != nullptr) {
    iContext = job->EntryNumb;
    trace("%l1 [CTX:%d] Job %s eno %d start time  expired on pending queue", iContext, job->job_name.c_str(),
          job->EntryNumb);
    RemNode(&triple->PendingQue, NodeOf(job));
    ForgetGlobalResourceNames(job);
  }
  if (job == nullptr) return;

  // Still run, outside any resource ("-d -1"), so that it reports its own overdue start.
  JobToAdminQueueTerminate(job, nullptr);
  if (jobAddArg_str(job, "-d") != 0 || jobAddArg_int(job, -1) != 0) return;
  job->stopJobExecutable.clear();
  const pid_t pid = runjob(job);
  job->PID = pid;
  if (pid == -1)
    ReportStartFailure();
  else if (pid == 0)
    trace("%l1 [CTX:%d] Couldn't get pid of task: task finished yet", iContext);
}

void check_expired_jobs(QueueTriple* triple) {
  const time_t now = gQmNow();
  ExpireWaitingJobs(&triple->HoldingQue, kLogExpiredHolding, "holding", now);
  ExpireWaitingJobs(&triple->PendingQue, kLogExpiredPending, "pending", now);

  // The search starts from the first queue each time: one job may be handled
  // more than once per call, the budget bounds the work.
  time_t at = now;
  for (int budget = triple->iExecQueCount; budget > 0;) {
    Node* found = SearchList(&triple->ExecQueues, QueCheckJobExpired, &at, nullptr);
    if (found == nullptr) break;
    --budget;
    trace("%l2 list contains expired object (%d)", budget);
    Queue* queue = ElementOf<Queue>(found);
    Job* job = FirstJob(&queue->ListOfJobs, JobTimeExpired, now);
    if (job == nullptr) break;
    iContext = job->EntryNumb;
    if ((job->iLogFlags & kLogExpiredExec) == 0) {
      trace("%l1 [CTX:%d] Job [%s] PID %d has expired on exec queue. Waiting for job to terminate", iContext,
            job->job_name.c_str(), static_cast<int>(job->PID));
      job->iLogFlags |= kLogExpiredExec;
    }
    if (job->iGracefullStopRequested != 0) {
      if (JobGracefullStopPeriodExpired(job) != 0) JobStopControl(job, queue, 1);
    } else if (JobHasCustomKillProcess(job) != 0) {
      RunCustomKillProcess(job);
    } else {
      JobGracefullStop(job);
    }
  }
}

void check_executing_que(Node* node, void* triple_arg, void*) {
  Queue* queue = ElementOf<Queue>(node);
  auto* triple = static_cast<QueueTriple*>(triple_arg);
  const char* state = szQueState(queue->eState);
  if (queue->eState == idle && queue->ListOfJobs.Head == nullptr) {
    trace("%l3 check_executing_que: Resource %s is %s", queue->name.c_str(), state);
    return;
  }
  const bool stop_all = queue->eState == stopped || triple->status == stopped;
  if (queue->eState == stopped)
    trace("%l2 +++ check_executing_que: Resource %s is %s so kill executing jobs and clear their entries",
          queue->name.c_str(), state);
  else if (triple->status == stopped)
    trace("%l2 +++ check_executing_que: QueTriple is %s for resource %s with state %s kill executing jobs and clear "
          "their entries",
          szQueState(triple->status), queue->name.c_str(), state);
  else
    trace("%l2 +++ check_executing_que: Resource %s is %s check for exited jobs and clear their entries",
          queue->name.c_str(), state);

  if (stop_all)
    for (Job* job : Elements<Job>(queue->ListOfJobs)) JobStopControl(job, queue, 0);
  WalkList(&queue->ListOfJobs, JobControl, queue, nullptr);
  if (stop_all || queue->eState != running || queue->ListOfJobs.Head != nullptr) return;

  if (!queue->share.empty()) {
    trace("%l1 Resource: %s: all jobs done set shared resources to idle", queue->name.c_str());
    // A copy: the walk passes this queue too and must compare against a stable text.
    std::string share(queue->share.view());
    WalkList(&triple->ExecQueues, que_set_share_idle, triple, share.data());
    return;
  }
  queue->eState = idle;
  queue->bJobRequest = true;
  trace("%l1 Resource %s all jobs done -> set to idle, set bJobRequest %d", queue->name.c_str(),
        queue->bJobRequest ? 1 : 0);
  switch (queue->eAllocMode) {
    case e_allocation_permanent:
    case e_allocation_volatile: queue->isAllocated = 0; break;
    case e_allocation_occupied: break;
    default:
      queue->isAllocated = 0;
      queue->allocate.clear();
      break;
  }
  trace("%l2 Reset allocation due to AllocationMode [%s]", szAllocationMode(triple->eAllocMode));
}

void ProcessQueTriple(QueueTriple* triple) {
  trace("%l2 +++ ProcessQueTriple %s", triple->name.c_str());
  WalkList(&triple->ExecQueues, check_executing_que, triple, nullptr);
  check_start_overdue_jobs(triple);
  check_expired_jobs(triple);
  // A stopped or blocked triple still reaps and expires jobs but starts none.
  if (triple->status != running && triple->status != synchronized) {
    trace("%l2 --- ProcessQueTriple %s is %s", triple->name.c_str(), szQueState(triple->status));
    return;
  }
  if (triple->HoldingQue.Head != nullptr) check_holding_que(triple);
  Job* head = HeadJob(triple->PendingQue);
  if (head == nullptr) {
    trace("%l2 --- ProcessQueTriple");
    return;
  }

  if (head->synchronize != 0) {
    if (triple->status == running) {
      trace("%l1 synchronize multi queue for job %s eno %d", head->job_name.c_str(), head->EntryNumb);
      triple->status = synchronized;
      trace("%l1 set state to running for all resource queues");
      WalkList(&triple->ExecQueues, que_set_idle, nullptr, nullptr);
    }
    WalkList(&triple->ExecQueues, check_que_and_pending_jobs, triple, const_cast<char*>(kSelectIdle));
    trace("%l2 --- ProcessQueTriple");
    return;
  }

  // The cascade goes on to the next lower level only when the whole level
  // just served has left the pending queue; a head of priority 0 never
  // cascades, as no level is below 0.
  int served = 1;
  int head_level = 0;
  while (triple->PendingQue.Head != nullptr && head_level < served) {
    if (head_level != 0)
      trace("%l2 All pending jobs with highest prio %d started. Try to start jobs with prio %d", served, head_level);
    served = HeadJob(triple->PendingQue)->priority;
    OfferPendingJobs(triple, kSelectPermanent);
    if (triple->eAllocMode != e_allocation_ignore) {
      OfferPendingJobs(triple, kSelectAllocated);
      if (triple->PendingQue.Head != nullptr) {
        served = HeadJob(triple->PendingQue)->priority;
        OfferPendingJobs(triple, kSelectIdle);
      }
    } else {
      OfferPendingJobs(triple, kSelectIdle);
    }
    head_level = triple->PendingQue.Head != nullptr ? HeadJob(triple->PendingQue)->priority : served;
  }
  trace("%l2 --- ProcessQueTriple");
}

namespace {

/// The last walk left every triple at rest and no request has unsettled them since.
bool gTriplesSettled = false;

}  // namespace

bool TripleAtRest(const QueueTriple* triple) {
  // A resource queue without jobs changes only while running (to idle); any
  // other state stays as it is until a request or a job comes.
  if (triple->HoldingQue.Head != nullptr || triple->PendingQue.Head != nullptr) return false;
  for (const Node* n = triple->ExecQueues.Head; n != nullptr; n = n->Next) {
    const Queue* queue = reinterpret_cast<const Queue*>(n);
    if (queue->eState == running || queue->ListOfJobs.Head != nullptr) return false;
  }
  return true;
}

void UnsettleQueTriples() { gTriplesSettled = false; }

void ProcessAllQueTriples() {
  // Every answer writer's end brings a pass over all triples: with thousands
  // of queues and no job anywhere, the walk itself would be the daemon's
  // main cost.
  const bool flow_traced = strLocalLog.iLogLevel >= 2;
  if (gTriplesSettled && JobTally::alive == 0 && !flow_traced) return;
  bool settled = true;
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    if (!flow_traced && TripleAtRest(triple)) continue;
    ProcessQueTriple(triple);
    settled = settled && TripleAtRest(triple);
  }
  gTriplesSettled = settled;
}
