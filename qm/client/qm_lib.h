// The client library: talks to the daemon through its request pipe and a
// per-client answer pipe, and reads the command words of the front end.
#pragma once

#include <sys/types.h>

#include <cstdio>

#include "protocol/request.h"  // the request modes a client sends

// ---------------------------------------------------------------------------
// Command codes (front end)
// ---------------------------------------------------------------------------

/// Error and usage callbacks of the front end.
using QmErrorFn = void (*)(const char* text);
using QmUsageFn = void (*)();

/// Turns a command word into a mode by the keyword rules; argument is the
/// first argument behind the command word (or nullptr), words the word count
/// including the command word. Also stores the mode through mode_out (if given).
int iGET_COMMAND_CODE(const char* command, const char* argument, int words, int* mode_out);

/// Takes the general options (-h, -v level; "-e" is accepted and ignored)
/// that directly follow the command word off the command line, shifting
/// argc/argv in place so that argv[0] is the command word and argv[1] its
/// first argument; returns the mode (invalid_mode when there is no word).
/// Too few words call gERROR with an empty text; -h and an unknown word call gUSAGE.
int qm_lib_check_args(int* argc, char*** argv, int trace_level);

// ---------------------------------------------------------------------------
// Client library
//
// One request at a time per process (the answer pipe is named after the pid).
// The trace_level arguments are kept for the callers; what is traced follows
// the level of the process's trace log.
// ---------------------------------------------------------------------------

/// Path of the request pipe and of the own answer pipe.
extern char to_qm[1024];
extern char from_qm[1024];
extern int iFdFromQm;          ///< answer pipe descriptor, -1 when closed
extern int giTimeout;          ///< seconds
extern int giReturnCode;       ///< last return code; -9 before any answer
extern int giFetchReturnCode;  ///< 1 while the status digit is still unread
extern int giPipeSeenEOF;
extern int iSleepAdd;          ///< 15
extern QmErrorFn gERROR;
extern QmUsageFn gUSAGE;

/// 0 on success, 1 when gv_rw_qm is not configured.
[[nodiscard]] int qm_lib_init(QmErrorFn error, QmUsageFn usage, int trace_level);

/// Builds to_qm ("%scom%sto_qm_pipe") and from_qm ("%scom%sfrom_qm_pipe%d" with
/// the own pid) from the queue manager's directory (a missing trailing "/" is added).
void qm_lib_set_pipe_names(const char* qm_dir);

/// Opens path with retries: write-only when mode begins with "w", else
/// read-only, non-blocking when asked. Up to 20000 tries 100 microseconds
/// apart; stops at once on ENOENT or EACCES. On success the stream (mode
/// mode) and its descriptor in *fd; on failure nullptr, *fd = -1, and the
/// error callback has been told "no answer from kd_qm_main (open pipe failed)".
[[nodiscard]] FILE* fileopen(const char* path, const char* mode, bool non_blocking, int* fd);

/// Sends one request "%d %d %s" (mode, own pid, trimmed arguments) and waits
/// until the daemon's writer has reached the own answer pipe. 0 sent and
/// answer pipe open (iFdFromQm), -1 failure (reported through gERROR).
/// alarm_handler is installed for SIGALRM (nullptr keeps the current one);
/// the alarm of giTimeout seconds bounds the exchange and is cancelled on return.
[[nodiscard]] int qm_lib_send_cmd(int mode, const char* arguments, void (*alarm_handler)(int), int trace_level);

/// Reads the whole answer, printing it to standard output; the return code 0/1/2 (or -1).
int qm_lib_get_answer(int trace_level);
/// The reader behind qm_lib_get_answer.
int qm_lib_get_answer_unix(int trace_level);

/// Reads the next piece of the answer into buffer; characters read, 0 at end, -1 on error.
[[nodiscard]] int qm_lib_get_answer_buff(char* buffer, int size, int trace_level);

/// Closes and removes the answer pipe; giReturnCode.
int qm_lib_close_answer(int trace_level);

/// giTimeout.
int qm_lib_get_cmd_timeout();
