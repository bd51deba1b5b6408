#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_semaphore.h"
#include "kd_test_support.h"

using kdtest::CaptureFd;
using kdtest::ReadFile;

namespace {

/// "<result> <message>" of one i_GET_LOCK_FOR_PROCESS call.
std::string Lock(char mode) {
  char msg[1024] = "untouched";
  const int r = i_GET_LOCK_FOR_PROCESS(mode, "KD_TEST", msg, sizeof msg);
  return std::to_string(r) + " " + msg;
}

const std::string kRefused = "0 similar process KD_TEST is already running (EACCESS/EAGAIN)";

/// A forked process that runs fn, reports its text through a pipe and then
/// waits (keeping its locks) until it is killed and reaped on destruction.
class Holder {
 public:
  explicit Holder(std::string (*fn)()) {
    int report[2];
    if (::pipe(report) != 0) return;
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      const std::string text = fn() + "\n";
      (void)!::write(report[1], text.data(), text.size());
      for (;;) ::pause();
    }
    ::close(report[1]);
    pollfd p{report[0], POLLIN, 0};
    char buf[512];
    const ssize_t n = ::poll(&p, 1, 5000) > 0 ? ::read(report[0], buf, sizeof buf) : 0;
    answer_.assign(buf, n > 0 ? static_cast<std::size_t>(n) - 1 : 0);
    ::close(report[0]);
  }
  ~Holder() { Kill(); }
  void Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  std::string pid_text() const { return std::to_string(pid_); }
  const std::string& answer() const { return answer_; }

 private:
  pid_t pid_ = -1;
  std::string answer_;
};

std::string TakeExclusive() { return Lock('+'); }
std::string TakeShared() { return Lock('*'); }
std::string TryLock() { return Lock('t'); }
std::string InChild(std::string (*fn)()) { return Holder(fn).answer(); }

class ProcessLockTest : public ::testing::Test {
 protected:
  std::string LockFile() const { return inst_.work() + "sem/KD_TEST.lock"; }
  kdtest::TestInstance inst_;
};

}  // namespace

TEST_F(ProcessLockTest, AnExclusiveLockLastsAsLongAsItsProcess) {
  Holder holder(TakeExclusive);
  EXPECT_EQ(holder.answer(), "1 got exclusive lock for KD_TEST");
  EXPECT_EQ(ReadFile(LockFile()), holder.pid_text() + "\n");
  EXPECT_EQ(Lock('+'), kRefused);
  EXPECT_EQ(Lock('t'), kRefused);
  std::string shared;
  EXPECT_EQ(CaptureFd(2, [&] { shared = Lock('*'); }), "Set f_RDLCK\n");
  EXPECT_EQ(shared, kRefused);

  holder.Kill();
  EXPECT_EQ(Lock('t'), "1 got and released lock for KD_TEST");
  EXPECT_EQ(ReadFile(LockFile()), std::to_string(::getpid()) + "\n");
  std::filesystem::remove_all(inst_.work() + "sem");
  EXPECT_EQ(Lock('+'), "0 failed to open lock file " + LockFile());
}

TEST_F(ProcessLockTest, ATestByTheHolderGivesItsLockBack) {
  EXPECT_EQ(Lock('+'), "1 got exclusive lock for KD_TEST");
  // The lock file is a semaphore by its full name, too; an inquiry inside the
  // holder must not release the lock on the way.
  sct_semaphore s{};
  CopyCut(s.szSema, "KD_TEST.lock");
  EXPECT_EQ(i_SEMA('?', &s), KD_WARNING);
  char held[200];
  std::snprintf(held, sizeof held, "[%6d] KD_TEST.lock still locked by concurrent process %d", ::getpid(), ::getpid());
  EXPECT_STREQ(s.szMsg, held);
  EXPECT_EQ(InChild(TryLock), kRefused);
  EXPECT_EQ(Lock('-'), "1 got and released lock for KD_TEST");
  EXPECT_EQ(InChild(TakeExclusive), "1 got exclusive lock for KD_TEST");
}

TEST_F(ProcessLockTest, SharedLocksCoexistAndKeepAnExclusiveTakerOut) {
  Holder reader(TakeShared);
  EXPECT_EQ(reader.answer(), "1 got shared lock for KD_TEST");
  std::string shared;
  EXPECT_EQ(CaptureFd(2, [&] { shared = Lock('*'); }), "Set f_RDLCK\n");
  EXPECT_EQ(shared, "1 got shared lock for KD_TEST");
  EXPECT_EQ(InChild(TakeExclusive), kRefused);
  // Only looked at, never opened: a close here would release our lock.
  EXPECT_EQ(std::filesystem::file_size(LockFile()), 0u);
  // Our own shared lock survives a refused attempt to take it exclusively.
  EXPECT_EQ(Lock('t'), kRefused);
  reader.Kill();
  EXPECT_EQ(InChild(TakeExclusive), kRefused);
  EXPECT_EQ(Lock('t'), "1 got and released lock for KD_TEST");
}

TEST_F(ProcessLockTest, AvoidMultiProcessEndsASecondInstance) {
  Holder first([] {
    AVOID_MULTI_PROCESS("KD_TEST");
    return std::string("running");
  });
  ASSERT_EQ(first.answer(), "running");
  const std::string out = inst_.root() + "/second.out";
  const pid_t second = fork();
  ASSERT_GE(second, 0);
  if (second == 0) {
    ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    AVOID_MULTI_PROCESS("KD_TEST");
    _exit(99);
  }
  int status = 0;
  ASSERT_TRUE(kdtest::WaitFor([&] { return ::waitpid(second, &status, WNOHANG) == second; }, std::chrono::seconds(10)));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(ReadFile(out), "STATUS=ERROR MSG=similar process KD_TEST is already running (EACCESS/EAGAIN)\n");
  first.Kill();
  EXPECT_EQ(InChild([] {
              AVOID_MULTI_PROCESS("KD_TEST");
              return std::string("running");
            }),
            "running");
}
