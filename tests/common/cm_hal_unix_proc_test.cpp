#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_semaphore.h"
#include "kd_test_support.h"

using namespace std::chrono_literals;
using kdtest::CaptureFd;
using kdtest::ReadFile;
using kdtest::TestInstance;
using kdtest::WaitFor;

namespace {

// A forked process running body(report_fd, control_fd): it reports lines
// through the report pipe and may wait until the control pipe is closed.
// Killed and reaped on destruction.
class Child {
 public:
  explicit Child(const std::function<void(int, int)>& body) {
    int report[2], control[2];
    if (::pipe(report) != 0 || ::pipe(control) != 0) return;
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(report[0]);
      ::close(control[1]);
      body(report[1], control[0]);
      ::_exit(0);
    }
    ::close(report[1]);
    ::close(control[0]);
    report_ = report[0];
    control_ = control[1];
  }
  ~Child() {
    Kill();
    if (report_ >= 0) ::close(report_);
    Release();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  std::string pid_text() const { return std::to_string(pid_); }

  /// The next reported line, or "" when none arrives before the deadline.
  std::string ReadLine(std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
      if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
        std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return "";
      pollfd p{report_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buf[256];
      const ssize_t n = ::read(report_, buf, sizeof buf);
      if (n <= 0) return "";
      buffer_.append(buf, static_cast<std::size_t>(n));
    }
  }
  /// Lets a child waiting on the control pipe go on.
  void Release() {
    if (control_ >= 0) ::close(control_);
    control_ = -1;
  }
  /// The wait status once the child has ended, or -1 after the deadline.
  int WaitExit(std::chrono::milliseconds deadline) {
    int status = -1;
    if (pid_ <= 0) return -1;
    if (!WaitFor([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, deadline)) return -1;
    pid_ = -1;
    return status;
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
  int control_ = -1;
  std::string buffer_;
};

void Report(int fd, const std::string& line) {
  const std::string text = line + "\n";
  (void)!::write(fd, text.data(), text.size());
}

void WaitForRelease(int fd) {
  char c;
  while (::read(fd, &c, 1) > 0) {
  }
}

std::string Pid() { return std::to_string(::getpid()); }

/// "<result> <message>" of one i_GET_LOCK_FOR_PROCESS call.
std::string Lock(char mode, const char* name = "KD_TEST") {
  char msg[1024] = "untouched";
  const int r = i_GET_LOCK_FOR_PROCESS(mode, name, msg, sizeof msg);
  return std::to_string(r) + " " + msg;
}

const std::string kRefused = "0 similar process KD_TEST is already running (EACCESS/EAGAIN)";

class ProcessLockTest : public ::testing::Test {
 protected:
  std::string LockFile() const { return inst_.work() + "sem/KD_TEST.lock"; }

  /// A child that takes the lock in mode and keeps it until killed; its answer in *answer.
  std::unique_ptr<Child> Taker(char mode, std::string* answer) {
    auto child = std::make_unique<Child>([mode](int rep, int ctl) {
      Report(rep, Lock(mode));
      WaitForRelease(ctl);
    });
    *answer = child->ReadLine(5s);
    return child;
  }

  /// The answer of a child that takes the lock and ends at once.
  std::string LockInChild(char mode) {
    std::string answer;
    Taker(mode, &answer);
    return answer;
  }

  TestInstance inst_;
};

TEST_F(ProcessLockTest, AnExclusiveLockLastsAsLongAsItsProcess) {
  std::string answer;
  auto holder = Taker('+', &answer);
  EXPECT_EQ(answer, "1 got exclusive lock for KD_TEST");
  EXPECT_EQ(ReadFile(LockFile()), holder->pid_text() + "\n");

  EXPECT_EQ(Lock('+'), kRefused);
  EXPECT_EQ(Lock('t'), kRefused);
  std::string shared;
  EXPECT_EQ(CaptureFd(2, [&] { shared = Lock('*'); }), "Set f_RDLCK\n");
  EXPECT_EQ(shared, kRefused);
  EXPECT_EQ(ReadFile(LockFile()), holder->pid_text() + "\n");

  // The lock file is a semaphore by its full name, too.
  sct_semaphore s{};
  CopyCut(s.szSema, "KD_TEST.lock");
  EXPECT_EQ(i_SEMA('?', &s), KD_WARNING);
  char held[200];
  std::snprintf(held, sizeof held, "[%6d] KD_TEST.lock still locked by concurrent process %d",
                ::getpid(), holder->pid());
  EXPECT_STREQ(s.szMsg, held);

  holder->Kill();
  EXPECT_EQ(Lock('t'), "1 got and released lock for KD_TEST");
  EXPECT_EQ(ReadFile(LockFile()), Pid() + "\n");
  EXPECT_EQ(LockInChild('+'), "1 got exclusive lock for KD_TEST");
}

TEST_F(ProcessLockTest, ATestByTheHolderGivesItsLockBack) {
  EXPECT_EQ(Lock('+'), "1 got exclusive lock for KD_TEST");
  EXPECT_EQ(LockInChild('+'), kRefused);
  // An inquiry inside the holder must not release the lock on the way.
  sct_semaphore s{};
  CopyCut(s.szSema, "KD_TEST.lock");
  EXPECT_EQ(i_SEMA('?', &s), KD_WARNING);
  EXPECT_EQ(LockInChild('t'), kRefused);

  EXPECT_EQ(Lock('-'), "1 got and released lock for KD_TEST");
  EXPECT_EQ(LockInChild('+'), "1 got exclusive lock for KD_TEST");
}

TEST_F(ProcessLockTest, SharedLocksCoexistAndKeepAnExclusiveTakerOut) {
  std::string answer;
  auto reader = Taker('*', &answer);
  EXPECT_EQ(answer, "1 got shared lock for KD_TEST");
  std::string shared;
  EXPECT_EQ(CaptureFd(2, [&] { shared = Lock('*'); }), "Set f_RDLCK\n");
  EXPECT_EQ(shared, "1 got shared lock for KD_TEST");
  EXPECT_EQ(LockInChild('+'), kRefused);
  // Only looked at, never opened: a close here would release our lock.
  EXPECT_EQ(std::filesystem::file_size(LockFile()), 0u);

  // Our own shared lock survives a refused attempt to take it exclusively.
  EXPECT_EQ(Lock('t'), kRefused);
  reader->Kill();
  EXPECT_EQ(LockInChild('+'), kRefused);
  EXPECT_EQ(Lock('t'), "1 got and released lock for KD_TEST");
  EXPECT_EQ(LockInChild('+'), "1 got exclusive lock for KD_TEST");
}

TEST_F(ProcessLockTest, AMissingSemaphoreDirectoryFailsToOpen) {
  std::filesystem::remove_all(inst_.work() + "sem");
  EXPECT_EQ(Lock('+'), "0 failed to open lock file " + LockFile());
}

TEST_F(ProcessLockTest, AvoidMultiProcessEndsASecondInstance) {
  const std::string out = inst_.root() + "/second.out";
  Child first([](int rep, int ctl) {
    AVOID_MULTI_PROCESS("KD_TEST");
    Report(rep, "running");
    WaitForRelease(ctl);
  });
  ASSERT_EQ(first.ReadLine(5s), "running");
  EXPECT_EQ(ReadFile(LockFile()), first.pid_text() + "\n");

  Child second([&](int rep, int) {
    const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, 1);
    AVOID_MULTI_PROCESS("KD_TEST");
    Report(rep, "running");
  });
  const int status = second.WaitExit(5s);
  ASSERT_TRUE(status != -1 && WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(second.ReadLine(100ms), "");
  EXPECT_EQ(ReadFile(out),
            "STATUS=ERROR MSG=similar process KD_TEST is already running (EACCESS/EAGAIN)\n");

  first.Kill();
  Child third([](int rep, int ctl) {
    AVOID_MULTI_PROCESS("KD_TEST");
    Report(rep, "running");
    WaitForRelease(ctl);
  });
  EXPECT_EQ(third.ReadLine(5s), "running");
  EXPECT_EQ(Lock('+'), kRefused);
}

}  // namespace
