// The request protocol shared by the daemon and its clients: the request
// modes that travel in field 1 of a request line, the parsed request and
// the requester it is answered to.
#pragma once

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
