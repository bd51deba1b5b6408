#include "model/job.h"

#include <ctime>
#include <string>

#include "model/elements.h"
#include "model/entry_pool.h"
#include "model/global_resources.h"
#include "model/triple.h"

namespace {

/// Broken-down local time of now, as the records keep it.
QMTime local_time(time_t now) {
  struct tm tm {};
  localtime_r(&now, &tm);
  return QMTime{tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

/// Compares field by field down to the minute, or down to the second.
int compare_time(const QMTime& a, const QMTime& b, bool with_seconds) {
  const int av[] = {a.year, a.month, a.day, a.hour, a.min, a.sec};
  const int bv[] = {b.year, b.month, b.day, b.hour, b.min, b.sec};
  const int fields = with_seconds ? 6 : 5;
  for (int i = 0; i < fields; ++i)
    if (av[i] != bv[i]) return av[i] < bv[i] ? -1 : 1;
  return 0;
}

}  // namespace

void DestroyJob(Job* job) {
  if (job == nullptr) return;
  if (job->bGLORESAllocated) job_release_global_resources(job, &gGlobalResources);
  RemoveList(&job->ListOfPeers);
  RemoveList(&job->ListOfGlobalResourceNames);
  RemoveList(&job->ListOfArguments);
  RemoveList(&job->ListOfJobRestartConditions);
  RemoveList(&job->ListOfRestartTimes);
  FreeResourceList(&job->s_preferredResource.l_preferredResources);
  RemoveList(&job->s_preferredResource.l_preferredResources);
  delete job->pTermReason;
  delete job->pFullCommand;
  delete job->pRestarts;
  if (job->EntryNumb > 0) QmEntry_release(job->EntryNumb);
  // The follow-up job is its owner's to free.
  delete job;
}

void DestroyJobChain(Job* job) {
  while (job != nullptr) {
    Job* next = job->pFollowUpJob;
    job->pFollowUpJob = nullptr;
    DestroyJob(job);
    job = next;
  }
}

PreferredResourceType SpecifyJobResource(Job* job) {
  List& list = job->s_preferredResource.l_preferredResources;
  PreferredResourceType type = e_prt_set;
  if (list.Head == nullptr) {
    type = e_prt_arbitrary;
  } else if (list.Head->Next == nullptr) {
    const std::string& name = ElementOf<Resource>(list.Head)->cpResource;
    if (name.empty() || name == "*")
      type = e_prt_arbitrary;
    else if (name == "all")
      type = e_prt_all;
  }
  job->s_preferredResource.i_resourceType = type;
  return type;
}

std::string JobResourcesToStr(const Job* job) {
  std::string text;
  for (const Resource* resource : Elements<Resource>(job->s_preferredResource.l_preferredResources)) {
    if (!text.empty()) text += ';';
    if (!resource->cpShare.empty()) {
      text += resource->cpShare;
      text += '_';
    }
    text += resource->cpResource;
    text += resource->cpServer;
  }
  return text;
}

Job* FindJobByEntryNumber(QueueTriple* triple, int32_t entry) {
  Node* node = SearchList(&triple->HoldingQue, EntryNumber, IntArg(entry), nullptr);
  if (node == nullptr) node = SearchList(&triple->PendingQue, EntryNumber, IntArg(entry), nullptr);
  if (node == nullptr) node = SearchQueList(&triple->ExecQueues, EntryNumber, IntArg(entry), nullptr);
  return node != nullptr ? ElementOf<Job>(node) : nullptr;
}

// ---------------------------------------------------------------------------
// Times
// ---------------------------------------------------------------------------

QMTime tm_time_to_Time(const struct tm& tm) {
  QMTime t;
  t.year = tm.tm_year + 1900;
  t.month = tm.tm_mon + 1;
  t.day = tm.tm_mday;
  t.hour = tm.tm_hour;
  t.min = tm.tm_min;
  t.sec = tm.tm_sec;
  return t;
}

void WriteTime(QMTime* t) {
  const time_t seconds = time(nullptr);
  struct tm now {};
  localtime_r(&seconds, &now);
  *t = tm_time_to_Time(now);
}

void TimeToISOStr(const QMTime& t, char* buffer, std::size_t size) {
  std::snprintf(buffer, size, "%02d-%02d-%02d %02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.min, t.sec);
}

int JobTime(Job* job, const QMTime* time) { return compare_time(job->Time, *time, false) > 0 ? 1 : 0; }

int JobStartTimeExpired(Job* job, time_t now) {
  if (!job->MaxStartTimeSet) return 0;
  return compare_time(job->MaxStartTime, local_time(now), true) <= 0 ? 1 : 0;
}

int JobTimeExpired(Job* job, time_t now) {
  if (!job->MaxCompleteTimestampSet) return 0;
  // A job being stopped has had its end time; it must not be stopped again.
  if (job->eJobState == job_stopping) return 0;
  return compare_time(job->MaxCompleteTimestamp, local_time(now), true) <= 0 ? 1 : 0;
}

int QueCheckJobExpired(Node* node, void* time, void*) {
  const time_t now = *static_cast<time_t*>(time);
  for (Job* job : Elements<Job>(ElementOf<Queue>(node)->ListOfJobs))
    if (JobTimeExpired(job, now) != 0) return 1;
  return 0;
}
