// Options, quoting and the "--" follow-up delimiter of the submission
// grammar; the legacy positional grammar; job creation; the time texts of
// the options.
#include "model/job_grammar.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "cm_common.h"
#include "cm_trace.h"
#include "model/elements.h"
#include "model/global_resources.h"
#include "model/job.h"
#include "protocol/globals.h"
#include "strlib.h"

namespace {

constexpr const char* kDefaultOptions = "G:T:W:E:p:j:K:S:e:R:u:";

// Formats of the time options, tried in this order; the first that takes
// the whole text wins.
constexpr std::array<const char*, 7> kTimeFormats{"%F T %T",    "%F %T",    "%F_%T", "%F T %H:%M",
                                                  "%F %H:%M", "%F_%H:%M", nullptr};
static_assert(kTimeFormats.size() == 7 && kTimeFormats.back() == nullptr);

/// The non-empty pieces of text between delimiters.
std::vector<std::string_view> SplitWords(std::string_view text, char delimiter) {
  std::vector<std::string_view> words;
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t end = std::min(text.find(delimiter, pos), text.size());
    if (end > pos) words.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return words;
}

/// A word that opens a quotation and does not close it itself.
bool OpensQuote(std::string_view word) {
  return !word.empty() && word.front() == '"' && (word.size() < 2 || word.back() != '"');
}

std::string_view Trim(std::string_view text, char c) {
  const std::size_t begin = text.find_first_not_of(c);
  if (begin == std::string_view::npos) return text.substr(0, 0);
  return text.substr(begin, text.find_last_not_of(c) - begin + 1);
}

void SetError(char* error, std::size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
void SetError(char* error, std::size_t size, const char* format, ...) {
  if (error == nullptr || size == 0) return;
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(error, size, format, ap);
  va_end(ap);
}

void NowTm(struct tm* tm) {
  const time_t now = time(nullptr);
  localtime_r(&now, tm);
}

/// Empties a list whose elements own nothing but themselves.
void MoveList(List* to, List* from) {
  RemoveList(to);
  to->Head = from->Head;
  to->Tail = from->Tail;
  from->Head = from->Tail = nullptr;
}

/// The empty job of a submission, as both grammars begin it.
Job* NewJob(const Query* q, char* error, std::size_t error_size) {
  auto* job = new (std::nothrow) Job{};
  if (job == nullptr) {
    SetError(error, error_size, "calloc failed return NULL");
    return nullptr;
  }
  job->eJobState = job_pending;
  job->iPendingStateExitCode = -2;
  job->pFullCommand = new std::string(q->szCmdArgs);
  job->iLogFlags = 0;
  job->jobType = q->function == queue_submit_sync        ? sync_queued
                 : q->function == queue_submit_proc_only ? queued_stop_proc_only
                                                         : queued;
  return job;
}

bool AddPeer(Job* job, const HPEER& handle) {
  auto* peer = new (std::nothrow) Peer{};
  if (peer == nullptr) return false;
  peer->handle = handle;
  AddTail(&job->ListOfPeers, NodeOf(peer));
  return true;
}

/// What a follow-up takes over from the job it follows.
bool TakeOverFromPrevious(Job* job, const Job* previous) {
  job->SubmitTime = previous->SubmitTime;
  job->MaxCompleteTimestamp = previous->MaxCompleteTimestamp;
  job->Time = previous->Time;
  job->priority = previous->priority;
  job->MaxAnswerStep = previous->MaxAnswerStep;
  job->job_name = std::string(previous->job_name.view()) + "*";
  for (const Peer* peer : Elements<Peer>(previous->ListOfPeers))
    if (!AddPeer(job, peer->handle)) return false;
  return true;
}

bool AddGlobalResourceName(Job* job, std::string_view name) {
  auto* entry = new (std::nothrow) GlobalResourceName{};
  if (entry == nullptr) return false;
  entry->name = name;
  AddTail(&job->ListOfGlobalResourceNames, NodeOf(entry));
  return true;
}

/// "-G" value: name=value pairs separated by commas.
bool ParseGlobalTuples(std::string_view text, JobArgs* args) {
  for (std::string_view pair : SplitWords(text, ',')) {
    const std::vector<std::string_view> parts = SplitWords(pair, '=');
    if (parts.size() < 2) return false;
    auto* tuple = new (std::nothrow) JATuple{};
    if (tuple == nullptr) return false;
    tuple->name = parts[0];
    tuple->value = std::atoi(std::string(parts[1]).c_str());
    AddTail(&args->grTuples, NodeOf(tuple));
  }
  return true;
}

/// "-R" value: code[:burst[:interval]] entries separated by commas.
bool ParseRestartConditions(std::string_view text, JobArgs* args) {
  for (std::string_view entry : SplitWords(text, ',')) {
    const std::string e(entry);
    int code = 0;
    if (std::sscanf(e.c_str(), "%d", &code) != 1) return false;
    auto* condition = new (std::nothrow) JobRestartCondition{};
    if (condition == nullptr) return false;
    condition->iRestartConditionMask = code;
    const std::size_t first = e.find(':');
    if (first != std::string::npos) {
      std::sscanf(e.c_str() + first + 1, "%d", &condition->iRestartLimitBurst);
      const std::size_t second = e.find(':', first + 1);
      if (second != std::string::npos)
        std::sscanf(e.c_str() + second + 1, "%d", &condition->iRestartLimitIntervalSec);
    }
    AddTail(&args->ListOfJobRestartConditions, NodeOf(condition));
  }
  return true;
}

/// Joins words from *index on while the text still opens a quotation.
std::string JoinQuoted(const std::vector<std::string_view>& words, std::size_t* index) {
  std::string text(words[(*index)++]);
  while (OpensQuote(text) && *index < words.size()) {
    text += ' ';
    text += words[(*index)++];
  }
  return text;
}

/// Removes the quotes that enclose an argument.
std::string Unquote(std::string text) {
  if (!text.empty() && text.front() == '"') {
    text.erase(0, 1);
    if (!text.empty() && text.back() == '"') text.pop_back();
  }
  return text;
}

bool AddArgument(List* list, std::string_view text) {
  auto* argument = new (std::nothrow) Argument{};
  if (argument == nullptr) return false;
  argument->argument = text;
  AddTail(list, NodeOf(argument));
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Time texts
// ---------------------------------------------------------------------------

const char* strtotime(const char* text, struct tm* tm, const char* const* formats) {
  if (text == nullptr || tm == nullptr) return nullptr;
  if (formats == nullptr) formats = kTimeFormats.data();
  for (; *formats != nullptr; ++formats) {
    // Tried on a copy: a format may match a prefix and store fields.
    struct tm probe = *tm;
    const char* end = kd_strptime(text, *formats, &probe);
    if (end != nullptr && *end == '\0') {
      *tm = probe;
      return *formats;
    }
  }
  return nullptr;
}

int extractTime(const char* text, struct tm* tm) {
  const std::string raw(std::string_view(text ? text : "").substr(0, 1023));
  const bool two_quotes = raw == "\"\"";
  const std::string t(Trim(raw, '"'));
  if (t.empty() || two_quotes || t == "now" || t == "now now" || t == "0") {
    NowTm(tm);
    return 0;
  }
  struct tm probe {};
  const char* format = strtotime(t.c_str(), &probe, nullptr);
  if (format == nullptr) return 1;
  // Parsed again over now: the fields the format does not carry are now's.
  NowTm(tm);
  kd_strptime(t.c_str(), format, tm);
  return 0;
}

// ---------------------------------------------------------------------------
// Executables and the submission grammar
// ---------------------------------------------------------------------------

int check_or_update_executable(char* path, std::size_t path_size, char* error, std::size_t error_size) {
  const std::string given(path);
  std::string p = given;
  if (!p.empty() && p.front() == '"') {
    const std::size_t close = p.find('"', 1);
    p = p.substr(1, close == std::string::npos ? std::string::npos : close - 1);
  }
  if (p.empty() || p.front() != '/') p = std::string(gszBinDir) + "/" + p;
  CopyCutN(path, path_size, p);
  // Existence and readability are the test; the execute bit is left to the start.
  FILE* f = std::fopen(path, "r");
  if (f == nullptr) {
    SetError(error, error_size, "Executable [%s] does not exist", given.c_str());
    return 1;
  }
  std::fclose(f);
  return 0;
}

void FreeJobArgs(JobArgs* args) {
  RemoveList(&args->grTuples);
  RemoveList(&args->ListOfJobRestartConditions);
  RemoveList(&args->ListOfArguments);
  RemoveList(&args->ListOfPreferredResources);
}

int ParseArgs(Query* q, const char* optstring, JobArgs* args, char* error, std::size_t error_size,
              char (&follow_up)[2048], int /*follow_up_marker*/, int options) {
  trace("%l2 +++ ParseArgs");
  FreeJobArgs(args);
  *args = JobArgs{};
  follow_up[0] = '\0';
  if (q->szCmdArgs[0] != '-') {
    trace("%l2 - not specified - use old command line parser");
    trace("%l2 --- ParseArgs");
    return -2;
  }
  if (optstring == nullptr) optstring = kDefaultOptions;

  // Option words up to the command, the command up to "--", the follow-up
  // text after it. An option's value is the word after its letter, so the
  // first plain word behind a plain word begins the command.
  const std::vector<std::string_view> tokens = SplitWords(q->szCmdArgs, ' ');
  std::vector<std::string> words{"qm_job"};
  std::string command;
  std::size_t i = 0;
  for (; i < tokens.size() && tokens[i] != "--"; ++i) {
    if (OpensQuote(words.back())) {
      words.back() += ' ';
      words.back() += tokens[i];
      continue;
    }
    if (words.back().front() != '-' && tokens[i].front() != '-') {
      for (; i < tokens.size() && tokens[i] != "--"; ++i) {
        if (!command.empty()) command += ' ';
        command += tokens[i];
      }
      break;
    }
    // A glued value ("-p5") leaves the next plain word an option word.
    words.emplace_back(tokens[i]);
  }
  std::string follow;
  for (++i; i < tokens.size(); ++i) {
    if (!follow.empty()) follow += ' ';
    follow += tokens[i];
  }
  CopyCut(follow_up, Trim(follow, ' '));
  command = std::string(Trim(command, ' '));

  int rc = 0;
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  args->iHardKillTimeout = 20;
  args->iSoftKillTimeout = 300;
  mygetopt_reset();
  int letter = 0;
  while (rc == 0 && (letter = mygetopt(static_cast<int>(words.size()), argv.data(), optstring)) != -1) {
    const char* value = myoptarg != nullptr ? myoptarg : "";
    switch (letter) {
      case 'G':
        if (!ParseGlobalTuples(value, args)) {
          SetError(error, error_size, "Global argument not specified correctly");
          rc = -1;
        }
        break;
      case 'T':
        if (extractTime(value, &args->startTime) != 0) {
          SetError(error, error_size, "Invalid time specified -%c", letter);
          rc = -1;
        } else {
          args->iStartTime = 1;
        }
        break;
      case 'W':
      case 'E':
        // "0" and other texts of up to two characters leave the limit unset.
        if (std::strlen(value) > 2) {
          struct tm* t = letter == 'W' ? &args->waitTime : &args->endTime;
          if (extractTime(value, t) != 0) {
            SetError(error, error_size, "Invalid time specified -%c", letter);
            rc = -1;
          } else {
            (letter == 'W' ? args->iWaitTime : args->iEndTime) = 1;
          }
        }
        break;
      case 'p':
        args->iPriority = true;
        if (std::strchr(value, '/') == nullptr)
          args->priority = std::atoi(value);
        else
          std::sscanf(value, "%d/%d", &args->priority, &args->MaxAnswerStep);
        break;
      case 'j':
        CopyCut(args->jobName, value);
        break;
      case 'K':
        CopyCut(args->stopJobExecutable, value);
        if (check_or_update_executable(args->stopJobExecutable, sizeof(args->stopJobExecutable), error,
                                       error_size) != 0)
          rc = -1;
        break;
      case 'S':
        if (std::strchr(value, '/') == nullptr)
          std::sscanf(value, "%d", &args->iHardKillTimeout);
        else
          std::sscanf(value, "%d/%d", &args->iHardKillTimeout, &args->iSoftKillTimeout);
        break;
      case 'e':
        args->iPendingStateExitCode = std::atoi(value);
        // Into 'u' on purpose: "-e restricted" also asks for the restricted run.
        [[fallthrough]];
      case 'u':
        if (std::strcmp(value, "restricted") == 0) args->iRunWithRestrictedToken = 1;
        break;
      case 'R':
        if (!ParseRestartConditions(value, args)) {
          RemoveList(&args->ListOfJobRestartConditions);
          SetError(error, error_size, "Restart arguments not specified correctly - missing exit code");
          rc = -1;
        }
        break;
      default:
        break;  // unknown letters are ignored
    }
  }

  if (rc == 0) {
    const std::vector<std::string_view> parts = SplitWords(command, ' ');
    std::size_t k = 0;
    if (!parts.empty()) CopyCut(args->fileName, JoinQuoted(parts, &k));
    while (rc == 0 && k < parts.size()) {
      if (!AddArgument(&args->ListOfArguments, Unquote(JoinQuoted(parts, &k)))) {
        SetError(error, error_size, "Can't get workspace. calloc sizeof(Argument) failed");
        rc = -1;
      }
    }
  }
  if (rc == 0 && (options & kParseNoExecutableCheck) == 0 &&
      check_or_update_executable(args->fileName, sizeof(args->fileName), error, error_size) != 0)
    rc = -1;
  trace("%l2 --- ParseArgs");
  return rc;
}

// ---------------------------------------------------------------------------
// Creation
// ---------------------------------------------------------------------------

namespace {

/// The start, wait and end times of the parsed options; the flags say whether
/// a wait or end time was given.
void SetJobTimes(Job* job, const JobArgs& args) {
  job->Time = tm_time_to_Time(args.startTime);
  job->MaxStartTime = tm_time_to_Time(args.waitTime);
  job->MaxStartTimeSet = args.iWaitTime != 0;
  job->MaxCompleteTimestamp = tm_time_to_Time(args.endTime);
  job->MaxCompleteTimestampSet = args.iEndTime != 0;
}

/// The common end of both grammars: a follow-up text becomes the job's
/// follow-up job through the same grammar (create); a failed follow-up
/// destroys the new job.
Job* FinishJob(Query* q, Job* job, std::string_view follow, Job* (*create)(Query*, Job*, char*, std::size_t),
               const char* name, char* error, std::size_t error_size) {
  if (!follow.empty()) {
    CopyCut(q->szCmdArgs, follow);
    job->pFollowUpJob = create(q, job, error, error_size);
    if (job->pFollowUpJob == nullptr) {
      trace("%l1 [CTX:%d] --- CreateJob: return new Job, follow_up job failed: %s", iContext, error);
      DestroyJob(job);
      return nullptr;
    }
  }
  trace("%l2 Prio: %d, maxStep: %d, job: %s eno: %d", job->priority, job->MaxAnswerStep, job->job_name.c_str(),
        job->EntryNumb);
  trace("%l2 [CTX:%d] --- %s: return new Job eno:%d", iContext, name, job->EntryNumb);
  return job;
}

}  // namespace

Job* CreateJob(Query* q, Job* previous, char* error, std::size_t error_size) {
  trace("%l2 [CTX:%d] +++ CreateJob: %s", iContext, previous != nullptr ? "for follow up" : "");
  Job* job = NewJob(q, error, error_size);
  if (job == nullptr) return nullptr;

  JobArgs args;
  char follow_up[2048] = {};
  const int rc = ParseArgs(q, nullptr, &args, error, error_size, follow_up, previous != nullptr ? 1 : 0, 0);
  if (rc == -2) {
    FreeJobArgs(&args);
    DestroyJob(job);
    return CreateJobOld(q, previous, error, error_size);
  }

  if (previous != nullptr) {
    // A failed follow-up parse is tolerated: the follow-up is built from
    // what the parse filled in, and its message reaches the submitter as a warning.
    if (!TakeOverFromPrevious(job, previous)) {
      trace("%l1 [CTX:%d] --- CreateJob: cannot allocate memory for Peer", iContext);
      FreeJobArgs(&args);
      DestroyJob(job);
      return nullptr;
    }
  } else {
    if (rc != 0) {
      trace("%l1 [CTX:%d] --- CreateJob: invalid arguments specified - parse error", iContext);
      FreeJobArgs(&args);
      DestroyJob(job);
      return nullptr;
    }
    for (const JATuple* tuple : Elements<JATuple>(args.grTuples)) {
      UpdateOrCreateGlobalResource(tuple->name, tuple->value);
      if (!AddGlobalResourceName(job, tuple->name)) {
        SetError(error, error_size, "calloc failed return NULL");
        FreeJobArgs(&args);
        DestroyJob(job);
        return nullptr;
      }
    }
    WriteTime(&job->SubmitTime);
    job->Time = job->SubmitTime;
    if (q->function == queue_submit_sync && !AddPeer(job, q->peer)) {
      trace("%l1 [CTX:%d] --- CreateJob: cannot allocate memory for Peer", iContext);
      FreeJobArgs(&args);
      DestroyJob(job);
      return nullptr;
    }
    job->MaxAnswerStep = 0;
    // Without -T the parse leaves the all-zero time: start at once.
    SetJobTimes(job, args);
    MoveList(&job->ListOfJobRestartConditions, &args.ListOfJobRestartConditions);
  }

  job->file_name = args.fileName;
  // Unconditional: a follow-up without -j loses the "*" name taken over above.
  job->job_name = args.jobName;
  job->stopJobExecutable = args.stopJobExecutable;
  job->iHardKillTimeout = args.iHardKillTimeout;
  job->iSoftKillTimeout = args.iSoftKillTimeout;
  job->priority = args.priority;
  job->iRestrictedAccess = args.iRunWithRestrictedToken;
  if (args.iPendingStateExitCode != 0) job->iPendingStateExitCode = args.iPendingStateExitCode;
  MoveList(&job->ListOfArguments, &args.ListOfArguments);
  job->arg_count = CountList(&job->ListOfArguments);
  FreeJobArgs(&args);

  return FinishJob(q, job, follow_up, CreateJob, "CreateJob", error, error_size);
}

Job* CreateJobOld(Query* q, Job* previous, char* error, std::size_t error_size) {
  trace("%l2 [CTX:%d] +++ CreateJobOld: %s", iContext, previous != nullptr ? "for follow up" : "");
  Job* job = NewJob(q, error, error_size);
  if (job == nullptr) return nullptr;
  const std::string text(q->szCmdArgs);
  const std::vector<std::string_view> words = SplitWords(text, ' ');
  std::size_t i = 0;

  if (i + 1 < words.size() && words[i] == "-G") {
    for (std::string_view pair : SplitWords(words[i + 1], ',')) {
      const std::size_t eq = pair.find('=');
      if (eq == std::string_view::npos) continue;
      const std::string_view name = pair.substr(0, eq);
      UpdateOrCreateGlobalResource(name, std::atoi(std::string(pair.substr(eq + 1)).c_str()));
      if (!AddGlobalResourceName(job, name)) {
        SetError(error, error_size, "calloc failed return NULL");
        DestroyJob(job);
        return nullptr;
      }
    }
    i += 2;
  }

  if (previous != nullptr) {
    if (!TakeOverFromPrevious(job, previous)) {
      trace("%l1 [CTX:%d] --- CreateJob: cannot allocate memory for Peer", iContext);
      DestroyJob(job);
      return nullptr;
    }
  } else {
    WriteTime(&job->SubmitTime);
    job->Time = job->SubmitTime;
    if (i < words.size()) {
      const std::string word(words[i++]);
      int hour = 0;
      int min = 0;
      if (word.find(':') != std::string::npos && std::sscanf(word.c_str(), "%d:%d", &hour, &min) == 2) {
        job->Time.hour = hour;
        job->Time.min = min;
        job->Time.sec = 0;
      } else {
        trace("%l1 no valid time is given %s >> we use %2d:%2d", word.c_str(), job->Time.hour, job->Time.min);
      }
    }
    if (i < words.size()) {
      const std::string word(words[i++]);
      int year = 0;
      int month = 0;
      int day = 0;
      if (word.size() > 9 && std::sscanf(word.c_str(), "%4d%*c%2d%*c%2d", &year, &month, &day) == 3) {
        job->Time.year = year;
        job->Time.month = month;
        job->Time.day = day;
      } else {
        trace("%l1 no valid date is given %s >> we use %4d-%2d-%2d", word.c_str(), job->Time.year,
              job->Time.month, job->Time.day);
      }
    }
    if (i < words.size()) {
      const std::string word(words[i++]);
      if (word.find('/') == std::string::npos)
        job->priority = std::atoi(word.c_str());
      else
        std::sscanf(word.c_str(), "%d/%d", &job->priority, &job->MaxAnswerStep);
    }
    if (i < words.size()) job->job_name = words[i++];
    trace("%l2 [CTX:%d] start time %d:%d date %d-%d-%d", iContext, job->Time.hour, job->Time.min, job->Time.year,
          job->Time.month, job->Time.day);
    if (q->function == queue_submit_sync && !AddPeer(job, q->peer)) {
      trace("%l1 [CTX:%d] --- CreateJob: cannot allocate memory for Peer", iContext);
      DestroyJob(job);
      return nullptr;
    }
  }

  const bool have_file = i < words.size();
  std::string file = have_file ? Unquote(JoinQuoted(words, &i)) : std::string();
  if (have_file && (file.empty() || file.front() != '/')) file = std::string(gszBinDir) + "/" + file;
  job->file_name = file;
  FILE* f = have_file ? std::fopen(job->file_name.c_str(), "r") : nullptr;
  if (f == nullptr) {
    SetError(error, error_size, "%sexecutable [%s] does not exist", previous != nullptr ? "follow_up job " : "",
             job->file_name.c_str());
    DestroyJob(job);
    return nullptr;
  }
  std::fclose(f);

  std::string follow;
  while (i < words.size()) {
    if (words[i] == "--") {
      trace("%l2 [CTX:%d] got delimiter '--' >> set up follow up job", iContext);
      for (++i; i < words.size(); ++i) {
        if (!follow.empty()) follow += ' ';
        follow += words[i];
      }
      break;
    }
    if (!AddArgument(&job->ListOfArguments, Unquote(JoinQuoted(words, &i)))) {
      SetError(error, error_size, "Can't get workspace. calloc sizeof(Argument) failed");
      DestroyJob(job);
      return nullptr;
    }
  }
  job->arg_count = CountList(&job->ListOfArguments);

  return FinishJob(q, job, follow, CreateJobOld, "CreateJobOld", error, error_size);
}

// ---------------------------------------------------------------------------
// job_set
// ---------------------------------------------------------------------------

int JobModify(Query* q, Job* job, char* error, std::size_t error_size) {
  JobArgs args;
  char follow_up[2048] = {};
  const int rc = ParseArgs(q, "T:W:E:p:", &args, error, error_size, follow_up, 0, kParseNoExecutableCheck);
  if (rc != 0) {
    FreeJobArgs(&args);
    return 1;
  }
  if (args.iPriority) job->priority = args.priority;
  // Always overwritten: a time the request leaves out becomes start-at-once
  // (start time) or not set (wait and end time).
  SetJobTimes(job, args);
  // "R" is not among the options, so this empties the conditions.
  MoveList(&job->ListOfJobRestartConditions, &args.ListOfJobRestartConditions);
  FreeJobArgs(&args);
  return 0;
}
