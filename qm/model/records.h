// The records the daemon's lists hold: queue triples and resource queues with
// their counters, jobs with their arguments, peers, restart conditions and
// times, priority slots and global resources. Plain structs whose default
// member initialisers make `new T{}` the fresh, empty element; the behaviour
// lives in the free functions of the model's other files.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "cm_common.h"
#include "model/list.h"
#include "protocol/request.h"

// ---------------------------------------------------------------------------
// Queue triples and resource queues
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
// Jobs
// ---------------------------------------------------------------------------

enum JobState : int32_t { job_pending = 0, job_running = 1, job_stopping = 2 };
enum JobType : int32_t { queued = 0, queued_stop_proc_only = 1, sync_queued = 2 };

/// A restart condition of option R: exit code, burst, window.
struct JobRestartCondition {
  Node n;
  int32_t iRestartConditionMask = 0;     ///< the exit code it applies to (compared for equality)
  int32_t iRestartLimitBurst = 3;        ///< largest number of restarts
  int32_t iRestartLimitIntervalSec = 0;  ///< window in seconds; 0 means no window
};

/// The time of one past restart.
struct JobRestartTime {
  Node n;
  time_t RestartTime = 0;
};

/// One "-G" pair of a submission.
struct JATuple {
  Node n;
  CappedText<512> name;
  int32_t value = 0;
};

/// Counts the Job records alive: with none, no queue holds a job, which lets
/// the scheduling pass skip its walk (see ProcessAllQueTriples).
struct JobTally {
  static inline long alive = 0;
  JobTally() noexcept { ++alive; }
  JobTally(const JobTally&) noexcept { ++alive; }
  JobTally& operator=(const JobTally&) noexcept = default;
  ~JobTally() { --alive; }
};

/// One submitted job.
struct Job {
  Node n;
  QMTime SubmitTime;
  QMTime Time;                          ///< earliest start time (all zero: at once)
  QMTime StartTime;                     ///< when last started
  QMTime MaxStartTime;                  ///< latest start time (-W)
  bool MaxStartTimeSet = false;
  QMTime MaxCompleteTimestamp;          ///< end time (-E)
  bool MaxCompleteTimestampSet = false;
  bool PendingJobExpireAfterEndTime = false;
  int32_t EntryNumb = 0;                ///< 0 until assigned
  JobState eJobState = job_pending;
  CappedText<1024> job_name;
  int32_t priority = 0;
  int32_t MaxAnswerStep = 0;
  CappedText<1024> allocate;
  CappedText<1024> obsolete_preferredResource;
  PreferredResource s_preferredResource;
  bool bLazy = false;
  CappedText<160> server;
  CappedText<1024> resourceTaken;       ///< the resource queue that took the job
  CappedText<1024> file_name;           ///< the executable, absolute after creation
  CappedText<1024> stopJobExecutable;   ///< custom kill program; empty when none
  bool CustomStopJobExecuted = false;
  int32_t arg_count = 0;
  int64_t PID = 0;                      ///< child process id, also its process group
  List ListOfPeers{nullptr, nullptr, Peers};
  List ListOfGlobalResourceNames{nullptr, nullptr, GlobalResourceNames};
  bool bGLORESAllocated = false;
  int32_t synchronize = 0;
  int32_t iPendingStateExitCode = -2;   ///< -2: not set
  JobType jobType = queued;
  int32_t iGracefullStopRequested = 0;
  time_t GracefullStopRequestTimestamp = 0;
  int32_t iSoftKillTimeout = 300;       ///< seconds
  int32_t iHardKillTimeout = 20;        ///< seconds from graceful stop to SIGKILL of the group
  List ListOfArguments{nullptr, nullptr, Arguments};
  int32_t iRestrictedAccess = 0;
  Job* pFollowUpJob = nullptr;          ///< owned
  bool bFollowUpJobIsExecuted = false;
  std::string* pTermReason = nullptr;   ///< owned; accumulated termination reasons
  std::string* pFullCommand = nullptr;  ///< owned; the whole submission text
  std::string* pRestarts = nullptr;     ///< owned; accumulated restart notes
  int32_t iLogFlags = 0;
  List ListOfJobRestartConditions{nullptr, nullptr, RestartConditions};
  List ListOfRestartTimes{nullptr, nullptr, RestartTimes};
  JobTally tally;
};

template <> struct ElementKind<Job> { static constexpr ListOf value = Jobs; };
template <> struct ElementKind<JobRestartCondition> { static constexpr ListOf value = RestartConditions; };
template <> struct ElementKind<JobRestartTime> { static constexpr ListOf value = RestartTimes; };
template <> struct ElementKind<JATuple> { static constexpr ListOf value = JobArgs_GlobalResources; };

// ---------------------------------------------------------------------------
// Priority slots and global resources
// ---------------------------------------------------------------------------

/// One level of a slot list, sorted by ascending Priority.
struct PrioritySlot {
  Node n;
  int Priority = 0;        ///< lowest job priority that may use this level
  int SlotsAllocated = 0;  ///< slots of this level in use
  int SlotsAvailable = 0;  ///< slots of this level
  List lJobEntryNumber{nullptr, nullptr, JobLimitsByJobPriority_SlotJobs};  ///< holders
};

/// A job holding a slot of a level.
struct PrioritySlotJob {
  Node n;
  int EntryNumber = 0;
};

template <> struct ElementKind<PrioritySlot> { static constexpr ListOf value = JobLimitsByJobPriority; };
template <> struct ElementKind<PrioritySlotJob> {
  static constexpr ListOf value = JobLimitsByJobPriority_SlotJobs;
};

/// A named, counted capacity shared by every queue.
struct GlobalResource {
  Node n;
  CappedText<512> name;
  int slots = 0;       ///< units of the resource
  int registered = 0;  ///< known jobs that name it
  int allocated = 0;   ///< units held by running jobs
};

/// A global resource named by a job.
struct GlobalResourceName {
  Node n;
  CappedText<512> name;
};

template <> struct ElementKind<GlobalResource> { static constexpr ListOf value = GlobalResources; };
template <> struct ElementKind<GlobalResourceName> { static constexpr ListOf value = GlobalResourceNames; };
