#include "cm_semaphore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "cm_common.h"
#include "cm_trace.h"
#include "kd_test_support.h"

using namespace std::chrono_literals;
using kdtest::Exists;
using kdtest::ReadFile;
using kdtest::WaitFor;

namespace {

// A forked process running body(report_fd): it reports lines through a pipe
// and then waits, keeping its locks, until it is killed and reaped on destruction.
class Child {
 public:
  explicit Child(const std::function<void(int)>& body) {
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
  ~Child() {
    Kill();
    ::close(report_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

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

void Report(int fd, const std::string& line) { (void)!::write(fd, (line + "\n").data(), line.size() + 1); }

sct_semaphore Sema(const std::string& name, const std::string& caller, bool catch_signals = false) {
  sct_semaphore s{};
  CopyCut(s.szSema, name);
  CopyCut(s.szCaller, caller);
  s.bCatchSignals = catch_signals;
  return s;
}

std::string Pid() { return std::to_string(::getpid()); }

std::string Padded(int pid) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "[%6d]", pid);
  return buf;
}

// The content of a semaphore this process holds, read through its own
// descriptor: opening and closing the file anywhere else in the process
// would release the lock.
std::string Held(const sct_semaphore& s) {
  char buf[2048];
  const ssize_t n = ::pread(s.hSema, buf, sizeof buf, 0);
  return n < 0 ? "<unreadable>" : std::string(buf, static_cast<std::size_t>(n));
}

str_log g_log;

class SemaphoreTest : public ::testing::Test {
 protected:
  /// Starts a trace log at level 4 for this process; its path.
  std::string StartTrace() {
    inst_.write_debug_ini("SEMA_TEST=4\n");
    const std::string path = inst_.lgc() + "sema_test.log";
    v_set_log_main(path.c_str(), "SEMA_TEST", &g_log);
    return path;
  }
  std::string SemFile(const std::string& name) const { return inst_.work() + "sem/" + name + ".sem"; }

  /// A child that holds the semaphore until it is killed.
  std::unique_ptr<Child> Holder(const std::string& name) {
    auto child = std::make_unique<Child>([name](int rep) {
      sct_semaphore s = Sema(name, "holder");
      Report(rep, i_SEMA('+', &s) == KD_SUCCESS ? "locked" : "failed");
    });
    EXPECT_EQ(child->ReadLine(), "locked");
    return child;
  }

  /// Runs one operation in a separate process: "<result> <message>".
  static std::string InChild(char op, const std::string& name) {
    return Child([op, name](int rep) {
             sct_semaphore s = Sema(name, "other");
             const int r = i_SEMA(op, &s);
             Report(rep, std::to_string(r) + " " + s.szMsg);
           })
        .ReadLine();
  }

  /// Runs fn in a child with standard output in a file; its exit code and output.
  std::pair<int, std::string> ExitOf(const std::function<void()>& fn) {
    const std::string out = inst_.root() + "/child.out";
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      fn();
      std::fflush(stdout);
      ::_exit(0);
    }
    int status = -1;
    if (!WaitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 10s)) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out)};
  }

  kdtest::TestInstance inst_;
};

TEST_F(SemaphoreTest, LockWritesTheHolderUnlockEmptiesAndRemoveDeletesTheFile) {
  std::filesystem::remove_all(inst_.work() + "sem");  // created when missing
  const mode_t old_mask = ::umask(022);
  sct_semaphore s = Sema("job1", "me");
  ASSERT_EQ(i_SEMA('+', &s), KD_SUCCESS) << s.szMsg;
  ::umask(old_mask);
  EXPECT_EQ(Held(s), Pid() + " me");
  EXPECT_TRUE(::fcntl(s.hSema, F_GETFD) & FD_CLOEXEC);
  struct stat st {};
  ASSERT_EQ(::stat(SemFile("job1").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(InChild('*', "job1"), "1 another process " + Pid() + " me is holding semaphore job1");

  EXPECT_EQ(i_SEMA('-', &s), KD_SUCCESS) << s.szMsg;
  EXPECT_EQ(s.hSema, -1);
  EXPECT_EQ(ReadFile(SemFile("job1")), "");
  EXPECT_EQ(InChild('*', "job1"), "0 got exclusive lock for job1");

  EXPECT_EQ(i_SEMA('#', &s), KD_SUCCESS);
  EXPECT_FALSE(Exists(SemFile("job1")));
  EXPECT_EQ(i_SEMA('#', &s), KD_SUCCESS);
  EXPECT_EQ(i_SEMA('x', &s), KD_ERROR);
  EXPECT_STREQ(s.szMsg, "error: invalid argument x");
}

TEST_F(SemaphoreTest, AKilledHolderHandsTheSemaphoreToAWaiter) {
  for (const bool catching : {false, true}) {
    SCOPED_TRACE(catching ? "polling wait" : "blocking wait");
    const std::string name = catching ? "polled" : "blocked";
    auto holder = Holder(name);
    sct_semaphore s = Sema(name, "me");
    EXPECT_EQ(i_SEMA('*', &s), KD_WARNING) << "a try names the holder at once";
    EXPECT_STREQ(s.szMsg, ("another process " + holder->pid_text() + " holder is holding semaphore " + name).c_str());
    EXPECT_LT(s.hSema, 0);
    Child waiter([&](int rep) {
      sct_semaphore w = Sema(name, "waiter", catching);
      Report(rep, "waiting");
      Report(rep, std::to_string(i_SEMA('+', &w)));
    });
    ASSERT_EQ(waiter.ReadLine(), "waiting");
    EXPECT_EQ(ReadFile(SemFile(name)), holder->pid_text() + " holder");
    holder->Kill();
    EXPECT_EQ(waiter.ReadLine(), "0");
    EXPECT_EQ(ReadFile(SemFile(name)), waiter.pid_text() + " waiter");
  }
}

TEST_F(SemaphoreTest, InquiryAndResetRefuseALiveHolderAndClearADeadOne) {
  sct_semaphore s = Sema("job1", "me");
  EXPECT_EQ(i_SEMA('?', &s), KD_SUCCESS);
  EXPECT_STREQ(s.szMsg, (Padded(::getpid()) + " semaphore file " + SemFile("job1") + " does not exist").c_str());

  for (const char op : {'?', 'R'}) {
    SCOPED_TRACE(op);
    auto holder = Holder("job1");
    s.hSema = op == 'R' ? 99 : -1;
    EXPECT_EQ(i_SEMA(op, &s), KD_WARNING);
    EXPECT_EQ(s.hSema, -1);
    const std::string refused =
        op == '?' ? Padded(::getpid()) + " job1 still locked by concurrent process " + holder->pid_text() + " holder"
                  : "could not reset semaphore bcs. another process " + holder->pid_text() +
                        " holder is holding semaphore job1";
    EXPECT_STREQ(s.szMsg, refused.c_str());
    EXPECT_EQ(ReadFile(SemFile("job1")), holder->pid_text() + " holder");
    const std::string dead = holder->pid_text();
    holder->Kill();
    EXPECT_EQ(i_SEMA(op, &s), KD_SUCCESS);
    EXPECT_STREQ(s.szMsg, ("holding process " + dead + " holder for semaphore job1 disappeared").c_str());
    EXPECT_EQ(ReadFile(SemFile("job1")), "");
  }
  EXPECT_EQ(i_SEMA('?', &s), KD_SUCCESS);
  EXPECT_STREQ(s.szMsg, "semaphore job1 is free");
  // The inquiries were guarded by a semaphore of their own, released again.
  EXPECT_EQ(ReadFile(SemFile("inq_job1")), "");
}

TEST_F(SemaphoreTest, FatalFailuresAnswerOnStandardOutputAndExitWith3) {
  const std::string head = "STATUS=FATAL MSG=Operation '";
  auto [code, out] = ExitOf([] {
    sct_semaphore s = Sema("job1", "me");
    (void)i_SEMA('-', &s);
  });
  EXPECT_EQ(code, 3);
  EXPECT_EQ(out, head + "-' for semaphore [job1] with caller [me] failed with: "
                        "file unlock with fcntl() failed: (9) Bad file descriptor\n");

  std::filesystem::remove_all(inst_.work());
  std::tie(code, out) = ExitOf([] {
    sct_semaphore s = Sema("job1", "me");
    (void)i_SEMA('*', &s);
  });
  EXPECT_EQ(code, 3);
  EXPECT_EQ(out, head + "*' for semaphore [job1] with caller [me] failed with: directory " + inst_.work() +
                     "sem created >> retry creation of lock file failed: (2) No such file or directory\n");
}

volatile sig_atomic_t g_delivered = 0;
void RecordSignal(int sig) { g_delivered = sig; }

bool HandlerIs(int sig, void (*handler)(int)) {
  struct sigaction now {};
  return ::sigaction(sig, nullptr, &now) == 0 && now.sa_handler == handler;
}

TEST_F(SemaphoreTest, ASignalAbortsAPollingWaitAndIsDeliveredAgain) {
  for (const int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig);
    const std::string log_file = StartTrace();
    auto holder = Holder("job1");
    struct sigaction record {}, old_action {}, abrt_before {};
    record.sa_handler = RecordSignal;
    sigemptyset(&record.sa_mask);
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
    EXPECT_STREQ(s.szMsg, aborted.c_str());
    EXPECT_EQ(s.iSignal, sig);
    EXPECT_LT(s.hSema, 0);
    EXPECT_TRUE(WaitFor([&] { return g_delivered == sig; }, 2s));
    EXPECT_TRUE(HandlerIs(sig, RecordSignal));
    EXPECT_TRUE(HandlerIs(SIGABRT, abrt_before.sa_handler));
    EXPECT_EQ(ReadFile(SemFile("job1")), holder->pid_text() + " holder");
    ::sigaction(sig, &old_action, nullptr);

    v_set_log_all_close(&g_log);
    const std::string log = ReadFile(log_file);
    EXPECT_NE(log.find("+++ SEMA_SIGNAL_HANDLER: Signal " + std::to_string(sig) + " received\n"), std::string::npos);
    EXPECT_NE(log.find("i_SEMA( +, job1, waiter) returned ERROR: " + aborted + "\n"), std::string::npos) << log;
  }
}

TEST_F(SemaphoreTest, ABlockingWaitSurvivesOtherSignals) {
  auto holder = Holder("job1");
  struct sigaction record {}, old_action {};
  record.sa_handler = RecordSignal;  // no SA_RESTART: the lock request sees EINTR
  sigemptyset(&record.sa_mask);
  ASSERT_EQ(::sigaction(SIGUSR1, &record, &old_action), 0);
  g_delivered = 0;
  const std::string syscall_file = "/proc/self/task/" + std::to_string(::gettid()) + "/syscall";
  const std::string in_fcntl = std::to_string(SYS_fcntl) + " ";

  std::thread helper([&] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    WaitFor([&] { return ReadFile(syscall_file).rfind(in_fcntl, 0) == 0; }, 5s);
    ::kill(::getpid(), SIGUSR1);
    WaitFor([&] { return g_delivered == SIGUSR1; }, 5s);
    holder->Kill();
  });
  sct_semaphore s = Sema("job1", "waiter");
  const int result = i_SEMA('+', &s);
  helper.join();
  ::sigaction(SIGUSR1, &old_action, nullptr);

  EXPECT_EQ(g_delivered, SIGUSR1);
  EXPECT_EQ(result, KD_SUCCESS) << s.szMsg;
  EXPECT_EQ(Held(s), Pid() + " waiter");
  EXPECT_EQ(i_SEMA('-', &s), KD_SUCCESS);
}

}  // namespace
