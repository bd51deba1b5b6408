#include "jobs/removal.h"

#include <ctime>
#include <new>

#include "cm_trace.h"
#include "jobs/admin_queue.h"
#include "jobs/exit_log.h"
#include "jobs/restart.h"
#include "jobs/supervision.h"
#include "model/job.h"
#include "model/priority_slots.h"
#include "model/triple.h"
#include "protocol/globals.h"

void RemoveResourceQue(Queue* queue, List* list) {
  trace("%l2 +++ RemoveResourceQue %s", queue->name.c_str());
  for (Job* job : Elements<Job>(queue->ListOfJobs)) JobStopControl(job, queue, 1);
  // A job that was not reaped right after its SIGKILL must not go down with
  // its queue: the terminating queue reaps it on the next pass.
  for (Job* job : Elements<Job>(queue->ListOfJobs)) JobToAdminQueueTerminate(job, queue);
  DestroyPriorityList(&queue->ListOfJobLimitsByJobPriority);
  RemNode(list, NodeOf(queue));
  delete queue;
  trace("%l2 --- RemoveResourceQue");
}

namespace {

/// Hands every waiting job of a list to the admin queue and runs it with its
/// pending-state exit code unless that code is 0.
void terminate_waiting_jobs(List* jobs) {
  for (Job* job : Elements<Job>(*jobs)) {
    RemNode(jobs, NodeOf(job));
    const int code = job->iPendingStateExitCode;
    JobToAdminQueueTerminate(job, nullptr);
    if (code != 0) {
      RunWithPendingStateExitCode(job);
    } else {
      // Code 0: the job is not to run at all. It would never end in the
      // terminating queue (it has no process), so it is removed there.
      RemJob(job, gAdminQueue != nullptr ? &gAdminQueue->TerminatingQueue->ListOfJobs : nullptr);
    }
  }
}

}  // namespace

void RemoveQueTriple(List* root, QueueTriple* triple) {
  trace("%l2 +++ RemoveQueTriple %s", triple->name.c_str());
  if (root == &Root)
    UnlinkQueTriple(triple);
  else
    RemNode(root, NodeOf(triple));
  terminate_waiting_jobs(&triple->HoldingQue);
  terminate_waiting_jobs(&triple->PendingQue);
  for (Queue* queue : Elements<Queue>(triple->ExecQueues)) RemoveResourceQue(queue, &triple->ExecQueues);
  delete triple;
  trace("%l2 --- RemoveQueTriple");
}

int QueDelQueEntry(Node* node, void* entry, void*) {
  Queue* queue = ElementOf<Queue>(node);
  Node* found = SearchList(&queue->ListOfJobs, EntryNumber, entry, nullptr);
  if (found == nullptr) return 0;
  JobStopControl(ElementOf<Job>(found), queue, 0);
  return 1;
}

namespace {

/// Where a job of a triple was found.
struct EntryPlace {
  Job* job = nullptr;
  List* list = nullptr;    ///< the holding or pending queue, or the executing queue's job list
  Queue* queue = nullptr;  ///< the executing queue; null for a waiting job
};

EntryPlace FindEntry(QueueTriple* triple, int entry, bool with_executing) {
  EntryPlace place;
  for (List* list : {&triple->HoldingQue, &triple->PendingQue}) {
    if (Node* node = SearchList(list, EntryNumber, IntArg(entry), nullptr)) {
      place.job = ElementOf<Job>(node);
      place.list = list;
      return place;
    }
  }
  if (!with_executing) return place;
  for (Queue* queue : Elements<Queue>(triple->ExecQueues)) {
    if (Node* node = SearchList(&queue->ListOfJobs, EntryNumber, IntArg(entry), nullptr)) {
      place.job = ElementOf<Job>(node);
      place.list = &queue->ListOfJobs;
      place.queue = queue;
      return place;
    }
  }
  return place;
}

/// The local time of the given second as a record time.
QMTime TimeAt(time_t when) {
  struct tm tm {};
  localtime_r(&when, &tm);
  return tm_time_to_Time(tm);
}

/// Sets the job's latest completion time.
void SetEndTime(Job* job, time_t when) {
  job->MaxCompleteTimestamp = TimeAt(when);
  job->MaxCompleteTimestampSet = true;
}

/// Removes a waiting job, or stops an executing one; 1 when found.
int DeleteEntry(QueueTriple* triple, Query* q, const char* reason) {
  const EntryPlace place = FindEntry(triple, q->EntryNumb, false);
  if (place.job != nullptr) {
    iContext = place.job->EntryNumb;
    if (reason != nullptr) AppendJobTerminationReason(place.job, reason);
    RemJob(place.job, place.list);
    return 1;
  }
  return SearchList(&triple->ExecQueues, QueDelQueEntry, IntArg(q->EntryNumb), nullptr) != nullptr ? 1 : 0;
}

}  // namespace

int QueDelEntry(QueueTriple* triple, Query* q) {
  trace("%l2 +++ QueDelEntry: entry %d in [%s]", q->EntryNumb, triple->name.c_str());
  const int found = DeleteEntry(triple, q, nullptr);
  trace("%l2 --- QueDelEntry: %d", found);
  return found;
}

int QueDelExpiredEntry(QueueTriple* triple, Query* q) {
  trace("%l2 +++ QueDelExpiredEntry: entry %d in [%s]", q->EntryNumb, triple->name.c_str());
  const int found = DeleteEntry(triple, q, "Job expired");
  trace("%l2 --- QueDelExpiredEntry: %d", found);
  return found;
}

int QueJobMaxCompleteTimestamp(QueueTriple* triple, Query* q) {
  trace("%l2 +++ QueJobMaxCompleteTimestamp: entry %d in [%s]", q->EntryNumb, triple->name.c_str());
  const EntryPlace place = FindEntry(triple, q->EntryNumb, true);
  if (place.job == nullptr) {
    trace("%l2 --- QueJobMaxCompleteTimestamp: entry %d not found", q->EntryNumb);
    return 0;
  }
  Job* const job = place.job;
  iContext = job->EntryNumb;
  auto* peer = new (std::nothrow) Peer{};
  if (peer == nullptr) {
    trace("%l1 QueJobMaxCompleteTimestamp: cannot allocate memory for Peer");
    return 0;
  }
  peer->handle = q->peer;
  const time_t now = gQmNow();
  if (place.queue == nullptr) {
    // The next scheduling pass expires it.
    SetEndTime(job, now);
  } else {
    SetEndTime(job, now + q->Timeout);
    if (job->CustomStopJobExecuted)
      JobGracefullStop(job);  // NOLINT(bugprone-branch-clone): a kill program runs only once
    else if (JobHasCustomKillProcess(job) != 0)
      RunCustomKillProcess(job);
    else
      JobGracefullStop(job);
  }
  // Answered when the job is finally removed.
  AddTail(&job->ListOfPeers, NodeOf(peer));
  trace("%l2 --- QueJobMaxCompleteTimestamp");
  return 1;
}

int QueJobDeleteNonExecuting(QueueTriple* triple, Query* q) {
  trace("%l2 +++ QueJobDeleteNonExecuting: entry %d in [%s]", q->EntryNumb, triple->name.c_str());
  trace("%l3 Examine holding queues");
  Node* node = SearchList(&triple->HoldingQue, EntryNumber, IntArg(q->EntryNumb), nullptr);
  if (node == nullptr) {
    trace("%l3 Examine pending queues");
    node = SearchList(&triple->PendingQue, EntryNumber, IntArg(q->EntryNumb), nullptr);
  }
  if (node == nullptr) {
    trace("%l2 --- QueJobDeleteNonExecuting: entry %d not waiting", q->EntryNumb);
    return 0;
  }
  Job* const job = ElementOf<Job>(node);
  iContext = job->EntryNumb;
  auto* peer = new (std::nothrow) Peer{};
  if (peer == nullptr) {
    trace("%l1 QueJobDeleteNonExecuting: cannot allocate memory for Peer");
    return 0;
  }
  peer->handle = q->peer;
  SetEndTime(job, gQmNow());
  AddTail(&job->ListOfPeers, NodeOf(peer));
  trace("%l2 --- QueJobDeleteNonExecuting");
  return 1;
}
