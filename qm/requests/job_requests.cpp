// The job requests job_sho, job_sho_name, job_sho_full, job_del and job_set.
#include "requests/job_requests.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cm_common.h"
#include "cm_trace.h"
#include "model/job.h"
#include "model/job_grammar.h"
#include "model/triple.h"
#include "protocol/answer.h"
#include "protocol/globals.h"
#include "requests/entry_requests.h"
#include "views/job_view.h"
#include "views/listing.h"
#include "views/queue_view.h"
#include "xutil.h"

namespace {

enum JobPlace : int { place_holding = 0, place_pending = 1, place_executing = 2, place_terminating = 3 };

/// The state lines of answer_all_job by place: queue, job name, entry number.
constexpr std::array<const char*, 4> kJobStateLines{"%s:\t %s %d holding\n", "%s:\t %s %d pending\n",
                                                    "%s:\t %s %d executing\n", "%s:\t %s %d terminating\n"};
static_assert(kJobStateLines.size() == place_terminating + 1);

/// Calls fn(list, place) for the job lists of a triple in the order of its
/// view: holding, pending, each executing queue, and the admin triple's
/// terminating queue; stops at the first non-zero result and returns it.
template <class Fn>
int for_each_job_list(QueueTriple* triple, Fn fn) {
  if (int r = fn(&triple->HoldingQue, place_holding); r != 0) return r;
  if (int r = fn(&triple->PendingQue, place_pending); r != 0) return r;
  for (Queue* queue : Elements<Queue>(triple->ExecQueues))
    if (int r = fn(&queue->ListOfJobs, place_executing); r != 0) return r;
  if (triple->queType == 1 && triple->TerminatingQueue != nullptr)
    return fn(&triple->TerminatingQueue->ListOfJobs, place_terminating);
  return 0;
}

bool only_digits(std::string_view word) {
  return !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos;
}

const char* job_mode_text(const Query* q) {
  if (q->function == job_sho_full) return "full";
  return q->function == job_sho_name ? "name" : "";
}

int answer_no_job(Query* q, const char* what) {
  answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=No such job [%s]\n", what);
  return 1;
}

/// Search callback over triples: every job of the triple goes through
/// JobNameWildcard.
int job_name_wildcard_in_triple(Node* node, void* query, void*) {
  auto* q = static_cast<Query*>(query);
  if (q->peer.fOut == nullptr) return 1;
  for_each_job_list(ElementOf<QueueTriple>(node), [q](List* jobs, int) {
    for (Job* job : Elements<Job>(*jobs)) q->count += JobNameWildcard(NodeOf(job), q, nullptr);
    return 0;
  });
  return 0;
}

int QueName_wildcard_job_csv(Node* node, void* query, void*) {
  QueueTriple* triple = ElementOf<QueueTriple>(node);
  auto* q = static_cast<Query*>(query);
  if (iWildcard(triple, q->que_name) == 0) return 0;
  ++q->count;
  return answer_all_job_csv(triple, q);
}

/// The job listing of every queue that matches que_name.
int answer_queue_jobs(Query* q, bool csv) {
  bool any = false;
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) any = any || iWildcard(triple, q->que_name) != 0;
  if (!any) {
    answer(&q->peer, KD_WARNING, "%s:\t not existing\nSTATUS=WARNING MSG=A queue with name [%s] does not exist\n",
           q->que_name, q->que_name);
    return 1;
  }
  List copy = Root;
  answer_show('j', &copy, csv ? QueName_wildcard_job_csv : QueName_wildcard_job, q);
  return 0;
}

int process_job_del(Query* q) {
  bool csv = false;
  if (ParseJobRequest(q, &csv) != job_by_name) {
    // Each deleted job answers its requester when it is gone: one job per request.
    answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=job_del deletes one job; [%s] may name several\n",
           q->bWildcard ? q->job_name : q->que_name);
    return 1;
  }
  QueueTriple* triple = nullptr;
  Job* job = FindJobByQuery(q, &triple);
  if (job == nullptr) return answer_no_job(q, q->job_name);
  trace("%l2 job_del: job [%s] is entry %d on queue [%s]", job->job_name.c_str(), job->EntryNumb,
        triple->name.c_str());
  // The entry delete with its defaults: no wait time, no options.
  Query del = *q;
  del.function = queue_del_entry;
  x_Snprintf(del.que_name, sizeof del.que_name, "%d", job->EntryNumb);
  CopyCut(del.szCmdArgs, del.que_name);
  return process_que_del_entry(&del);
}

}  // namespace

JobSelection ParseJobRequest(Query* q, bool* csv) {
  std::vector<std::string> words;
  std::string_view args(q->szCmdArgs);
  for (std::size_t pos = 0; pos < args.size();) {
    std::size_t end = args.find(' ', pos);
    if (end == std::string_view::npos) end = args.size();
    if (end > pos) words.emplace_back(args.substr(pos, end - pos));
    pos = end + 1;
  }
  const std::string word = words.empty() ? std::string() : words[0];
  *csv = false;
  q->bWildcard = false;
  if (word.empty() || word == "all" || word.find('/') != std::string::npos) {
    if (q->que_name[0] == '\0' || std::strcmp(q->que_name, "all") == 0) CopyCut(q->que_name, "*");
    *csv = words.size() > 1 && words[1] == "csv";
    return job_by_queue;
  }
  CopyCut(q->job_name, word);
  if (word.find('*') != std::string::npos) {
    q->bWildcard = true;
    return job_by_wildcard;
  }
  // -1: no job has that entry number or pid, not even a job never started.
  const long long number = only_digits(word) ? std::atoll(word.c_str()) : -1;
  q->EntryNumb = number >= 0 && number <= 0x7fffffff ? static_cast<int>(number) : -1;
  q->PID = number;
  q->SeqNumb = words.size() > 1 && only_digits(words[1]) ? std::atoi(words[1].c_str()) : 0;
  return job_by_name;
}

Job* FindJobByQuery(Query* q, QueueTriple** triple) {
  int count = 0;
  Node* found = nullptr;
  for (QueueTriple* t : Elements<QueueTriple>(Root)) {
    for_each_job_list(t, [&](List* jobs, int) {
      found = SearchList(jobs, JobName, q, &count);
      return found != nullptr ? 1 : 0;
    });
    if (found != nullptr) {
      *triple = t;
      return ElementOf<Job>(found);
    }
  }
  *triple = nullptr;
  return nullptr;
}

int answer_job(Query* q) {
  QueueTriple* triple = nullptr;
  Job* job = FindJobByQuery(q, &triple);
  if (job == nullptr) return answer_no_job(q, q->job_name);
  iContext = job->EntryNumb;
  trace("%l2 [CTX:%d] job [%s] found on queue [%s]", iContext, job->job_name.c_str(), triple->name.c_str());
  answer_job_entry(q, job);
  return 0;
}

void answer_job_entry(Query* q, Job* job) {
  AppendString text;
  PrintJob(job, job_mode_text(q), &text);
  text += "STATUS=SUCCESS MSG=ok\n";
  answer_text(q, KD_SUCCESS, text);
}

int answer_job_wildcard(Query* q) {
  int matches = 0;
  for (QueueTriple* triple : Elements<QueueTriple>(Root))
    for_each_job_list(triple, [&](List* jobs, int) {
      for (Job* job : Elements<Job>(*jobs)) matches += iStrWildcard(job->job_name.view(), q->job_name);
      return 0;
    });
  if (matches == 0) return answer_no_job(q, q->job_name);
  List copy = Root;
  answer_show('j', &copy, job_name_wildcard_in_triple, q);
  return 0;
}

int answer_all_job(QueueTriple* triple, Query* q) {
  if (q->peer.fOut == nullptr) return 1;
  if (q->function == job_sho_name || q->function == job_sho_full) {
    for_each_job_list(triple, [q](List* jobs, int) {
      for (Job* job : Elements<Job>(*jobs))
        answer_wildcard(&q->peer, KD_SUCCESS, nullptr, ElementOf<QueueTriple>(NodeOf(job)),
                        q->function == job_sho_full ? 'F' : 'N');
      return 0;
    });
    return 0;
  }
  // One write per triple, as the queue views do.
  AppendString text;
  for_each_job_list(triple, [&](List* jobs, int place) {
    for (Job* job : Elements<Job>(*jobs))
      AppendPrintf(&text, kJobStateLines[static_cast<std::size_t>(place)], triple->name.c_str(),
                   job->job_name.c_str(), job->EntryNumb);
    return 0;
  });
  if (!text.empty()) pipe_printf(q->peer.fOut, "%s", text.c_str());
  return 0;
}

int answer_all_job_csv(QueueTriple* triple, Query* q) {
  if (q->peer.fOut == nullptr) return 1;
  ViewQueCSV(triple, &q->peer);
  return 0;
}

int QueName_wildcard_job(Node* node, void* query, void*) {
  QueueTriple* triple = ElementOf<QueueTriple>(node);
  auto* q = static_cast<Query*>(query);
  if (iWildcard(triple, q->que_name) == 0) return 0;
  ++q->count;
  return answer_all_job(triple, q);
}

int process_job_request(Query* q) {
  trace("%l2 +++ process_job_request %s [%s]", cmd_mode_name(q->function), q->szCmdArgs);
  int result = 0;
  if (q->function == job_del) {
    result = process_job_del(q);
  } else {
    bool csv = false;
    switch (ParseJobRequest(q, &csv)) {
      case job_by_name: result = answer_job(q); break;
      case job_by_wildcard: result = answer_job_wildcard(q); break;
      case job_by_queue: result = answer_queue_jobs(q, csv); break;
    }
  }
  trace("%l2 --- process_job_request %d", result);
  return result;
}

int process_job_set(Query* q) {
  const int entry = std::atoi(q->que_name);
  Job* job = nullptr;
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    job = FindJobByEntryNumber(triple, entry);
    if (job != nullptr) break;
  }
  if (job == nullptr) {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=No such entry %d\n", entry);
    return 1;
  }
  iContext = job->EntryNumb;
  char error[1024] = {};
  if (JobModify(q, job, error, sizeof(error)) != 0) {
    answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=%s\n", error);
    return 1;
  }
  answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=%d", entry);
  return 0;
}
