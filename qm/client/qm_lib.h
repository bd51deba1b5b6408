// Command codes, the parsed request, and the client library that talks to
// the daemon through its request pipe and a per-client answer pipe.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

/// Request modes; the number is what travels in field 1 of a request line.
enum cmd_mode : int32_t {
  queue_init = 0,
  queue_block = 1,
  queue_delete = 2,
  queue_set = 3,
  queue_start = 4,
  queue_stop = 5,
  queue_submit = 6,
  queue_submit_sync = 7,
  queue_submit_lazy = 8,
  queue_submit_sync_lazy = 9,
  queue_submit_proc_only = 10,
  queue_del_entry = 11,
  queue_signal_entry = 12,
  queue_move_entry = 13,
  queue_sho = 14,
  queue_sho_name = 15,
  queue_sho_status = 16,
  queue_sho_full = 17,
  queue_sho_csv = 18,
  job_del = 19,
  job_sho = 20,
  job_sho_name = 21,
  job_sho_full = 22,
  job_set = 23,
  show_global_resources = 24,
  shut_down = 25,
  process_signal = 26,
  qma_free_queue_resource_limit = 27,
  invalid_mode = 28
};

/// Display names of the modes, indexed by mode (same table on both sides).
inline constexpr std::array<const char*, 29> gszCmdMode{
    "que_init",        "que_block",        "que_delete",      "que_set",
    "que_start",       "que_stop",         "que_submit",      "que_submit_sync",
    "que_submit_lazy", "que_submit_sync_lazy", "que_submit_proc_only", "que_del_entry",
    "que_signal_entry", "que_move_entry",  "que_sho",         "que_sho/name",
    "que_sho/status",  "que_sho/full",     "que_sho/csv",     "job_del",
    "job_sho",         "job_sho/name",     "job_sho/full",    "job_set",
    "show_global_resources", "shutdown",   "process_signal",  "qma_free_queue_resource_limit",
    "invalid_mode"};
static_assert(gszCmdMode.size() == invalid_mode + 1);

/// The display name of a mode, "invalid_mode" for any number outside the table.
inline const char* cmd_mode_name(int mode) {
  return mode >= 0 && mode <= invalid_mode ? gszCmdMode[static_cast<std::size_t>(mode)]
                                           : gszCmdMode[invalid_mode];
}

/// The requester of the request being served, and the state of its answer.
struct HPEER {
  bool valid = false;    ///< an answer is to be written at all
  int64_t PID = 0;       ///< requester's pid; selects the answer pipe; 0 for own requests
  int iStatusFlag = 0;   ///< multi-part answer: 0 not started, 1 pipe open, 2 last part
  FILE* fOut = nullptr;  ///< open stream of a multi-part answer
  int fd = -1;           ///< its descriptor, -1 when closed
};

/// One parsed request.
struct Query {
  cmd_mode function = invalid_mode;  ///< the mode
  HPEER peer;                        ///< the requester
  char que_name[1024] = {};          ///< field 3 up to the first "/": queue, entry number or job name
  char job_name[1024] = {};          ///< job name for the job requests
  int SeqNumb = 0;                   ///< sequence number of a job name
  int EntryNumb = 0;                 ///< entry number for entry requests
  int64_t PID = 0;                   ///< a job's process id for job requests by pid
  int Timeout = 0;                   ///< wait time of the entry requests
  int count = 0;                     ///< result counter of wildcard walks
  char szCmdArgs[2048] = {};         ///< argument text handed to the mode's handler
  bool bLazy = false;                ///< set for the lazy submit variants
  bool bWildcard = false;            ///< the name contains wildcard characters
};

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
int qm_lib_init(QmErrorFn error, QmUsageFn usage, int trace_level);

/// Builds to_qm ("%scom%sto_qm_pipe") and from_qm ("%scom%sfrom_qm_pipe%d" with
/// the own pid) from the queue manager's directory (a missing trailing "/" is added).
void qm_lib_set_pipe_names(const char* qm_dir);

/// Opens path with retries: write-only when mode begins with "w", else
/// read-only, non-blocking when asked. Up to 20000 tries 100 microseconds
/// apart; stops at once on ENOENT or EACCES. On success the stream (mode
/// mode) and its descriptor in *fd; on failure nullptr, *fd = -1, and the
/// error callback has been told "no answer from kd_qm_main (open pipe failed)".
FILE* fileopen(const char* path, const char* mode, bool non_blocking, int* fd);

/// Sends one request "%d %d %s" (mode, own pid, trimmed arguments) and waits
/// until the daemon's writer has reached the own answer pipe. 0 sent and
/// answer pipe open (iFdFromQm), -1 failure (reported through gERROR).
/// alarm_handler is installed for SIGALRM (nullptr keeps the current one);
/// the alarm of giTimeout seconds bounds the exchange and is cancelled on return.
int qm_lib_send_cmd(int mode, const char* arguments, void (*alarm_handler)(int), int trace_level);

/// Reads the whole answer, printing it to standard output; the return code 0/1/2 (or -1).
int qm_lib_get_answer(int trace_level);
/// The reader behind qm_lib_get_answer.
int qm_lib_get_answer_unix(int trace_level);

/// Reads the next piece of the answer into buffer; characters read, 0 at end, -1 on error.
int qm_lib_get_answer_buff(char* buffer, int size, int trace_level);

/// Closes and removes the answer pipe; giReturnCode.
int qm_lib_close_answer(int trace_level);

/// giTimeout.
int qm_lib_get_cmd_timeout();
