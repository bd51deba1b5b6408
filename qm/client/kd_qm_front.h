// The front end kd_qm: one request to the queue manager daemon per call,
// its answer printed as it comes, the answer's return digit as exit code.
#pragma once

#include <array>
#include <cstdio>
#include <string>

#include "protocol/request.h"

/// Exit codes of kd_qm beyond the answer digits 0 (Ok), 1 (Warning), 2 (Error).
enum KD_QM_EXIT : int {
  KD_QM_EXIT_UNREACHABLE = 3,  ///< no daemon, no answer in time, or no configuration
  KD_QM_EXIT_USAGE = 4         ///< the command line names no request
};

/// One command of the front end, as `kd_qm -h` lists it.
struct KdQmCommand {
  const char* word;       ///< the command word (it yields mode by the keyword rules)
  cmd_mode mode;          ///< the request mode
  const char* arguments;  ///< the request's arguments
  const char* what;       ///< one-line description
};

/// Every request mode a client may send, in mode order.
extern const std::array<KdQmCommand, 27> kKdQmCommands;

/// The command of a mode, or nullptr for a mode no client sends.
const KdQmCommand* kd_qm_command(int mode);

/// Writes the usage line and the list of commands.
void kd_qm_print_help(FILE* out);

/// Joins words[first..count-1] into a request's argument text, one blank
/// between words; a word holding a blank or tab is enclosed in double quotes
/// and an empty word becomes "" so that the daemon sees the same words.
std::string kd_qm_join_arguments(int count, char* const words[], int first);

/// The SIGALRM handler of kd_qm: writes "kd_qm: no answer from kd_qm_main
/// within %d seconds" to standard error, removes the answer pipe and ends the
/// process with KD_QM_EXIT_UNREACHABLE (async-signal-safe).
void kd_qm_alarm_handler(int sig);

/// The whole program: kd_qm [-h] [-v level] COMMAND ARGS... Returns the exit code.
int kd_qm_front(int argc, char** argv);
