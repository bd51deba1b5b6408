#include "requests/entry_requests.h"

#include <signal.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cm_common.h"
#include "cm_split.h"
#include "cm_trace.h"
#include "jobs/removal.h"
#include "jobs/tasks.h"
#include "model/job.h"
#include "model/job_grammar.h"
#include "model/list.h"
#include "model/priority_slots.h"
#include "model/triple.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "sched/pass.h"
#include "strlib.h"
#include "xutil.h"

// ---------------------------------------------------------------------------
// Words and look-up shared by the entry requests
// ---------------------------------------------------------------------------

std::vector<std::string> EntryRequestWords(const Query* q) {
  std::vector<std::string> words;
  for (const char* word = cm_strtok(q->szCmdArgs, ' '); word != nullptr; word = cm_strtok(nullptr, ' '))
    words.emplace_back(word);
  return words;
}

int EntryRequestNumber(const std::string& word, int* value) {
  const auto digit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
  if (word.empty()) return 0;
  if (!digit(word[0]) && !(word[0] == '-' && word.size() > 1 && digit(word[1]))) return 0;
  *value = std::atoi(word.c_str());
  return 1;
}

Job* FindEntryJob(int32_t entry, QueueTriple** triple) {
  for (QueueTriple* t : Elements<QueueTriple>(Root)) {
    Job* job = FindJobByEntryNumber(t, entry);
    if (job == nullptr && t->TerminatingQueue != nullptr) {
      Node* node = SearchList(&t->TerminatingQueue->ListOfJobs, EntryNumber, IntArg(entry), nullptr);
      if (node != nullptr) job = ElementOf<Job>(node);
    }
    if (job != nullptr) {
      *triple = t;
      return job;
    }
  }
  *triple = nullptr;
  return nullptr;
}

// ---------------------------------------------------------------------------
// queue_del_entry
// ---------------------------------------------------------------------------

int _que_del_entry_ParseArgs(Query* q, Job* job, char* error, std::size_t error_size) {
  trace("%l2 +++ _que_del_entry_ParseArgs [%s]", q->szCmdArgs);
  std::vector<std::string> words = EntryRequestWords(q);
  if (words.empty()) words.emplace_back();
  words[0] = "que_del_entry";

  // Options start at the first word "-x" with x no digit; a negative number
  // before them is a timeout, not an option.
  std::size_t first_option = words.size();
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (w.size() >= 1 && w[0] == '-' && !std::isdigit(static_cast<unsigned char>(w.size() > 1 ? w[1] : '\0'))) {
      first_option = i;
      break;
    }
  }
  int hard_kill_timeout = 0;
  if (first_option > 1 && words.size() > 1) hard_kill_timeout = std::abs(std::atoi(words[1].c_str()));

  std::vector<char*> argv;
  argv.push_back(words[0].data());
  for (std::size_t i = first_option; i < words.size(); ++i) argv.push_back(words[i].data());
  const int argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);

  bool kill_given = false;
  bool kill_none = false;
  bool exit_given = false;
  int exit_code = 0;
  int mode = 1;
  char kill_path[1024] = {};
  mygetopt_reset();
  for (int c; (c = mygetopt(argc, argv.data(), "K:e:o:")) != -1;) {
    trace("%l3 got switch %c optarg %s", c, myoptarg != nullptr ? myoptarg : "");
    if (c == 'e') {
      exit_code = std::atoi(myoptarg);
      exit_given = true;
    } else if (c == 'K') {
      if (std::strcmp(myoptarg, "none") == 0) {
        kill_none = true;
        kill_given = true;
        continue;
      }
      CopyCut(kill_path, myoptarg);
      char check_error[1024] = {};
      if (check_or_update_executable(kill_path, sizeof kill_path, check_error, sizeof check_error) != 0) {
        // Dropped without error; the options behind it are not read.
        trace("%l1 [CTX:%d] _que_del_entry_ParseArgs: %s", iContext, check_error);
        break;
      }
      kill_given = true;
    } else if (c == 'o') {
      if (std::strncmp(myoptarg, "not_executing", std::strlen("not_executing")) == 0) mode = 2;
    } else {
      trace("%l1 _que_del_entry_ParseArgs: wrong option %c", myoptopt);
    }
  }

  if (kill_given && !exit_given) {
    x_Snprintf(error, error_size, "%s", "Operation failed. -K requires -e to be specified.");
    trace("%l2 --- _que_del_entry_ParseArgs: %s", error);
    return 0;
  }
  if (exit_given) job->iPendingStateExitCode = exit_code;
  if (kill_given) {
    if (kill_none)
      job->stopJobExecutable.clear();
    else
      job->stopJobExecutable = kill_path;
  } else if (!exit_given) {
    // By default a deleted job is stopped by signals only.
    job->stopJobExecutable.clear();
  }
  if (hard_kill_timeout != 0) job->iHardKillTimeout = hard_kill_timeout;
  trace("%l2 --- _que_del_entry_ParseArgs: mode %d", mode);
  return mode;
}

int process_que_del_entry(Query* q) {
  trace("%l2 +++ process_que_del_entry");
  q->EntryNumb = std::atoi(q->que_name);
  const int entry = q->EntryNumb;
  QueueTriple* triple = nullptr;
  Job* job = FindEntryJob(entry, &triple);
  if (job == nullptr) {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=No such entry %d\n", entry);
    trace("%l2 --- process_que_del_entry: no such entry %d", entry);
    return 1;
  }
  iContext = entry;
  trace("%l2 [CTX:%d] process_que_del_entry: entry %d on queue triple [%s]", iContext, entry, triple->name.c_str());

  int timeout = 5;
  const std::vector<std::string> words = EntryRequestWords(q);
  if (words.size() > 1) EntryRequestNumber(words[1], &timeout);
  q->Timeout = std::abs(timeout);

  if (job->bFollowUpJobIsExecuted) {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=Origin job entry %d finished - follow_up is executing!\n", entry);
    return 1;
  }

  char error[1024] = {};
  const int mode = _que_del_entry_ParseArgs(q, job, error, sizeof error);
  if (mode == 0) {
    // A warning code with an error record.
    answer(&q->peer, KD_WARNING, "STATUS=ERROR MSG=%s\n", error);
    return 1;
  }
  if (mode == 2) {
    if (QueJobDeleteNonExecuting(triple, q) == 0) {
      answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=Job not found on holding or pending queue\n");
      return 1;
    }
    // The client is a peer now: the expiry of the job answers it.
    trace("%l2 --- process_que_del_entry: not executing job %d expires", entry);
    return 0;
  }
  if (triple->name.view() == "qu_admin") {
    answer(&q->peer, KD_WARNING,
           "STATUS=WARNING MSG=Entry %d is on qu_admin queue. It will be deleted automatically.\n", entry);
    return 1;
  }

  if (timeout >= 0) {
    QueJobMaxCompleteTimestamp(triple, q);
    ProcessAllQueTriples();
    QueueTriple* still_in = nullptr;
    if (Job* again = FindEntryJob(entry, &still_in); again != nullptr) {
      add_WaitJobToTerminate_task(static_cast<int32_t>(again->PID), entry, &q->peer, timeout);
      trace("%l2 --- process_que_del_entry: waiting for job %d to terminate", entry);
    } else {
      // The client has had its answer as a peer of the job.
      trace("%l2 --- process_que_del_entry: job does not exist anymore");
    }
    return 0;
  }
  QueJobMaxCompleteTimestamp(triple, q);
  answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=Job will be terminated and deleted in a timeout %d seconds\n",
         q->Timeout);
  trace("%l2 --- process_que_del_entry");
  return 0;
}

// ---------------------------------------------------------------------------
// queue_move_entry
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// queue_signal_entry
// ---------------------------------------------------------------------------

int _process_queue_signal_entryParseArgs(Query* q) {
  std::vector<std::string> words = EntryRequestWords(q);
  if (words.empty()) words.emplace_back();
  words[0] = "sig_entry";
  if (words.size() < 2) return 1;
  for (const char* allowed : {"-2", "-3", "-4", "-5"})
    if (words[1] == allowed) return 0;
  return 1;
}

int process_queue_signal_entry(Query* q) {
  trace("%l2 +++ process_queue_signal_entry");
  q->EntryNumb = std::atoi(q->que_name);
  const int entry = q->EntryNumb;
  QueueTriple* triple = nullptr;
  Job* job = nullptr;
  for (QueueTriple* t : Elements<QueueTriple>(Root)) {
    job = FindJobByEntryNumber(t, entry);
    if (job != nullptr) {
      triple = t;
      break;
    }
  }
  if (job == nullptr) {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=No such entry %d\n", entry);
    trace("%l2 --- process_queue_signal_entry: no such entry %d", entry);
    return 1;
  }
  iContext = entry;

  int signal_number = 0;
  const std::vector<std::string> words = EntryRequestWords(q);
  if (words.size() > 1) EntryRequestNumber(words[1], &signal_number);
  if (_process_queue_signal_entryParseArgs(q) != 0) {
    answer(&q->peer, KD_WARNING, "Invalid signal number given.\n");
    return 1;
  }

  const bool waiting = SearchList(&triple->HoldingQue, EntryNumber, IntArg(entry), nullptr) != nullptr ||
                       SearchList(&triple->PendingQue, EntryNumber, IntArg(entry), nullptr) != nullptr;
  if (!waiting) {
    // SIGINT whatever number was given. A job without a process of its own
    // is not signalled: its group would be ours.
    const pid_t pid = static_cast<pid_t>(job->PID);
    int rc = -1;
    if (pid > 0) {
      do {
        rc = kill(-pid, SIGINT);
      } while (rc < 0 && errno == EINTR);
    }
    if (rc != 0) {
      answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=Cannot send signal to process %d\n", static_cast<int>(pid));
      trace("%l1 [CTX:%d] --- process_queue_signal_entry: cannot signal %d", iContext, static_cast<int>(pid));
      return 1;
    }
    answer(&q->peer, KD_WARNING, "STATUS=OK MSG=Sent signal SIGINT to entry no %d[PID %d] process group\n", entry,
           static_cast<int>(pid));
    trace("%l1 [CTX:%d] --- process_queue_signal_entry: SIGINT to group %d", iContext, static_cast<int>(pid));
    return 0;
  }

  // The next expiry check removes it and runs it once with "-d" and the number.
  const time_t now = gQmNow();
  struct tm tm {};
  localtime_r(&now, &tm);
  job->MaxCompleteTimestamp = tm_time_to_Time(tm);
  job->MaxCompleteTimestampSet = true;
  job->iPendingStateExitCode = signal_number;
  answer(&q->peer, KD_WARNING, "STATUS=OK MSG=Entry %d will receive signal %d\n", entry, signal_number);
  trace("%l2 --- process_queue_signal_entry: entry %d waits for signal %d", entry, signal_number);
  return 0;
}
