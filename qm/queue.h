// Intrusive lists, queue triples and resource queues, wildcards and views.
//
// Every collection of the daemon is one doubly linked intrusive list: each
// element record carries its Node as first member `n`, so a pointer to the
// node is a pointer to the element. The lists are touched by the daemon's
// main thread only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>

#include "cm_common.h"
#include "qm_lib.h"

// ---------------------------------------------------------------------------
// Lists
// ---------------------------------------------------------------------------

/// Element kinds of the lists; traces print them by name.
enum ListOf : int32_t {
  QueueTriples = 0,
  Queues = 1,
  Pointer2Queues = 2,
  Jobs = 3,
  Arguments = 4,
  Counters = 5,
  Peers = 6,
  GlobalResources = 7,
  GlobalResourceNames = 8,
  RestartTimes = 9,
  RestartConditions = 10,
  JobArgs_GlobalResources = 11,
  JobLimitsByJobPriority = 12,
  JobLimitsByJobPriority_SlotJobs = 13,
  JobPreferredResources = 14
};

inline constexpr std::array<const char*, 15> gszListOf{
    "QueueTriples",          "Queues",
    "Pointer2Queues",        "Jobs",
    "Arguments",             "Counters",
    "Peers",                 "GlobalResources",
    "GlobalResourceNames",   "RestartTimes",
    "RestartConditions",     "JobArgs_GlobalResources",
    "JobLimitsByJobPriority", "JobLimitsByJobPriority_SlotJobs",
    "JobPreferredResources"};
static_assert(gszListOf.size() == JobPreferredResources + 1);

/// Name of an element kind; "unknown" outside the table.
inline const char* ListOfName(int type) {
  return type >= 0 && type <= JobPreferredResources ? gszListOf[static_cast<std::size_t>(type)]
                                                    : "unknown";
}

/// The link every element carries as its first member.
struct Node {
  Node* Next = nullptr;  ///< following node, null at the tail
  Node* Prev = nullptr;  ///< preceding node, null at the head
};

/// The anchor of one list.
struct List {
  Node* Head = nullptr;           ///< first node, null when empty
  Node* Tail = nullptr;           ///< last node
  ListOf ElementType = QueueTriples;
};

// Callback shapes of the walks and searches; the arguments are opaque
// pointer-sized values handed through unchanged.
using IntFnPtr2 = int (*)(Node*, void*);
using IntFnPtr3 = int (*)(Node*, void*, void*);
using IntFnPtr4 = int (*)(Node*, void*, void*, void*);
using VoidFnPtr3 = void (*)(Node*, void*, void*);
using VoidFnPtr4 = void (*)(Node*, void*, void*, void*);

/// An int handed through a callback argument, and back.
// NOLINTNEXTLINE(performance-no-int-to-ptr): the pointer carries a value and is never dereferenced
inline void* IntArg(intptr_t v) { return reinterpret_cast<void*>(v); }
inline int ArgInt(void* p) { return static_cast<int>(reinterpret_cast<intptr_t>(p)); }

/// The element kind of each record type; specialised next to each record.
template <class T>
struct ElementKind;

/// Checked downcast from a node to its element: T must be a list element
/// record (ElementKind specialised) whose first member is its Node.
template <class T>
T* ElementOf(Node* node) {
  static_assert(std::is_standard_layout_v<T>, "list elements start with their Node");
  static_assert(ElementKind<T>::value >= 0);
  return reinterpret_cast<T*>(node);
}
template <class T>
Node* NodeOf(T* element) {
  static_assert(std::is_standard_layout_v<T>);
  static_assert(ElementKind<T>::value >= 0);
  return reinterpret_cast<Node*>(element);
}

/// Range over the elements of a list. The next link is read before an
/// element is yielded, so the loop body may unlink and free that element
/// (but not the one after it).
template <class T>
class Elements {
 public:
  explicit Elements(const List& list) : head_(list.Head) {}
  class iterator {
   public:
    explicit iterator(Node* n) : cur_(n), next_(n ? n->Next : nullptr) {}
    T* operator*() const { return ElementOf<T>(cur_); }
    iterator& operator++() {
      cur_ = next_;
      next_ = cur_ ? cur_->Next : nullptr;
      return *this;
    }
    bool operator!=(const iterator& o) const { return cur_ != o.cur_; }

   private:
    Node* cur_;
    Node* next_;
  };
  iterator begin() const { return iterator(head_); }
  iterator end() const { return iterator(nullptr); }

 private:
  Node* head_;
};

void InitList(List* list, ListOf type);
uint64_t QueSize(const List* list);
int CountList(const List* list);
void AddTail(List* list, Node* node);
/// Prepends; never touches Tail (only reached through PreInsert on a
/// non-empty list).
void AddHead(List* list, Node* node);
/// Links node directly behind existing; neither checks for a successor nor
/// updates Tail (only reached through PreInsert, where a successor exists).
void PostInsert(Node* existing, Node* node);
void PreInsert(List* list, Node* existing, Node* node);
/// Inserts in front of the first node for which compare(existing, node) is
/// non-zero, else at the tail; returns the inserted node.
Node* InsertSorted(List* list, Node* node, int (*compare)(Node* existing, Node* node));
Node* RemHead(List* list);
Node* RemNode(List* list, Node* node);
/// Unlinks and frees every node (the element's own block; lists inside the
/// elements must be released by the caller first).
void RemoveList(List* list);
/// Appends copies of the source's elements (arguments only); the count copied.
int AddList(List* out, const List* in);
Node* SearchList(List* list, IntFnPtr3 fn, void* a1, void* a2);
Node* SearchList2(List* list, IntFnPtr4 fn, void* a1, void* a2, void* a3);
/// SearchList over ListOfJobs of each Queue of the list in turn.
Node* SearchQueList(List* queues, IntFnPtr3 fn, void* a1, void* a2);
int iWalkList(List* list, IntFnPtr2 fn, void* arg);
void WalkList(List* list, VoidFnPtr3 fn, void* a1, void* a2);
void WalkList3(List* list, VoidFnPtr4 fn, void* a1, void* a2, void* a3);
/// Frees one element of the given kind with its record's destructor.
void DeleteElement(ListOf type, Node* node);

// ---------------------------------------------------------------------------
// Queue model records
// ---------------------------------------------------------------------------

enum QueState : int32_t { idle = 0, pending = 1, running = 2, stopped = 3, blocked = 4, synchronized = 5 };
enum AllocationMode : int32_t {
  e_allocation_occupied = 0,
  e_allocation_permanent = 1,
  e_allocation_volatile = 2,
  e_allocation_ignore = 3,
  e_allocation_invalid_mode = 4
};
enum BalancingMode : int32_t { e_balancing_fill = 0, e_balancing_balance = 1, e_balancing_invalid_mode = 2 };
enum DecisionMode : int32_t {
  e_decision_ordered = 0,
  e_decision_random = 1,
  e_decision_weight_free = 2,
  e_decision_weight = 3,
  e_decision_invalid_mode = 4
};
enum PreferredResourceType : int32_t { e_prt_arbitrary = 0, e_prt_all = 1, e_prt_set = 2, e_prt_unknown = 3 };

inline constexpr std::array<const char*, 6> gszQueState{"idle",    "pending", "running",
                                                        "stopped", "blocked", "synchronized"};
inline constexpr std::array<const char*, 5> gszAllocationMode{"occupied", "permanent", "volatile",
                                                              "ignore", "invalid_mode"};
inline constexpr std::array<const char*, 3> gszBalancingMode{"fill", "balance", "invalid_mode"};
inline constexpr std::array<const char*, 5> gszDecisionMode{"ordered", "random", "weight_free",
                                                            "weight", "invalid_mode"};
static_assert(gszQueState.size() == synchronized + 1);
static_assert(gszAllocationMode.size() == e_allocation_invalid_mode + 1);
static_assert(gszBalancingMode.size() == e_balancing_invalid_mode + 1);
static_assert(gszDecisionMode.size() == e_decision_invalid_mode + 1);

/// Broken-down local time as the records keep it (month 1-12).
struct QMTime {
  int32_t year = 0;
  int32_t month = 0;
  int32_t day = 0;
  int32_t hour = 0;
  int32_t min = 0;
  int32_t sec = 0;
};

/// A global job-limit counter shared by resource queues.
struct Counter {
  Node n;
  CappedText<32> name;
  int job_limit = 0;
  int current_job_limit = 0;
};

struct Job;

/// A resource (executing) queue of a triple.
struct Queue {
  Node n;
  CappedText<1024> name;          ///< resource name without share and server
  CappedText<32> share;           ///< share part; empty when none
  CappedText<161> server;         ///< server part including its "@"; empty when none
  Counter* pCounter = nullptr;    ///< shared counter, or null when the limit is the queue's own
  int job_limit = 0;              ///< jobs that may run at once
  int current_job_limit = 0;      ///< further jobs that may still start
  int isAllocated = 0;            ///< non-zero while bound to the job family in allocate
  AllocationMode eAllocMode = e_allocation_occupied;
  CappedText<1024> allocate;      ///< the allocation; "*" means not bound
  QueState eState = idle;
  double dWeight = 1.0;
  QMTime Time;
  List ListOfJobs{nullptr, nullptr, Jobs};                                 ///< executing jobs
  List ListOfJobLimitsByJobPriority{nullptr, nullptr, JobLimitsByJobPriority};  ///< priority slots
  DecisionMode eDecMode = e_decision_ordered;
  bool bJobRequest = false;       ///< the resource wants a job
  int iLoopFoundJobRequest = 0;   ///< scratch mark of the selection pass
};

/// The owner of a queue held by pointer. A plain pointer inside: the records
/// stay standard-layout with every compiler and library, which
/// std::unique_ptr does not promise.
class OwnedQueue {
 public:
  OwnedQueue() = default;
  OwnedQueue(const OwnedQueue&) = delete;
  OwnedQueue& operator=(const OwnedQueue&) = delete;
  ~OwnedQueue() { delete queue_; }
  void reset(Queue* queue) {
    delete queue_;
    queue_ = queue;
  }
  Queue* get() const { return queue_; }
  Queue* operator->() const { return queue_; }
  friend bool operator==(const OwnedQueue& owned, std::nullptr_t) { return owned.queue_ == nullptr; }

 private:
  Queue* queue_ = nullptr;
};

/// A named queue: holding, pending and resource queues, plus the
/// terminating queue of the admin triple (the only triple that has one:
/// thousands of ordinary triples do not each carry an unused queue).
struct QueueTriple {
  Node n;
  CappedText<1024> name;
  QueState status = running;
  char queType = 2;               ///< 2 ordinary, 1 the terminating queue
  AllocationMode eAllocMode = e_allocation_occupied;
  BalancingMode eBalMode = e_balancing_fill;
  DecisionMode eDecMode = e_decision_ordered;
  List HoldingQue{nullptr, nullptr, Jobs};
  List PendingQue{nullptr, nullptr, Jobs};
  int iExecQueCount = 0;
  int iSynchronCount = 0;
  double dWeightSum = 0.0;
  List ExecQueues{nullptr, nullptr, Queues};
  OwnedQueue TerminatingQueue;  ///< admin triple (queType 1) only; else null
};

/// A list element that refers to a queue owned by another list.
struct Pointer_to_Queues {
  Node n;
  Queue* pQueue = nullptr;
};

/// One command-line argument of a job.
struct Argument {
  Node n;
  CappedText<1024> argument;
};

/// A client waiting on a job.
struct Peer {
  Node n;
  HPEER handle;
};

/// One parsed item of a resource request.
struct Resource {
  Node n;
  std::string cpResource;
  std::string cpServer;
  std::string cpShare;
};

/// The preferred resources of a job.
struct PreferredResource {
  PreferredResourceType i_resourceType = e_prt_arbitrary;
  List l_preferredResources{nullptr, nullptr, JobPreferredResources};
};

/// The parsed job-limit argument of a queue request.
struct QueueJobLimits {
  int iJobLimit = 0;
  List ListOfJobLimitsByJobPriority{nullptr, nullptr, JobLimitsByJobPriority};
};

template <> struct ElementKind<QueueTriple> { static constexpr ListOf value = QueueTriples; };
template <> struct ElementKind<Queue> { static constexpr ListOf value = Queues; };
template <> struct ElementKind<Pointer_to_Queues> { static constexpr ListOf value = Pointer2Queues; };
template <> struct ElementKind<Argument> { static constexpr ListOf value = Arguments; };
template <> struct ElementKind<Counter> { static constexpr ListOf value = Counters; };
template <> struct ElementKind<Peer> { static constexpr ListOf value = Peers; };
template <> struct ElementKind<Resource> { static constexpr ListOf value = JobPreferredResources; };

// ---------------------------------------------------------------------------
// The daemon's root lists
// ---------------------------------------------------------------------------

extern List Root;              ///< all queue triples
extern List gCounters;         ///< global job-limit counters
extern List gGlobalResources;  ///< global resources

/// Initialises the three root lists (and empties the name index of Root).
void InitRootLists();
/// Appends a triple to Root and enters it into the name index of
/// FindQueTriple. A triple's name never changes once it is in Root.
void LinkQueTriple(QueueTriple* triple);
/// Takes a triple out of Root and out of the name index; the triple stays.
void UnlinkQueTriple(QueueTriple* triple);

// ---------------------------------------------------------------------------
// Mode keywords
// ---------------------------------------------------------------------------

AllocationMode e_GetAllocationMode(std::string_view keyword);
BalancingMode e_GetBalancingMode(std::string_view keyword);
DecisionMode e_GetDecisionMode(std::string_view keyword);
const char* szAllocationMode(int mode);
const char* szBalancingMode(int mode);
const char* szDecisionMode(int mode);
const char* szQueState(int state);

// ---------------------------------------------------------------------------
// Construction, removal, resource specifications
// ---------------------------------------------------------------------------

/// A new resource queue for the resource text "[share_]name[@server]";
/// null when memory is exhausted.
Queue* CreateResourceQue(QueueTriple* triple, std::string_view spec, Counter* counter,
                         const QueueJobLimits* limits);
/// A new, empty triple of that name and kind (2 ordinary, 1 the admin
/// triple, which gets an empty terminating queue), not yet in any list;
/// null when it cannot be allocated.
QueueTriple* NewQueTriple(std::string_view name, char que_type);
/// A new triple with its resource queues (spec: "" for the single resource
/// "single", else "a/b/..."), appended to Root. Null when it cannot be
/// allocated; *failed_queues set when a resource queue could not be made.
QueueTriple* CreateQueTriple(std::string_view name, std::string_view resources, Counter* counter,
                             const QueueJobLimits* limits, bool* failed_queues);
/// Stops every job of the queue, destroys its slots, unlinks and frees it.
void RemoveResourceQue(Queue* queue, List* list);
/// Unlinks and frees a triple with everything it holds.
void RemoveQueTriple(List* root, QueueTriple* triple);
/// Splits "[share_]resource[@server]"; always 1.
int getResourceNames(std::string_view spec, std::string* share, std::string* resource,
                     std::string* server);
/// Splits a resource request into Resource items (the first ends at ",",
/// the later ones at blanks). Always 1.
int getResourceList(QueueTriple* triple, std::string_view request, std::string* text, List* out);
/// Frees the items of a Resource list.
void FreeResourceList(List* list);

/// The triple of that name in Root, or null (through the name index: with
/// thousands of triples a walk of Root would be the main cost of a request).
QueueTriple* FindQueTriple(std::string_view name);
/// The resource queue of that name in the triple, or null.
Queue* FindResourceQue(QueueTriple* triple, std::string_view name);
/// The counter of that name, or null.
Counter* FindCounter(std::string_view name);

// Match predicates (1 match, 0 not).
int QueName(Node* node, void* name, void*);                 ///< name: const char*
int ExecQueName(Node* node, void* name, void*);
int CheckResource(Node* node, void* name, void*);
int CheckResourceList(Node* node, void* resources, void*);  ///< resources: List* of Resource
int CheckResourceListSetJobRequest(Node* node, void* resources, void*);
int CheckServer(Node* node, void* server, void*);
int CheckCounter(Node* node, void* name, void*);
int EntryNumber(Node* node, void* entry, void*);             ///< entry: IntArg
int QueCheckQueEntry(Node* node, void* entry, void*);
int QueDelQueEntry(Node* node, void* entry, void*);
int QueCheckJobExpired(Node* node, void* time, void*);       ///< time: time_t*
int Priority(Node* node, void* priority, void*);            ///< priority: IntArg
int JobName(Node* node, void* query, void* count);          ///< query: Query*, count: int*

// Per-queue operations (walk callbacks over ExecQueues).
void que_set_idle(Node* node, void*, void*);
void que_set_job_request(Node* node, void*, void*);
void que_set_share_pending(Node* node, void* share, void*);          ///< share: const char*
void que_set_share_idle(Node* node, void* triple, void* share);
void que_get_state(Node* node, void* share, void* max_state);        ///< max_state: QueState*
void que_set_allocation(Node* node, void* mode, void* text);         ///< mode: IntArg, text or null
void que_set_mode(Node* node, void* triple, void*);
void que_set_weight(Node* node, void* triple, void* weight);         ///< weight: double*
void que_change_job_limit(Node* node, void* counter, void* limits);  ///< limits: QueueJobLimits*

// ---------------------------------------------------------------------------
// Entry operations on one triple, by the query's EntryNumb. Each looks in the
// holding queue, then the pending queue, then the resource queues, stops at
// the first find and returns 1 when the entry was found, else 0.
// ---------------------------------------------------------------------------

/// A waiting job is removed (RemJob); an executing one stopped (QueDelQueEntry).
int QueDelEntry(QueueTriple* triple, Query* q);
/// As QueDelEntry; a waiting job first gets the termination reason "Job expired".
int QueDelExpiredEntry(QueueTriple* triple, Query* q);
/// A waiting job's end time becomes now; an executing job's now plus
/// q->Timeout, and it is asked to stop (custom kill program or SIGINT). The
/// query's peer becomes a peer of the job. 0 also when no peer could be had.
int QueJobMaxCompleteTimestamp(QueueTriple* triple, Query* q);
/// As QueJobMaxCompleteTimestamp for waiting jobs only.
int QueJobDeleteNonExecuting(QueueTriple* triple, Query* q);

// ---------------------------------------------------------------------------
// Wildcards and views
// ---------------------------------------------------------------------------

/// 1 when text matches pattern (one effective "*").
int iStrWildcard(std::string_view text, std::string_view pattern);
int iWildcard(QueueTriple* triple, std::string_view pattern);

/// Growing text of the views that do not write to a stream.
using AppendString = std::string;

void ViewQue(QueueTriple* triple, FILE* out);
void ViewQueNames(QueueTriple* triple, FILE* out);
void ViewQueFull(QueueTriple* triple, FILE* out);
void ViewQueStatus(QueueTriple* triple, FILE* out);
void ViewQueCSV(QueueTriple* triple, HPEER* peer);
void ViewExecQueCSV(Queue* queue, const char* prefix, HPEER* peer);
void PrintQue(Queue* queue, const char* mode, FILE* out);
/// Appends what PrintQue writes to text instead of a stream.
void PrintQue(Queue* queue, const char* mode, AppendString* text);

/// Walk callback over queue triples (query: Query*, mode: the selector as
/// IntArg): a triple whose name matches the query's que_name is written into
/// the query's multi-part answer with that selector.
void QueName_wildcard(Node* triple, void* query, void* mode);
/// Search callback over queue triples (query: Query*): when the triple
/// matches, all its jobs are answered (answer_all_job); that result, else 0.
int QueName_wildcard_job(Node* triple, void* query, void*);
/// Search callback over jobs (query: Query*): a job whose job_name matches
/// the query's job_name is written into the answer ("F" for job_sho_full,
/// else "N"); 1 on a match.
int JobNameWildcard(Node* job, void* query, void*);
