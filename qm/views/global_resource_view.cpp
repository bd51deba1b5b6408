#include "views/global_resource_view.h"

#include <cstdio>
#include <string>

#include "views/job_view.h"

void ViewGlobalResource(GlobalResource* resource, std::string* text) {
  char line[1024];
  std::snprintf(line, sizeof line, "%s\t%d\t%d\t%d\n", resource->name.c_str(), resource->slots, resource->allocated,
                resource->registered);
  text->append(line);
}

namespace {

bool any_exec_job(const QueueTriple* triple) {
  for (const Queue* queue : Elements<Queue>(triple->ExecQueues))
    if (queue->ListOfJobs.Head != nullptr) return true;
  return false;
}

void print_jobs_usage(const List& jobs, List* resources, std::string* text) {
  for (const Job* job : Elements<Job>(jobs)) ViewJobGlobalResourceUsage(job, true, resources, text);
}

}  // namespace

void PrintJobsGlobalResourcesUsage(List* triples, List* resources, std::string* text) {
  for (const QueueTriple* triple : Elements<QueueTriple>(*triples)) {
    text->append("queue: ").append(triple->name.view()).append("\n");
    if (any_exec_job(triple)) {
      text->append("[exec]\n");
      for (const Queue* queue : Elements<Queue>(triple->ExecQueues)) print_jobs_usage(queue->ListOfJobs, resources, text);
      text->append("\n");
    }
    if (triple->HoldingQue.Head != nullptr) {
      text->append("[holding]\n");
      print_jobs_usage(triple->HoldingQue, resources, text);
      text->append("\n");
    }
    if (triple->PendingQue.Head != nullptr) {
      text->append("[pending]\n");
      print_jobs_usage(triple->PendingQue, resources, text);
      text->append("\n");
    }
  }
}
