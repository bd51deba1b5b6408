// The daemon-wide state that every layer reads: the daemon's identity and
// directories, the pipe paths of the request being served, the signal mask
// of request execution, the job being worked on, the daemon's options and
// its clock.
//
// All trivially destructible: forked answer writers and the signal handler
// see them, and exit must not tear them down.
#pragma once

#include <signal.h>

#include <cstdint>
#include <ctime>

extern int g_PID;               ///< pid of the daemon process; 0 before start-up
extern char gszQmDir[1024];     ///< gv_rw_qm, ends with "/"
extern char gszBinDir[512];     ///< gv_ro_bin: where relative executables are looked for
extern char qmd_to_qm[1024];    ///< the request pipe: "%scom%sto_qm_pipe"
extern char qmd_from_qm[1024];  ///< answer pipe of the request being served
extern char gszResource[1024];  ///< resource part of field 3 (behind the first "/", or the second for submits)
extern char gszAllocate[1024];  ///< allocation wish of a submit (between the first and second "/")
extern sigset_t blockmaske;     ///< SIGALRM, SIGCHLD, SIGPIPE, SIGINT, SIGTERM: blocked while a request runs

/// The entry number of the job being worked on; job traces begin "[CTX:%d]".
extern int iContext;

/// Daemon-wide options; bit follow_up enables follow-up jobs.
enum QMOptions : uint32_t { follow_up = 1 };
extern uint32_t eQMOptions;

/// The clock of the restart windows, the graceful-stop timestamps and the
/// end times set by deletions (seconds since the epoch); QmSystemNow unless
/// a test sets another.
extern time_t (*gQmNow)();
/// time(nullptr); the default of gQmNow.
time_t QmSystemNow();
