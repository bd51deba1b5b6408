// Queue triples, resource queues and counters: construction,
// resource specifications, mode keywords, match predicates and the small
// per-queue operations that the request handlers and the scheduler walk.
#include "model/triple.h"

#include <strings.h>

#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <unordered_map>

#include "cm_trace.h"
#include "model/priority_slots.h"
#include "protocol/globals.h"
#include "protocol/request.h"

List Root{nullptr, nullptr, QueueTriples};
List gCounters{nullptr, nullptr, Counters};
List gGlobalResources{nullptr, nullptr, GlobalResources};

namespace {

/// The triples of Root by name. Keys view the triples' own names; the first
/// triple linked under a name is the one found, as a walk of Root would.
std::unordered_map<std::string_view, QueueTriple*> gTriplesByName;

}  // namespace

void InitRootLists() {
  InitList(&Root, QueueTriples);
  gTriplesByName.clear();
  InitList(&gCounters, Counters);
  InitList(&gGlobalResources, GlobalResources);
}

// ---------------------------------------------------------------------------
// Mode keywords
// ---------------------------------------------------------------------------

namespace {

bool equal_nocase(std::string_view a, const char* b) {
  const std::size_t n = std::strlen(b);
  return a.size() == n && strncasecmp(a.data(), b, n) == 0;
}

/// Index of the first table entry equal to keyword (ignoring case), or of
/// the last entry "invalid_mode".
template <std::size_t N>
int mode_index(const std::array<const char*, N>& table, std::string_view keyword) {
  std::size_t i = 0;
  for (; i + 1 < N; ++i)
    if (equal_nocase(keyword, table[i])) break;
  if (i + 1 == N) {
    const std::string k(keyword);
    trace("%l1 WARNING: invalid mode >%s<", k.c_str());
  }
  return static_cast<int>(i);
}

template <std::size_t N>
const char* mode_name(const std::array<const char*, N>& table, int mode) {
  if (mode < 0 || static_cast<std::size_t>(mode) >= N) mode = static_cast<int>(N - 1);
  return table[static_cast<std::size_t>(mode)];
}

}  // namespace

AllocationMode e_GetAllocationMode(std::string_view keyword) {
  return static_cast<AllocationMode>(mode_index(gszAllocationMode, keyword));
}
BalancingMode e_GetBalancingMode(std::string_view keyword) {
  return static_cast<BalancingMode>(mode_index(gszBalancingMode, keyword));
}
DecisionMode e_GetDecisionMode(std::string_view keyword) {
  return static_cast<DecisionMode>(mode_index(gszDecisionMode, keyword));
}
const char* szAllocationMode(int mode) { return mode_name(gszAllocationMode, mode); }
const char* szBalancingMode(int mode) { return mode_name(gszBalancingMode, mode); }
const char* szDecisionMode(int mode) { return mode_name(gszDecisionMode, mode); }
const char* szQueState(int state) {
  return state >= 0 && state <= synchronized ? gszQueState[static_cast<std::size_t>(state)] : "unknown";
}

// ---------------------------------------------------------------------------
// Construction and removal
// ---------------------------------------------------------------------------

Queue* CreateResourceQue(QueueTriple* triple, std::string_view resource_text, Counter* counter,
                         const QueueJobLimits* limits) {
  trace("%l2 +++ CreateResourceQue");
  auto* queue = new (std::nothrow) Queue{};
  if (queue == nullptr) {
    trace("%l1 --- CreateResourceQue: return 0");
    return nullptr;
  }
  std::string share, name, server;
  getResourceNames(resource_text, &share, &name, &server);
  queue->name = name;
  queue->share = share;
  queue->server = server;
  InitList(&queue->ListOfJobs, Jobs);
  InitList(&queue->ListOfJobLimitsByJobPriority, JobLimitsByJobPriority);
  queue->pCounter = counter;
  queue->job_limit = limits != nullptr ? limits->iJobLimit : 0;
  queue->current_job_limit = queue->job_limit;
  queue->isAllocated = 0;
  queue->allocate = "*";
  queue->eState = idle;
  queue->dWeight = 1.0;
  queue->eAllocMode = triple != nullptr ? triple->eAllocMode : e_allocation_occupied;
  queue->bJobRequest = true;
  if (limits != nullptr) CopyPriorityList(&limits->ListOfJobLimitsByJobPriority, &queue->ListOfJobLimitsByJobPriority);
  trace("%l2 --- CreateResourceQue");
  return queue;
}

QueueTriple* NewQueTriple(std::string_view name, char que_type) {
  // Running, modes occupied/fill/ordered, no weight, no counts: the record's defaults.
  auto* triple = new (std::nothrow) QueueTriple{};
  if (triple == nullptr) return nullptr;
  triple->name = name;
  triple->queType = que_type;
  InitList(&triple->HoldingQue, Jobs);
  InitList(&triple->PendingQue, Jobs);
  InitList(&triple->ExecQueues, Queues);
  if (que_type == 1) {
    triple->TerminatingQueue.reset(new (std::nothrow) Queue{});
    if (triple->TerminatingQueue == nullptr) {
      delete triple;
      return nullptr;
    }
  }
  return triple;
}

QueueTriple* CreateQueTriple(std::string_view name, std::string_view resources, Counter* counter,
                             const QueueJobLimits* limits, bool* failed_queues) {
  if (failed_queues != nullptr) *failed_queues = false;
  QueueTriple* triple = NewQueTriple(name, 2);
  if (triple == nullptr) return nullptr;

  auto add = [&](std::string_view resource) {
    Queue* queue = CreateResourceQue(triple, resource, counter, limits);
    if (queue == nullptr) {
      if (failed_queues != nullptr) *failed_queues = true;
      return;
    }
    AddTail(&triple->ExecQueues, NodeOf(queue));
    ++triple->iExecQueCount;
    triple->dWeightSum += 1.0;
  };
  // Empty names between slashes are skipped; no name at all means "single".
  bool any = false;
  std::size_t pos = 0;
  while (pos <= resources.size()) {
    std::size_t end = resources.find('/', pos);
    if (end == std::string_view::npos) end = resources.size();
    if (end > pos) {
      add(resources.substr(pos, end - pos));
      any = true;
    }
    pos = end + 1;
  }
  if (!any) add("single");
  LinkQueTriple(triple);
  return triple;
}

void LinkQueTriple(QueueTriple* triple) {
  AddTail(&Root, NodeOf(triple));
  gTriplesByName.emplace(triple->name.view(), triple);
}

void UnlinkQueTriple(QueueTriple* triple) {
  RemNode(&Root, NodeOf(triple));
  const auto it = gTriplesByName.find(triple->name.view());
  if (it != gTriplesByName.end() && it->second == triple) gTriplesByName.erase(it);
}

// ---------------------------------------------------------------------------
// Resource specifications
// ---------------------------------------------------------------------------

int getResourceNames(std::string_view resource_text, std::string* share, std::string* resource,
                     std::string* server) {
  std::string_view part = resource_text;
  server->clear();
  const std::size_t at = resource_text.find('@');
  if (at != std::string_view::npos) {
    part = resource_text.substr(0, at);
    // The "@" stays with the server: every comparison of servers includes it.
    server->assign(resource_text.substr(at));
  }
  const std::size_t us = part.rfind('_');
  if (us != std::string_view::npos) {
    share->assign(part.substr(0, us));
    resource->assign(part.substr(us + 1));
  } else {
    share->clear();
    resource->assign(part);
  }
  return 1;
}

namespace {

/// Next token of text from pos as strtok finds it: leading delimiters are
/// skipped, the token ends at the next delimiter. False when none is left.
bool next_token(std::string_view text, std::size_t* pos, char delimiter, std::string_view* token) {
  std::size_t start = *pos;
  while (start < text.size() && text[start] == delimiter) ++start;
  if (start >= text.size()) {
    *pos = text.size();
    return false;
  }
  std::size_t end = text.find(delimiter, start);
  if (end == std::string_view::npos) end = text.size();
  *token = text.substr(start, end - start);
  *pos = end < text.size() ? end + 1 : end;
  return true;
}

void add_resource_item(QueueTriple* triple, std::string_view item, List* out) {
  auto* r = new Resource{};
  const std::size_t at = item.find('@');
  if (at != std::string_view::npos) {
    r->cpResource.assign(item.substr(0, at));
    const std::string server(item.substr(at));
    if (triple == nullptr ||
        SearchList(&triple->ExecQueues, CheckServer, const_cast<char*>(server.c_str()), nullptr) != nullptr) {
      r->cpServer = server;
    } else {
      trace("%l1 [CTX:%d] WARNING: Requested server not found in given queue -> ignore server %s", iContext,
            server.c_str());
    }
  } else {
    r->cpResource.assign(item);
  }
  // The share is looked for from the end of the whole item, server included.
  const std::size_t us = item.rfind('_');
  if (us != std::string_view::npos) {
    r->cpShare.assign(item.substr(0, us));
    std::string_view rest = item.substr(us + 1);
    r->cpResource.assign(rest.substr(0, rest.find('@')));
  }
  AddTail(out, NodeOf(r));
}

}  // namespace

int getResourceList(QueueTriple* triple, std::string_view request, std::string* text, List* out) {
  trace("%l2 +++ getResourceList");
  if (text != nullptr) text->clear();
  const std::string copy(request);
  std::size_t pos = 0;
  std::string_view item;
  bool any = false;
  // The first item ends at a comma, every later one at a blank.
  char delimiter = ',';
  while (next_token(copy, &pos, delimiter, &item)) {
    add_resource_item(triple, item, out);
    any = true;
    delimiter = ' ';
  }
  if (!any) AddTail(out, NodeOf(new Resource{}));
  trace("%l2 --- getResourceList");
  return 1;
}

// ---------------------------------------------------------------------------
// Look-ups and match predicates
// ---------------------------------------------------------------------------

QueueTriple* FindQueTriple(std::string_view name) {
  const auto it = gTriplesByName.find(name);
  return it != gTriplesByName.end() ? it->second : nullptr;
}

Queue* FindResourceQue(QueueTriple* triple, std::string_view name) {
  if (triple == nullptr) return nullptr;
  std::string n(name);
  Node* node = SearchList(&triple->ExecQueues, ExecQueName, n.data(), nullptr);
  return node != nullptr ? ElementOf<Queue>(node) : nullptr;
}

Counter* FindCounter(std::string_view name) {
  std::string n(name);
  Node* node = SearchList(&gCounters, CheckCounter, n.data(), nullptr);
  return node != nullptr ? ElementOf<Counter>(node) : nullptr;
}

Node* SearchQueList(List* queues, IntFnPtr3 fn, void* a1, void* a2) {
  trace("%l2 +++ SearchQueList");
  Node* found = nullptr;
  for (Queue* q : Elements<Queue>(*queues)) {
    trace("%l2 call SearchList %s", q->name.c_str());
    found = SearchList(&q->ListOfJobs, fn, a1, a2);
    if (found != nullptr) break;
  }
  trace("%l2 --- SearchQueList");
  return found;
}

namespace {
const char* text_arg(void* p) { return p != nullptr ? static_cast<const char*>(p) : ""; }
}  // namespace

int QueName(Node* node, void* name, void*) { return ElementOf<QueueTriple>(node)->name == text_arg(name) ? 1 : 0; }
int ExecQueName(Node* node, void* name, void*) { return ElementOf<Queue>(node)->name == text_arg(name) ? 1 : 0; }
int CheckResource(Node* node, void* name, void*) { return ElementOf<Queue>(node)->name == text_arg(name) ? 1 : 0; }

int CheckResourceList(Node* node, void* resources, void*) {
  const Queue* queue = ElementOf<Queue>(node);
  for (const Resource* r : Elements<Resource>(*static_cast<List*>(resources)))
    if (queue->name == r->cpResource) return 1;
  return 0;
}

int CheckResourceListSetJobRequest(Node* node, void* resources, void*) {
  if (CheckResourceList(node, resources, nullptr) == 0) return 0;
  ElementOf<Queue>(node)->bJobRequest = true;
  return 1;
}

int CheckServer(Node* node, void* server, void*) { return ElementOf<Queue>(node)->server == text_arg(server) ? 1 : 0; }
int CheckCounter(Node* node, void* name, void*) { return ElementOf<Counter>(node)->name == text_arg(name) ? 1 : 0; }
int EntryNumber(Node* node, void* entry, void*) { return ElementOf<Job>(node)->EntryNumb == ArgInt(entry) ? 1 : 0; }

int QueCheckQueEntry(Node* node, void* entry, void*) {
  return SearchList(&ElementOf<Queue>(node)->ListOfJobs, EntryNumber, entry, nullptr) != nullptr ? 1 : 0;
}

int Priority(Node* node, void* priority, void*) {
  const int p = ArgInt(priority);
  const Job* job = ElementOf<Job>(node);
  // Priority 0 ranks above all others, else the larger number ranks higher.
  if (job->priority == 0) return 0;
  if (job->priority >= p && p != 0) return 0;
  return 1;
}

int JobName(Node* node, void* query, void* count) {
  const Job* job = ElementOf<Job>(node);
  const Query* q = static_cast<const Query*>(query);
  int* n = static_cast<int*>(count);
  const bool candidate = job->job_name == q->job_name || job->EntryNumb == q->EntryNumb || job->PID == q->PID ||
                         (job->EntryNumb == 0 && std::strcmp(q->job_name, "\"\"") == 0);
  if (!candidate) return 0;
  return (*n)++ == q->SeqNumb ? 1 : 0;
}

// ---------------------------------------------------------------------------
// Per-queue operations
// ---------------------------------------------------------------------------

void que_set_idle(Node* node, void*, void*) { ElementOf<Queue>(node)->eState = idle; }

void que_set_job_request(Node* node, void*, void*) { ElementOf<Queue>(node)->bJobRequest = true; }

void que_set_share_pending(Node* node, void* share, void*) {
  Queue* queue = ElementOf<Queue>(node);
  if (queue->share == text_arg(share)) queue->eState = pending;
}

void que_set_share_idle(Node* node, void* triple, void* share) {
  Queue* queue = ElementOf<Queue>(node);
  if (!(queue->share == text_arg(share))) return;
  queue->eState = idle;
  queue->bJobRequest = true;
  // The queue's own mode keeps a permanent allocation; the triple's mode
  // decides for all others.
  if (queue->eAllocMode == e_allocation_permanent) {
    queue->isAllocated = 0;
  } else if (static_cast<QueueTriple*>(triple)->eAllocMode != e_allocation_occupied) {
    queue->isAllocated = 0;
    queue->allocate.clear();
  }
}

void que_get_state(Node* node, void* share, void* max_state) {
  const Queue* queue = ElementOf<Queue>(node);
  auto* max = static_cast<QueState*>(max_state);
  if (queue->share == text_arg(share) && queue->eState > *max) *max = queue->eState;
}

void que_set_allocation(Node* node, void* mode, void* text) {
  Queue* queue = ElementOf<Queue>(node);
  queue->eAllocMode = static_cast<AllocationMode>(ArgInt(mode));
  if (text != nullptr) queue->allocate = static_cast<const char*>(text);
}

void que_set_mode(Node* node, void* triple, void*) {
  ElementOf<Queue>(node)->eDecMode = static_cast<QueueTriple*>(triple)->eDecMode;
}

void que_set_weight(Node* node, void* triple, void* weight) {
  const double w = *static_cast<double*>(weight);
  ElementOf<Queue>(node)->dWeight = w;
  // The old weight is not taken off: callers reset dWeightSum first.
  static_cast<QueueTriple*>(triple)->dWeightSum += w;
}

void que_change_job_limit(Node* node, void* counter, void* limits) {
  Queue* queue = ElementOf<Queue>(node);
  auto* l = static_cast<QueueJobLimits*>(limits);
  auto* c = static_cast<Counter*>(counter);
  // Jobs already running keep their share of the limit.
  const int diff = l->iJobLimit - queue->job_limit;
  queue->job_limit += diff;
  queue->current_job_limit += diff;
  queue->pCounter = c;
  UpdatePriorityList(&queue->ListOfJobLimitsByJobPriority, &l->ListOfJobLimitsByJobPriority);
  if (c != nullptr)
    trace("%l2 que_change_job_limit: queue %s current_job_limit %d > global counter '%s' current_job_limit %d",
          queue->name.c_str(), queue->current_job_limit, c->name.c_str(), c->current_job_limit);
}
