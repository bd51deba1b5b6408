// File semaphores. Holding a semaphore means holding an exclusive fcntl
// record lock on its file; while held the file names the holder as
// "<pid> <caller>", so that others can tell who holds it and whether that
// holder has died (content without a lock behind it).
#include "cm_semaphore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "cm_common.h"
#include "cm_kernel.h"
#include "cm_trace.h"

volatile sig_atomic_t gcSemaInterrupt = 'n';

void SEMA_SIGNAL_HANDLER(int sig) {
  // Only the mark: tracing is not safe inside a handler, so the waiting loop
  // writes the handler's lines once it has seen the mark.
  gcSemaInterrupt = sig;
}

// ---------------------------------------------------------------------------
// Locks held by this process
// ---------------------------------------------------------------------------

namespace {

struct HeldLock {
  pid_t pid = 0;  ///< owner; entries inherited through fork are not ours
  dev_t dev = 0;
  ino_t ino = 0;
  int fd = -1;
};

// Few locks are held at once; a full table only loses the protection.
std::array<HeldLock, 32> gHeldLocks;

bool same_file(int fd, dev_t dev, ino_t ino) {
  struct stat st {};
  return fd >= 0 && ::fstat(fd, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

}  // namespace

void cm_lock_register_held(int fd) {
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) return;
  const pid_t me = ::getpid();
  for (auto& h : gHeldLocks) {
    if (h.pid == me && h.fd >= 0 && same_file(h.fd, h.dev, h.ino)) continue;
    h = HeldLock{me, st.st_dev, st.st_ino, fd};
    return;
  }
}

void cm_lock_forget_file(int fd) {
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) return;
  const pid_t me = ::getpid();
  for (auto& h : gHeldLocks)
    if (h.pid == me && h.dev == st.st_dev && h.ino == st.st_ino) h = HeldLock{};
}

int cm_lock_held_fd(dev_t dev, ino_t ino) {
  const pid_t me = ::getpid();
  for (const auto& h : gHeldLocks)
    if (h.pid == me && h.dev == dev && h.ino == ino && same_file(h.fd, dev, ino)) return h.fd;
  return -1;
}

void cm_lock_close_probe(int fd) {
  struct stat st {};
  if (fd < 0) return;
  if (::fstat(fd, &st) == 0 && cm_lock_held_fd(st.st_dev, st.st_ino) >= 0) return;
  ::close(fd);
}

// ---------------------------------------------------------------------------
// Semaphore operations
// ---------------------------------------------------------------------------

namespace {

constexpr std::size_t kContentMax = 448;  ///< bytes of holder content read by an inquiry
constexpr long kPollNanos = 500L * 1000 * 1000;

__attribute__((format(printf, 2, 3))) void set_msg(sct_semaphore* sema, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(sema->szMsg, sizeof sema->szMsg, format, ap);
  va_end(ap);
}

int own_pid() { return static_cast<int>(::getpid()); }

struct flock whole_file(short type) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  return fl;
}

bool interrupted() { return gcSemaInterrupt != 'n'; }

/// Reads up to kContentMax bytes from the start of fd; a trailing line end
/// (the process lock writes "%d\n") is not part of the holder's name.
int read_content(int fd, char (&content)[kContentMax + 1]) {
  std::size_t n = 0;
  while (n < kContentMax) {
    const ssize_t r = ::pread(fd, content + n, kContentMax - n, static_cast<off_t>(n));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    n += static_cast<std::size_t>(r);
  }
  content[n] = '\0';
  const int got = static_cast<int>(n);
  n = std::strlen(content);
  while (n > 0 && (content[n - 1] == '\n' || content[n - 1] == '\r')) content[--n] = '\0';
  return got;
}

/// The inquiry proper: is the semaphore file free, and who holds it. The
/// holder's content goes to content ("" if none).
int inquire(const char* file, sct_semaphore* sema, char (&content)[kContentMax + 1]) {
  const int pid = own_pid();
  content[0] = '\0';
  set_msg(sema, "semaphore %s is free", sema->szSema);
  trace("%l4 [%6d] open semaphore file %s", pid, file);

  // A file this process holds must not be opened here: closing the probe
  // would release our own lock. Its holder is known, so answer from the
  // held descriptor.
  struct stat st {};
  if (::stat(file, &st) == 0) {
    if (const int held = cm_lock_held_fd(st.st_dev, st.st_ino); held >= 0) {
      read_content(held, content);
      trace("%l4 [%6d] %s is held by this process", pid, file);
      set_msg(sema, "[%6d] %s still locked by concurrent process %s", pid, sema->szSema, content);
      return KD_WARNING;
    }
  }

  const int fd = ::open(file, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    const int e = errno;
    if (e == ENOENT) {
      set_msg(sema, "[%6d] semaphore file %s does not exist", pid, file);
      return KD_SUCCESS;
    }
    set_msg(sema, "failed to open semaphore file [%s]: (%d) %s", file, e, std::strerror(e));
    return KD_ERROR;
  }

  const int got = read_content(fd, content);
  if (content[0] != '\0') CopyCut(sema->szMsg, content);
  trace("%l4 [%6d] got (%d): %s", pid, got, content);
  trace("%l4 [%6d] try to inquire lock state requested by %s", pid, sema->szCaller);

  struct flock fl = whole_file(F_WRLCK);
  if (::fcntl(fd, F_SETLK, &fl) != 0) {
    const int e = errno;
    int result;
    if (content[0] == '\0') {
      set_msg(sema, "failed to try to set lock on lock file: (%d) %s", e, std::strerror(e));
      result = KD_ERROR;
    } else if (e == EACCES || e == EAGAIN) {
      set_msg(sema, "[%6d] %s still locked by concurrent process %s", pid, sema->szSema, content);
      result = KD_WARNING;
    } else {
      set_msg(sema, "error in file lock with fcntl: (%d) %s", e, std::strerror(e));
      result = KD_ERROR;
    }
    ::close(fd);
    return result;
  }

  // Free. A content with no lock behind it names a holder that has died.
  int result = KD_SUCCESS;
  if (content[0] != '\0') {
    set_msg(sema, "holding process %s for semaphore %s disappeared", content, sema->szSema);
    if (::ftruncate(fd, 0) != 0) {
      const int e = errno;
      set_msg(sema, "failed to truncate lock file: (%d) %s", e, std::strerror(e));
      result = KD_FATAL;
    }
  } else {
    set_msg(sema, "semaphore %s is free", sema->szSema);
  }
  ::close(fd);  // releases the probe lock
  return result;
}

/// The inquiry guarded by the semaphore "inq_<name>", so that two inquirers
/// never take each other's probe lock for a holder.
int inquire_guarded(const char* file, sct_semaphore* sema, char (&content)[kContentMax + 1]) {
  sct_semaphore guard{};
  CopyCut(guard.szSema, std::string("inq_") + sema->szSema);
  CopyCut(guard.szCaller, sema->szCaller);
  (void)i_SEMA('+', &guard);
  const int result = inquire(file, sema, content);
  if (guard.hSema >= 0) (void)i_SEMA('-', &guard);
  return result;
}

/// Opens (creating) the semaphore file for writing; a missing directory is
/// created once. -1 with szMsg set on failure (always KD_FATAL).
int open_for_lock(const char* file, sct_semaphore* sema) {
  trace("%l4 [%6d] open lock file %s", own_pid(), file);
  // Read-write, so that an inquiry inside the holder can read the holder's
  // name through this descriptor.
  int fd = ::open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 && errno == ENOENT) {
    char dir[1024];
    CopyCut(dir, file);
    if (char* slash = std::strrchr(dir, '/'); slash != nullptr && slash != dir) *slash = '\0';
    trace("try to create directory %s", dir);
    (void)::mkdir(dir, 0775);
    fd = ::open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      const int e = errno;
      set_msg(sema, "directory %s created >> retry creation of lock file failed: (%d) %s", dir, e,
              std::strerror(e));
      return -1;
    }
  }
  if (fd < 0) {
    const int e = errno;
    set_msg(sema, "failed to open lock file: (%d) %s", e, std::strerror(e));
  }
  return fd;
}

/// "+", "S" and "*".
int lock_sema(char operation, const char* file, sct_semaphore* sema) {
  const int pid = own_pid();
  const int fd = open_for_lock(file, sema);
  if (fd < 0) return KD_FATAL;

  struct flock fl = whole_file(F_WRLCK);
  if (operation != '*' && !sema->bCatchSignals) {
    while (::fcntl(fd, F_SETLKW, &fl) != 0) {
      const int e = errno;
      if (e == EINTR) continue;
      cm_lock_close_probe(fd);
      set_msg(sema, "file lock with fcntl() failed: (%d) %s", e, std::strerror(e));
      return KD_FATAL;
    }
  } else {
    bool locked = false;
    for (;;) {
      if (::fcntl(fd, F_SETLK, &fl) == 0) {
        locked = true;
        break;
      }
      const int e = errno;
      if (e != EACCES && e != EAGAIN) {
        cm_lock_close_probe(fd);
        set_msg(sema, "file lock with fcntl() failed: (%d) %s", e, std::strerror(e));
        return KD_FATAL;
      }
      if (operation == '*') {
        cm_lock_close_probe(fd);
        char content[kContentMax + 1];
        if (inquire_guarded(file, sema, content) == KD_SUCCESS)
          set_msg(sema, "semaphore is occupied by another process");
        else
          set_msg(sema, "another process %s is holding semaphore %s", content, sema->szSema);
        return KD_WARNING;
      }
      trace("%l4 semaphore is occupied by another process");
      if (interrupted()) break;
      struct timespec pause {0, kPollNanos};
      (void)::nanosleep(&pause, nullptr);  // a signal cuts the pause short
      if (interrupted()) break;
    }
    if (!locked) {
      cm_lock_close_probe(fd);
      const int sig = gcSemaInterrupt;
      sema->iSignal = sig;
      set_msg(sema, "Semaphore Set aborted by Signal %d", sig);
      return KD_ERROR;
    }
  }

  if (::ftruncate(fd, 0) != 0) {
    const int e = errno;
    set_msg(sema, "failed to truncate lock file: (%d) %s", e, std::strerror(e));
    return KD_FATAL;
  }
  char holder[1100];
  const int len = std::snprintf(holder, sizeof holder, "%d %s", pid, sema->szCaller);
  const std::size_t want = len < 0 ? 0 : std::strlen(holder);
  if (::pwrite(fd, holder, want, 0) != static_cast<ssize_t>(want)) {
    const int e = errno;
    set_msg(sema, "writing pid into lock file failed: (%d) %s", e, std::strerror(e));
    return KD_FATAL;
  }
  sema->hSema = fd;
  cm_lock_register_held(fd);

  // Started jobs must not inherit the lock's descriptor.
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0) {
    const int e = errno;
    set_msg(sema, "fcntl with F_GETFD failed: (%d) %s", e, std::strerror(e));
    return KD_ERROR;
  }
  if (::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != 0) {
    const int e = errno;
    set_msg(sema, "fcntl with F_SETFD failed: (%d) %s", e, std::strerror(e));
    return KD_ERROR;
  }
  trace("%l4 [%6d] got exclusive lock for %s", pid, sema->szSema);
  set_msg(sema, "got exclusive lock for %s", sema->szSema);
  return KD_SUCCESS;
}

/// "-": release, empty the file, close. The file stays.
int unlock_sema(sct_semaphore* sema) {
  const int fd = sema->hSema;
  if (fd < 0 || ::fcntl(fd, F_GETFD) < 0) {
    const int e = fd < 0 ? EBADF : errno;
    set_msg(sema, "file unlock with fcntl() failed: (%d) %s", e, std::strerror(e));
    return KD_FATAL;
  }
  // Emptied while still held: once released, the next holder may already
  // have written its own name.
  if (::ftruncate(fd, 0) != 0) {
    const int e = errno;
    set_msg(sema, "failed to truncate lock file: (%d) %s", e, std::strerror(e));
    return KD_FATAL;
  }
  struct flock fl = whole_file(F_UNLCK);
  if (::fcntl(fd, F_SETLK, &fl) != 0) {
    const int e = errno;
    set_msg(sema, "file unlock with fcntl() failed: (%d) %s", e, std::strerror(e));
    return KD_FATAL;
  }
  cm_lock_forget_file(fd);
  sema->hSema = -1;
  if (::close(fd) != 0) {
    const int e = errno;
    set_msg(sema, "couldn't close semaphore file: (%d) %s", e, std::strerror(e));
    return KD_ERROR;
  }
  return KD_SUCCESS;
}

/// "R": empties the file of a dead holder; refuses while a holder lives.
int reset_sema(const char* file, sct_semaphore* sema) {
  const int pid = own_pid();
  char content[kContentMax + 1];
  int result = inquire_guarded(file, sema, content);
  if (result == KD_WARNING) {
    set_msg(sema, "could not reset semaphore bcs. another process %s is holding semaphore %s",
            content, sema->szSema);
  } else {
    trace("[%6d] - %s", pid, sema->szMsg);
  }
  trace("%l4 [%6d] - reset", pid);
  sema->hSema = -1;
  return result;
}

/// "#": removes the semaphore file; a file that is already gone is no error.
int remove_sema(const char* file, sct_semaphore* sema) {
  trace("%l4 remove sema file: '%s'", file);
  if (::unlink(file) != 0 && errno != ENOENT) {
    const int e = errno;
    set_msg(sema, "failed to remove semaphore file [%s]: (%d) %s", file, e, std::strerror(e));
    return KD_ERROR;
  }
  return KD_SUCCESS;
}

/// KD_FATAL ends the process with the answer line on standard output;
/// KD_ERROR is traced and returned.
void log_error(char operation, const sct_semaphore* sema, int result) {
  const int pid = own_pid();
  if (result == KD_FATAL) {
    trace("%l0 SEMA: [%6d] i_SEMA( %c, %s, %s) returned %s: %s.", pid, operation, sema->szSema,
          sema->szCaller, "FATAL", sema->szMsg);
    trace("--- SEMA: [%6d] i_SEMA( %c, %s, %s) returned %s: %s. Exit program now.", pid, operation,
          sema->szSema, sema->szCaller, "FATAL", sema->szMsg);
    std::printf("STATUS=%s MSG=Operation '%c' for semaphore [%s] with caller [%s] failed with: %s\n",
                "FATAL", operation, sema->szSema, sema->szCaller, sema->szMsg);
    std::fflush(stdout);
    std::exit(3);
  }
  trace("--- SEMA: [%6d] i_SEMA( %c, %s, %s) returned %s: %s", pid, operation, sema->szSema,
        sema->szCaller, exit_state_name(result), sema->szMsg);
}

constexpr std::array<int, 3> kCaughtSignals{SIGINT, SIGTERM, SIGABRT};

}  // namespace

int i_SEMA(char operation, sct_semaphore* sema) {
  if (sema == nullptr) return KD_ERROR;
  sema->szSema[sizeof sema->szSema - 1] = '\0';
  sema->szCaller[sizeof sema->szCaller - 1] = '\0';
  sema->szMsg[0] = '\0';
  const int pid = own_pid();
  trace("+++ SEMA [%6d] %c %s", pid, operation, sema->szSema);

  const bool locking = operation == '+' || operation == '*' || operation == 'S';
  const bool catching = locking && sema->bCatchSignals;
  std::array<struct sigaction, kCaughtSignals.size()> previous{};
  if (catching) {
    gcSemaInterrupt = 'n';
    sema->iSignal = 0;
    trace("%l4 set new signal handlers for sema: '%s'", sema->szSema);
    struct sigaction sa {};
    sa.sa_handler = SEMA_SIGNAL_HANDLER;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no restart: the pause between attempts must end at once
    for (std::size_t i = 0; i < kCaughtSignals.size(); ++i)
      ::sigaction(kCaughtSignals[i], &sa, &previous[i]);
  }

  char file[1024];
  if (std::strstr(sema->szSema, ".lock") != nullptr)
    std::snprintf(file, sizeof file, "gv_rw_work:sem/%s", sema->szSema);
  else
    std::snprintf(file, sizeof file, "gv_rw_work:sem/%s.sem", sema->szSema);
  resolve_path(file, sizeof file);
  trace("%l4 sema file name: '%s'", file);

  int result;
  switch (operation) {
    case '#': result = remove_sema(file, sema); break;
    case '?': {
      char content[kContentMax + 1];
      result = inquire_guarded(file, sema, content);
      break;
    }
    case '+':
    case 'S':
    case '*': result = lock_sema(operation, file, sema); break;
    case '-': result = unlock_sema(sema); break;
    case 'R': result = reset_sema(file, sema); break;
    default:
      set_msg(sema, "error: invalid argument %c", operation);
      result = KD_ERROR;
      break;
  }

  if (catching) {
    trace("%l4 reset new signal handlers for sema: '%s'", sema->szSema);
    for (std::size_t i = 0; i < kCaughtSignals.size(); ++i)
      ::sigaction(kCaughtSignals[i], &previous[i], nullptr);
    const int sig = gcSemaInterrupt;
    if (sig != 'n') {
      trace("+++ SEMA_SIGNAL_HANDLER: Signal %d received", sig);
      trace("--- SEMA_SIGNAL_HANDLER: gcSemaInterrupt set");
      sema->iSignal = sig;
      gcSemaInterrupt = 'n';
      // Delivered again, now to the handler that was in force before the
      // wait: a signal that arrived while we held it back is never lost.
      ::kill(::getpid(), sig);
    }
  }

  if (result == KD_ERROR || result == KD_FATAL) log_error(operation, sema, result);
  trace("--- SEMA [%6d] %c returns: %d (%s): %s", pid, operation, result, exit_state_name(result),
        sema->szMsg);
  return result;
}
