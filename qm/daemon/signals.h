// The daemon's one signal handler for SIGALRM, SIGCHLD, SIGPIPE, SIGINT and
// SIGTERM. An alarm or an ended child breaks the wait for the next request
// and writes the self-request "26 0" (process_signal, no answer) into the
// request pipe, so that a scheduling pass follows; SIGINT and SIGTERM shut
// the daemon down (in forked answer writers they are ignored).
#pragma once

#include <signal.h>

/// Seconds between two passes of an idle daemon.
inline constexpr unsigned kAlarmSeconds = 10;

extern struct sigaction sig_action;  ///< the handler as installed for the five signals

/// The handler of SIGALRM, SIGCHLD, SIGPIPE, SIGINT and SIGTERM.
void sig_handler(int sig, siginfo_t* info, void* context);

/// Builds blockmaske and installs sig_handler for the five signals.
void InstallSignalHandler();

/// Writes "<label>: " and "<name>," for every blocked signal, then a line end,
/// to standard error.
void print_smask(const char* label);
