// The order of the checks in check_que_and_pending_jobs is the scheduling
// policy itself: permanent allocations before allocated queues before idle
// ones, the whole of a priority level before the next lower one.
#include "sched/selection.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "cm_kernel.h"
#include "cm_trace.h"
#include "jobs/launch.h"
#include "model/elements.h"
#include "model/global_resources.h"
#include "model/job.h"
#include "model/priority_slots.h"
#include "model/triple.h"
#include "protocol/globals.h"

namespace {

constexpr double kWeightEpsilon = 0.000001;

Job* JobOf(Node* node) { return node != nullptr ? ElementOf<Job>(node) : nullptr; }

bool IsSelector(const char* selector, const char* name) {
  return selector != nullptr && std::strcmp(selector, name) == 0;
}

/// A lazy job's resource was only a wish: from now on any resource may take it.
void ReleaseLazyJob(Job* job, QueueTriple* triple) {
  job->bLazy = false;
  job->s_preferredResource.i_resourceType = e_prt_arbitrary;
  WalkList(&triple->ExecQueues, que_set_job_request, nullptr, nullptr);
}

}  // namespace

Job* HeadJob(const List& list) { return JobOf(list.Head); }

void ForgetGlobalResourceNames(Job* job) {
  job_deregister_global_resources(job, &gGlobalResources);
  RemoveList(&job->ListOfGlobalResourceNames);
}

void ReportStartFailure() {
  trace("%l1 [CTX:%d] The Queue Manager can't execute the task", iContext);
  std::fputs("The Queue Manager can't execute the task\n", stderr);
  std::fflush(stderr);
}

// ---------------------------------------------------------------------------
// Random order
// ---------------------------------------------------------------------------

double dGetRandom(double low, double high) {
  if (low == high) return low;
  const int r = std::rand();
  return low + static_cast<double>(r) / 2147483648.0 * (high - low);
}

void SetQmRandomSeed(unsigned seed) { std::srand(seed); }

void WalkRandomExecQueues(QueueTriple* triple, VoidFnPtr3 fn, void* a, void* b) {
  List undrawn{nullptr, nullptr, Pointer2Queues};
  List order{nullptr, nullptr, Pointer2Queues};
  for (Queue* queue : Elements<Queue>(triple->ExecQueues)) {
    auto* ref = new (std::nothrow) Pointer_to_Queues{};
    if (ref == nullptr) {
      trace("%l0 WalkRandomExecQueues: ERROR: calloc for Pointer_to_Queues failed");
      std::fprintf(stderr, msg_text(MSG_FATAL_SOFTWARE_ERROR), __FILE__, __LINE__, "calloc Pointer_to_Queues");
      std::fputc('\n', stderr);
      std::exit(1);
    }
    ref->pQueue = queue;
    AddTail(&undrawn, NodeOf(ref));
  }
  trace("%l2 +++ WalkRandomExecQueues %s with %d ExecQueues, weight sum %3.2f", triple->name.c_str(),
        triple->iExecQueCount, triple->dWeightSum);

  double remaining = triple->dWeightSum;
  bool by_count = false;
  int i = 1;
  for (; i < triple->iExecQueCount; ++i) {
    if (remaining <= kWeightEpsilon) {
      trace("%l2 Attention: All remaining resources with weight %3.2f", remaining);
      remaining = triple->iExecQueCount + 1 - i;
      trace("%l2 -> Use count of resources for random range [0.0..%3.2f]", remaining);
      by_count = true;
    }
    const double r = dGetRandom(0.0, remaining);
    double low = 0.0;
    for (Pointer_to_Queues* ref : Elements<Pointer_to_Queues>(undrawn)) {
      const double weight = by_count ? 1.0 : ref->pQueue->dWeight;
      const double high = low + weight;
      trace("%l3 check range for resource %s [%3.2f..%3.2f] (weight %3.2f)", ref->pQueue->name.c_str(), low, high,
            weight);
      if (high >= r) {
        trace("%l2 %d: got resource %s: [%3.2f. %3.2f .%3.2f]", i, ref->pQueue->name.c_str(), low, r, high);
        RemNode(&undrawn, NodeOf(ref));
        AddTail(&order, NodeOf(ref));
        remaining -= weight;
        break;
      }
      low = high;
    }
  }
  // Only the first queue left joins the order: each step above draws one.
  if (Node* last = RemHead(&undrawn)) {
    const Queue* queue = ElementOf<Pointer_to_Queues>(last)->pQueue;
    trace("%l2 %d: got remaining resource %s (weigth %3.2f)", i, queue->name.c_str(), queue->dWeight);
    AddTail(&order, last);
  }

  for (Pointer_to_Queues* ref : Elements<Pointer_to_Queues>(order)) {
    trace("%l2 check resource queue %s", ref->pQueue->name.c_str());
    fn(NodeOf(ref->pQueue), a, b);
  }
  RemoveList(&order);
  RemoveList(&undrawn);
  trace("%l2 --- WalkRandomExecQueues");
}

// ---------------------------------------------------------------------------
// Match predicates
// ---------------------------------------------------------------------------

int JobAcceptsResource(const Job* job, const Queue* queue) {
  const PreferredResourceType type = job->s_preferredResource.i_resourceType;
  if (type == e_prt_arbitrary || type == e_prt_all)
    return job->server.empty() || job->server == queue->server.view() ? 1 : 0;
  for (const Resource* r : Elements<Resource>(job->s_preferredResource.l_preferredResources)) {
    if (r->cpResource != queue->name.view()) continue;
    if (r->cpServer.empty() || r->cpServer == queue->server.view()) return 1;
  }
  return 0;
}

int JobHasPlaceOnQueue(const Job* job, Queue* queue) {
  return queue->current_job_limit > 0 ||
                 HavePrioritySlotAvailable(&queue->ListOfJobLimitsByJobPriority, job->priority) != 0
             ? 1
             : 0;
}

int JobGlobalResourcesReady(Job* job) {
  return job->ListOfGlobalResourceNames.Head == nullptr || job_have_global_resources(job, &gGlobalResources) != 0
             ? 1
             : 0;
}

int JobMatches(Node* node, void* queue_arg, void* flags_arg, void* priority_arg) {
  const Job* job = ElementOf<Job>(node);
  auto* queue = static_cast<Queue*>(queue_arg);
  const int flags = ArgInt(flags_arg);
  const int priority = ArgInt(priority_arg);
  if (JobAcceptsResource(job, queue) == 0) return 0;
  ++queue->iLoopFoundJobRequest;
  const bool test_allocation = flags == 0 || (flags == 1 && priority >= job->priority);
  if (test_allocation && !queue->allocate.empty() && queue->allocate != "*" &&
      queue->allocate != job->allocate.view() && job->s_preferredResource.i_resourceType != e_prt_all)
    return 0;
  return 1;
}

int JobMatchesGLORESandPrioSlots(Node* node, void* queue_arg, void*, void*) {
  Job* job = ElementOf<Job>(node);
  return JobHasPlaceOnQueue(job, static_cast<Queue*>(queue_arg)) != 0 && JobGlobalResourcesReady(job) != 0 ? 1 : 0;
}

int JobMatchesWithGLORESandPrioSlots(Node* node, void* queue_arg, void* flags, void* priority) {
  if (JobHasPlaceOnQueue(ElementOf<Job>(node), static_cast<Queue*>(queue_arg)) == 0) return 0;
  if (JobMatches(node, queue_arg, flags, priority) == 0) return 0;
  return JobMatchesGLORESandPrioSlots(node, queue_arg, nullptr, nullptr);
}

int JobMatchesWithPrio(Job* job, Queue* queue, const int* min_priority, int flags, int priority) {
  if (job->priority < *min_priority) {
    trace("%l3 JobMatchesWithPrio: priority to low (0)");
    return 0;
  }
  return JobMatches(NodeOf(job), queue, IntArg(flags), IntArg(priority));
}

int JobRequestsResource(Node* node, void* queue_arg, void*, void*) {
  Job* job = ElementOf<Job>(node);
  auto* queue = static_cast<Queue*>(queue_arg);
  if (JobHasPlaceOnQueue(job, queue) == 0) return 0;
  const PreferredResourceType type = job->s_preferredResource.i_resourceType;
  if (type == e_prt_arbitrary || type == e_prt_all) return 0;
  if (CheckResourceList(NodeOf(queue), &job->s_preferredResource.l_preferredResources, nullptr) == 0) return 0;
  return JobGlobalResourcesReady(job);
}

int JobRequestsResourceAndAllocation(Node* node, void* queue_arg, void*, void*) {
  const Job* job = ElementOf<Job>(node);
  auto* queue = static_cast<Queue*>(queue_arg);
  if (JobHasPlaceOnQueue(job, queue) == 0) return 0;
  if (!queue->allocate.empty() && queue->allocate != "*" && queue->allocate != job->allocate.view()) return 0;
  return JobRequestsResource(node, queue_arg, nullptr, nullptr);
}

int JobRequestsAnyResourceLazy(Node* node, void* queue_arg, void*, void*) {
  Job* job = ElementOf<Job>(node);
  if (!job->bLazy) {
    trace("%l3 JobRequestsAnyResourceLazy: Resource is fixed '%s'", JobResourcesToStr(job).c_str());
    return 0;
  }
  if (JobAcceptsResource(job, static_cast<Queue*>(queue_arg)) == 0) return 0;
  return JobGlobalResourcesReady(job);
}

// ---------------------------------------------------------------------------
// Job selection on one resource queue
// ---------------------------------------------------------------------------

namespace {

/// The end of a selection that could do nothing on the queue: a stopped or
/// blocked queue hands lazy jobs that would take it to any resource.
void CloseQueueCheck(Queue* q, QueueTriple* t) {
  if (q->eState == synchronized) {
    trace("%l2 --- check_que_and_pending_jobs: %s synchronized", q->name.c_str());
    return;
  }
  if (q->eState != stopped && q->eState != blocked) {
    if (q->current_job_limit != 0)
      trace("%l2 --- check_que_and_pending_jobs: no pending jobs");
    else
      trace("%l2 --- check_que_and_pending_jobs: job limit reached for resource %s, job_limit %d", q->name.c_str(),
            q->job_limit);
    return;
  }
  trace("%l2 Queue is not running: %s", szQueState(q->eState));
  trace("%l2 Look for jobs with lazy resource == %s", q->name.c_str());
  // Two jobs at most per call: the countdown starts at 3 and stops below 1.
  int countdown = 3;
  for (;;) {
    Node* found = SearchList2(&t->PendingQue, JobRequestsAnyResourceLazy, q, nullptr, nullptr);
    if (found == nullptr) break;
    --countdown;
    trace("%l2 CountDown %d", countdown);
    if (countdown < 1) break;
    ReleaseLazyJob(ElementOf<Job>(found), t);
  }
  trace("%l2 --- check_que_and_pending_jobs: queue %s is not running", q->name.c_str());
}

/// Releases Q's allocation back to "*" and asks for a job.
void ReleaseAllocation(Queue* q) {
  q->bJobRequest = true;
  q->isAllocated = 0;
  q->allocate = "*";
}

enum class Outcome { kContinue, kEnd, kReturn };

/// Starts the chosen candidate on Q: the "-d" pair, share and state, the
/// synchronisation point, the start itself and the bookkeeping.
Outcome StartCandidate(Queue* q, QueueTriple* t, Job* job) {
  iContext = job->EntryNumb;
  if (q->name != "single") {
    if (jobAddArg_str(job, "-d") != 0 || jobAddArg_str(job, q->name.c_str()) != 0) {
      trace("%l1 [CTX:%d] --- check_que_and_pending_jobs: error unable to allocate memory for argument", iContext);
      return Outcome::kReturn;
    }
    trace("%l2 [CTX:%d] Add resource to argument list: -d %s", iContext, q->name.c_str());
  }
  if (!q->share.empty() && job->synchronize == 0)
    WalkList(&t->ExecQueues, que_set_share_pending, const_cast<char*>(q->share.c_str()), nullptr);
  q->eState = running;

  if (job->synchronize != 0) {
    q->eState = synchronized;
    ++t->iSynchronCount;
    trace("%l1 [CTX:%d] synchronize count %d/%d <?> queue %s/%s_%s", iContext, t->iSynchronCount, t->iExecQueCount,
          t->name.c_str(), q->share.c_str(), q->name.c_str());
    if (t->iSynchronCount < t->iExecQueCount) {
      trace("%l1 [CTX:%d] no execution: synchronize further resource queues", iContext);
      return Outcome::kContinue;
    }
    t->iSynchronCount = 0;
    t->status = running;
    WalkList(&t->ExecQueues, que_set_idle, nullptr, nullptr);
    q->eState = running;
    trace("%l1 [CTX:%d] now all resource queues are synchronized, reset state of resource queues to idle", iContext);
  }

  job->resourceTaken = q->name.view();
  const pid_t pid = runjob(job);
  job->PID = pid;
  RemNode(&t->PendingQue, NodeOf(job));
  if (pid == -1 || pid == 0) {
    if (pid == -1)
      ReportStartFailure();
    else
      trace("%l1 [CTX:%d] Could not get PID of job: Job has already terminated", iContext);
    ForgetGlobalResourceNames(job);
    DestroyJobChain(job);
    return Outcome::kContinue;
  }

  AddTail(&q->ListOfJobs, NodeOf(job));
  if (q->current_job_limit < 1) {
    AllocatePrioritySlot(&q->ListOfJobLimitsByJobPriority, job->priority, job->EntryNumb);
    trace("%l2 [CTX:%d] allocated priority slot for job", iContext);
  } else {
    --q->current_job_limit;
  }
  if (q->pCounter != nullptr) {
    q->pCounter->current_job_limit = q->current_job_limit;
    trace("%l2 [CTX:%d] global counter '%s' current_job_limit %d", iContext, q->pCounter->name.c_str(),
          q->pCounter->current_job_limit);
  }
  return Outcome::kContinue;
}

/// One turn of the selection loop with head job h: pick a candidate (the
/// synchronised head, or by weight, allocation, room and global resources),
/// release what a queue without candidate holds, and start the candidate.
Outcome SelectAndStart(Queue* q, QueueTriple* t, const char* selector, Job* h) {
  IntFnPtr4 predicate = JobMatchesWithGLORESandPrioSlots;
  Job* candidate = nullptr;
  const bool synchronized_head = h->synchronize != 0;

  if (synchronized_head) {
    trace("%l2 first pending job entry [%d] prio %d with synchronisation", h->EntryNumb, h->priority);
    candidate = h;
  } else {
    if (q->dWeight == 0.0) {
      if (t->dWeightSum > kWeightEpsilon) {
        predicate = t->eAllocMode == e_allocation_ignore ? JobRequestsResource : JobRequestsResourceAndAllocation;
        trace("%l2 Attention: Got resource weight %3.2f but sum weight %3.2f so only jobs which are requesting this "
              "resource [%s] are started",
              q->dWeight, t->dWeightSum, q->name.c_str());
      } else {
        trace("%l2 Got sum weight %3.2f > use all resources", t->dWeightSum);
      }
    }
    candidate = JobOf(SearchList2(&t->PendingQue, predicate, q, IntArg(0), IntArg(-1)));

    if (candidate != nullptr && predicate == JobMatchesWithGLORESandPrioSlots) {
      // A job of larger priority number that Q's allocation keeps out holds
      // the others back on Q until Q is free again.
      const Job* first =
          JobOf(SearchList2(&t->PendingQue, predicate, q, IntArg(1), IntArg(candidate->priority)));
      if (first != nullptr && first->priority > candidate->priority) {
        trace("%l2 Got job with higher priority but different allocation. Wait for jobs to complete - entry [%d] "
              "prio %d server %s",
              first->EntryNumb, first->priority, first->server.c_str());
        return Outcome::kEnd;
      }
    } else if (candidate != nullptr && candidate->bLazy) {
      // The sum is written as the text "%3,2f" itself, as this line always has.
      trace("%l2 Got lazy entry %d, job %s, allocate %s, resource %s, weight 0.0, sum weight %%3,2f",
            candidate->EntryNumb, candidate->job_name.c_str(), candidate->allocate.c_str(),
            JobResourcesToStr(candidate).c_str());
      trace("%l1 ATTENTION: Preferred resource '%s' of entry [%d] lazy job '%s' is %s",
            JobResourcesToStr(candidate).c_str(), candidate->EntryNumb, candidate->job_name.c_str(),
            q->name.c_str());
      trace("%l1    with allocate '%s', server '%s'", candidate->allocate.c_str(), candidate->server.c_str());
      trace("%l1    ==> set preferred resource to any '*'");
      ReleaseLazyJob(candidate, t);
      candidate = nullptr;
    }

    if (candidate == nullptr) {
      trace("%l2 no job requesting resource %s with allocation %s", q->name.c_str(), q->allocate.c_str());
      if (IsSelector(selector, kSelectIdle)) {
        if (q->iLoopFoundJobRequest != 0) {
          trace("%l2 Mode [%s] && %d jobs are requesting resource %s -> keep bJobRequest %d", selector,
                q->iLoopFoundJobRequest, q->name.c_str(), q->bJobRequest ? 1 : 0);
        } else {
          q->bJobRequest = false;
          trace("%l2 Mode [%s] && no job requesting resource %s -> Unset bJobRequest %d", selector, q->name.c_str(),
                q->bJobRequest ? 1 : 0);
        }
        if (q->ListOfJobs.Head == nullptr && q->isAllocated != 0) {
          if (q->eAllocMode == e_allocation_permanent) {
            trace("%l2 No running job > keep allocation %s for resource %s -> break", q->allocate.c_str(),
                  q->name.c_str());
            return Outcome::kEnd;
          }
          const std::string old(q->allocate.view());
          ReleaseAllocation(q);
          trace("%l2 No running job > release allocation %s of resource %s, set bJobRequest %d", old.c_str(),
                q->name.c_str(), q->bJobRequest ? 1 : 0);
          return Outcome::kContinue;
        }
      }
      if (q->eAllocMode == e_allocation_volatile && q->job_limit == q->current_job_limit &&
          (q->isAllocated != 0 || q->allocate != "*")) {
        const std::string old(q->allocate.view());
        ReleaseAllocation(q);
        trace("%l2 Set allocation from %s to *, bJobRequest %d because queue %s has no running jobs", old.c_str(),
              q->bJobRequest ? 1 : 0, q->name.c_str());
        trace("%l2 no matching job found");
      }
      return Outcome::kEnd;
    }

    if (candidate->ListOfGlobalResourceNames.Head != nullptr) {
      iContext = candidate->EntryNumb;
      if (job_have_global_resources(candidate, &gGlobalResources) != 0) {
        job_allocate_global_resources(candidate, &gGlobalResources);
        trace("%l2 [CTX:%d] Global resources for job %s eno %d are ready", iContext, candidate->job_name.c_str(),
              candidate->EntryNumb);
      } else {
        trace("%l2 [CTX:%d] job %s eno:%d has to wait. Global resources for job not ready", iContext,
              candidate->job_name.c_str(), candidate->EntryNumb);
        candidate = nullptr;
      }
    }
  }

  if (candidate != nullptr) {
    iContext = candidate->EntryNumb;
    if (q->isAllocated == 0) {
      trace("%l2 [CTX:%d] Resource is not allocated", iContext);
      if (!candidate->allocate.empty()) {
        q->allocate = candidate->allocate.view();
        q->isAllocated = 1;
        trace("%l1 [CTX:%d] Resource %s is now allocated to: %s", iContext, q->name.c_str(), q->allocate.c_str());
      }
    } else {
      trace("%l2 [CTX:%d] Resource is allocated for %s", iContext, q->allocate.c_str());
      if (synchronized_head && JobMatchesWithPrio(h, q, &h->priority, 0, h->priority) == 0) {
        trace("%l2 [CTX:%d] allocation differs so synchronize job must wait till resource is idle", iContext);
        candidate = nullptr;
      }
    }
  }

  if (candidate == nullptr) {
    trace("%l2 no matching job found");
    return Outcome::kEnd;
  }
  return StartCandidate(q, t, candidate);
}

}  // namespace

void check_que_and_pending_jobs(Node* node, void* triple_arg, void* selector_arg) {
  Queue* q = ElementOf<Queue>(node);
  auto* t = static_cast<QueueTriple*>(triple_arg);
  const char* selector = static_cast<const char*>(selector_arg);
  trace("%l2 +++ check_que_and_pending_jobs: resource %s, selector %s", q->name.c_str(),
        selector != nullptr ? selector : "");

  if (IsSelector(selector, kSelectPermanent) && q->eAllocMode != e_allocation_permanent) {
    trace("%l2 --- check_que_and_pending_jobs: alloc mode not allocation_permanent");
    return;
  }
  q->iLoopFoundJobRequest = 0;
  if (q->pCounter != nullptr) {
    q->current_job_limit = q->pCounter->current_job_limit;
    trace("%l2 global counter '%s', queue job_limit %d, global job_limit %d", q->pCounter->name.c_str(),
          q->job_limit, q->pCounter->job_limit);
  }
  if (q->isAllocated != 0 && q->job_limit == q->current_job_limit && q->eAllocMode != e_allocation_permanent) {
    const std::string old(q->allocate.view());
    ReleaseAllocation(q);
    trace("%l2 resetting allocation %s of resource %s, set bJobRequest %d", old.c_str(), q->name.c_str(),
          q->bJobRequest ? 1 : 0);
  }
  if (!q->bJobRequest) {
    trace("%l2 --- check_que_and_pending_jobs: bJobRequest %d: No job request for this resource %s",
          q->bJobRequest ? 1 : 0, q->name.c_str());
    return;
  }
  if (t->PendingQue.Head == nullptr || (q->eState != idle && q->eState != running) ||
      (q->current_job_limit <= 0 && HaveAnyPrioritySlotAvailable(&q->ListOfJobLimitsByJobPriority) == 0)) {
    CloseQueueCheck(q, t);
    return;
  }

  for (Job* h = HeadJob(t->PendingQue); h != nullptr; h = HeadJob(t->PendingQue)) {
    const Outcome outcome = SelectAndStart(q, t, selector, h);
    if (outcome == Outcome::kReturn) return;
    if (outcome == Outcome::kEnd) break;
    if (q->current_job_limit < 1 || q->eState == synchronized) break;
  }
  trace("%l2 --- check_que_and_pending_jobs: check done");
}
