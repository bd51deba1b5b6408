// The Queue Manager daemon's spine: start-up, the main loop, the signal
// handler, the request pipe and the execution of requests.
//
// The daemon's pipe paths are named qmd_to_qm and qmd_from_qm here: the
// client library, linked into the same library, owns the names to_qm and
// from_qm for its own paths.
#pragma once

#include <signal.h>

#include <cstddef>

#include "cm_semaphore.h"
#include "cm_trace.h"
#include "qm_lib.h"

/// Longest request accepted for execution (line feed excluded) is one less.
inline constexpr int kMaxQueryLength = 1024;
/// Characters of one request line that are read at most (line feed excluded).
inline constexpr std::size_t kMaxReadLine = 2046;
/// Seconds between two passes of an idle daemon.
inline constexpr unsigned kAlarmSeconds = 10;

// Globals of the daemon. All trivially destructible: forked answer writers
// and the signal handler see them, and exit must not tear them down.
extern int g_PID;                 ///< pid of the daemon process; 0 before start-up
extern char gszQmDir[1024];       ///< gv_rw_qm, ends with "/"
extern char gszBinDir[512];       ///< gv_ro_bin
extern char qmd_to_qm[1024];      ///< the request pipe: "%scom%sto_qm_pipe"
extern char qmd_from_qm[1024];    ///< answer pipe of the request being served
extern char gszClientPid[32];     ///< field 2 of the request being served, as text
extern char gszKeldaDay[256];     ///< business day of the current trace and exit log
extern char gszResource[1024];    ///< resource part of field 3 (behind the first "/", or the second for submits)
extern char gszAllocate[1024];    ///< allocation wish of a submit (between the first and second "/")
extern sigset_t blockmaske;       ///< SIGALRM, SIGCHLD, SIGPIPE, SIGINT, SIGTERM
extern struct sigaction sig_action;
extern str_log gQmLog;            ///< the daemon's trace log record
extern sct_semaphore gQmLock;     ///< the process lock "KD_QM_MAIN"

/// Prints the build line and the usage text to standard output.
void USAGE();

/// True when the arguments ask for the usage text: exactly one argument that
/// begins with "?" or equals "-h", "-?" or "/?".
bool IsUsageRequest(int argc, char** argv);

/// Start-up and the endless main loop; ends the process through exit.
[[noreturn]] void vMainLoop(int argc, char** argv);

/// Switches trace log and exit log when the business day (gv_date, or today)
/// differs from gszKeldaDay. Called before every read of the request pipe.
void SetLogFile();

/// The handler of SIGALRM, SIGCHLD, SIGPIPE, SIGINT and SIGTERM.
void sig_handler(int sig, siginfo_t* info, void* context);

/// Builds blockmaske and installs sig_handler for the five signals.
void InstallSignalHandler();

/// Writes "<label>: " and "<name>," for every blocked signal, then a line end,
/// to standard error.
void print_smask(const char* label);

/// Orderly shutdown: removes the request pipe, records the exit code of
/// "-e" (default "0") on waiting jobs, lists and removes every queue triple
/// (or answers that none exists), and releases the process lock.
void que_shutdown(Query* q);

/// Writes the service pid file pid_file ("%ld\n" and its NUL byte) when both
/// unit_file and run_dir exist. 0 written or not wanted; -1 failed, with
/// "Could not create '%s' file: %s" in msg.
int WriteServicePidFile(const char* unit_file, const char* run_dir, const char* pid_file, char* msg,
                        std::size_t msg_size);

/// Creates the request pipe qmd_to_qm (mode 0770), replacing any file of that
/// name and creating its directories when missing. 0, or -1 when it fails.
int CreateRequestPipe();

/// Serves the request pipe until it is quiet: 1 call again at once, 0 no
/// request arrived (a signal or the alarm ended the wait), -1 after a
/// shutdown request.
int ReadExecuteQuery(const char* program, const char* qm_dir);

/// Closes the daemon's descriptor of the request pipe and forgets any
/// buffered input (after a fork, and for tests).
void CloseRequestPipe();

/// Splits one request line (line feed removed) into a query: mode, argument
/// text, peer, queue name, gszClientPid, gszResource and gszAllocate.
void SplitRequest(const char* line, Query* q);

/// Parses and executes one request line; 0 done, 1 refused, 2 shutdown.
int iEXEC_REQUEST(const char* line);

/// Executes a split query (SplitRequest) by its mode through the table of
/// request handlers; 0 done, 1 refused, 2 shutdown. A query whose peer is
/// not valid is executed without any answer.
int DispatchQuery(Query* q);
