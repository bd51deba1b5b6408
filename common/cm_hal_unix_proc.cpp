// The process lock: one lock file per program, "<gv_rw_work>sem/<name>.lock",
// locked with fcntl so that a second instance of the program is refused.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_semaphore.h"
#include "cm_trace.h"

namespace {

__attribute__((format(printf, 3, 4))) void put_msg(char* msg, std::size_t msg_size,
                                                   const char* format, ...) {
  if (msg == nullptr || msg_size == 0) return;
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(msg, msg_size, format, ap);
  va_end(ap);
}

/// Closes the descriptor of a failed attempt; its close releases the lock it took.
int fail(int fd) {
  cm_lock_forget_file(fd);
  ::close(fd);
  return 0;
}

}  // namespace

int i_GET_LOCK_FOR_PROCESS(char mode, const char* name, char* msg, std::size_t msg_size) {
  if (name == nullptr) name = "";
  put_msg(msg, msg_size, "%s", "");
  char work[1024];
  char err[1024];
  if (!i_READ_INI("KD_INI", "[Pathes]", "gv_rw_work", work, sizeof work, err, sizeof err))
    trace("%l1 i_GET_LOCK_FOR_PROCESS: gv_rw_work not found: %s", err);
  char file[2048];
  std::snprintf(file, sizeof file, "%ssem/%s.lock", work, name);

  int fd;
  struct flock fl {};
  fl.l_whence = SEEK_SET;
  if (mode == '*') {
    std::fputs("Set f_RDLCK\n", stderr);
    // Created if missing, so that the very first start finds a file to lock.
    fd = ::open(file, O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    fl.l_type = F_RDLCK;
  } else {
    // Read-write: an inquiry inside the holder reads the pid through it.
    fd = ::open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    fl.l_type = F_WRLCK;
  }
  if (fd < 0) {
    put_msg(msg, msg_size, "failed to open lock file %s", file);
    return 0;
  }
  if (::fcntl(fd, F_SETLK, &fl) != 0) {
    const int e = errno;
    if (e == EACCES || e == EAGAIN)
      put_msg(msg, msg_size, "similar process %s is already running (EACCESS/EAGAIN)", name);
    else
      put_msg(msg, msg_size, "similar process %s is already running (%d): %s", name, e,
              std::strerror(e));
    // This attempt took nothing; a lock of our own on the file must survive it.
    cm_lock_close_probe(fd);
    return 0;
  }

  if (mode == '*') {
    cm_lock_register_held(fd);
    put_msg(msg, msg_size, "got shared lock for %s", name);
    return 1;
  }

  if (::ftruncate(fd, 0) != 0) {
    put_msg(msg, msg_size, "failed to truncate lock file %s", file);
    return fail(fd);
  }
  char pid_line[32];
  const int len = std::snprintf(pid_line, sizeof pid_line, "%d\n", static_cast<int>(::getpid()));
  if (len <= 0 || ::write(fd, pid_line, static_cast<std::size_t>(len)) != len) {
    put_msg(msg, msg_size, "failed to write pid to lock file %s", file);
    return fail(fd);
  }
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0) {
    put_msg(msg, msg_size, "failed in fcntl with F_GETFD %s", std::strerror(errno));
    return fail(fd);
  }
  if (::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != 0) {
    put_msg(msg, msg_size, "failed in fcntl with F_SETFD %s", std::strerror(errno));
    return fail(fd);
  }

  if (mode == '+') {
    // Never closed: the lock lasts exactly as long as the process.
    cm_lock_register_held(fd);
    put_msg(msg, msg_size, "got exclusive lock for %s", name);
    return 1;
  }
  // A test: closing releases the lock, and with it any lock this process
  // held on the file before (which is how a holder gives its lock back).
  cm_lock_forget_file(fd);
  ::close(fd);
  put_msg(msg, msg_size, "got and released lock for %s", name);
  return 1;
}

void AVOID_MULTI_PROCESS(const char* name) {
  if (name == nullptr) name = "";
  char msg[1024];
  trace("open lock file");
  if (!i_GET_LOCK_FOR_PROCESS('+', name, msg, sizeof msg)) {
    trace("%l0 %s", msg);
    std::printf("STATUS=ERROR MSG=%s\n", msg);
    std::fflush(stdout);
    std::exit(1);
  }
  trace("%l2 got exclusive lock for %s", name);
}
