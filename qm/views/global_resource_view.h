// The table of global resources and which jobs use them
// (show_global_resources).
#pragma once

#include <string>

#include "model/list.h"
#include "model/records.h"

/// Appends "name\tslots\tallocated\tregistered\n".
void ViewGlobalResource(GlobalResource* resource, std::string* text);
/// Appends, for every triple of triples, a line "queue: <name>" and the
/// global-resource usage of its executing, holding and pending jobs: each
/// non-empty section as "[exec]", "[holding]" or "[pending]", a line per
/// job, and an empty line.
void PrintJobsGlobalResourcesUsage(List* triples, List* resources, std::string* text);
