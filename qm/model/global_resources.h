// Global resources: named, counted capacities shared by every queue. A job
// that names some starts only while each has a free unit and holds one unit
// of each while it runs. Jobs register the names they use; a resource that
// no job registers any more is removed once per main-loop cycle.
#pragma once

#include <string_view>

#include "model/list.h"
#include "model/records.h"

/// Creates the resource in gGlobalResources with that many units, or sets
/// the units of an existing one (refused with a trace when fewer than the
/// units held).
void UpdateOrCreateGlobalResource(std::string_view name, int slots);
/// Appends a new resource of that name and size to list; returns it.
GlobalResource* AddGlobalResource(List* list, std::string_view name, int slots);
/// The resource of that name in list, or null.
GlobalResource* FindGlobalResource(std::string_view name, List* list);
/// Counts one more (or one less) job that names the resource; unknown names
/// are ignored.
void RegisterGlobalResource(std::string_view name, List* list);
void DeregisterGlobalResource(std::string_view name, List* list);
/// Takes (or gives back) one unit of the resource; unknown names are ignored.
void AllocateGlobalResource(std::string_view name, List* list);
void ReleaseGlobalResource(std::string_view name, List* list);
/// Sets *flag to 0 when the resource exists and has no free unit; a name
/// nobody declared never blocks.
void AvailableGlobalResource(std::string_view name, List* list, int* flag);
/// 1 when every resource the job names has a free unit.
int job_have_global_resources(Job* job, List* list);
/// Takes one unit of every resource the job names and marks them held.
void job_allocate_global_resources(Job* job, List* list);
/// Gives back the units the job holds (nothing when it holds none).
void job_release_global_resources(Job* job, List* list);
/// Registers (or deregisters) the job with every resource it names.
void job_register_global_resources(Job* job, List* list);
void job_deregister_global_resources(Job* job, List* list);
/// Removes every resource of gGlobalResources that no job registers.
void CheckUnregisteredGlobalResources();
