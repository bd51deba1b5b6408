// queue_move_entry: moving one job to another queue or resource.
#include <cstdlib>
#include <string>

#include "cm_common.h"
#include "cm_trace.h"
#include "qm_common.h"
#include "qm_entry_requests.h"
#include "qm_queue.h"

namespace {

/// The executing queue of the triple whose job list holds the job, or null.
Queue* ExecutingQueueOf(QueueTriple* triple, Job* job) {
  for (Queue* queue : Elements<Queue>(triple->ExecQueues))
    for (Job* j : Elements<Job>(queue->ListOfJobs))
      if (j == job) return queue;
  return nullptr;
}

bool Holds(List* list, Job* job) {
  for (Job* j : Elements<Job>(*list))
    if (j == job) return true;
  return false;
}

}  // namespace

int process_que_move_entry(Query* q) {
  trace("%l2 +++ process_que_move_entry");
  q->EntryNumb = std::atoi(q->que_name);
  const int entry = q->EntryNumb;
  QueueTriple* source = nullptr;
  Job* job = FindEntryJob(entry, &source);
  // A job being terminated stays where it is.
  if (job == nullptr || source->queType == 1) {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=No such entry %d\n", entry);
    trace("%l2 --- process_que_move_entry: no such entry %d", entry);
    return 1;
  }
  iContext = entry;
  trace("%l2 [CTX:%d] Located entry no %d on queue triple [%s]", iContext, entry, source->name.c_str());

  const std::vector<std::string> words = EntryRequestWords(q);
  if (words.size() < 2 || words[1].empty()) {
    // Deliberately without the status prefix.
    answer(&q->peer, KD_WARNING, "Wrong arguments\n");
    return 1;
  }
  std::string queue_name = words[1];
  std::string resource;
  bool resource_given = false;
  if (const std::size_t slash = queue_name.find('/'); slash != std::string::npos) {
    resource = queue_name.substr(slash + 1);
    queue_name.resize(slash);
    resource_given = true;
  }
  QueueTriple* target = FindQueTriple(queue_name);
  if (target == nullptr) {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=A queue with name [%s] does not exist\n", queue_name.c_str());
    return 1;
  }

  if (Holds(&source->HoldingQue, job)) {
    RemNode(&source->HoldingQue, NodeOf(job));
    AddTail(&target->HoldingQue, NodeOf(job));
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Job %d moved to holding sub queue of queue %s\n", entry,
           target->name.c_str());
    trace("%l2 --- process_que_move_entry: holding");
    return 0;
  }
  if (Holds(&source->PendingQue, job)) {
    RemNode(&source->PendingQue, NodeOf(job));
    AddTail(&target->PendingQue, NodeOf(job));
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Job %d moved to pending sub queue of queue %s\n", entry,
           target->name.c_str());
    trace("%l2 --- process_que_move_entry: pending");
    return 0;
  }

  Queue* from = ExecutingQueueOf(source, job);
  Queue* to = resource_given
                  ? FindResourceQue(target, resource)
                  : (target->ExecQueues.Head != nullptr ? ElementOf<Queue>(target->ExecQueues.Head) : nullptr);
  if (from == nullptr || to == nullptr) {
    answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Target resource queue %s does not exist\n", resource.c_str());
    return 1;
  }
  if (to->current_job_limit < 1) {
    answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Target resource queue %s is full\n", to->name.c_str());
    return 1;
  }
  // Only the bookkeeping moves: the child runs on, no slot is taken in the
  // target, and resourceTaken keeps the old name.
  ++from->current_job_limit;
  --to->current_job_limit;
  ReleasePrioritySlot(&from->ListOfJobLimitsByJobPriority, job->priority, job->EntryNumb);
  RemNode(&from->ListOfJobs, NodeOf(job));
  AddTail(&to->ListOfJobs, NodeOf(job));
  answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Job %d moved to resource queue %s of queue %s\n", entry,
         to->name.c_str(), target->name.c_str());
  trace("%l2 --- process_que_move_entry: executing");
  return 0;
}
