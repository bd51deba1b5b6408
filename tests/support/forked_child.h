// A forked helper process for the tests of locks: it runs a body that reports
// lines through a pipe, then waits, keeping what it holds, until it is killed.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

namespace kdtest {

/// Writes one line to a report descriptor.
inline void Report(int fd, const std::string& line) { (void)!::write(fd, (line + "\n").data(), line.size() + 1); }

/// The child runs body(report_fd), then pauses until it is killed; the
/// destructor kills (SIGKILL) and reaps it.
class ForkedChild {
 public:
  explicit ForkedChild(const std::function<void(int)>& body) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    std::fflush(nullptr);
    if ((pid_ = ::fork()) == 0) {
      ::close(fds[0]);
      body(fds[1]);
      for (;;) ::pause();
    }
    ::close(fds[1]);
    report_ = fds[0];
  }
  ~ForkedChild() {
    Kill();
    ::close(report_);
  }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  pid_t pid() const { return pid_; }
  std::string pid_text() const { return std::to_string(pid_); }
  /// The next reported line; what has come when nothing more arrives for 5 seconds.
  std::string ReadLine() {
    std::string line;
    char c;
    pollfd p{report_, POLLIN, 0};
    while (::poll(&p, 1, 5000) > 0 && ::read(report_, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  void Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int report_ = -1;
};

}  // namespace kdtest
