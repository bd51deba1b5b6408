#include "views/queue_view.h"

#include <cstdio>
#include <string>
#include <string_view>

#include "model/list.h"
#include "model/priority_slots.h"
#include "model/triple.h"
#include "protocol/answer.h"

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
