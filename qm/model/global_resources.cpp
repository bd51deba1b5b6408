#include "model/global_resources.h"

#include "cm_trace.h"
#include "model/triple.h"
#include "protocol/globals.h"

void UpdateOrCreateGlobalResource(std::string_view name, int slots) {
  GlobalResource* resource = FindGlobalResource(name, &gGlobalResources);
  if (resource == nullptr) {
    AddGlobalResource(&gGlobalResources, name, slots);
    return;
  }
  if (slots < resource->allocated) {
    trace("%l1 Cannot decrease slots for %s. There are %d users", resource->name.c_str(), resource->allocated);
    return;
  }
  resource->slots = slots;
}

GlobalResource* AddGlobalResource(List* list, std::string_view name, int slots) {
  auto* resource = new GlobalResource{};
  resource->name = name;
  resource->slots = slots;
  AddTail(list, NodeOf(resource));
  return resource;
}

GlobalResource* FindGlobalResource(std::string_view name, List* list) {
  for (GlobalResource* resource : Elements<GlobalResource>(*list))
    if (resource->name == name) return resource;
  return nullptr;
}

void RegisterGlobalResource(std::string_view name, List* list) {
  if (GlobalResource* resource = FindGlobalResource(name, list)) ++resource->registered;
}

void DeregisterGlobalResource(std::string_view name, List* list) {
  if (GlobalResource* resource = FindGlobalResource(name, list)) --resource->registered;
}

void AllocateGlobalResource(std::string_view name, List* list) {
  GlobalResource* resource = FindGlobalResource(name, list);
  if (resource == nullptr) return;
  trace("%l2 [CTX:%d] AllocateGlobalResource: %s allocated: %d/%d", iContext, resource->name.c_str(),
        resource->allocated, resource->slots);
  ++resource->allocated;
}

void ReleaseGlobalResource(std::string_view name, List* list) {
  GlobalResource* resource = FindGlobalResource(name, list);
  if (resource == nullptr) return;
  trace("%l2 [CTX:%d] ReleaseGlobalResource: %s allocated: %d/%d", iContext, resource->name.c_str(),
        resource->allocated, resource->slots);
  --resource->allocated;
}

void AvailableGlobalResource(std::string_view name, List* list, int* flag) {
  // A name nobody declared never blocks a job.
  const GlobalResource* resource = FindGlobalResource(name, list);
  if (resource != nullptr && resource->allocated >= resource->slots) *flag = 0;
}

int job_have_global_resources(Job* job, List* list) {
  int flag = 1;
  for (const GlobalResourceName* n : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames))
    AvailableGlobalResource(n->name, list, &flag);
  return flag;
}

void job_allocate_global_resources(Job* job, List* list) {
  for (const GlobalResourceName* n : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames))
    AllocateGlobalResource(n->name, list);
  job->bGLORESAllocated = true;
}

void job_release_global_resources(Job* job, List* list) {
  // Only units the job holds are given back, so a second release is harmless.
  if (!job->bGLORESAllocated) return;
  for (const GlobalResourceName* n : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames))
    ReleaseGlobalResource(n->name, list);
  job->bGLORESAllocated = false;
}

void job_register_global_resources(Job* job, List* list) {
  for (const GlobalResourceName* n : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames))
    RegisterGlobalResource(n->name, list);
}

void job_deregister_global_resources(Job* job, List* list) {
  for (const GlobalResourceName* n : Elements<GlobalResourceName>(job->ListOfGlobalResourceNames))
    DeregisterGlobalResource(n->name, list);
}

void CheckUnregisteredGlobalResources() {
  for (GlobalResource* resource : Elements<GlobalResource>(gGlobalResources)) {
    if (resource->registered >= 1) continue;
    trace("%l2 remove global resource %s", resource->name.c_str());
    RemNode(&gGlobalResources, NodeOf(resource));
    delete resource;
  }
}
