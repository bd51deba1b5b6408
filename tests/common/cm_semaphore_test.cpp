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

sct_semaphore Sema(const std::string& name, const std::string& caller, bool catch_signals = false) {
  sct_semaphore s{};
  CopyCut(s.szSema, name);
  CopyCut(s.szCaller, caller);
  s.bCatchSignals = catch_signals;
  return s;
}

std::string Pid() { return std::to_string(::getpid()); }

// The content of a semaphore this process holds, read through its own
// descriptor: opening and closing the file anywhere else in the process
// would release the lock.
std::string Held(const sct_semaphore& s) {
  char buf[2048];
  const ssize_t n = ::pread(s.hSema, buf, sizeof buf, 0);
  return n < 0 ? "<unreadable>" : std::string(buf, static_cast<std::size_t>(n));
}

str_log g_log;

std::string Padded(int pid) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "[%6d]", pid);
  return buf;
}

class SemaphoreTest : public ::testing::Test {
 protected:
  /// Starts a trace log at level 4 for this process; its path.
  std::string StartTrace() {
    inst_.write_debug_ini("SEMA_TEST=4\n");
    const std::string path = inst_.lgc() + "sema_test.log";
    v_set_log_main(path.c_str(), "SEMA_TEST", &g_log);
    return path;
  }
  static bool Traced(const std::string& log, const std::string& text) {
    return log.find(text) != std::string::npos;
  }

  std::string SemFile(const std::string& name) const { return inst_.work() + "sem/" + name + ".sem"; }

  /// A child that holds the semaphore until it is killed or released.
  std::unique_ptr<Child> Holder(const std::string& name, const std::string& caller) {
    auto child = std::make_unique<Child>([name, caller](int rep, int ctl) {
      sct_semaphore s = Sema(name, caller);
      Report(rep, i_SEMA('+', &s) == KD_SUCCESS ? "locked" : "failed");
      WaitForRelease(ctl);
      (void)i_SEMA('-', &s);
    });
    EXPECT_EQ(child->ReadLine(5s), "locked");
    return child;
  }

  /// Runs one operation in a separate process: "<result> <message>".
  std::string InChild(char op, const std::string& name) {
    Child child([op, name](int rep, int) {
      sct_semaphore s = Sema(name, "other");
      const int r = i_SEMA(op, &s);
      Report(rep, std::to_string(r) + " " + s.szMsg);
    });
    return child.ReadLine(5s);
  }

  /// Runs fn in a child with standard output in a file; its exit code and output.
  std::pair<int, std::string> ExitOf(const std::function<void()>& fn) {
    const std::string out = inst_.root() + "/child.out";
    Child child([&](int, int) {
      const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(fd, 1);
      fn();
      std::fflush(stdout);
      ::_exit(0);
    });
    const int status = child.WaitExit(10s);
    EXPECT_TRUE(status != -1 && WIFEXITED(status)) << "status " << status;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out)};
  }

  TestInstance inst_;
};

TEST_F(SemaphoreTest, LockWritesTheHolderAndUnlockEmptiesTheFile) {
  const mode_t old_mask = ::umask(022);
  sct_semaphore s = Sema("job1", "me");
  ASSERT_EQ(i_SEMA('+', &s), KD_SUCCESS) << s.szMsg;
  ::umask(old_mask);
  ASSERT_GE(s.hSema, 0);
  EXPECT_EQ(Held(s), Pid() + " me");
  EXPECT_TRUE(::fcntl(s.hSema, F_GETFD) & FD_CLOEXEC);
  struct stat st {};
  ASSERT_EQ(::stat(SemFile("job1").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(InChild('*', "job1").substr(0, 2), "1 ");

  EXPECT_EQ(i_SEMA('-', &s), KD_SUCCESS) << s.szMsg;
  EXPECT_EQ(s.hSema, -1);
  EXPECT_TRUE(Exists(SemFile("job1")));
  EXPECT_EQ(ReadFile(SemFile("job1")), "");
  EXPECT_EQ(InChild('*', "job1"), "0 got exclusive lock for job1");
}

TEST_F(SemaphoreTest, TracesEachStepAtLevel4) {
  const std::string log_file = StartTrace();
  const std::string me = Padded(::getpid());
  sct_semaphore s = Sema("job1", "me");
  ASSERT_EQ(i_SEMA('+', &s), KD_SUCCESS);
  ASSERT_EQ(i_SEMA('-', &s), KD_SUCCESS);
  EXPECT_EQ(i_SEMA('x', &s), KD_ERROR);
  v_set_log_all_close(&g_log);
  const std::string log = ReadFile(log_file);
  EXPECT_TRUE(Traced(log, "+++ SEMA " + me + " + job1\n")) << log;
  EXPECT_TRUE(Traced(log, "Debug: sema file name: '" + SemFile("job1") + "'\n"));
  EXPECT_TRUE(Traced(log, "Debug: " + me + " open lock file " + SemFile("job1") + "\n"));
  EXPECT_TRUE(Traced(log, "Debug: " + me + " got exclusive lock for job1\n"));
  EXPECT_TRUE(Traced(log, "--- SEMA " + me + " + returns: 0 (SUCCESS): got exclusive lock for job1\n"));
  EXPECT_TRUE(Traced(log, "--- SEMA " + me + " - returns: 0 (SUCCESS): \n"));
  EXPECT_TRUE(Traced(log, "--- SEMA: " + me + " i_SEMA( x, job1, me) returned ERROR: error: invalid argument x\n"));
}

TEST_F(SemaphoreTest, TryOnAHeldSemaphoreNamesTheHolderAtOnce) {
  auto holder = Holder("job1", "holder");
  sct_semaphore s = Sema("job1", "me");
  EXPECT_EQ(i_SEMA('*', &s), KD_WARNING);
  EXPECT_STREQ(s.szMsg, ("another process " + holder->pid_text() + " holder is holding semaphore job1").c_str());
  EXPECT_LT(s.hSema, 0);
  EXPECT_EQ(ReadFile(SemFile("job1")), holder->pid_text() + " holder");
}

TEST_F(SemaphoreTest, AKilledHolderHandsTheSemaphoreToAWaiter) {
  for (const bool catching : {false, true}) {
    SCOPED_TRACE(catching ? "polling wait" : "blocking wait");
    const std::string name = catching ? "polled" : "blocked";
    auto holder = Holder(name, "holder");
    Child waiter([&](int rep, int ctl) {
      sct_semaphore s = Sema(name, "waiter", catching);
      Report(rep, "waiting");
      const int r = i_SEMA('+', &s);
      Report(rep, std::to_string(r));
      WaitForRelease(ctl);
    });
    ASSERT_EQ(waiter.ReadLine(5s), "waiting");
    EXPECT_EQ(ReadFile(SemFile(name)), holder->pid_text() + " holder");
    holder->Kill();
    EXPECT_EQ(waiter.ReadLine(5s), "0");
    EXPECT_EQ(ReadFile(SemFile(name)), waiter.pid_text() + " waiter");
  }
}

TEST_F(SemaphoreTest, InquiryTellsWhoHoldsAndClearsADeadHolder) {
  sct_semaphore s = Sema("job1", "me");
  EXPECT_EQ(i_SEMA('?', &s), KD_SUCCESS);
  char missing[1100];
  std::snprintf(missing, sizeof missing, "[%6d] semaphore file %s does not exist", ::getpid(),
                SemFile("job1").c_str());
  EXPECT_STREQ(s.szMsg, missing);

  auto holder = Holder("job1", "holder");
  EXPECT_EQ(i_SEMA('?', &s), KD_WARNING);
  char held[1100];
  std::snprintf(held, sizeof held, "[%6d] job1 still locked by concurrent process %d holder",
                ::getpid(), holder->pid());
  EXPECT_STREQ(s.szMsg, held);
  EXPECT_EQ(ReadFile(SemFile("job1")), holder->pid_text() + " holder");

  const std::string dead = holder->pid_text();
  holder->Kill();
  EXPECT_EQ(i_SEMA('?', &s), KD_SUCCESS);
  EXPECT_STREQ(s.szMsg, ("holding process " + dead + " holder for semaphore job1 disappeared").c_str());
  EXPECT_EQ(ReadFile(SemFile("job1")), "");
  EXPECT_EQ(i_SEMA('?', &s), KD_SUCCESS);
  EXPECT_STREQ(s.szMsg, "semaphore job1 is free");
  // The inquiries were guarded by a semaphore of their own, released again.
  EXPECT_TRUE(Exists(SemFile("inq_job1")));
  EXPECT_EQ(ReadFile(SemFile("inq_job1")), "");
}

TEST_F(SemaphoreTest, InquiryInsideTheHolderKeepsItsLock) {
  sct_semaphore s = Sema("job1", "me");
  ASSERT_EQ(i_SEMA('+', &s), KD_SUCCESS);
  sct_semaphore q = Sema("job1", "me");
  EXPECT_EQ(i_SEMA('?', &q), KD_WARNING);
  char held[1100];
  std::snprintf(held, sizeof held, "[%6d] job1 still locked by concurrent process %d me", ::getpid(),
                ::getpid());
  EXPECT_STREQ(q.szMsg, held);
  EXPECT_EQ(i_SEMA('R', &q), KD_WARNING);
  EXPECT_EQ(Held(s), Pid() + " me");
  // Still ours: another process is refused.
  EXPECT_EQ(InChild('*', "job1"), "1 another process " + Pid() + " me is holding semaphore job1");
  EXPECT_EQ(i_SEMA('-', &s), KD_SUCCESS);
  EXPECT_EQ(InChild('*', "job1"), "0 got exclusive lock for job1");
}

TEST_F(SemaphoreTest, ResetRefusesALiveHolderAndClearsADeadOne) {
  auto holder = Holder("job1", "holder");
  sct_semaphore s = Sema("job1", "me");
  s.hSema = 99;
  EXPECT_EQ(i_SEMA('R', &s), KD_WARNING);
  EXPECT_STREQ(s.szMsg, ("could not reset semaphore bcs. another process " + holder->pid_text() +
                         " holder is holding semaphore job1")
                            .c_str());
  EXPECT_EQ(s.hSema, -1);
  EXPECT_EQ(ReadFile(SemFile("job1")), holder->pid_text() + " holder");

  const std::string dead = holder->pid_text();
  holder->Kill();
  EXPECT_EQ(i_SEMA('R', &s), KD_SUCCESS);
  EXPECT_STREQ(s.szMsg, ("holding process " + dead + " holder for semaphore job1 disappeared").c_str());
  EXPECT_EQ(ReadFile(SemFile("job1")), "");
}

TEST_F(SemaphoreTest, RemoveDeletesTheFileAndInvalidOperationsAreRefused) {
  sct_semaphore s = Sema("job1", "me");
  ASSERT_EQ(i_SEMA('+', &s), KD_SUCCESS);
  ASSERT_EQ(i_SEMA('-', &s), KD_SUCCESS);
  EXPECT_EQ(i_SEMA('#', &s), KD_SUCCESS);
  EXPECT_FALSE(Exists(SemFile("job1")));
  EXPECT_EQ(i_SEMA('#', &s), KD_SUCCESS);

  EXPECT_EQ(i_SEMA('x', &s), KD_ERROR);
  EXPECT_STREQ(s.szMsg, "error: invalid argument x");
}

TEST_F(SemaphoreTest, NamesWithLockAreUsedAsTheyAre) {
  sct_semaphore lock = Sema("prog.lock", "me");
  sct_semaphore sem = Sema("prog", "me");
  ASSERT_EQ(i_SEMA('+', &lock), KD_SUCCESS);
  ASSERT_EQ(i_SEMA('S', &sem), KD_SUCCESS);
  EXPECT_TRUE(Exists(inst_.work() + "sem/prog.lock"));
  EXPECT_FALSE(Exists(inst_.work() + "sem/prog.lock.sem"));
  EXPECT_TRUE(Exists(SemFile("prog")));
  EXPECT_EQ(Held(lock), Pid() + " me");
  EXPECT_EQ(Held(sem), Pid() + " me");
  EXPECT_EQ(InChild('*', "prog.lock"), "1 another process " + Pid() + " me is holding semaphore prog.lock");
  EXPECT_EQ(i_SEMA('-', &lock), KD_SUCCESS);
  EXPECT_EQ(i_SEMA('-', &sem), KD_SUCCESS);
}

TEST_F(SemaphoreTest, AMissingSemaphoreDirectoryIsCreated) {
  std::filesystem::remove_all(inst_.work() + "sem");
  sct_semaphore s = Sema("job1", "me");
  ASSERT_EQ(i_SEMA('+', &s), KD_SUCCESS) << s.szMsg;
  EXPECT_TRUE(std::filesystem::is_directory(inst_.work() + "sem"));
  EXPECT_EQ(Held(s), Pid() + " me");
  EXPECT_EQ(i_SEMA('-', &s), KD_SUCCESS);
}

TEST_F(SemaphoreTest, FatalFailuresAnswerOnStandardOutputAndExitWith3) {
  {
    SCOPED_TRACE("unlock without holding");
    auto [code, out] = ExitOf([] {
      sct_semaphore s = Sema("job1", "me");
      (void)i_SEMA('-', &s);
    });
    EXPECT_EQ(code, 3);
    EXPECT_EQ(out, "STATUS=FATAL MSG=Operation '-' for semaphore [job1] with caller [me] failed with: "
                   "file unlock with fcntl() failed: (9) Bad file descriptor\n");
  }
  {
    SCOPED_TRACE("semaphore directory not writable");
    ::chmod(inst_.root().c_str(), 0755);
    ::chmod((inst_.work() + "sem").c_str(), 0555);
    auto [code, out] = ExitOf([] {
      // Root writes anywhere: drop to an ordinary user first.
      if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(90);
      sct_semaphore s = Sema("job1", "me");
      (void)i_SEMA('+', &s);
    });
    EXPECT_EQ(code, 3);
    EXPECT_EQ(out, "STATUS=FATAL MSG=Operation '+' for semaphore [job1] with caller [me] failed with: "
                   "failed to open lock file: (13) Permission denied\n");
    ::chmod((inst_.work() + "sem").c_str(), 0755);
  }
  {
    SCOPED_TRACE("work directory missing");
    std::filesystem::remove_all(inst_.work());
    auto [code, out] = ExitOf([] {
      sct_semaphore s = Sema("job1", "me");
      (void)i_SEMA('*', &s);
    });
    EXPECT_EQ(code, 3);
    EXPECT_EQ(out, "STATUS=FATAL MSG=Operation '*' for semaphore [job1] with caller [me] failed with: "
                   "directory " + inst_.work() + "sem created >> retry creation of lock file failed: "
                   "(2) No such file or directory\n");
  }
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
    auto holder = Holder("job1", "holder");
    struct sigaction record {}, old_action {};
    record.sa_handler = RecordSignal;
    sigemptyset(&record.sa_mask);
    ASSERT_EQ(::sigaction(sig, &record, &old_action), 0);
    struct sigaction abrt_before {};
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

    EXPECT_EQ(result, KD_ERROR);
    EXPECT_STREQ(s.szMsg, ("Semaphore Set aborted by Signal " + std::to_string(sig)).c_str());
    EXPECT_EQ(s.iSignal, sig);
    EXPECT_LT(s.hSema, 0);
    EXPECT_TRUE(WaitFor([&] { return g_delivered == sig; }, 2s));
    EXPECT_TRUE(HandlerIs(sig, RecordSignal));
    EXPECT_TRUE(HandlerIs(SIGABRT, abrt_before.sa_handler));
    EXPECT_EQ(ReadFile(SemFile("job1")), holder->pid_text() + " holder");
    ::sigaction(sig, &old_action, nullptr);

    v_set_log_all_close(&g_log);
    const std::string log = ReadFile(log_file);
    const std::string aborted = "Semaphore Set aborted by Signal " + std::to_string(sig);
    EXPECT_TRUE(Traced(log, "Debug: set new signal handlers for sema: 'job1'\n")) << log;
    EXPECT_TRUE(Traced(log, "Debug: semaphore is occupied by another process\n"));
    EXPECT_TRUE(Traced(log, "+++ SEMA_SIGNAL_HANDLER: Signal " + std::to_string(sig) + " received\n"));
    EXPECT_TRUE(Traced(log, "--- SEMA_SIGNAL_HANDLER: gcSemaInterrupt set\n"));
    EXPECT_TRUE(Traced(log, "Debug: reset new signal handlers for sema: 'job1'\n"));
    EXPECT_TRUE(Traced(log, "i_SEMA( +, job1, waiter) returned ERROR: " + aborted + "\n"));
  }
}

TEST_F(SemaphoreTest, ABlockingWaitSurvivesOtherSignals) {
  auto holder = Holder("job1", "holder");
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
