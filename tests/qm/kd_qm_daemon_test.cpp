// The daemon's functions called directly: splitting request lines, the
// shutdown request, the day switch of the log, print_smask, and the start-up
// helpers. Reading the pipe and the signal handler are tested end to end.
#include "kd_qm_daemon.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "cm_kernel.h"
#include "cm_semaphore.h"
#include "cm_trace.h"
#include "daemon_fixture.h"
#include "kd_test_support.h"

namespace {

using kdtest::RawClient;
using std::chrono::seconds;

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
  }
  void TearDown() override {
    ReapAll();
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
  const struct {
    const char* line;
    int function;
    long pid;
    const char* name;
    const char* args;
    const char* allocate;
    const char* resource;
    bool lazy;
  } cases[] = {
      // Modes 1 to 5 carry no argument text; two double quotes are an empty name.
      {"1 4711 q1 ignored", queue_block, 4711, "q1", "", "", "", false},
      {"0 12 q1/a/b 5 cnt", queue_init, 12, "q1", "q1/a/b 5 cnt", "", "a/b", false},
      {"14 12 \"\"", queue_sho, 12, "", "\"\"", "", "", false},
      // Submits: allocation wish and resource; a quoted end-of-options marker is unquoted.
      {"6 77 q1/alloc/res@srv job1 -p 3 \"--\" /bin/prog \"--\" \"--\" x", queue_submit, 77, "q1",
       "job1 -p 3 -- /bin/prog -- -- x", "alloc", "res@srv", false},
      {"8 77 q1/alloc job", queue_submit, 77, "q1", "job", "alloc", "", true},
      {"9 77 q1 job", queue_submit_sync, 77, "q1", "job", "", "", true},
      {"23 77 name \"--\" a \"--\" x", job_set, 77, "name", "\"--\" a -- x", "", "", false},
      // Missing or unreadable fields; a doubled blank shifts them.
      {"abc 4711 q1", invalid_mode, 4711, "q1", "q1", "", "", false},
      {"26  4711", invalid_mode, 0, "4711", "4711", "", "", false},
      {"26", invalid_mode, 0, "", "", "", "", false},
      {"99 5 x", 99, 5, "x", "", "", "", false},
  };
  for (const auto& c : cases) {
    Query q{};
    SplitRequest(c.line, &q);
    EXPECT_EQ(static_cast<int>(q.function), c.function) << c.line;
    EXPECT_EQ(q.peer.PID, c.pid) << c.line;
    EXPECT_STREQ(q.que_name, c.name) << c.line;
    EXPECT_STREQ(q.szCmdArgs, c.args) << c.line;
    EXPECT_STREQ(gszAllocate, c.allocate) << c.line;
    EXPECT_STREQ(gszResource, c.resource) << c.line;
    EXPECT_EQ(q.bLazy, c.lazy) << c.line;
  }
  EXPECT_STREQ(gszClientPid, "5");
  const std::string log = TraceLog();
  EXPECT_NE(log.find("Warning: WARNING: no function read"), std::string::npos);
  EXPECT_NE(log.find("Warning: WARNING: no pid read"), std::string::npos);
}

TEST_F(DaemonUnitTest, ShutdownRequestRemovesThePipeReleasesTheLockAndReturnsTwo) {
  ASSERT_EQ(CreateRequestPipe(), 0);
  CopyCut(gQmLock.szSema, "KD_QM_MAIN");
  CopyCut(gQmLock.szCaller, "KD_QM_MAIN");
  ASSERT_EQ(i_SEMA('*', &gQmLock), KD_SUCCESS);
  RawClient client(instance_.qm(), 503);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  EXPECT_EQ(iEXEC_REQUEST("25 503 -e 7"), 2);
  EXPECT_EQ(client.ReadAnswer(seconds(10)).text, "1STATUS=WARNING MSG=No queue existing\n");
  EXPECT_FALSE(kdtest::Exists(qmd_to_qm));
  EXPECT_EQ(gQmLock.hSema, -1);
  EXPECT_EQ(kdtest::ReadFile(instance_.work() + "sem/KD_QM_MAIN.sem"), "");
}

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
  for (const auto& [words, usage] : std::vector<std::pair<std::vector<std::string>, bool>>{
           {{"kd_qm_main", "?what"}, true},       {{"kd_qm_main", "-h"}, true},  {{"kd_qm_main", "-?"}, true},
           {{"kd_qm_main", "/?"}, true},          {{"kd_qm_main", "-h", "extra"}, false},
           {{"kd_qm_main", "-help"}, false},      {{"kd_qm_main"}, false},       {{"kd_qm_main", "-d"}, false}}) {
    std::vector<std::string> copy = words;
    std::vector<char*> argv;
    for (auto& w : copy) argv.push_back(w.data());
    EXPECT_EQ(IsUsageRequest(static_cast<int>(argv.size()), argv.data()), usage) << words.back();
  }
}
