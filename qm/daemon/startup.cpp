#include "kd_qm_daemon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_signal.h"
#include "cm_split.h"
#include "kd_qm_hooks.h"
#include "qm_common.h"
#include "strlib.h"
#include "xutil.h"

int g_PID = 0;
char gszQmDir[1024] = {};
char gszBinDir[512] = {};
char qmd_to_qm[1024] = {};
char qmd_from_qm[1024] = {};
char gszClientPid[32] = {};
char gszKeldaDay[256] = {};
char gszResource[1024] = {};
char gszAllocate[1024] = {};
sigset_t blockmaske;
struct sigaction sig_action;
str_log gQmLog;
sct_semaphore gQmLock;

namespace {

constexpr const char* kLogName = "kd_qm_main.lgc";
constexpr const char* kModule = "KD_QM_MAIN";
constexpr const char* kServiceUnit = "/usr/lib/systemd/system/orlkelda.service";
constexpr const char* kRunDir = "/run";
constexpr const char* kServicePidFile = "/run/orlkelda.pid";
constexpr int kSelfRequestRetries = 20;
constexpr int kUsageWidth = 79;

constexpr std::array<const char*, 6> kUsageLines{
    "Description: Queue Manager daemon is responsible for queue management.",
    "Queue manager executes jobs if queue is started and job limit is",
    "not yet reached.",
    "Queues are organized in holding jobs, pending jobs and",
    "an executing queue for every defined resource.",
    "Attention:   Use front end kd_qm to init queues, submit jobs, etc.",
};
static_assert(kUsageLines.size() == 6);

constexpr std::array<int, 5> kHandledSignals{SIGTERM, SIGCHLD, SIGPIPE, SIGALRM, SIGINT};
static_assert(kHandledSignals.size() == 5);

struct SignalName {
  int sig;
  const char* name;
};
// Aliases (SIGIOT, SIGPOLL) are listed as names of their own.
constexpr std::array<SignalName, 32> kMaskSignals{{
    {SIGABRT, "SIGABRT"}, {SIGALRM, "SIGALRM"},     {SIGBUS, "SIGBUS"},       {SIGCHLD, "SIGCHLD"},
    {SIGCONT, "SIGCONT"}, {SIGFPE, "SIGFPE"},       {SIGHUP, "SIGHUP"},       {SIGILL, "SIGILL"},
    {SIGINT, "SIGINT"},   {SIGIO, "SIGIO"},         {SIGIOT, "SIGIOT"},       {SIGKILL, "SIGKILL"},
    {SIGPIPE, "SIGPIPE"}, {SIGPOLL, "SIGPOLL"},     {SIGPROF, "SIGPROF"},     {SIGPWR, "SIGPWR"},
    {SIGQUIT, "SIGQUIT"}, {SIGSEGV, "SIGSEGV"},     {SIGSTOP, "SIGSTOP"},     {SIGSYS, "SIGSYS"},
    {SIGTERM, "SIGTERM"}, {SIGTRAP, "SIGTRAP"},     {SIGTSTP, "SIGTSTP"},     {SIGTTIN, "SIGTTIN"},
    {SIGTTOU, "SIGTTOU"}, {SIGURG, "SIGURG"},       {SIGUSR1, "SIGUSR1"},     {SIGUSR2, "SIGUSR2"},
    {SIGVTALRM, "SIGVTALRM"}, {SIGWINCH, "SIGWINCH"}, {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
}};
static_assert(kMaskSignals.size() == 32);

// ---------------------------------------------------------------------------
// The request pipe as the daemon reads it
// ---------------------------------------------------------------------------

/// Pending input of the request pipe. Lines are taken out one by one; a line
/// longer than kMaxReadLine is cut there and the rest of it, up to its line
/// feed, is dropped, so that it can never pass for a request of its own.
struct RequestReader {
  int fd = -1;
  char data[kMaxReadLine + 1] = {};  ///< room for the longest line and its line feed
  std::size_t length = 0;
  bool dropping = false;  ///< dropping the rest of an overlong line
};
RequestReader gReader;

void consume(std::size_t n) {
  std::memmove(gReader.data, gReader.data + n, gReader.length - n);
  gReader.length -= n;
}

/// Takes the next line (line feed kept when there is one) into line. False
/// when the read was interrupted by a signal (or failed) before a line was
/// complete; the part read so far stays for the next call.
bool take_line(char (&line)[2048]) {
  for (;;) {
    if (gReader.dropping) {
      const void* nl = std::memchr(gReader.data, '\n', gReader.length);
      if (nl != nullptr) {
        consume(static_cast<std::size_t>(static_cast<const char*>(nl) - gReader.data) + 1);
        gReader.dropping = false;
        trace("%l1 WARNING: rest of an overlong request dropped");
      } else {
        gReader.length = 0;
      }
    }
    if (!gReader.dropping) {
      const void* nl = std::memchr(gReader.data, '\n', gReader.length);
      if (nl != nullptr) {
        const std::size_t n = static_cast<std::size_t>(static_cast<const char*>(nl) - gReader.data) + 1;
        std::memcpy(line, gReader.data, n);
        line[n] = '\0';
        consume(n);
        return true;
      }
      if (gReader.length == sizeof gReader.data) {
        std::memcpy(line, gReader.data, kMaxReadLine);
        line[kMaxReadLine] = '\0';
        consume(kMaxReadLine);
        gReader.dropping = true;
        return true;
      }
    }
    const ssize_t r = read(gReader.fd, gReader.data + gReader.length, sizeof gReader.data - gReader.length);
    if (r > 0) {
      gReader.length += static_cast<std::size_t>(r);
      continue;
    }
    if (r < 0 && errno != EINTR)
      trace("%l1 ReadExecuteQuery: read %s failed: (%d) %s", qmd_to_qm, errno, std::strerror(errno));
    return false;
  }
}

/// True when the path of the request pipe no longer names the FIFO we read.
bool request_pipe_vanished() {
  struct stat by_fd {};
  struct stat by_path {};
  if (fstat(gReader.fd, &by_fd) != 0 || stat(qmd_to_qm, &by_path) != 0) return true;
  return by_fd.st_ino != by_path.st_ino || by_fd.st_dev != by_path.st_dev;
}

// ---------------------------------------------------------------------------
// Splitting
// ---------------------------------------------------------------------------

/// A whole decimal number (no trailing characters).
bool parse_decimal(const char* text, long long* value) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text, &end, 10);
  if (end == text || *end != '\0' || errno == ERANGE) return false;
  *value = v;
  return true;
}

/// The text behind the n-th blank of line, or "" when there are fewer blanks.
const char* after_blanks(const char* line, int n) {
  for (const char* p = line; *p; ++p)
    if (*p == ' ' && --n == 0) return p + 1;
  return "";
}

bool is_submit_mode(int mode) {
  return mode == queue_submit || mode == queue_submit_sync || mode == queue_submit_proc_only;
}

/// Copies src into dst, every blank-quote-"--"-quote-blank replaced by " -- ".
void copy_unquoting_end_of_options(char (&dst)[2048], const char* src) {
  constexpr std::string_view kQuoted = " \"--\" ";
  std::size_t out = 0;
  const std::string_view text(src);
  for (std::size_t i = 0; i < text.size() && out + 1 < sizeof dst;) {
    if (text.compare(i, kQuoted.size(), kQuoted) == 0 && out + 3 < sizeof dst) {
      // The closing blank stays in the input: it may open the next marker.
      std::memcpy(dst + out, " --", 3);
      out += 3;
      i += kQuoted.size() - 1;
    } else {
      dst[out++] = text[i++];
    }
  }
  dst[out] = '\0';
}

// ---------------------------------------------------------------------------
// Request handlers of this module
// ---------------------------------------------------------------------------

int request_invalid_mode(Query* q) {
  answer(&q->peer, KD_ERROR, "STATUS=ERROR MSG=request with invalid mode [%d]\n", static_cast<int>(q->function));
  return 1;
}

int request_shut_down(Query* q) {
  trace("%l1 shutdown is requested");
  que_shutdown(q);
  return 2;
}

int request_process_signal(Query* q) {
  v_set_log_main(kLogName, kModule, &gQmLog);
  trace("%l3 process signal");
  qm_hook_ProcessAllQueTriples();
  qm_hook_process_qm_tasks();
  if (q->peer.PID != 0)
    answer(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG='process executing and pending jobs' done\n");
  return 0;
}

using RequestHandler = int (*)(Query*);

/// The request handlers, indexed by mode.
constexpr std::array<RequestHandler, invalid_mode + 1> kRequestHandlers{
    qm_request_queue_admin,       // queue_init
    qm_request_queue_admin,       // queue_block
    qm_request_queue_admin,       // queue_delete
    qm_request_queue_admin,       // queue_set
    qm_request_queue_admin,       // queue_start
    qm_request_queue_admin,       // queue_stop
    qm_request_submit,            // queue_submit
    qm_request_submit,            // queue_submit_sync
    qm_request_submit,            // queue_submit_lazy (arrives as queue_submit)
    qm_request_submit,            // queue_submit_sync_lazy (arrives as queue_submit_sync)
    qm_request_submit,            // queue_submit_proc_only
    qm_request_entry,             // queue_del_entry
    qm_request_entry,             // queue_signal_entry
    qm_request_entry,             // queue_move_entry
    qm_request_queue_show,        // queue_sho
    qm_request_queue_show,        // queue_sho_name
    qm_request_queue_show,        // queue_sho_status
    qm_request_queue_show,        // queue_sho_full
    qm_request_queue_show,        // queue_sho_csv
    qm_request_job,               // job_del
    qm_request_job,               // job_sho
    qm_request_job,               // job_sho_name
    qm_request_job,               // job_sho_full
    qm_request_job,               // job_set
    qm_request_global_resources,  // show_global_resources
    request_shut_down,            // shut_down
    request_process_signal,       // process_signal
    request_invalid_mode,         // qma_free_queue_resource_limit: refused
    request_invalid_mode,         // invalid_mode
};
static_assert(kRequestHandlers.size() == invalid_mode + 1);

// ---------------------------------------------------------------------------
// Start-up helpers
// ---------------------------------------------------------------------------

const char* build_line() {
  static char line[128];
  if (line[0] == '\0') x_Snprintf(line, sizeof line, "kd_qm_main Kelda GitID: %s", kd_build_id());
  return line;
}

/// Reads a key of "[Pathes]"; the section is spelled so in every configuration.
bool read_path(const char* key, char* value, std::size_t size) {
  char err[1024];
  return i_READ_INI("KD_INI", "[Pathes]", key, value, size, err, sizeof err) == 1 && value[0] != '\0';
}

void close_all_descriptors() {
  if (close_range(0, ~0U, 0) == 0) return;
  for (long fd = sysconf(_SC_OPEN_MAX) - 1; fd >= 0; --fd) close(static_cast<int>(fd));
}

/// The double fork into the background; returns in the final daemon process.
void detach() {
  trace("%l2 Fork into background");
  // Neither child may inherit an open log stream or buffered output.
  v_set_log_all_close(&gQmLog);
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) std::exit(2);
  if (pid > 0) std::exit(0);

  close_all_descriptors();
  if (open("/dev/null", O_RDWR) != 0) std::exit(2);
  if (dup(0) != 1 || dup(0) != 2) std::exit(2);
  setsid();
  if (chdir(gszQmDir) != 0) trace("%l1 chdir %s failed: %s", gszQmDir, std::strerror(errno));

  pid = fork();
  if (pid < 0) {
    const int err = errno;
    trace("%l0 ERROR: Fork into background failed: %s (%d)", std::strerror(err), err);
    std::printf("STATUS=ERROR MSG=Fork into background failed: %s (%d)", std::strerror(err), err);
    std::exit(3);
  }
  if (pid > 0) {
    trace("%l2 KD_QM_MAIN: finish after first fork");
    std::exit(0);
  }

  if (std::strstr(gQmLog.szLogFile, "service") != nullptr) v_set_log_main(kLogName, kModule, &gQmLog);
  trace("%l2 KD_QM_MAIN: after second fork");
  trace("%l2 %s", build_line());
  g_PID = getpid();
  trace("%l1 Logging enabled for module KD_QM_MAIN: Loglevel %d, PID=%ld, parent process: %ld", gQmLog.iLogLevel,
        static_cast<long>(g_PID), static_cast<long>(getppid()));
  // The first process's lock went with it; its descriptor number is stale here.
  gQmLock.hSema = -1;
  if (i_SEMA('+', &gQmLock) != KD_SUCCESS) {
    std::printf("STATUS=ERROR MSG=%s\n", gQmLock.szMsg);
    std::exit(2);
  }
  trace("%l2 KD_QM_MAIN: got lock after second fork");
}

/// Writes the request line "26 0" into the request pipe (from the handler).
void write_self_request() {
  constexpr int kFlags = O_WRONLY | O_NONBLOCK;
  trace("%l3 sig_handler: open to_qm file [%s] mode 0x%x", qmd_to_qm, kFlags);
  int fd = -1;
  int err = 0;
  for (int retry = 1;; ++retry) {
    fd = open(qmd_to_qm, kFlags);
    if (fd >= 0) break;
    err = errno;
    if (err == ENOENT) {
      trace("%l3 sig_handler: errno ENOENT (%d): %s", err, std::strerror(err));
      break;
    }
    if (err == EACCES) {
      trace("%l3 sig_handler: errno EACCES (%d): %s", err, std::strerror(err));
      break;
    }
    if (retry > kSelfRequestRetries) break;
    trace("%l3 sig_handler: errno %d: %s (retry %d/%d)", err, std::strerror(err), retry, kSelfRequestRetries);
    usleep(100);
  }
  if (fd < 0) {
    if (err == ENXIO)
      trace("%l3 sig_handler: Pipe %s can't be opened (%d): %s", qmd_to_qm, err, std::strerror(err));
    else
      trace("%l1 sig_handler: ERROR: Pipe %s can't be opened (%d): %s", qmd_to_qm, err, std::strerror(err));
    return;
  }
  char command[32];
  const int n = std::snprintf(command, sizeof command, "%d 0", static_cast<int>(process_signal));
  trace("%l3 sig_handler: Command: %s", command);
  command[n] = '\n';
  if (write(fd, command, static_cast<std::size_t>(n) + 1) < 0)
    trace("%l3 sig_handler: write %s failed (%d)", qmd_to_qm, errno);
  close(fd);
}

/// Reaps every ended child of the own process group (the answer writers).
void reap_answer_writers() {
  for (;;) {
    int status = 0;
    const pid_t pid = waitpid(0, &status, WNOHANG);
    if (pid < 0 && errno == EINTR) continue;
    if (pid <= 0) return;
    if (WIFSIGNALED(status))
      trace("%l2 answer_... process [%d] terminated", static_cast<int>(pid));
    else
      trace("%l3 answer_... process [%d] exited with %d", static_cast<int>(pid), WEXITSTATUS(status));
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Start-up and main loop
// ---------------------------------------------------------------------------

bool IsUsageRequest(int argc, char** argv) {
  if (argc != 2 || argv[1] == nullptr) return false;
  const char* a = argv[1];
  return a[0] == '?' || std::strcmp(a, "-h") == 0 || std::strcmp(a, "-?") == 0 || std::strcmp(a, "/?") == 0;
}

void USAGE() {
  char ruler[kUsageWidth + 1];
  std::memset(ruler, '-', kUsageWidth);
  ruler[kUsageWidth] = '\0';
  std::printf("%s\n", build_line());
  std::printf("%s\n", ruler);
  for (const char* line : kUsageLines) std::printf("%-79s\n", line);
  std::printf("%s\n", ruler);
  std::fflush(stdout);
}

int WriteServicePidFile(const char* unit_file, const char* run_dir, const char* pid_file, char* msg,
                        std::size_t msg_size) {
  if (access(unit_file, F_OK) != 0 || access(run_dir, F_OK) != 0) return 0;
  const int fd = open(pid_file, O_CREAT | O_TRUNC | O_RDWR | O_CLOEXEC, 0644);
  if (fd <= 0) {
    x_Snprintf(msg, msg_size, "Could not create '%s' file: %s", pid_file, std::strerror(errno));
    return -1;
  }
  char text[32];
  const int n = std::snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
  // The terminating NUL is part of the file: its readers expect strlen + 1 bytes.
  const ssize_t w = write(fd, text, static_cast<std::size_t>(n) + 1);
  close(fd);
  if (w != n + 1) {
    x_Snprintf(msg, msg_size, "Could not create '%s' file: %s", pid_file, std::strerror(errno));
    return -1;
  }
  return 0;
}

int CreateRequestPipe() {
  x_Snprintf(qmd_to_qm, sizeof qmd_to_qm, "%scom%sto_qm_pipe", gszQmDir, "/");
  unlink(qmd_to_qm);
  const mode_t old_mask = umask(0);
  int rc = 0;
  if (mkfifo(qmd_to_qm, 0770) != 0 && errno != EEXIST) {
    int err = errno;
    trace("%l1 WARNING: mkfifo %s failed: %d %s", qmd_to_qm, err, std::strerror(err));
    if (err == ENOENT) {
      umask(old_mask);
      char dir[1024];
      CopyCut(dir, gszQmDir);
      const std::size_t len = std::strlen(dir);
      if (len > 1 && dir[len - 1] == '/') dir[len - 1] = '\0';
      mkdir(dir, 0775);
      x_Snprintf(dir, sizeof dir, "%scom", gszQmDir);
      if (mkdir(dir, 0775) != 0 && errno != EEXIST)
        trace("%l0 ERROR: mkdir %s failed %d %s", dir, errno, std::strerror(errno));
      umask(0);
      err = mkfifo(qmd_to_qm, 0770) == 0 ? 0 : errno;
      if (err == EEXIST) err = 0;
    }
    if (err != 0) {
      trace("%l0 ERROR: mkfifo %s failed: %d %s", qmd_to_qm, err, std::strerror(err));
      trace("%l0 Exiting");
      rc = -1;
    }
  }
  umask(old_mask);
  return rc;
}

void InstallSignalHandler() {
  sigemptyset(&blockmaske);
  for (int sig : kHandledSignals) sigaddset(&blockmaske, sig);
  sig_action = {};
  sig_action.sa_sigaction = sig_handler;
  // No SA_RESTART: a signal must end the wait for the next request.
  sig_action.sa_flags = SA_SIGINFO;
  sigemptyset(&sig_action.sa_mask);
  for (int sig : kHandledSignals) sigaction(sig, &sig_action, nullptr);
}

void vMainLoop(int argc, char** argv) {
  v_set_log_main(kLogName, kModule, &gQmLog);
  trace("%l1 %s", build_line());
  setpgrp();

  CopyCut(gQmLock.szSema, kModule);
  CopyCut(gQmLock.szCaller, kModule);
  if (i_SEMA('*', &gQmLock) != KD_SUCCESS) {
    std::printf("STATUS=ERROR MSG=%s\n", gQmLock.szMsg);
    std::fflush(stdout);
    std::exit(2);
  }

  if (!read_path("gv_rw_qm", gszQmDir, sizeof gszQmDir - 1)) {
    std::fprintf(stderr, "ERROR: gv_rw_qm not defined\n");
    trace("%l0 ERROR: gv_rw_qm not defined");
    std::exit(3);
  }
  if (const std::size_t len = std::strlen(gszQmDir); gszQmDir[len - 1] != '/') {
    gszQmDir[len] = '/';  // the read above kept room for it
    gszQmDir[len + 1] = '\0';
  }
  if (!read_path("gv_ro_bin", gszBinDir, sizeof gszBinDir)) {
    std::fprintf(stderr, "ERROR: gv_ro_bin not defined\n");
    trace("%l0 ERROR: gv_ro_bin not defined");
    std::exit(3);
  }
  trace("%l2 QmDir (gv_rw_qm): %s", gszQmDir);

  if (argc > 1 && std::strncmp(argv[1], "-d", 2) == 0) {
    trace("%l2 Debug switch set. Stay in foreground");
    g_PID = getpid();
  } else {
    detach();
  }
  trace("%l2 KD_QM_MAIN: successfully started");

  char msg[1200];
  if (WriteServicePidFile(kServiceUnit, kRunDir, kServicePidFile, msg, sizeof msg) != 0) {
    std::printf("STATUS=ERROR MSG=%s\n", msg);
    std::fflush(stdout);
    std::exit(2);
  }
  if (i_setenv_kelda("service") != 1) trace("%l1 i_setenv_kelda(service) failed, environment unchanged");

  qm_hook_InitRootLists();
  if (qm_hook_InitQMAdminQueue() != 0) {
    trace("%l0 ERROR: InitQMAdminQueue failed");
    trace("%l0 Exiting");
    std::exit(1);
  }
  if (CreateRequestPipe() != 0) std::exit(1);
  InstallSignalHandler();

  for (;;) {
    trace("%l2 **** main loop");
    int result;
    do {
      SetLogFile();
      result = ReadExecuteQuery(argv[0], gszQmDir);
    } while (result != 0 && result != -1);
    if (result == -1) {
      trace("--- FOR  exit(0)");
      std::exit(0);
    }
    trace("+++ Check global resources");
    qm_hook_CheckUnregisteredGlobalResources();
    trace("--- Check global resources");
    trace("+++ QM admin queue");
    qm_hook_ProcessQMAdminQueue();
    trace("--- QM admin queue");
    trace("+++ WALK_LIST");
    qm_hook_ProcessAllQueTriples();
    trace("--- WALK_LIST");
  }
}

void SetLogFile() {
  char name[] = "gv_date";
  char value[512] = {};
  glbv('r', name, value);
  const bool unknown = value[0] == '?' || value[0] == '\0';
  char day[256];
  if (unknown) {
    char now[32] = "S 0";  // a shift of nothing: the current time, readable
    time_get(now);
    CopyCut(day, std::string_view(now).substr(0, 10));
  } else {
    CopyCut(day, value);
  }
  if (std::strcmp(day, gszKeldaDay) == 0) return;

  if (unknown)
    trace("%l2 Global variable gv_date could not be found (%s). Use %s as kelda day instead. Switch logfile", value,
          day);
  else
    trace("%l2 Kelda day has changed (%s<>%s). Switch logfile", gszKeldaDay, day);
  CopyCut(gszKeldaDay, day);
  v_set_log_main(kLogName, kModule, &gQmLog);
  char stamp[300];
  x_Snprintf(stamp, sizeof stamp, "%s 00:00:00", day);
  cm_time_iso2stamp(stamp);
  qm_hook_SetKdQmExitLog(stamp);
}

// ---------------------------------------------------------------------------
// Signals
// ---------------------------------------------------------------------------

void sig_handler(int sig, siginfo_t* info, void*) {
  const int saved_errno = errno;
  sigprocmask(SIG_BLOCK, &blockmaske, nullptr);
  if (strLocalLog.iLogLevel >= 3) print_smask("in sig_handler after sigprocmask(SIG_BLOCK, ...)");
  const long sender = info != nullptr ? static_cast<long>(info->si_pid) : 0L;

  if (sig == SIGINT || sig == SIGTERM) {
    if (getpid() == g_PID) {
      trace("%l3 sig_handler: signal %d (SIGINT/SIGTERM) received in %ld send by %ld.", sig,
            static_cast<long>(getpid()), sender);
      Query none{};  // peer not valid: nobody is answered
      que_shutdown(&none);
      trace("--- sig_handler: exit in signal handler");
      std::exit(1);
    }
    trace("%l3 sig_handler: signal %d (SIGINT/SIGTERM) received for PID %ld send by %ld. QM_MAIN PID %ld. Skip "
          "signal processing",
          sig, static_cast<long>(getpid()), sender, static_cast<long>(g_PID));
  } else {
    if (sig == SIGALRM)
      trace("%l3 sig_handler: signal %d (SIGALRM) received", sig);
    else if (sig == SIGCHLD)
      trace("%l3 sig_handler: signal %d (SIGCHLD) received", sig);
    else
      trace("%l3 signal %d received", sig);
    reap_answer_writers();
    write_self_request();
  }

  trace("%l3 sig_handler: install signal handler for SIGCHLD, SIGALRM, SIGPIPE, SIGINT, SIGTERM again");
  for (int s : kHandledSignals) sigaction(s, &sig_action, nullptr);
  sigprocmask(SIG_UNBLOCK, &blockmaske, nullptr);
  if (strLocalLog.iLogLevel >= 3) print_smask("in sig_handler after sigprocmask(SIG_UNBLOCK, ...)");
  alarm(kAlarmSeconds);
  errno = saved_errno;
}

void print_smask(const char* label) {
  sigset_t current;
  if (sigprocmask(SIG_BLOCK, nullptr, &current) != 0) {
    std::fputs("Fatal: sigprocmask error\n", stderr);
    std::exit(1);
  }
  char text[1024];
  std::size_t n = static_cast<std::size_t>(std::snprintf(text, sizeof text, "%s: ", label));
  if (n >= sizeof text) n = sizeof text - 1;
  for (const SignalName& s : kMaskSignals) {
    if (sigismember(&current, s.sig) == 1 && n + std::strlen(s.name) + 2 < sizeof text)
      n += static_cast<std::size_t>(std::snprintf(text + n, sizeof text - n, "%s,", s.name));
  }
  text[n++] = '\n';
  // One write, so that the line cannot be torn by another writer of the stream.
  std::fflush(stderr);
  if (write(STDERR_FILENO, text, n) < 0) return;
}

void que_shutdown(Query* q) {
  trace("+++ que_shutdown");
  trace("%l2 Remove to qm pipe");
  unlink(qmd_to_qm);

  // The arguments are read like the command line "que_del_entry -e <code>".
  char words[2048];
  CopyCut(words, q->szCmdArgs);
  std::array<char*, 1026> argv{};
  char prog[] = "que_del_entry";
  int argc = 0;
  argv[argc++] = prog;
  for (char* p = words; *p && argc < static_cast<int>(argv.size()) - 1;) {
    while (*p == ' ') *p++ = '\0';
    if (*p == '\0') break;
    argv[argc++] = p;
    while (*p && *p != ' ') ++p;
  }
  char exit_code[32] = "0";
  mygetopt_reset();
  for (int c; (c = mygetopt(argc, argv.data(), "e:")) != -1;)
    if (c == 'e' && myoptarg != nullptr) CopyCut(exit_code, myoptarg);

  qm_hook_SetPendingStateExitCodes(exit_code);
  if (qm_hook_QueTripleCount() > 0) {
    qm_hook_ShutdownListQueues(q);
    q->peer.iStatusFlag = 2;
    answer_wildcard(&q->peer, KD_SUCCESS, "STATUS=SUCCESS MSG=shutdown completed", nullptr, ' ');
  } else {
    answer(&q->peer, KD_WARNING, "STATUS=WARNING MSG=No queue existing\n");
  }
  // Only a held lock is released: releasing none would end the process as a fatal lock error.
  if (gQmLock.hSema >= 0 && i_SEMA('-', &gQmLock) != KD_SUCCESS)
    trace("%l1 que_shutdown: release of the process lock: %s", gQmLock.szMsg);
  trace("--- que_shutdown");
}

// ---------------------------------------------------------------------------
// Requests
// ---------------------------------------------------------------------------

void CloseRequestPipe() {
  if (gReader.fd >= 0) close(gReader.fd);
  gReader.fd = -1;
  gReader.length = 0;
  gReader.dropping = false;
}

int ReadExecuteQuery(const char*, const char*) {
  if (gReader.fd < 0) {
    trace("%l3 ReadExecuteQuery: open %s", qmd_to_qm);
    // Opened read-write: we are a writer ourselves, so the last client's close never gives EOF.
    const int fd = open(qmd_to_qm, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      const int err = errno;
      if (err == ENOENT) {
        trace("%l1 ReadExecuteQuery: could not open %s to read: errno ENOENT (%d): %s", qmd_to_qm, err,
              std::strerror(err));
        trace("%l1 ReadExecuteQuery: recall mkfifo %s", qmd_to_qm);
        const mode_t old_mask = umask(0);
        if (mkfifo(qmd_to_qm, 0770) != 0)
          trace("%l1 WARNING: mkfifo %s failed: %d %s", qmd_to_qm, errno, std::strerror(errno));
        umask(old_mask);
      } else {
        trace("%l1 --- ReadExecuteQuery: could not open %s to read: errno (%d): %s", qmd_to_qm, err,
              std::strerror(err));
      }
      return 0;
    }
    gReader.fd = fd;
    gReader.length = 0;
    gReader.dropping = false;
  }

  int result = 1;
  while (result == 1) {
    alarm(kAlarmSeconds);
    char line[2048];
    if (!take_line(line)) {
      trace("%l3 no pending query");
      if (request_pipe_vanished()) {
        trace("%l1 ReadExecuteQuery: request pipe %s has vanished, open it anew", qmd_to_qm);
        CloseRequestPipe();
      }
      return 0;
    }
    alarm(0);
    {
      ScopedSigBlock block(blockmaske);
      std::size_t length = std::strlen(line);
      if (length > 0 && line[length - 1] == '\n') line[--length] = '\0';
      if (length < 2) {
        // Returns with the signals still blocked: the next read waits for a
        // request without passes, and the deferred signals follow its execution.
        trace("%l1 WARNING: no bytes read");
        block.KeepBlocked();
        return 1;
      }
      trace("%l2 query: %s", line);

      long long pid = 0;
      char head[2048];
      CopyCut(head, line);
      if (cm_strtok(head, ' ') != nullptr) {
        const char* field2 = cm_strtok(nullptr, ' ');
        if (!parse_decimal(field2, &pid)) pid = 0;
      }
      x_Snprintf(qmd_from_qm, sizeof qmd_from_qm, "%scom%sfrom_qm_pipe%ld", gszQmDir, "/", static_cast<long>(pid));

      if (iEXEC_REQUEST(line) == 2) result = -1;
    }
    // Unblocked explicitly: after a "no bytes read" the mask restored by the
    // guard is the blocked one.
    sigprocmask(SIG_UNBLOCK, &blockmaske, nullptr);
  }
  trace("--- ReadExecuteQuery end");
  return result;
}

void SplitRequest(const char* line, Query* q) {
  char copy[2048];
  CopyCut(copy, line);
  gszResource[0] = '\0';
  gszAllocate[0] = '\0';

  const char* field1 = cm_strtok(copy, ' ');
  const char* field2 = field1 != nullptr ? cm_strtok(nullptr, ' ') : nullptr;
  const char* field3 = field2 != nullptr ? cm_strtok(nullptr, ' ') : nullptr;

  long long value = 0;
  int mode = invalid_mode;
  if (parse_decimal(field1, &value) && value >= INT_MIN && value <= INT_MAX)
    mode = static_cast<int>(value);
  else
    trace("%l1 WARNING: no function read");

  if (mode == queue_init || (mode >= queue_del_entry && mode <= job_sho_full) ||
      (mode >= show_global_resources && mode <= invalid_mode)) {
    CopyCut(q->szCmdArgs, after_blanks(line, 2));
  } else if ((mode >= queue_submit && mode <= queue_submit_proc_only) || mode == job_set) {
    copy_unquoting_end_of_options(q->szCmdArgs, after_blanks(line, 3));
  } else {
    q->szCmdArgs[0] = '\0';
  }

  long long pid = 0;
  CopyCut(gszClientPid, field2 != nullptr ? field2 : "");
  if (!parse_decimal(field2, &pid)) {
    trace("%l1 WARNING: no pid read");
    mode = invalid_mode;
    pid = 0;
  }
  q->peer.PID = pid;

  const char* rest = after_blanks(line, 2);
  if ((mode >= queue_sho && mode <= job_sho_full) || mode == process_signal)
    trace("%l2 EXEC_REQUEST: pid %ld: %s %s", static_cast<long>(pid), cmd_mode_name(mode), rest);
  else
    trace("%l1 EXEC_REQUEST: pid %ld: %s %s", static_cast<long>(pid), cmd_mode_name(mode), rest);

  if (mode == queue_submit_lazy) {
    mode = queue_submit;
    q->bLazy = true;
  } else if (mode == queue_submit_sync_lazy) {
    mode = queue_submit_sync;
    q->bLazy = true;
  }
  q->function = static_cast<cmd_mode>(mode);

  if (field3 == nullptr) {
    trace("%l3 WARNING: no argument read");
    q->que_name[0] = '\0';
  } else if (std::strcmp(field3, "\"\"") == 0) {
    q->que_name[0] = '\0';
  } else {
    CopyCut(q->que_name, field3);
  }
  trace("%l3 que_name or entry_number: %s", q->que_name);

  if (char* slash = std::strchr(q->que_name, '/'); slash != nullptr) {
    *slash = '\0';
    const char* behind = slash + 1;
    if (is_submit_mode(mode)) {
      if (const char* second = std::strchr(behind, '/'); second != nullptr) {
        CopyCut(gszAllocate, std::string_view(behind, static_cast<std::size_t>(second - behind)));
        CopyCut(gszResource, second + 1);
      } else {
        CopyCut(gszAllocate, behind);
        trace("%l3 No resource given");
      }
      trace("%l3 got allocate: %s", gszAllocate);
    } else {
      CopyCut(gszResource, behind);
    }
  } else if (is_submit_mode(mode)) {
    trace("%l3 No resource given");
  }

  q->peer.valid = true;
}

int iEXEC_REQUEST(const char* line) {
  Query q{};
  SplitRequest(line, &q);
  if (std::strlen(line) >= static_cast<std::size_t>(kMaxQueryLength)) {
    trace("%l1 ERROR: query too large(max length %d)", kMaxQueryLength);
    answer(&q.peer, KD_ERROR, "ERROR: query too long. Max length %d", kMaxQueryLength);
    return 1;
  }
  return DispatchQuery(&q);
}

namespace {

/// Requests that cannot put a job into a queue or set a resource queue
/// running: after them, triples found at rest by the last pass still are.
/// (queue_init creates idle queues and changes limits, shares and servers.)
constexpr bool LeavesTriplesAtRest(int mode) {
  switch (mode) {
    case queue_init:
    case queue_sho:
    case queue_sho_name:
    case queue_sho_status:
    case queue_sho_full:
    case queue_sho_csv:
    case job_sho:
    case job_sho_name:
    case job_sho_full:
    case show_global_resources:
    case process_signal: return true;
    default: return false;
  }
}

}  // namespace

int DispatchQuery(Query* q) {
  const int mode = q->function;
  if (!LeavesTriplesAtRest(mode)) qm_hook_UnsettleQueTriples();
  const int result = mode >= 0 && mode <= invalid_mode ? kRequestHandlers[static_cast<std::size_t>(mode)](q)
                                                       : request_invalid_mode(q);
  if (result != 0) trace("%l2 EXEC_REQUEST returns %d", result);
  return result;
}
