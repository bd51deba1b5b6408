// Wildcards and the views of queue triples: text tables and comma-separated
// lines written into a client's answer stream.
//
// Each view is built as one text and written with one pipe_printf: a listing
// of a thousand triples would otherwise cost a wait for writability per line.
#include <cstdio>
#include <string>
#include <string_view>

#include "cm_common.h"
#include "cm_trace.h"
#include "qm_common.h"
#include "qm_job.h"
#include "qm_queue.h"
#include "queue.h"

namespace {

constexpr const char* kViewHeader =
    "Entry   Job           Priority Allocate             PID  Date       Time      Resources\n";
constexpr const char* kViewNamesHeader =
    "Entry  Job Name       Priority Allocate             PID  Date       Time      Resources\n";
constexpr const char* kViewClosing = "----------------------------------------------------------\n";

void write_text(FILE* out, const AppendString& text) {
  if (out != nullptr && !text.empty()) pipe_printf(out, "%s", text.c_str());
}

void append_queue_line(QueueTriple* triple, AppendString* text) {
  AppendPrintf(text, "que_name= %s\tstatus= %s\tbalancing= %s/%s\t allocation mode= %s\n", triple->name.c_str(),
               szQueState(triple->status), szBalancingMode(triple->eBalMode), szDecisionMode(triple->eDecMode),
               szAllocationMode(triple->eAllocMode));
}

void append_jobs(const List& jobs, const char* mode, AppendString* text) {
  for (Job* job : Elements<Job>(jobs)) PrintJob(job, mode, text);
}

/// The three table views differ in header, section titles and job mode texts.
struct TableView {
  const char* header;          ///< null: none
  const char* holding;
  const char* pending;
  const char* executing;
  const char* ordinary_mode;   ///< job mode text of an ordinary triple
  const char* terminating_mode;
};

constexpr TableView kViewQue{kViewHeader, "holding queue\n", "pending queue\n", "executing queue(s)\n", "", "name"};
constexpr TableView kViewQueNames{kViewNamesHeader, "holding queue\n", "pending queue\n", "executing queue(s)\n",
                                  "name", "name"};
// "false" is the mode text the full view has always given terminating jobs:
// they print as short lines.
constexpr TableView kViewQueFull{nullptr, "holding queue\n\n", "pending queue\n\n", "executing queue(s)\n\n", "full",
                                 "false"};

void write_table_view(QueueTriple* triple, const TableView& view, FILE* out) {
  AppendString text;
  append_queue_line(triple, &text);
  if (view.header != nullptr) text += view.header;
  if (triple->queType == 2) {
    text += view.holding;
    append_jobs(triple->HoldingQue, view.ordinary_mode, &text);
    text += view.pending;
    append_jobs(triple->PendingQue, view.ordinary_mode, &text);
    text += view.executing;
    for (Queue* queue : Elements<Queue>(triple->ExecQueues)) PrintQue(queue, view.ordinary_mode, &text);
  } else if (triple->queType == 1) {
    text += "terminating queue\n";
    if (triple->TerminatingQueue != nullptr)
      append_jobs(triple->TerminatingQueue->ListOfJobs, view.terminating_mode, &text);
  }
  text += kViewClosing;
  write_text(out, text);
}

void append_csv_jobs(const List& jobs, const char* prefix, AppendString* text) {
  for (Job* job : Elements<Job>(jobs)) PrintJobCSV(job, prefix, text);
}

}  // namespace

int iStrWildcard(std::string_view text, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern ? 1 : 0;
  // Only the fields before the first and between the first and the second
  // "*" count: a pattern holds one effective "*".
  const std::string_view first = pattern.substr(0, star);
  std::string_view second = pattern.substr(star + 1);
  if (const std::size_t next = second.find('*'); next != std::string_view::npos) second = second.substr(0, next);

  const bool first_holds = first.empty() || text.substr(0, first.size()) == first;
  bool second_holds = second.empty();
  if (!second_holds) {
    // The first occurrence must be the end: "ab" does not end "abab" here.
    const std::size_t at = text.find(second);
    second_holds = at != std::string_view::npos && text.substr(at) == second;
  }
  return first_holds && second_holds ? 1 : 0;
}

int iWildcard(QueueTriple* triple, std::string_view pattern) { return iStrWildcard(triple->name.view(), pattern); }

void QueName_wildcard(Node* node, void* query, void* mode) {
  QueueTriple* triple = ElementOf<QueueTriple>(node);
  auto* q = static_cast<Query*>(query);
  if (iWildcard(triple, q->que_name) == 0) return;
  ++q->count;
  answer_wildcard(&q->peer, KD_SUCCESS, nullptr, triple, static_cast<char>(ArgInt(mode)));
}

int JobNameWildcard(Node* node, void* query, void*) {
  Job* job = ElementOf<Job>(node);
  auto* q = static_cast<Query*>(query);
  if (iStrWildcard(job->job_name.view(), q->job_name) == 0) return 0;
  // The job travels through the triple argument of the answer writer; the
  // selectors "F" and "N" read it back as a job.
  answer_wildcard(&q->peer, KD_SUCCESS, nullptr, ElementOf<QueueTriple>(NodeOf(job)),
                  q->function == job_sho_full ? 'F' : 'N');
  return 1;
}

void ViewQue(QueueTriple* triple, FILE* out) { write_table_view(triple, kViewQue, out); }
void ViewQueNames(QueueTriple* triple, FILE* out) { write_table_view(triple, kViewQueNames, out); }
void ViewQueFull(QueueTriple* triple, FILE* out) { write_table_view(triple, kViewQueFull, out); }

void ViewQueStatus(QueueTriple* triple, FILE* out) {
  char job_limit[64] = "";
  if (triple->ExecQueues.Head != nullptr) {
    const Queue* first = ElementOf<Queue>(triple->ExecQueues.Head);
    std::snprintf(job_limit, sizeof job_limit, "job_limit: %d/%d", first->current_job_limit, first->job_limit);
  }
  AppendString text;
  AppendPrintf(&text, "que_name=%s\tstatus=%s\tbalancing=%s/%s\tallocation mode=%s\tpending=%lu\tholding=%lu\t%s\n",
               triple->name.c_str(), szQueState(triple->status), szBalancingMode(triple->eBalMode),
               szDecisionMode(triple->eDecMode), szAllocationMode(triple->eAllocMode),
               static_cast<unsigned long>(QueSize(&triple->PendingQue)),
               static_cast<unsigned long>(QueSize(&triple->HoldingQue)), job_limit);
  text += "executing queue(s)\n";
  for (Queue* queue : Elements<Queue>(triple->ExecQueues)) PrintQue(queue, "status", &text);
  write_text(out, text);
}

void ViewQueCSV(QueueTriple* triple, HPEER* peer) {
  AppendString text;
  char prefix[2200];
  if (triple->queType == 2) {
    for (Queue* queue : Elements<Queue>(triple->ExecQueues)) {
      std::snprintf(prefix, sizeof prefix, "%s/%s,exec", triple->name.c_str(), queue->name.c_str());
      append_csv_jobs(queue->ListOfJobs, prefix, &text);
    }
    std::snprintf(prefix, sizeof prefix, "%s,pending", triple->name.c_str());
    append_csv_jobs(triple->PendingQue, prefix, &text);
    std::snprintf(prefix, sizeof prefix, "%s,holding", triple->name.c_str());
    append_csv_jobs(triple->HoldingQue, prefix, &text);
  } else if (triple->queType == 1) {
    std::snprintf(prefix, sizeof prefix, "%s,terminating", triple->name.c_str());
    if (triple->TerminatingQueue != nullptr) append_csv_jobs(triple->TerminatingQueue->ListOfJobs, prefix, &text);
  }
  write_text(peer->fOut, text);
}

void ViewExecQueCSV(Queue* queue, const char* prefix, HPEER* peer) {
  AppendString text;
  append_csv_jobs(queue->ListOfJobs, prefix, &text);
  write_text(peer->fOut, text);
}

void PrintQue(Queue* queue, const char* mode, AppendString* text) {
  const std::string priorities = PrioritySlotPrint(&queue->ListOfJobLimitsByJobPriority);
  if (queue->pCounter != nullptr)
    AppendPrintf(text, "Name: %s %s%s\tcounter %s: %d/%d %s", queue->share.c_str(), queue->name.c_str(),
                 queue->server.c_str(), queue->pCounter->name.c_str(), queue->pCounter->current_job_limit,
                 queue->pCounter->job_limit, priorities.c_str());
  else
    AppendPrintf(text, "Name: %s %s%s\tjob_limit: %d/%d %s", queue->share.c_str(), queue->name.c_str(),
                 queue->server.c_str(), queue->current_job_limit, queue->job_limit, priorities.c_str());
  if (queue->isAllocated != 0)
    AppendPrintf(text, " \tallocated: %8s", queue->allocate.c_str());
  else
    *text += " \tis not allocated";
  AppendPrintf(text, " \tstatus: %s", szQueState(queue->eState));
  AppendPrintf(text, " \tallocation mode: %s", szAllocationMode(queue->eAllocMode));
  AppendPrintf(text, " \tallocation: %s", queue->allocate.c_str());
  if (queue->eDecMode != e_decision_ordered) AppendPrintf(text, " \tweight: %3.2f", queue->dWeight);
  *text += "\n";
  if (std::string_view(mode) != "status") append_jobs(queue->ListOfJobs, mode, text);
}

void PrintQue(Queue* queue, const char* mode, FILE* out) {
  AppendString text;
  PrintQue(queue, mode, &text);
  write_text(out, text);
}
