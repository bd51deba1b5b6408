// Global resources: named, counted capacities shared by all queues.
#pragma once

#include <string>

#include "queue.h"

struct GlobalResource {
  Node n;
  CappedText<512> name;
  int slots = 0;       ///< units of the resource
  int registered = 0;  ///< known jobs that name it
  int allocated = 0;   ///< units held by running jobs
};

/// A global resource named by a job.
struct GlobalResourceName {
  Node n;
  CappedText<512> name;
};

template <> struct ElementKind<GlobalResource> { static constexpr ListOf value = GlobalResources; };
template <> struct ElementKind<GlobalResourceName> { static constexpr ListOf value = GlobalResourceNames; };

void UpdateOrCreateGlobalResource(std::string_view name, int slots);
GlobalResource* AddGlobalResource(List* list, std::string_view name, int slots);
GlobalResource* FindGlobalResource(std::string_view name, List* list);
void RegisterGlobalResource(std::string_view name, List* list);
void DeregisterGlobalResource(std::string_view name, List* list);
void AllocateGlobalResource(std::string_view name, List* list);
void ReleaseGlobalResource(std::string_view name, List* list);
void AvailableGlobalResource(std::string_view name, List* list, int* flag);
int job_have_global_resources(Job* job, List* list);
void job_allocate_global_resources(Job* job, List* list);
void job_release_global_resources(Job* job, List* list);
void job_register_global_resources(Job* job, List* list);
void job_deregister_global_resources(Job* job, List* list);
void CheckUnregisteredGlobalResources();
void ViewGlobalResource(GlobalResource* resource, std::string* text);
void PrintJobsGlobalResourcesUsage(List* triples, List* resources, std::string* text);
