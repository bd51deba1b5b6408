// queue_signal_entry: interrupting one job.
#include <signal.h>

#include <cerrno>
#include <cstdlib>

#include "cm_common.h"
#include "cm_trace.h"
#include "kd_hal_qm.h"
#include "qm_common.h"
#include "qm_entry_requests.h"

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
