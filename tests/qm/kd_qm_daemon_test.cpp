// The daemon's functions called directly: splitting and executing request
// lines, reading the request pipe, the day switch of the log, the signal
// handler's work, print_smask, and the start-up helpers.
#include "kd_qm_daemon.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_kernel.h"
#include "cm_semaphore.h"
#include "cm_trace.h"
#include "daemon_fixture.h"
#include "kd_test_support.h"
#include "qm_common.h"

namespace {

using kdtest::RawAnswer;
using kdtest::RawClient;
using std::chrono::seconds;

const std::string kProcessed = "0STATUS=SUCCESS MSG='process executing and pending jobs' done\n";

void Ignore(int) {}

/// Waits for every child of the test process (the answer writers).
void ReapAll() {
  int status = 0;
  while (waitpid(-1, &status, 0) > 0 || errno == EINTR) {
  }
}

class DaemonUnitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    instance_.write_debug_ini("KD_QM_MAIN=3\n");
    gQmLog = str_log{};  // a fresh record for the fresh trace state of the instance
    v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &gQmLog);
    CopyCut(gszQmDir, instance_.qm());
    CopyCut(qmd_to_qm, instance_.qm() + "com/to_qm_pipe");
    sigemptyset(&blockmaske);
    for (int sig : {SIGALRM, SIGCHLD, SIGPIPE, SIGINT, SIGTERM}) sigaddset(&blockmaske, sig);
    sigprocmask(SIG_SETMASK, nullptr, &saved_mask_);
    // The handler under test installs itself; the test process gets its own
    // dispositions back afterwards. A stray alarm must not end the test.
    for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], nullptr, &saved_actions_[i]);
    struct sigaction quiet {};
    quiet.sa_handler = Ignore;
    sigaction(SIGALRM, &quiet, nullptr);
  }
  void TearDown() override {
    CloseRequestPipe();
    alarm(0);
    for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &saved_actions_[i], nullptr);
    ReapAll();
    sigprocmask(SIG_SETMASK, &saved_mask_, nullptr);
    CopyCut(gszQmDir, "");
    CopyCut(gszKeldaDay, "");
    v_set_log_all_close(&gQmLog);
    gQmLog = str_log{};
  }


  std::string TraceLog() const {
    std::string text;
    for (const auto& e : std::filesystem::directory_iterator(instance_.lgc()))
      if (e.path().filename().string().rfind("kd_qm_main", 0) == 0) text += kdtest::ReadFile(e.path());
    return text;
  }

  /// Executes one line with a client named id reading the answer.
  RawAnswer Execute(const std::string& line, long id, int* result) {
    RawClient client(instance_.qm(), id);
    if (!client.CreatePipe() || !client.OpenForAnswer()) return {};
    *result = iEXEC_REQUEST(line.c_str());
    RawAnswer a = client.ReadAnswer(seconds(10));
    ReapAll();
    return a;
  }

  /// ReadExecuteQuery on a quiet pipe: a signal of the test ends its wait.
  static int ReadExecuteQueryWhenQuiet() {
    struct sigaction poke_action {};
    poke_action.sa_handler = Ignore;  // no SA_RESTART: the read returns
    struct sigaction old {};
    sigaction(SIGUSR1, &poke_action, &old);
    std::atomic<bool> done{false};
    const pthread_t reader = pthread_self();
    std::thread poke([&] {
      while (!done) {
        pthread_kill(reader, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // until the read has begun
      }
    });
    const int result = ReadExecuteQuery("kd_qm_main", gszQmDir);
    done = true;
    poke.join();
    sigaction(SIGUSR1, &old, nullptr);
    return result;
  }

  static constexpr std::array<int, 5> kSignals{SIGALRM, SIGCHLD, SIGPIPE, SIGINT, SIGTERM};
  kdtest::TestInstance instance_;
  sigset_t saved_mask_{};
  std::array<struct sigaction, 5> saved_actions_{};
};

// ---------------------------------------------------------------------------
// Splitting
// ---------------------------------------------------------------------------

TEST_F(DaemonUnitTest, SplittingTakesModePidNameAndTheArgumentsByMode) {
  Query q{};
  SplitRequest("1 4711 q1 ignored", &q);
  EXPECT_EQ(q.function, queue_block);
  EXPECT_EQ(q.peer.PID, 4711);
  EXPECT_TRUE(q.peer.valid);
  EXPECT_STREQ(q.que_name, "q1");
  EXPECT_STREQ(q.szCmdArgs, "") << "modes 1 to 5 carry no argument text";
  EXPECT_STREQ(gszClientPid, "4711");

  q = Query{};
  SplitRequest("0 12 q1/a/b 5 cnt", &q);
  EXPECT_EQ(q.function, queue_init);
  EXPECT_STREQ(q.que_name, "q1");
  EXPECT_STREQ(gszResource, "a/b");
  EXPECT_STREQ(q.szCmdArgs, "q1/a/b 5 cnt");

  q = Query{};
  SplitRequest("14 12 \"\"", &q);
  EXPECT_EQ(q.function, queue_sho);
  EXPECT_STREQ(q.que_name, "") << "two double quotes are an empty name";
  EXPECT_STREQ(q.szCmdArgs, "\"\"");

  q = Query{};
  SplitRequest("26 0", &q);
  EXPECT_EQ(q.function, process_signal);
  EXPECT_EQ(q.peer.PID, 0);
  EXPECT_STREQ(q.que_name, "");
}

TEST_F(DaemonUnitTest, SplittingOfSubmitsTakesAllocationResourceAndUnquotesTheEndOfOptions) {
  Query q{};
  SplitRequest("6 77 q1/alloc/res@srv job1 -p 3 \"--\" /bin/prog \"--\" \"--\" x", &q);
  EXPECT_EQ(q.function, queue_submit);
  EXPECT_FALSE(q.bLazy);
  EXPECT_STREQ(q.que_name, "q1");
  EXPECT_STREQ(gszAllocate, "alloc");
  EXPECT_STREQ(gszResource, "res@srv");
  EXPECT_STREQ(q.szCmdArgs, "job1 -p 3 -- /bin/prog -- -- x");

  q = Query{};
  SplitRequest("8 77 q1/alloc job", &q);
  EXPECT_EQ(q.function, queue_submit) << "the lazy variant runs as the plain one";
  EXPECT_TRUE(q.bLazy);
  EXPECT_STREQ(gszAllocate, "alloc");
  EXPECT_STREQ(gszResource, "");

  q = Query{};
  SplitRequest("9 77 q1 job", &q);
  EXPECT_EQ(q.function, queue_submit_sync);
  EXPECT_TRUE(q.bLazy);
  EXPECT_STREQ(gszAllocate, "");

  q = Query{};
  SplitRequest("23 77 name \"--\" a \"--\" x", &q);
  EXPECT_EQ(q.function, job_set);
  EXPECT_STREQ(q.szCmdArgs, "\"--\" a -- x") << "only a marker with a blank on both sides";
  EXPECT_STREQ(q.que_name, "name");
}

TEST_F(DaemonUnitTest, SplittingRefusesMissingOrUnreadableModeAndPid) {
  Query q{};
  SplitRequest("abc 4711 q1", &q);
  EXPECT_EQ(q.function, invalid_mode);
  EXPECT_EQ(q.peer.PID, 4711);

  q = Query{};
  SplitRequest("26  4711", &q);  // a doubled blank: field 2 is empty
  EXPECT_EQ(q.function, invalid_mode);
  EXPECT_EQ(q.peer.PID, 0);
  EXPECT_STREQ(q.que_name, "4711");

  q = Query{};
  SplitRequest("26", &q);
  EXPECT_EQ(q.function, invalid_mode);
  EXPECT_EQ(q.peer.PID, 0);

  q = Query{};
  SplitRequest("99 5 x", &q);
  EXPECT_EQ(static_cast<int>(q.function), 99);
  EXPECT_STREQ(q.szCmdArgs, "") << "no argument text for modes outside the table";
  const std::string log = TraceLog();
  EXPECT_NE(log.find("Warning: WARNING: no function read"), std::string::npos);
  EXPECT_NE(log.find("Warning: WARNING: no pid read"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Executing
// ---------------------------------------------------------------------------

TEST_F(DaemonUnitTest, RequestsUpTo1023CharactersAreExecutedLongerOnesRefused) {
  int result = -1;
  const std::string head = "26 501 ";
  EXPECT_EQ(Execute(head + std::string(1023 - head.size(), 'a'), 501, &result).text, kProcessed);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(Execute(head + std::string(1024 - head.size(), 'a'), 501, &result).text,
            "2ERROR: query too long. Max length 1024");
  EXPECT_EQ(result, 1);
}

TEST_F(DaemonUnitTest, ShutdownRequestRemovesThePipeReleasesTheLockAndReturnsTwo) {
  ASSERT_EQ(CreateRequestPipe(), 0);
  CopyCut(gQmLock.szSema, "KD_QM_MAIN");
  CopyCut(gQmLock.szCaller, "KD_QM_MAIN");
  ASSERT_EQ(i_SEMA('*', &gQmLock), KD_SUCCESS);
  int result = -1;
  EXPECT_EQ(Execute("25 503 -e 7", 503, &result).text, "1STATUS=WARNING MSG=No queue existing\n");
  EXPECT_EQ(result, 2);
  EXPECT_FALSE(kdtest::Exists(qmd_to_qm));
  EXPECT_EQ(gQmLock.hSema, -1);
  EXPECT_EQ(kdtest::ReadFile(instance_.work() + "sem/KD_QM_MAIN.sem"), "");
}

// ---------------------------------------------------------------------------
// Reading the request pipe
// ---------------------------------------------------------------------------

TEST_F(DaemonUnitTest, ReadingServesEveryLineUntilShutdownAndDropsTheRestOfOverlongLines) {
  ASSERT_EQ(CreateRequestPipe(), 0);
  RawClient a(instance_.qm(), 601), b(instance_.qm(), 602), hidden(instance_.qm(), 603), last(instance_.qm(), 600);
  for (RawClient* c : {&a, &b, &hidden, &last}) ASSERT_TRUE(c->CreatePipe() && c->OpenForAnswer());
  // Opens the pipe; nothing is there yet, so the test's own signal ends the wait.
  ASSERT_EQ(ReadExecuteQueryWhenQuiet(), 0);

  const std::string head = "26 601 ";
  const std::string overlong = head + std::string(2046 - head.size(), 'o') + "26 603 hidden" + std::string(500, 'r');
  ASSERT_TRUE(a.Send(overlong + "\n26 602\n25 600\n"));
  EXPECT_EQ(ReadExecuteQuery("kd_qm_main", gszQmDir), -1);
  EXPECT_EQ(a.ReadAnswer(seconds(10)).text, "2ERROR: query too long. Max length 1024");
  EXPECT_EQ(b.ReadAnswer(seconds(10)).text, kProcessed);
  ReapAll();
  EXPECT_FALSE(hidden.AnythingArrived());
  EXPECT_NE(TraceLog().find("WARNING: rest of an overlong request dropped"), std::string::npos);
}

TEST_F(DaemonUnitTest, ShortLineReturnsAtOnceWithTheSignalsStillBlocked) {
  ASSERT_EQ(CreateRequestPipe(), 0);
  RawClient client(instance_.qm(), 604);
  ASSERT_EQ(ReadExecuteQueryWhenQuiet(), 0);
  ASSERT_TRUE(client.Send("x\n"));
  EXPECT_EQ(ReadExecuteQuery("kd_qm_main", gszQmDir), 1);
  sigset_t now;
  sigprocmask(SIG_SETMASK, nullptr, &now);
  EXPECT_EQ(sigismember(&now, SIGALRM), 1);
  EXPECT_EQ(sigismember(&now, SIGCHLD), 1);
  EXPECT_EQ(sigismember(&now, SIGTERM), 1);

  // The next executed request unblocks them.
  RawClient last(instance_.qm(), 605);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer() && last.CreatePipe() && last.OpenForAnswer());
  ASSERT_TRUE(client.Send("26 604\n25 605\n"));
  EXPECT_EQ(ReadExecuteQuery("kd_qm_main", gszQmDir), -1);
  sigprocmask(SIG_SETMASK, nullptr, &now);
  EXPECT_EQ(sigismember(&now, SIGALRM), 0);
  EXPECT_EQ(client.ReadAnswer(seconds(10)).text, kProcessed);
  EXPECT_NE(TraceLog().find("Warning: WARNING: no bytes read"), std::string::npos);
}

TEST_F(DaemonUnitTest, VanishedRequestPipeIsCreatedAnewAfterAQuietRead) {
  ASSERT_EQ(CreateRequestPipe(), 0);
  ASSERT_EQ(ReadExecuteQueryWhenQuiet(), 0);
  ASSERT_EQ(unlink(qmd_to_qm), 0);
  EXPECT_EQ(ReadExecuteQueryWhenQuiet(), 0);  // notices and lets go of the old pipe
  EXPECT_EQ(ReadExecuteQuery("kd_qm_main", gszQmDir), 0);  // creates the new one
  struct stat st {};
  ASSERT_EQ(stat(qmd_to_qm, &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0770u);
  EXPECT_NE(TraceLog().find("ReadExecuteQuery: recall mkfifo"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Day switch, signals, start-up helpers
// ---------------------------------------------------------------------------

TEST_F(DaemonUnitTest, LogSwitchesWhenTheBusinessDayChanges) {
  instance_.write_glbv("gv_date", "2026-05-13");
  SetLogFile();
  EXPECT_STREQ(gszKeldaDay, "2026-05-13");
  SetLogFile();
  instance_.write_glbv("gv_date", "2026-05-14");
  SetLogFile();
  EXPECT_STREQ(gszKeldaDay, "2026-05-14");

  std::string log = TraceLog();
  EXPECT_NE(log.find("Info: Kelda day has changed (<>2026-05-13). Switch logfile"), std::string::npos);
  const std::string second = "Info: Kelda day has changed (2026-05-13<>2026-05-14). Switch logfile";
  EXPECT_NE(log.find(second), std::string::npos);
  EXPECT_EQ(log.find("Kelda day has changed (2026-05-13<>2026-05-13)"), std::string::npos);

  std::filesystem::remove(instance_.glbv_dir() + "gv_date.sgv");
  SetLogFile();
  char today[32] = "S 0";
  time_get(today);
  today[10] = '\0';
  EXPECT_STREQ(gszKeldaDay, today);
  EXPECT_NE(TraceLog().find(std::string("Global variable gv_date could not be found (?? GLBV gv_date not existing). Use ") +
                            today + " as kelda day instead. Switch logfile"),
            std::string::npos);
}

TEST_F(DaemonUnitTest, PrintSmaskNamesEveryBlockedSignalInItsOrder) {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGTERM, SIGALRM, SIGUSR1, SIGABRT}) sigaddset(&set, sig);
  sigprocmask(SIG_SETMASK, &set, nullptr);
  EXPECT_EQ(kdtest::CaptureFd(2, [] { print_smask("label"); }), "label: SIGABRT,SIGALRM,SIGIOT,SIGTERM,SIGUSR1,\n");
  sigemptyset(&set);
  sigprocmask(SIG_SETMASK, &set, nullptr);
  EXPECT_EQ(kdtest::CaptureFd(2, [] { print_smask("none"); }), "none: \n");
}

TEST_F(DaemonUnitTest, HandlerReapsChildrenWritesTheSelfRequestAndSkipsShutdownOutsideTheDaemon) {
  ASSERT_EQ(CreateRequestPipe(), 0);
  ASSERT_EQ(ReadExecuteQueryWhenQuiet(), 0);  // the daemon's reader is open
  RawClient self(instance_.qm(), 606);
  ASSERT_TRUE(self.CreatePipe() && self.OpenForAnswer());
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(3);
  const std::string child_stat = "/proc/" + std::to_string(child) + "/stat";
  ASSERT_TRUE(kdtest::WaitFor([&] { return kdtest::ReadFile(child_stat).find(") Z") != std::string::npos; },
                              seconds(10)));

  siginfo_t info{};
  info.si_pid = child;
  sig_handler(SIGCHLD, &info, nullptr);
  EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1) << "reaped by the handler";
  EXPECT_GT(alarm(0), 0u) << "the handler arms the alarm";
  EXPECT_NE(TraceLog().find("answer_... process [" + std::to_string(child) + "] exited with 3"), std::string::npos);

  // g_PID is not this process: SIGTERM is only traced.
  g_PID = 0;
  sig_handler(SIGTERM, &info, nullptr);
  EXPECT_TRUE(kdtest::Exists(qmd_to_qm));
  EXPECT_NE(TraceLog().find("Skip signal processing"), std::string::npos);
  alarm(0);

  // The self-request waits in the pipe: exactly one "26 0".
  ASSERT_TRUE(self.Send("25 606\n"));
  EXPECT_EQ(ReadExecuteQuery("kd_qm_main", gszQmDir), -1);
  EXPECT_EQ(self.ReadAnswer(seconds(10)).text, "1STATUS=WARNING MSG=No queue existing\n");
  const std::string log = TraceLog();
  const std::size_t first = log.find("Info: query: 26 0");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(log.find("Info: query: 26 0", first + 1), std::string::npos);
  EXPECT_NE(log.find("sig_handler: Command: 26 0"), std::string::npos);
}

TEST_F(DaemonUnitTest, PidFileIsWrittenOnlyWithTheServiceUnitWithItsNulByte) {
  kdtest::TempDir dir;
  char msg[256] = {};
  const std::string unit = dir.file("unit.service"), pid_file = dir.file("kd.pid");
  EXPECT_EQ(WriteServicePidFile(unit.c_str(), dir.path().c_str(), pid_file.c_str(), msg, sizeof msg), 0);
  EXPECT_FALSE(kdtest::Exists(pid_file));

  kdtest::WriteFile(unit, "[Unit]\n");
  EXPECT_EQ(WriteServicePidFile(unit.c_str(), dir.path().c_str(), pid_file.c_str(), msg, sizeof msg), 0);
  EXPECT_EQ(kdtest::ReadFile(pid_file), std::to_string(getpid()) + "\n" + std::string(1, '\0'));

  const std::string nowhere = dir.file("missing/kd.pid");
  EXPECT_EQ(WriteServicePidFile(unit.c_str(), dir.path().c_str(), nowhere.c_str(), msg, sizeof msg), -1);
  EXPECT_EQ(std::string(msg), "Could not create '" + nowhere + "' file: No such file or directory");
}

TEST_F(DaemonUnitTest, UsageIsAskedByOneArgumentOnly) {
  auto ask = [](std::vector<std::string> words) {
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    return IsUsageRequest(static_cast<int>(argv.size()), argv.data());
  };
  EXPECT_TRUE(ask({"kd_qm_main", "?"}));
  EXPECT_TRUE(ask({"kd_qm_main", "?what"}));
  EXPECT_TRUE(ask({"kd_qm_main", "-h"}));
  EXPECT_TRUE(ask({"kd_qm_main", "-?"}));
  EXPECT_TRUE(ask({"kd_qm_main", "/?"}));
  EXPECT_FALSE(ask({"kd_qm_main", "-h", "extra"}));
  EXPECT_FALSE(ask({"kd_qm_main", "-help"}));
  EXPECT_FALSE(ask({"kd_qm_main"}));
  EXPECT_FALSE(ask({"kd_qm_main", "-d"}));
}

}  // namespace
