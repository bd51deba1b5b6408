#include "daemon/request_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "cm_common.h"
#include "cm_signal.h"
#include "cm_split.h"
#include "cm_trace.h"
#include "daemon/dispatch.h"
#include "daemon/signals.h"
#include "protocol/globals.h"
#include "xutil.h"

namespace {

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

}  // namespace

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
        if (!ParseDecimal(field2, &pid)) pid = 0;
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
