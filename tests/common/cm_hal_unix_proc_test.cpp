// The process lock: exclusive and shared locks, a test by the holder, and
// AVOID_MULTI_PROCESS, with other processes as the competitors.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_hal_unix.h"
#include "cm_semaphore.h"
#include "forked_child.h"
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

/// A child that calls Lock(mode) and keeps what it took until it is killed.
struct Holder : kdtest::ForkedChild {
  explicit Holder(char mode) : ForkedChild([mode](int rep) { kdtest::Report(rep, Lock(mode)); }), answer(ReadLine()) {}
  const std::string answer;
};

std::string InChild(char mode) { return Holder(mode).answer; }

class ProcessLockTest : public ::testing::Test {
 protected:
  std::string LockFile() const { return inst_.work() + "sem/KD_TEST.lock"; }
  kdtest::TestInstance inst_;
};

}  // namespace

TEST_F(ProcessLockTest, AnExclusiveLockLastsAsLongAsItsProcess) {
  Holder holder('+');
  EXPECT_EQ(holder.answer, "1 got exclusive lock for KD_TEST");
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
  EXPECT_EQ(InChild('t'), kRefused);
  EXPECT_EQ(Lock('-'), "1 got and released lock for KD_TEST");
  EXPECT_EQ(InChild('+'), "1 got exclusive lock for KD_TEST");
}

TEST_F(ProcessLockTest, SharedLocksCoexistAndKeepAnExclusiveTakerOut) {
  Holder reader('*');
  EXPECT_EQ(reader.answer, "1 got shared lock for KD_TEST");
  std::string shared;
  EXPECT_EQ(CaptureFd(2, [&] { shared = Lock('*'); }), "Set f_RDLCK\n");
  EXPECT_EQ(shared, "1 got shared lock for KD_TEST");
  EXPECT_EQ(InChild('+'), kRefused);
  // Only looked at, never opened: a close here would release our lock.
  EXPECT_EQ(std::filesystem::file_size(LockFile()), 0u);
  // Our own shared lock survives a refused attempt to take it exclusively.
  EXPECT_EQ(Lock('t'), kRefused);
  reader.Kill();
  EXPECT_EQ(InChild('+'), kRefused);
  EXPECT_EQ(Lock('t'), "1 got and released lock for KD_TEST");
}

TEST_F(ProcessLockTest, AvoidMultiProcessEndsASecondInstance) {
  const auto avoid = [](int rep) {
    AVOID_MULTI_PROCESS("KD_TEST");
    kdtest::Report(rep, "running");
  };
  auto first = std::make_unique<kdtest::ForkedChild>(avoid);
  ASSERT_EQ(first->ReadLine(), "running");
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
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_EQ(ReadFile(out), "STATUS=ERROR MSG=similar process KD_TEST is already running (EACCESS/EAGAIN)\n");
  first.reset();
  EXPECT_EQ(kdtest::ForkedChild(avoid).ReadLine(), "running");
}
