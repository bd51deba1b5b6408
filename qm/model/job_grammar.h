// The submission grammar: the option grammar of a submit or job_set text
// ("-T ... -p ... executable args -- follow-up"), the legacy positional
// grammar, job creation from a request, executables and time texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "model/list.h"
#include "model/records.h"
#include "protocol/request.h"

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
[[nodiscard]] int ParseArgs(Query* q, const char* optstring, JobArgs* args, char* error, std::size_t error_size,
              char (&follow_up)[2048], int follow_up_marker, int options);

/// A new job from the query (a submit request), or null with the message in
/// error. With previous given, the query's text is that job's follow-up and
/// the new job is its follow-up job. A follow-up text in the query makes
/// the follow-up chain (pFollowUpJob) and replaces q->szCmdArgs. On success
/// error may hold the message of a tolerated follow-up parse failure.
[[nodiscard]] Job* CreateJob(Query* q, Job* previous, char* error, std::size_t error_size);

/// CreateJob for the legacy positional grammar:
/// [-G n=v,...] time date priority name executable args... [-- follow-up].
[[nodiscard]] Job* CreateJobOld(Query* q, Job* previous, char* error, std::size_t error_size);

/// Removes enclosing quotes and makes a relative path absolute below
/// gszBinDir ("%s/%s"); the buffer keeps the result either way. 0 when the
/// file opens for reading, else 1 and "Executable [%s] does not exist" with
/// the path as given.
[[nodiscard]] int check_or_update_executable(char* path, std::size_t path_size, char* error, std::size_t error_size);

/// Applies a job_set text ("T:W:E:p:") to a waiting job: priority only when
/// -p is given; start, wait and end time always (absent means at once / not
/// set); restart conditions emptied. 0, or 1 with the message in error.
[[nodiscard]] int JobModify(Query* q, Job* job, char* error, std::size_t error_size);

/// Fills tm from a time text: "", "\"\"", "now", "now now", "0" are now;
/// else the first of the built-in formats that consumes the whole text, with
/// the fields it does not carry taken from now. 0, or 1 when no format matched.
[[nodiscard]] int extractTime(const char* text, struct tm* tm);

/// The first format of the null-terminated list (null: the built-in list)
/// that consumes the whole text, with tm filled by it; null when none does
/// (tm untouched then).
const char* strtotime(const char* text, struct tm* tm, const char* const* formats);
