// The submit requests: the daemon-side admission of a new job. CreateJob
// builds the record; here it gets its entry number, its allocation and
// resource wishes, is checked against the queue triple and put into the
// holding queue in start-time order, and a scheduling pass follows at once
// so that a job whose time has come starts before the answer is sent.
#include "requests/submit.h"

#include <cstring>
#include <string>
#include <string_view>

#include "cm_common.h"
#include "cm_trace.h"
#include "jobs/exit_log.h"
#include "model/entry_pool.h"
#include "model/global_resources.h"
#include "model/job.h"
#include "model/job_grammar.h"
#include "model/list.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "sched/pass.h"

namespace {

/// A refusal after admission: the entry number stays out of the pool and the
/// global-resource registrations stay counted, as for a job that is kept;
/// only the memory of the record is given back.
void DropRefusedJob(Job* job) {
  job->EntryNumb = 0;
  DestroyJobChain(job);
}

JobType JobTypeOf(cmd_mode mode) {
  switch (mode) {
    case queue_submit_sync: return sync_queued;
    case queue_submit_proc_only: return queued_stop_proc_only;
    default: return queued;
  }
}

/// The resource queue the job prefers: the first one its resource list names.
Queue* PreferredQueue(QueueTriple* triple, Job* job) {
  Node* node =
      SearchList(&triple->ExecQueues, CheckResourceList, &job->s_preferredResource.l_preferredResources, nullptr);
  return node != nullptr ? ElementOf<Queue>(node) : nullptr;
}

/// Inserts the job in front of the first holding job that starts later (to
/// the minute), else at the tail: jobs of the same minute keep their order.
void InsertHolding(QueueTriple* triple, Job* job) {
  for (Job* other : Elements<Job>(triple->HoldingQue)) {
    if (JobTime(other, &job->Time) != 0) {
      PreInsert(&triple->HoldingQue, NodeOf(other), NodeOf(job));
      return;
    }
  }
  AddTail(&triple->HoldingQue, NodeOf(job));
}

}  // namespace

int process_que_submit(Query* q, const char* allocate, const char* resource) {
  trace("%l2 +++ process_que_submit: %s", q->que_name);
  Query copy = *q;
  char message[1024] = {};
  Job* job = CreateJob(&copy, nullptr, message, sizeof message);
  if (job == nullptr) {
    trace("%l1 --- process_que_submit: %s", message);
    answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=%s\n", message);
    return 1;
  }
  job->jobType = JobTypeOf(q->function);

  const int32_t entry = QmEntry_fetch();
  if (entry <= 0) {
    trace("%l1 --- process_que_submit: Can't get entry number");
    answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Can't get entry number\n");
    DestroyJobChain(job);
    return 1;
  }
  job->EntryNumb = entry;
  iContext = entry;
  trace("%l1 [CTX:%d] Allocated entry number [%d] for job [%s] filename [%s]", iContext, entry,
        job->job_name.c_str(), job->file_name.c_str());
  JobCreatedKdQmExitLog(job);

  // The resource wish is the first "/"-separated piece behind the allocation.
  job->allocate = allocate != nullptr ? allocate : "";
  std::string_view wish = resource != nullptr ? resource : "";
  wish = wish.substr(0, wish.find('/'));
  if (wish.empty()) wish = "*";

  QueueTriple* triple = FindQueTriple(q->que_name);
  std::string resource_text;
  getResourceList(triple, wish, &resource_text, &job->s_preferredResource.l_preferredResources);
  const PreferredResourceType type = SpecifyJobResource(job);
  {
    std::string share, name, server;
    getResourceNames(wish.substr(0, wish.find_first_of(", ")), &share, &name, &server);
    job->server = server;
  }

  if (type == e_prt_all) {
    job->synchronize = 1;
    trace("%l2 [CTX:%d] resource = all >> synchronisation is requested", iContext);
  } else {
    job->synchronize = 0;
    trace("%l2 [CTX:%d] no synchronisation is requested", iContext);
    job->bLazy = q->bLazy;
    if (job->bLazy)
      trace("%l2 [CTX:%d] lazy preferred resource '%s'", iContext, JobResourcesToStr(job).c_str());
    else
      trace("%l2 [CTX:%d] fixed resource '%s'", iContext, JobResourcesToStr(job).c_str());
  }

  if (triple == nullptr) {
    trace("%l1 [CTX:%d] Queue [%s] does not exist", iContext, q->que_name);
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=A queue with name [%s] does not exist\n", q->que_name);
    DestroyJobChain(job);
    return 1;
  }
  trace("%l2 [CTX:%d] Queue [%s] exists", iContext, q->que_name);

  if (type != e_prt_arbitrary && type != e_prt_all) {
    if (PreferredQueue(triple, job) == nullptr) {
      const std::string wanted(wish);
      trace("%l1 [CTX:%d] Preferred resource(s) [%s] not found in given queue", iContext, wanted.c_str());
      answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=Preferred resource(s) [%s] not found in given queue\n",
             wanted.c_str());
      DropRefusedJob(job);
      return 1;
    }
  } else {
    WalkList(&triple->ExecQueues, que_set_job_request, nullptr, nullptr);
  }

  job_register_global_resources(job, &gGlobalResources);

  if (!job->server.empty() &&
      SearchList(&triple->ExecQueues, CheckServer, const_cast<char*>(job->server.c_str()), nullptr) == nullptr) {
    trace("%l1 [CTX:%d] WARNING: Requested server not found in given queue -> ignore server %s", iContext,
          job->server.c_str());
    job->server.clear();
  }

  if (!job->allocate.empty() && job->synchronize == 0) {
    // A queue that is not bound yet ("*" or empty) takes any allocation.
    const Queue* preferred = PreferredQueue(triple, job);
    if (preferred != nullptr && preferred->eAllocMode == e_allocation_permanent && !preferred->allocate.empty() &&
        preferred->allocate != "*" && preferred->allocate != job->allocate.view()) {
      trace("%l1 [CTX:%d] Resource [%s] has allocation string [%s], job has [%s]", iContext,
            preferred->name.c_str(), preferred->allocate.c_str(), job->allocate.c_str());
      answer(&q->peer, KD_ERROR,
             "STATUS=ERROR MSG=Resource [%s] has allocation string [%s] while your allocation string is [%s]. Only "
             "jobs with allocation string %s can utilise it.\n",
             preferred->name.c_str(), preferred->allocate.c_str(), job->allocate.c_str(),
             preferred->allocate.c_str());
      DropRefusedJob(job);
      return 1;
    }
  }

  InsertHolding(triple, job);
  // The pass may start the job, and a failed start destroys it: nothing of
  // the record is read after this point.
  const bool synchronous = job->jobType == sync_queued;
  job = nullptr;
  ProcessAllQueTriples();

  iContext = entry;
  if (message[0] != '\0') {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=%d - %s\n", entry, message);
  } else if (synchronous) {
    // The job keeps the requester as its peer and answers it itself.
    trace("%l2 [CTX:%d] Taking over peer control", iContext);
  } else {
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=%d\n", entry);
  }
  trace("%l2 --- process_que_submit");
  return 0;
}
