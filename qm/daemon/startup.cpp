#include "daemon/startup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cm_common.h"
#include "cm_kernel.h"
#include "protocol/globals.h"
#include "xutil.h"

str_log gQmLog;
sct_semaphore gQmLock;

namespace {

constexpr const char* kServiceUnit = "/usr/lib/systemd/system/orlkelda.service";
constexpr const char* kRunDir = "/run";
constexpr const char* kServicePidFile = "/run/orlkelda.pid";
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

/// Reads a key of "[Pathes]"; the section is spelled so in every configuration.
bool read_path(const char* key, char* value, std::size_t size) {
  char err[1024];
  return i_READ_INI("KD_INI", "[Pathes]", key, value, size, err, sizeof err) == 1 && value[0] != '\0';
}

void close_all_descriptors() {
  if (close_range(0, ~0U, 0) == 0) return;
  for (long fd = sysconf(_SC_OPEN_MAX) - 1; fd >= 0; --fd) close(static_cast<int>(fd));
}

}  // namespace

const char* QmBuildLine() {
  static char line[128];
  if (line[0] == '\0') x_Snprintf(line, sizeof line, "kd_qm_main Kelda GitID: %s", kd_build_id());
  return line;
}

bool IsUsageRequest(int argc, char** argv) {
  if (argc != 2 || argv[1] == nullptr) return false;
  const char* a = argv[1];
  return a[0] == '?' || std::strcmp(a, "-h") == 0 || std::strcmp(a, "-?") == 0 || std::strcmp(a, "/?") == 0;
}

void USAGE() {
  char ruler[kUsageWidth + 1];
  std::memset(ruler, '-', kUsageWidth);
  ruler[kUsageWidth] = '\0';
  std::printf("%s\n", QmBuildLine());
  std::printf("%s\n", ruler);
  for (const char* line : kUsageLines) std::printf("%-79s\n", line);
  std::printf("%s\n", ruler);
  std::fflush(stdout);
}

void TakeProcessLock() {
  CopyCut(gQmLock.szSema, kQmModule);
  CopyCut(gQmLock.szCaller, kQmModule);
  if (i_SEMA('*', &gQmLock) != KD_SUCCESS) {
    std::printf("STATUS=ERROR MSG=%s\n", gQmLock.szMsg);
    std::fflush(stdout);
    std::exit(2);
  }
}

void ReadQmDirectories() {
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
}

void DetachFromTerminal() {
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

  if (std::strstr(gQmLog.szLogFile, "service") != nullptr) v_set_log_main(kQmLogName, kQmModule, &gQmLog);
  trace("%l2 KD_QM_MAIN: after second fork");
  trace("%l2 %s", QmBuildLine());
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

void WriteOwnServicePidFile() {
  char msg[1200];
  if (WriteServicePidFile(kServiceUnit, kRunDir, kServicePidFile, msg, sizeof msg) != 0) {
    std::printf("STATUS=ERROR MSG=%s\n", msg);
    std::fflush(stdout);
    std::exit(2);
  }
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
