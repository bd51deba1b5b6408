// The job record, the submission grammar, and the job listings.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "queue.h"

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

/// The entry number of the job being worked on; job traces begin "[CTX:%d]".
extern int iContext;

/// Frees a job with its lists and texts and returns its entry number to the
/// pool. Does not free the follow-up job. A null job is ignored.
void DestroyJob(Job* job);
/// Destroys a job that never ran together with its whole follow-up chain.
void DestroyJobChain(Job* job);

// ---------------------------------------------------------------------------
// Submission
// ---------------------------------------------------------------------------

/// The parsed options, executable and arguments of one submission text.
/// A transient record: ParseArgs empties and refills it.
struct JobArgs {
  List grTuples{nullptr, nullptr, JobArgs_GlobalResources};                     ///< -G pairs
  List ListOfJobRestartConditions{nullptr, nullptr, RestartConditions};         ///< -R entries
  int32_t iStartTime = 0;                                                       ///< -T given
  struct tm startTime {};
  int32_t iWaitTime = 0;                                                        ///< -W given
  struct tm waitTime {};
  int32_t iEndTime = 0;                                                         ///< -E given
  struct tm endTime {};
  bool iPriority = false;                                                       ///< -p given
  int32_t priority = 0;
  int32_t restartExitCodeCondition = 0;                                         ///< not filled
  int32_t restartLimitBurst = 0;                                                ///< not filled
  int32_t restartLimitBurstInterval = 0;                                        ///< not filled
  int32_t MaxAnswerStep = 0;                                                    ///< m of -p n/m
  char stopJobExecutable[1024] = {};                                            ///< -K, absolute
  char jobName[1024] = {};                                                      ///< -j
  char fileName[1024] = {};                                                     ///< the executable
  int32_t iHardKillTimeout = 20;
  int32_t iSoftKillTimeout = 300;
  int32_t iPendingStateExitCode = 0;                                            ///< -e; 0 when absent
  int32_t iRunWithRestrictedToken = 0;                                          ///< -u restricted
  List ListOfArguments{nullptr, nullptr, Arguments};
  List ListOfPreferredResources{nullptr, nullptr, JobPreferredResources};       ///< not filled
};

/// Frees the lists of a JobArgs record.
void FreeJobArgs(JobArgs* args);

/// Bit of ParseArgs' options word: do not check the executable.
inline constexpr int kParseNoExecutableCheck = 1;

/// Parses the query's szCmdArgs by the option grammar into args (emptied
/// first). optstring null means "G:T:W:E:p:j:K:S:e:R:u:". follow_up receives
/// the text after "--" (trimmed, "" when none); follow_up_marker is stored
/// only. 0 success; -1 parse error with the message in error; -2 when the
/// text does not begin with "-" (the caller uses the legacy grammar).
int ParseArgs(Query* q, const char* optstring, JobArgs* args, char* error, std::size_t error_size,
              char (&follow_up)[2048], int follow_up_marker, int options);

/// A new job from the query (a submit request), or null with the message in
/// error. With previous given, the query's text is that job's follow-up and
/// the new job is its follow-up job. A follow-up text in the query makes
/// the follow-up chain (pFollowUpJob) and replaces q->szCmdArgs. On success
/// error may hold the message of a tolerated follow-up parse failure.
Job* CreateJob(Query* q, Job* previous, char* error, std::size_t error_size);

/// CreateJob for the legacy positional grammar:
/// [-G n=v,...] time date priority name executable args... [-- follow-up].
Job* CreateJobOld(Query* q, Job* previous, char* error, std::size_t error_size);

/// Removes enclosing quotes and makes a relative path absolute below
/// gszBinDir ("%s/%s"); the buffer keeps the result either way. 0 when the
/// file opens for reading, else 1 and "Executable [%s] does not exist" with
/// the path as given.
int check_or_update_executable(char* path, std::size_t path_size, char* error, std::size_t error_size);

/// Sets the job's preferred-resource type from its resource list: one item
/// "*" or "" is arbitrary, one item "all" is all, anything else a set (an
/// empty list counts as arbitrary). Returns the type.
PreferredResourceType SpecifyJobResource(Job* job);

/// The job of that entry number in the triple's holding queue, pending
/// queue or one of its executing queues (not the terminating queue), or null.
Job* FindJobByEntryNumber(QueueTriple* triple, int32_t entry);

/// Applies a job_set text ("T:W:E:p:") to a waiting job: priority only when
/// -p is given; start, wait and end time always (absent means at once / not
/// set); restart conditions emptied. 0, or 1 with the message in error.
int JobModify(Query* q, Job* job, char* error, std::size_t error_size);

/// The job_set request: the entry number in q->que_name, the options in
/// q->szCmdArgs. Answers the client; 0 done, 1 refused.
int process_job_set(Query* q);

/// Fills tm from a time text: "", "\"\"", "now", "now now", "0" are now;
/// else the first of the built-in formats that consumes the whole text, with
/// the fields it does not carry taken from now. 0, or 1 when no format matched.
int extractTime(const char* text, struct tm* tm);

/// The first format of the null-terminated list (null: the built-in list)
/// that consumes the whole text, with tm filled by it; null when none does
/// (tm untouched then).
const char* strtotime(const char* text, struct tm* tm, const char* const* formats);

/// year = tm_year + 1900, month = tm_mon + 1, the other fields copied.
QMTime tm_time_to_Time(const struct tm& tm);

// ---------------------------------------------------------------------------
// Listings
// ---------------------------------------------------------------------------

/// Writes one job line (mode "" or "name"), or a block (mode "full").
void PrintJob(Job* job, const char* mode, FILE* out);
/// Writes "%s,%s,%d,%ld,%d,%s\n" for the job.
void PrintJobCSV(Job* job, const char* queue, FILE* out);
/// The job's preferred resources as text ("share_name@server;...").
std::string JobResourcesToStr(const Job* job);
/// Appends the job's global-resource usage.
void ViewJobGlobalResourceUsage(const Job* job, bool with_name, List* resources, std::string* text);
/// 1 when the job's end time (-E) is set and at or before now; 0 for a
/// job that is being stopped.
int JobTimeExpired(Job* job, time_t now);
/// "%02d-%02d-%02d %02d:%02d:%02d".
void TimeToISOStr(const QMTime& t, char* buffer, std::size_t size);
/// Appends what PrintJob writes to text instead of a stream.
void PrintJob(Job* job, const char* mode, AppendString* text);
/// Appends what PrintJobCSV writes (cut at 4095 characters) to text.
void PrintJobCSV(Job* job, const char* queue, AppendString* text);
/// Walk callback over ListOfArguments: writes " \"%s\"" to the stream out.
void PrintArguments(Node* argument, void* out, void*);
/// 1 when the job's planned start time is later than time, down to the
/// minute (seconds ignored; equal is not later).
int JobTime(Job* job, const QMTime* time);
/// 1 when the latest start time (-W) is set and at or before now.
int JobStartTimeExpired(Job* job, time_t now);
/// Formats and appends to text (the growing text of the views).
void AppendPrintf(AppendString* text, const char* format, ...) __attribute__((format(printf, 2, 3)));
