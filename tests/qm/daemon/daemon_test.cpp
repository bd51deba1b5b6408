// The daemon's functions called directly: splitting request lines, the
// shutdown request, the day switch of the log, print_smask, and the start-up
// helpers. Reading the pipe and the signal handler are tested end to end.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_kernel.h"
#include "cm_trace.h"
#include "daemon/dispatch.h"
#include "daemon/main_loop.h"
#include "daemon/signals.h"
#include "daemon/startup.h"
#include "daemon_fixture.h"
#include "protocol/globals.h"

namespace {

class DaemonUnitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    instance_.write_debug_ini("KD_QM_MAIN=3\n");
    gQmLog = str_log{};  // a fresh record for the fresh trace state of the instance
    v_set_log_main("kd_qm_main.lgc", "KD_QM_MAIN", &gQmLog);
    CopyCut(gszQmDir, instance_.qm());
    CopyCut(qmd_to_qm, instance_.qm() + "com/to_qm_pipe");
  }
  void TearDown() override {
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {  // the answer writers
    }
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

  kdtest::TestInstance instance_;
};

}  // namespace

TEST_F(DaemonUnitTest, SplittingTakesModePidNameResourceAndTheArgumentsByMode) {
  // Each line's mode, pid, [queue name] [arguments] [allocation wish] [resource] and lazy flag.
  const std::pair<const char*, std::string> cases[] = {
      // Modes 1 to 5 carry no argument text; two double quotes are an empty name.
      {"1 4711 q1 ignored", "1 4711 [q1] [] [] [] 0"},
      {"0 12 q1/a/b 5 cnt", "0 12 [q1] [q1/a/b 5 cnt] [] [a/b] 0"},
      {"14 12 \"\"", "14 12 [] [\"\"] [] [] 0"},
      // Submits: allocation wish and resource; a quoted end-of-options marker is unquoted.
      {"6 77 q1/alloc/res@srv job1 -p 3 \"--\" /bin/prog \"--\" \"--\" x",
       "6 77 [q1] [job1 -p 3 -- /bin/prog -- -- x] [alloc] [res@srv] 0"},
      // 8 and 9 are the lazy forms of 6 and 7.
      {"8 77 q1/alloc job", "6 77 [q1] [job] [alloc] [] 1"},
      {"9 77 q1 job", "7 77 [q1] [job] [] [] 1"},
      {"23 77 name \"--\" a \"--\" x", "23 77 [name] [\"--\" a -- x] [] [] 0"},
      // Missing or unreadable fields give the invalid mode 28. Unknown modes and
      // a doubled blank are refused end to end (DaemonProtocolTest).
      {"abc 4711 q1", "28 4711 [q1] [q1] [] [] 0"},
      {"26", "28 0 [] [] [] [] 0"},
  };
  for (const auto& [line, expected] : cases) {
    Query q{};
    SplitRequest(line, &q);
    EXPECT_EQ(std::to_string(q.function) + " " + std::to_string(q.peer.PID) + " [" + q.que_name + "] [" + q.szCmdArgs +
                  "] [" + gszAllocate + "] [" + gszResource + "] " + (q.bLazy ? "1" : "0"),
              expected);
  }
  EXPECT_NE(TraceLog().find("Warning: WARNING: no function read"), std::string::npos);
}

// The lock's release and a shutdown with queues are covered end to end
// (DaemonStartTest, QueueShutdownTest).
TEST_F(DaemonUnitTest, ShutdownRequestWithoutQueuesRemovesThePipeAndReturnsTwo) {
  ASSERT_EQ(CreateRequestPipe(), 0);
  kdtest::RawClient client(instance_.qm(), 503);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  EXPECT_EQ(iEXEC_REQUEST("25 503 -e 7"), 2);
  EXPECT_EQ(client.ReadAnswer(std::chrono::seconds(10)).text, "1STATUS=WARNING MSG=No queue existing\n");
  EXPECT_FALSE(kdtest::Exists(qmd_to_qm));
}

TEST_F(DaemonUnitTest, LogSwitchesWhenTheBusinessDayChanges) {
  instance_.write_glbv("gv_date", "2026-05-13");
  SetLogFile();
  SetLogFile();
  instance_.write_glbv("gv_date", "2026-05-14");
  SetLogFile();
  const std::string log = TraceLog();
  EXPECT_NE(log.find("Info: Kelda day has changed (<>2026-05-13). Switch logfile"), std::string::npos);
  EXPECT_NE(log.find("Info: Kelda day has changed (2026-05-13<>2026-05-14). Switch logfile"), std::string::npos);
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

TEST_F(DaemonUnitTest, PidFileIsWrittenOnlyWithTheServiceUnitWithItsNulByte) {
  kdtest::TempDir dir;
  char msg[256] = {};
  const std::string unit = dir.file("unit.service"), pid_file = dir.file("kd.pid"), nowhere = dir.file("no/kd.pid");
  auto write = [&](const std::string& file) {
    return WriteServicePidFile(unit.c_str(), dir.path().c_str(), file.c_str(), msg, sizeof msg);
  };
  EXPECT_EQ(write(pid_file), 0);
  EXPECT_FALSE(kdtest::Exists(pid_file));
  kdtest::WriteFile(unit, "[Unit]\n");
  EXPECT_EQ(write(pid_file), 0);
  EXPECT_EQ(kdtest::ReadFile(pid_file), std::to_string(getpid()) + "\n" + std::string(1, '\0'));
  EXPECT_EQ(write(nowhere), -1);
  EXPECT_EQ(std::string(msg), "Could not create '" + nowhere + "' file: No such file or directory");
}

// "?x" and "/?" print the usage, "-d" and no argument start the daemon end to
// end (DaemonStartTest).
TEST_F(DaemonUnitTest, UsageIsAskedByOneArgumentOnly) {
  for (const auto& [argv, usage] : std::vector<std::pair<std::vector<const char*>, bool>>{
           {{"kd_qm_main", "-h"}, true}, {{"kd_qm_main", "-?"}, true},
           {{"kd_qm_main", "-h", "extra"}, false}, {{"kd_qm_main", "-help"}, false}})
    EXPECT_EQ(IsUsageRequest(static_cast<int>(argv.size()), const_cast<char**>(argv.data())), usage) << argv.back();
}
