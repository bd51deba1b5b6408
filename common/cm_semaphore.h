// File semaphores: named critical sections across processes, held as an
// exclusive fcntl record lock on "gv_rw_work:sem/<name>.sem".
#pragma once

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
/// szMsg explains. KD_FATAL ends the process with exit code 3.
int i_SEMA(char operation, sct_semaphore* sema);
