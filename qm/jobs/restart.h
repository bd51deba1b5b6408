// The restart policy of ended jobs (option R: exit code, burst, window) and
// the runs that only report a waiting job's pending-state exit code.
#pragma once

#include <cstdint>

#include "model/list.h"
#include "model/records.h"

/// Starts an ended job again when a restart condition names its exit code
/// and the burst (within the window, when one is set) allows it; each
/// decision goes to the exit log. The new pid when started again, 0 when
/// not, -1 when the start failed.
[[nodiscard]] int32_t JobRestart(Job* job, int64_t exit_code);
/// Walk callback over jobs: iPendingStateExitCode := atoi(text).
void SetPendingStateExitCode(Node* job, void* text, void*);
/// Runs a job that never ran once with "-d" and its pending-state exit code,
/// unless that code is 0.
void RunWithPendingStateExitCode(Job* job);
