// File semaphores: lock, unlock, try, inquiry, reset and removal as seen by
// other processes, hand-over from a killed holder, fatal answers, and signals
// during blocking and polling waits. The holder's line, a try against it and
// the emptied file: on the daemon's own lock (e2e DaemonStartTest).
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_semaphore.h"
#include "cm_trace.h"
#include "forked_child.h"
#include "kd_test_support.h"

using namespace std::chrono_literals;
using kdtest::ForkedChild;
using kdtest::ReadFile;
using kdtest::Report;
using kdtest::WaitFor;

namespace {

sct_semaphore Sema(const std::string& name, const std::string& caller, bool catch_signals = false) {
  sct_semaphore s{};
  CopyCut(s.szSema, name);
  CopyCut(s.szCaller, caller);
  s.bCatchSignals = catch_signals;
  return s;
}

volatile sig_atomic_t g_delivered = 0;
void RecordSignal(int sig) { g_delivered = sig; }

bool HandlerIs(int sig, void (*handler)(int)) {
  struct sigaction now {};
  return ::sigaction(sig, nullptr, &now) == 0 && now.sa_handler == handler;
}

str_log g_log;

class SemaphoreTest : public ::testing::Test {
 protected:
  std::string SemFile(const std::string& name) const { return inst_.work() + "sem/" + name + ".sem"; }

  /// A child that holds the semaphore until it is killed.
  std::unique_ptr<ForkedChild> Holder(const std::string& name) {
    auto child = std::make_unique<ForkedChild>([name](int rep) {
      sct_semaphore s = Sema(name, "holder");
      Report(rep, std::to_string(i_SEMA('+', &s)) + " " + s.szMsg);
    });
    EXPECT_EQ(child->ReadLine(), "0 got exclusive lock for " + name);
    return child;
  }

  kdtest::TestInstance inst_;
};

TEST_F(SemaphoreTest, LockIsCloseOnExecUnlockFreesItAndRemoveDeletesTheFile) {
  std::filesystem::remove_all(inst_.work() + "sem");  // created when missing
  sct_semaphore s = Sema("job1", "me");
  ASSERT_EQ(i_SEMA('+', &s), KD_SUCCESS) << s.szMsg;
  EXPECT_TRUE(::fcntl(s.hSema, F_GETFD) & FD_CLOEXEC) << "started jobs must not inherit the lock";

  EXPECT_EQ(i_SEMA('-', &s), KD_SUCCESS) << s.szMsg;
  EXPECT_EQ(s.hSema, -1);
  Holder("job1");  // another process gets it at once

  EXPECT_EQ(i_SEMA('#', &s), KD_SUCCESS);
  EXPECT_FALSE(kdtest::Exists(SemFile("job1")));
  EXPECT_EQ(i_SEMA('#', &s), KD_SUCCESS) << "a missing file is no error";
  EXPECT_EQ(i_SEMA('x', &s), KD_ERROR);
  EXPECT_STREQ(s.szMsg, "error: invalid argument x");
}

// Other signals neither end a blocking wait (the lock request sees EINTR) nor a polling one.
int g_report_fd = -1;
void ReportSignal(int) { (void)!::write(g_report_fd, "signalled\n", 10); }

TEST_F(SemaphoreTest, AKilledHolderHandsTheSemaphoreToAWaiterThatOtherSignalsDoNotDisturb) {
  for (const bool catching : {false, true}) {
    SCOPED_TRACE(catching ? "polling wait" : "blocking wait");
    const std::string name = catching ? "polled" : "blocked";
    auto holder = Holder(name);
    ForkedChild waiter([&](int rep) {
      g_report_fd = rep;
      struct sigaction report {};
      report.sa_handler = ReportSignal;  // no SA_RESTART
      ::sigaction(SIGUSR1, &report, nullptr);
      sct_semaphore w = Sema(name, "waiter", catching);
      Report(rep, "waiting");
      Report(rep, std::to_string(i_SEMA('+', &w)));
    });
    ASSERT_EQ(waiter.ReadLine(), "waiting");
    const std::string in_wait = std::to_string(catching ? SYS_clock_nanosleep : SYS_fcntl) + " ";
    EXPECT_TRUE(WaitFor([&] { return ReadFile("/proc/" + waiter.pid_text() + "/syscall").rfind(in_wait, 0) == 0; }, 5s));
    ::kill(waiter.pid(), SIGUSR1);
    EXPECT_EQ(waiter.ReadLine(), "signalled");
    EXPECT_EQ(ReadFile(SemFile(name)), holder->pid_text() + " holder");
    holder->Kill();
    EXPECT_EQ(waiter.ReadLine(), "0");
    EXPECT_EQ(ReadFile(SemFile(name)), waiter.pid_text() + " waiter");
  }
}

TEST_F(SemaphoreTest, InquiryAndResetRefuseALiveHolderAndClearADeadOne) {
  char padded[16];
  std::snprintf(padded, sizeof padded, "[%6d]", static_cast<int>(::getpid()));
  sct_semaphore s = Sema("job1", "me");
  EXPECT_EQ(i_SEMA('?', &s), KD_SUCCESS);
  EXPECT_EQ(std::string(s.szMsg), padded + (" semaphore file " + SemFile("job1") + " does not exist"));

  for (const char op : {'?', 'R'}) {
    SCOPED_TRACE(op);
    auto holder = Holder("job1");
    const std::string who = holder->pid_text() + " holder";
    s.hSema = op == 'R' ? 99 : -1;
    EXPECT_EQ(i_SEMA(op, &s), KD_WARNING);
    EXPECT_EQ(s.hSema, -1);
    EXPECT_EQ(std::string(s.szMsg),
              op == '?' ? padded + (" job1 still locked by concurrent process " + who)
                        : "could not reset semaphore bcs. another process " + who + " is holding semaphore job1");
    EXPECT_EQ(ReadFile(SemFile("job1")), who);
    holder->Kill();
    EXPECT_EQ(i_SEMA(op, &s), KD_SUCCESS);
    EXPECT_EQ(std::string(s.szMsg), "holding process " + who + " for semaphore job1 disappeared");
    EXPECT_EQ(ReadFile(SemFile("job1")), "");
  }
  EXPECT_EQ(i_SEMA('?', &s), KD_SUCCESS);
  EXPECT_STREQ(s.szMsg, "semaphore job1 is free");
  // The inquiries were guarded by a semaphore of their own, released again.
  EXPECT_EQ(ReadFile(SemFile("inq_job1")), "");
}

TEST_F(SemaphoreTest, FatalFailuresAnswerOnStandardOutputAndExitWith3) {
  const std::string out = inst_.root() + "/child.out";
  const auto exit_of = [&](char op) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      sct_semaphore s = Sema("job1", "me");
      (void)i_SEMA(op, &s);
      ::_exit(0);
    }
    int status = -1;
    if (!WaitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 10s)) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << op << " " << status;
    return ReadFile(out);
  };
  const std::string head = "STATUS=FATAL MSG=Operation '";
  EXPECT_EQ(exit_of('-'), head + "-' for semaphore [job1] with caller [me] failed with: "
                                 "file unlock with fcntl() failed: (9) Bad file descriptor\n");
  std::filesystem::remove_all(inst_.work());
  EXPECT_EQ(exit_of('*'), head + "*' for semaphore [job1] with caller [me] failed with: directory " + inst_.work() +
                              "sem created >> retry creation of lock file failed: (2) No such file or directory\n");
}

TEST_F(SemaphoreTest, ASignalAbortsAPollingWaitAndIsDeliveredAgain) {
  for (const int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig);
    inst_.write_debug_ini("SEMA_TEST=4\n");
    const std::string log_file = inst_.lgc() + "sema_test.log";
    v_set_log_main(log_file.c_str(), "SEMA_TEST", &g_log);
    auto holder = Holder("job1");
    struct sigaction record {}, old_action {}, abrt_before {};
    record.sa_handler = RecordSignal;
    ASSERT_EQ(::sigaction(sig, &record, &old_action), 0);
    ::sigaction(SIGABRT, nullptr, &abrt_before);
    g_delivered = 0;

    std::atomic<bool> done{false};
    std::thread sender([&] {
      // Blocked here, so that the signal goes to the waiting thread.
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, sig);
      pthread_sigmask(SIG_BLOCK, &set, nullptr);
      if (WaitFor([&] { return HandlerIs(sig, SEMA_SIGNAL_HANDLER); }, 5s)) ::kill(::getpid(), sig);
      // Never leave the waiter hanging: without the abort it gets the lock.
      if (!WaitFor([&] { return done.load(); }, 5s)) holder->Kill();
    });
    sct_semaphore s = Sema("job1", "waiter", true);
    const int result = i_SEMA('+', &s);
    done = true;
    sender.join();

    const std::string aborted = "Semaphore Set aborted by Signal " + std::to_string(sig);
    EXPECT_EQ(result, KD_ERROR);
    EXPECT_EQ(std::string(s.szMsg), aborted);
    EXPECT_EQ(s.iSignal, sig);
    EXPECT_LT(s.hSema, 0);
    EXPECT_TRUE(WaitFor([&] { return g_delivered == sig; }, 2s));
    EXPECT_TRUE(HandlerIs(sig, RecordSignal) && HandlerIs(SIGABRT, abrt_before.sa_handler)) << "handlers restored";
    EXPECT_EQ(ReadFile(SemFile("job1")), holder->pid_text() + " holder");
    ::sigaction(sig, &old_action, nullptr);

    v_set_log_all_close(&g_log);
    const std::string log = ReadFile(log_file);
    EXPECT_NE(log.find("+++ SEMA_SIGNAL_HANDLER: Signal " + std::to_string(sig) + " received\n"), std::string::npos);
    EXPECT_NE(log.find("i_SEMA( +, job1, waiter) returned ERROR: " + aborted + "\n"), std::string::npos) << log;
  }
}

}  // namespace
