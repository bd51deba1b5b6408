// File semaphores: named critical sections across processes, held as an
// exclusive fcntl record lock on "gv_rw_work:sem/<name>.sem".
#pragma once

#include <signal.h>
#include <sys/types.h>

/// The caller's semaphore record.
struct sct_semaphore {
  char szSema[128] = {};      ///< the semaphore's name
  char szCaller[1024] = {};   ///< who asks; written into the file while held
  bool bCatchSignals = false; ///< wait by polling; SIGINT, SIGTERM, SIGABRT abort the wait
  int iSignal = 0;            ///< the signal that aborted a wait
  char szMsg[1032] = {};      ///< result text of the last operation
  int hSema = -1;             ///< open descriptor of the semaphore file, or negative
};

/// Operation '+' or 'S' lock (wait), '*' try once, '-' unlock, '?' inquire,
/// 'R' reset after a dead holder, '#' remove the file. Returns an EXIT_STATE;
/// szMsg explains. KD_FATAL ends the process with exit code 3. A record
/// holds one lock at a time (its descriptor in hSema until '-').
[[nodiscard]] int i_SEMA(char operation, sct_semaphore* sema);

/// The interrupt mark of a waiting lock: 'n' while no signal arrived, else
/// the number of the signal that arrived. Process-wide: one wait at a time.
extern volatile sig_atomic_t gcSemaInterrupt;

/// Handler for SIGINT, SIGTERM and SIGABRT while a lock with bCatchSignals
/// is under way: stores the signal in the interrupt mark, nothing else.
void SEMA_SIGNAL_HANDLER(int sig);

/// Bookkeeping of the fcntl locks this process holds through a descriptor
/// it keeps open (semaphores and process locks). A lock dies when the process
/// closes any descriptor of the file, so an inquiry must not open and close
/// a file that this process holds: it asks here first.
///
/// Notes fd as holding a lock of this process on its file.
void cm_lock_register_held(int fd);
/// Forgets every held descriptor of fd's file (its lock is being released).
void cm_lock_forget_file(int fd);
/// The held descriptor of this process for the file with that device and
/// inode, or -1.
[[nodiscard]] int cm_lock_held_fd(dev_t dev, ino_t ino);
/// Closes a descriptor that holds no lock of its own, unless this process
/// holds a lock on the same file: closing would release that lock, so the
/// descriptor is kept open instead.
void cm_lock_close_probe(int fd);
