// Queue administration requests (init, block, delete, set, start, stop), the
// queue listings and the table of global resources.
#include "requests/queue_requests.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "cm_common.h"
#include "cm_split.h"
#include "cm_trace.h"
#include "jobs/removal.h"
#include "jobs/restart.h"
#include "model/list.h"
#include "model/priority_slots.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "sched/pass.h"
#include "views/global_resource_view.h"
#include "views/job_view.h"
#include "views/listing.h"

namespace {

constexpr const char* kAdminQueueName = "qu_admin";

/// The words behind field 3 of the request, one by one as they were
/// separated by blanks (empty fields of doubled blanks are no words).
/// queue_init carries them in szCmdArgs behind the queue name; the other
/// administration requests have no argument text, and their words are still
/// in the field splitter that split the request line.
class RequestWords {
 public:
  explicit RequestWords(const Query* q) {
    if (q->function == queue_init) {
      std::string_view args(q->szCmdArgs);
      bool first = true;
      for (std::size_t pos = 0; pos <= args.size();) {
        std::size_t end = args.find(' ', pos);
        if (end == std::string_view::npos) end = args.size();
        if (!first && end > pos) words_.emplace_back(args.substr(pos, end - pos));
        first = false;
        pos = end + 1;
      }
    } else {
      for (const char* field = cm_strtok(nullptr, ' '); field != nullptr; field = cm_strtok(nullptr, ' '))
        if (*field != '\0') words_.emplace_back(field);
    }
  }
  /// The next word, or null when there is none.
  const char* Next() { return next_ < words_.size() ? words_[next_++].c_str() : nullptr; }
  const char* Peek() const { return next_ < words_.size() ? words_[next_].c_str() : nullptr; }

 private:
  std::vector<std::string> words_;
  std::size_t next_ = 0;
};

/// The first resource of the resource part (up to a further "/").
std::string first_resource(const char* resource) {
  std::string_view r(resource);
  return std::string(r.substr(0, r.find('/')));
}

/// The resource queue that the resource part names ("[share_]name[@server]").
Queue* find_resource(QueueTriple* triple, const std::string& resource_text) {
  std::string share, name, server;
  getResourceNames(resource_text, &share, &name, &server);
  return FindResourceQue(triple, name);
}

int answer_no_queue(Query* q) {
  answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=A queue with name [%s] does not exist\n", q->que_name);
  return 1;
}

int answer_no_resource(Query* q, const std::string& resource) {
  answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=Resource [%s] not found in given queue\n", resource.c_str());
  return 1;
}

bool only_digits(const char* name) {
  return std::strspn(name, "0123456789") == std::strlen(name);
}

/// Frees the slot list of parsed job limits when the request ends.
struct ScopedJobLimits {
  QueueJobLimits limits;
  ScopedJobLimits() { InitList(&limits.ListOfJobLimitsByJobPriority, JobLimitsByJobPriority); }
  ~ScopedJobLimits() { DestroyPriorityList(&limits.ListOfJobLimitsByJobPriority); }
  ScopedJobLimits(const ScopedJobLimits&) = delete;
  ScopedJobLimits& operator=(const ScopedJobLimits&) = delete;
};

/// Creates a resource queue for resource_text and appends it to the triple.
Queue* add_resource_queue(QueueTriple* triple, const std::string& resource_text, Counter* counter,
                          const QueueJobLimits* limits) {
  Queue* queue = CreateResourceQue(triple, resource_text, counter, limits);
  if (queue == nullptr) return nullptr;
  AddTail(&triple->ExecQueues, NodeOf(queue));
  ++triple->iExecQueCount;
  triple->dWeightSum += 1.0;
  return queue;
}

/// Re-initialisation of an existing resource queue: share, server, counter
/// and limits.
void change_resource_queue(QueueTriple* triple, Queue* queue, const std::string& resource_text, Counter* counter,
                           QueueJobLimits* limits) {
  std::string share, name, server;
  getResourceNames(resource_text, &share, &name, &server);
  trace("%l2 Set resource share [%s] and server [%s] from given [%s]", share.c_str(), server.c_str(),
        resource_text.c_str());
  if (!server.empty()) queue->server = server;
  if (!share.empty() && queue->share != share) {
    if (queue->eState == idle || queue->eState == pending) {
      // The queue joins the other queues of its new share: pending when one
      // of them is busy.
      QueState max_state = idle;
      WalkList(&triple->ExecQueues, que_get_state, share.data(), &max_state);
      if (max_state != idle) {
        trace("%l2 Share %s changed to %s > set state to pending", queue->share.c_str(), share.c_str());
        queue->eState = pending;
      } else {
        trace("%l2 Share %s changed to %s > set state to idle", queue->share.c_str(), share.c_str());
        queue->eState = idle;
      }
    } else {
      trace("%l2 Current state: %s", szQueState(queue->eState));
    }
    queue->share = share;
  }
  trace("%l2 Set new resource limit %d", limits->iJobLimit);
  que_change_job_limit(NodeOf(queue), counter, limits);
  if (counter != nullptr) queue->current_job_limit = counter->current_job_limit;
}

/// State of a resource queue or of the triple, for block, start and stop;
/// pass: run the scheduling pass afterwards (unless the triple is missing).
int set_state(Query* q, QueState resource_state, QueState triple_state, const char* resource_answer,
              const char* queue_answer, bool pass) {
  const std::string resource = first_resource(gszResource);
  QueueTriple* triple = FindQueTriple(q->que_name);
  if (triple == nullptr) return answer_no_queue(q);
  int result = 0;
  if (!resource.empty()) {
    Queue* queue = find_resource(triple, resource);
    if (queue == nullptr) {
      result = answer_no_resource(q, resource);
    } else {
      trace("%l2 set state to %s for resource %s", szQueState(triple_state), resource.c_str());
      queue->eState = resource_state;
      answer(&q->peer, KD_SUCCESS, "%s", resource_answer);
    }
  } else {
    triple->status = triple_state;
    answer(&q->peer, KD_SUCCESS, "%s", queue_answer);
  }
  if (pass) ProcessAllQueTriples();
  return result;
}

int set_option(Query* q, RequestWords* words) {
  trace("%l2 set [%s]", q->que_name);
  const char* option = words->Next();
  if (option == nullptr) {
    // Nothing to set and nothing answered: the requester runs into its timeout.
    trace("%l1 set: no option given");
    return 1;
  }
  trace("%l2 set option [%s]", option);
  if (std::strncmp(option, "follow_up", 4) != 0) {
    answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Unknown [set option %s].\n", option);
    return 1;
  }
  constexpr const char* kName = "follow_up";
  const char* value = words->Next();
  const bool on = (eQMOptions & follow_up) != 0;
  if (value == nullptr) {
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Option [%s=%d].\n", kName, on ? 1 : 0);
    return 0;
  }
  const bool want = std::atoi(value) >= 1;
  if (want) {
    eQMOptions |= follow_up;
    trace("%l1 enable follow_ups 0X%X", eQMOptions);
  } else {
    eQMOptions &= ~static_cast<uint32_t>(follow_up);
    trace("%l1 disable follow_ups 0X%X", eQMOptions);
  }
  if (want != on)
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Option [%s=%s] is set.\n", kName, value);
  else
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Option [%s=%s] is already set.\n", kName, value);
  return 0;
}

enum class SetCommand { allocation, balancing, weight };

}  // namespace

// ---------------------------------------------------------------------------
// queue_init
// ---------------------------------------------------------------------------

namespace {

int que_init(Query* q) {
  // Field 3 of other requests is read as an entry number.
  if (only_digits(q->que_name)) {
    answer(&q->peer, KD_ERROR,
           "STATUS=ERROR MSG=Queue names that are composed only of numbers are not supported [%s].\n", q->que_name);
    return 1;
  }
  ScopedJobLimits parsed;
  QueueJobLimits* limits = &parsed.limits;
  if (ParseQueueArgs(0, q, limits) != 0) return 1;  // answered there

  QueueTriple* triple = FindQueTriple(q->que_name);

  RequestWords words(q);
  auto skip_priority_options = [&words] {
    while (words.Peek() != nullptr && StringContainsPrioritySlots(words.Peek()) != 0) {
      words.Next();
      words.Next();
    }
  };
  skip_priority_options();
  const char* limit_word = words.Next();
  const int job_limit = limit_word != nullptr ? std::atoi(limit_word) : 1;
  skip_priority_options();
  const char* counter_name = words.Next();
  if (counter_name != nullptr)
    trace("%l2 job limit: %d, global counter '%s'", job_limit, counter_name);
  else
    trace("%l2 job limit: %d", job_limit);
  limits->iJobLimit = job_limit;

  Counter* counter = nullptr;
  int counter_raise = 0;
  if (counter_name != nullptr) {
    counter = FindCounter(CappedText<32>(counter_name).view());
    if (counter != nullptr) {
      if (counter->job_limit != job_limit) {
        counter_raise = job_limit - counter->job_limit;
        counter->job_limit = job_limit;
        counter->current_job_limit += counter_raise;
        trace("%l2 init: set global counter '%s' current_job_limit %d", counter->name.c_str(),
              counter->current_job_limit);
      }
    } else {
      trace("%l2 Build new global counter '%s'", counter_name);
      counter = new (std::nothrow) Counter{};
      if (counter == nullptr) {
        answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Can't get workspace\n");
        return 1;
      }
      counter->name = counter_name;
      counter->job_limit = job_limit;
      counter->current_job_limit = job_limit;
      AddTail(&gCounters, NodeOf(counter));
    }
  }

  int result = 0;
  if (triple == nullptr) {
    bool failed_queues = false;
    triple = CreateQueTriple(q->que_name, gszResource, counter, limits, &failed_queues);
    if (triple == nullptr) {
      answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Can't get workspace\n");
      return 1;
    }
    // Both answers go out; the requester reads the first that reaches it.
    if (failed_queues) answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Can't get workspace for executing queues\n");
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Queue initialised\n");
  } else if (gszResource[0] != '\0') {
    const std::string resource = first_resource(gszResource);
    trace("%l2 check job limit for resource %s", resource.c_str());
    Queue* queue = find_resource(triple, resource);
    if (queue != nullptr) {
      change_resource_queue(triple, queue, resource, counter, limits);
      answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Changing job limit for resource queue '%s' to %d\n",
             resource.c_str(), job_limit);
    } else {
      trace("%l2 Build new resource bcs. resource not found in given queue %s", resource.c_str());
      if (add_resource_queue(triple, resource, counter, limits) != nullptr) {
        answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=New resource queue '%s' created\n", resource.c_str());
      } else {
        answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Can't get workspace for executing queues\n");
        result = 1;
      }
    }
  } else {
    WalkList(&triple->ExecQueues, que_change_job_limit, counter, limits);
    if (counter != nullptr)
      for (Queue* queue : Elements<Queue>(triple->ExecQueues)) queue->current_job_limit = counter->current_job_limit;
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Job limit for resource queues changed to %d\n", job_limit);
  }
  // A raised counter may let waiting jobs start at once.
  if (counter_raise > 0) ProcessAllQueTriples();
  return result;
}

}  // namespace

int process_que_init(Query* q) {
  trace("+++ process_que_init %s", q->que_name);
  const int result = que_init(q);
  trace("--- process_que_init");
  return result;
}

// ---------------------------------------------------------------------------
// queue_block, queue_start, queue_stop
// ---------------------------------------------------------------------------

int process_que_block(Query* q) {
  return set_state(q, blocked, blocked, "STATUS=SUCCESS MSG=Resource is blocked\n",
                   "STATUS=SUCCESS MSG=Queue is blocked\n", false);
}

int process_que_start(Query* q) {
  // A started resource queue is free again: idle, not running.
  return set_state(q, idle, running, "STATUS=SUCCESS MSG=Resource started\n", "STATUS=SUCCESS MSG=Queue started\n",
                   true);
}

int process_que_stop(Query* q) {
  return set_state(q, stopped, stopped, "STATUS=SUCCESS MSG=Resource stopped\n", "STATUS=SUCCESS MSG=Queue stopped\n",
                   true);
}

// ---------------------------------------------------------------------------
// queue_delete
// ---------------------------------------------------------------------------

namespace {

int que_delete(Query* q, const char* resource_part) {
  if (std::strcmp(q->que_name, kAdminQueueName) == 0) {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=Queue [%s] cannot be deleted\n", q->que_name);
    return 1;
  }
  QueueTriple* triple = FindQueTriple(q->que_name);
  if (triple == nullptr) return answer_no_queue(q);

  RequestWords words(q);
  const std::string resource = first_resource(resource_part);
  if (!resource.empty()) {
    trace("%l2 delete resource %s", resource.c_str());
    Queue* queue = find_resource(triple, resource);
    if (queue == nullptr) return answer_no_resource(q, resource);
    RemoveResourceQue(queue, &triple->ExecQueues);
    --triple->iExecQueCount;
    if (triple->ExecQueues.Head != nullptr) {
      answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Resource is deleted\n");
      return 0;
    }
    // The last resource queue takes its triple with it.
  }

  std::string exit_code = "0";
  if (const char* word = words.Next(); word != nullptr && std::strcmp(word, "-e") == 0) {
    if (const char* value = words.Next(); value != nullptr) {
      exit_code = value;
    } else {
      // Warning digit with an ERROR text; the deletion goes on all the same.
      answer(&q->peer, KD_WARNING, "STATUS=ERROR MSG=Mandatory argument missing for -e");
    }
  }
  WalkList(&triple->HoldingQue, SetPendingStateExitCode, exit_code.data(), nullptr);
  WalkList(&triple->PendingQue, SetPendingStateExitCode, exit_code.data(), nullptr);
  RemoveQueTriple(&Root, triple);
  answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Queue is deleted\n");
  return 0;
}

}  // namespace

int process_que_delete(Query* q, const char* resource_part) {
  trace("+++ process_que_delete %s", q->que_name);
  const int result = que_delete(q, resource_part);
  trace("--- process_que_delete");
  return result;
}

// ---------------------------------------------------------------------------
// queue_set
// ---------------------------------------------------------------------------

int process_que_set(Query* q) {
  RequestWords words(q);
  if (std::strncmp(q->que_name, "option", 6) == 0) return set_option(q, &words);

  trace("%l2 set with que name [%s]", q->que_name);
  const char* command = words.Next();
  trace("%l2 set: set command %s", command != nullptr ? command : "");
  SetCommand what = SetCommand::weight;
  if (command != nullptr && std::strncmp(command, "allocation", 5) == 0)
    what = SetCommand::allocation;
  else if (command != nullptr && std::strncmp(command, "balancing", 5) == 0)
    what = SetCommand::balancing;

  AllocationMode alloc_mode = e_allocation_occupied;
  BalancingMode bal_mode = e_balancing_fill;
  DecisionMode dec_mode = e_decision_ordered;
  bool dec_given = false;
  double weight = 0.0;
  if (what == SetCommand::allocation) {
    if (const char* mode = words.Next(); mode != nullptr) {
      trace("%l2 set: AllocationMode %s", mode);
      alloc_mode = e_GetAllocationMode(mode);
      if (alloc_mode == e_allocation_invalid_mode) {
        answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Invalid allocation mode [%s].\n", mode);
        return 1;
      }
    }
  } else if (what == SetCommand::balancing) {
    const char* mode = words.Next();
    trace("%l2 set: BalancingMode %s", mode != nullptr ? mode : "");
    bal_mode = e_GetBalancingMode(mode != nullptr ? mode : "");
    if (bal_mode == e_balancing_invalid_mode) {
      answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Invalid balancing mode [%s].\n", mode != nullptr ? mode : "");
      return 1;
    }
    if (const char* decision = words.Next(); decision != nullptr) {
      trace("%l2 set DecisionMode [%s]", decision);
      dec_mode = e_GetDecisionMode(decision);
      if (dec_mode == e_decision_invalid_mode) {
        answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Invalid decision mode [%s].\n", decision);
        return 1;
      }
      dec_given = true;
    }
  } else {
    const char* value = words.Next();
    if (value == nullptr) {
      answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Missing weight argument.\n");
      return 1;
    }
    weight = std::atof(value);
    if (weight < 0.0) {
      trace("%l1 got negative weight %3.2f. Set it to 0", weight);
      weight = 0.0;
    } else if (!std::isfinite(weight)) {
      // "nan" or "inf" would spoil every weighted choice of the queue.
      trace("%l1 got invalid weight %s. Set it to 0", value);
      weight = 0.0;
    }
  }

  QueueTriple* triple = FindQueTriple(q->que_name);
  if (triple == nullptr) return answer_no_queue(q);
  const std::string resource = first_resource(gszResource);
  Queue* queue = nullptr;
  if (!resource.empty()) {
    queue = find_resource(triple, resource);
    if (queue == nullptr) return answer_no_resource(q, resource);
  }

  switch (what) {
    case SetCommand::allocation: {
      if (queue == nullptr) triple->eAllocMode = alloc_mode;
      const char* value = words.Next();
      // The value is handed over as a writable text, as the walk passes it.
      std::string allocate = value != nullptr ? value : "";
      void* text = value != nullptr ? allocate.data() : nullptr;
      if (queue != nullptr)
        que_set_allocation(NodeOf(queue), IntArg(alloc_mode), text);
      else
        WalkList(&triple->ExecQueues, que_set_allocation, IntArg(alloc_mode), text);
      if (value != nullptr)
        answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Queue allocation mode set to %s; allocate is \"%s\"\n",
               szAllocationMode(alloc_mode), value);
      else
        answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Queue allocation mode set to %s; allocate is empty string\n",
               szAllocationMode(alloc_mode));
      return 0;
    }
    case SetCommand::balancing:
      triple->eBalMode = bal_mode;
      if (dec_given) triple->eDecMode = dec_mode;
      WalkList(&triple->ExecQueues, que_set_mode, triple, nullptr);
      if (queue == nullptr) {
        answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Queue is set\n");
        return 0;
      }
      // The change is made all the same; the Error digit with a WARNING text is how it is answered.
      answer(&q->peer, KD_ERROR, "STATUS=WARNING MSG=Resource ignored for 'set balancing'.\n");
      return 1;
    case SetCommand::weight:
      triple->eDecMode = e_decision_weight;
      if (queue != nullptr) {
        trace("%l2 set weight for resource %s", resource.c_str());
        trace("%l2 old weight sum %3.2f", triple->dWeightSum);
        trace("%l2 add weight %3.2f", weight - queue->dWeight);
        triple->dWeightSum += weight - queue->dWeight;
        queue->dWeight = weight;
        trace("%l2 new weight %3.2f, new weight sum %3.2f", weight, triple->dWeightSum);
        if (weight == 0.0) {
          if (triple->dWeightSum <= 1e-6)
            trace("%l1 Got resource weight %3.2f and sum weight %3.2f > use all resources", weight,
                  triple->dWeightSum);
          else
            trace("%l1 Attention: Got resource weight %3.2f but sum weight %3.2f so only jobs which are requesting "
                  "this resource [%s] are started",
                  weight, triple->dWeightSum, resource.c_str());
        }
        answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Weight for resource set.\n");
      } else {
        triple->dWeightSum = 0.0;
        WalkList(&triple->ExecQueues, que_set_weight, triple, &weight);
        trace("%l2 new weight sum %3.2f", triple->dWeightSum);
        answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Weight set for queue.\n");
      }
      return 0;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Listings
// ---------------------------------------------------------------------------

int process_que_sho(Query* q) {
  char selector = ' ';
  switch (q->function) {
    case queue_sho_name: selector = 'n'; break;
    case queue_sho_status: selector = 't'; break;
    case queue_sho_full: selector = 'f'; break;
    case queue_sho_csv: selector = 'c'; break;
    default: break;
  }
  if (q->que_name[0] == '\0' || std::strcmp(q->que_name, "all") == 0) CopyCut(q->que_name, "*");

  QueueTriple* found = nullptr;
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    if (iWildcard(triple, q->que_name) != 0) {
      found = triple;
      break;
    }
  }
  if (found == nullptr) return answer_no_queue(q);
  if (q->function != queue_sho_csv && gszResource[0] != '\0') {
    const std::string resource = first_resource(gszResource);
    trace("%l3 check for resource %s", resource.c_str());
    // Answered with the queue's name, not the resource's.
    if (find_resource(found, resource) == nullptr) return answer_no_queue(q);
  }
  List copy = Root;
  answer_show(selector, &copy, QueName_wildcard, q);
  return 0;
}

int process_show_global_resources(Query* q) {
  AppendString text = "global resource\tall_slots\tused_slots\tregistered_users\n";
  for (GlobalResource* resource : Elements<GlobalResource>(gGlobalResources)) ViewGlobalResource(resource, &text);
  PrintJobsGlobalResourcesUsage(&Root, &gGlobalResources, &text);
  text += "\nSTATUS=SUCCESS MSG=Ok\n";
  // A "%" of a resource name is written as it is, not read as a conversion.
  answer_text(q, KD_SUCCESS, text);
  return 0;
}
