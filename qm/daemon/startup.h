// Start-up of the daemon: the usage text, the process lock, the directories
// from the configuration, the double fork into the background, the service
// pid file and the request pipe.
#pragma once

#include <cstddef>

#include "cm_semaphore.h"
#include "cm_trace.h"

/// The trace log and module name of the daemon.
inline constexpr const char* kQmLogName = "kd_qm_main.lgc";
inline constexpr const char* kQmModule = "KD_QM_MAIN";

extern str_log gQmLog;         ///< the daemon's trace log record
extern sct_semaphore gQmLock;  ///< the process lock "KD_QM_MAIN"

/// "kd_qm_main Kelda GitID: <build id>", the daemon's build line.
const char* QmBuildLine();

/// Prints the build line and the usage text to standard output.
void USAGE();

/// True when the arguments ask for the usage text: exactly one argument that
/// begins with "?" or equals "-h", "-?" or "/?".
bool IsUsageRequest(int argc, char** argv);

/// Takes the process lock "KD_QM_MAIN"; a lock held by another process ends
/// this one with exit code 2 and "STATUS=ERROR MSG=<reason>" on standard output.
void TakeProcessLock();

/// Reads gv_rw_qm (gszQmDir, given a trailing "/") and gv_ro_bin (gszBinDir)
/// of "[Pathes]"; a missing one ends the process with exit code 3.
void ReadQmDirectories();

/// The double fork into the background; returns in the final daemon process,
/// which leads a session of its own, has its descriptors on /dev/null, works
/// in gszQmDir and holds the process lock anew.
void DetachFromTerminal();

/// Writes the service pid file pid_file ("%ld\n" and its NUL byte) when both
/// unit_file and run_dir exist. 0 written or not wanted; -1 failed, with
/// "Could not create '%s' file: %s" in msg.
[[nodiscard]] int WriteServicePidFile(const char* unit_file, const char* run_dir, const char* pid_file, char* msg,
                        std::size_t msg_size);

/// WriteServicePidFile for the service unit of the daemon; a failure ends
/// the process with exit code 2.
void WriteOwnServicePidFile();

/// Creates the request pipe qmd_to_qm (mode 0770), replacing any file of that
/// name and creating its directories when missing. 0, or -1 when it fails.
[[nodiscard]] int CreateRequestPipe();
