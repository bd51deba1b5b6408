// Start-up outcomes of kd_qm_main: usage, foreground and background start,
// the process lock, missing configuration, the request pipe's recovery, and
// the shutdown request.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "daemon_fixture.h"

namespace kdtest {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const char* const kUsageText =
    "-------------------------------------------------------------------------------\n"
    "Description: Queue Manager daemon is responsible for queue management.         \n"
    "Queue manager executes jobs if queue is started and job limit is               \n"
    "not yet reached.                                                               \n"
    "Queues are organized in holding jobs, pending jobs and                         \n"
    "an executing queue for every defined resource.                                 \n"
    "Attention:   Use front end kd_qm to init queues, submit jobs, etc.             \n"
    "-------------------------------------------------------------------------------\n";

const char* const kNoQueue = "1STATUS=WARNING MSG=No queue existing\n";

/// The process has ended (its parent may not have reaped it yet).
bool GoneOrZombie(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t close = stat.rfind(')');
  return close == std::string::npos || stat.compare(close, 3, ") Z") == 0;
}

/// Tests that start the daemon themselves.
class DaemonStartTest : public DaemonTest {
 protected:
  bool StartInSetUp() const override { return false; }

  /// Runs kd_qm_main to its end (for start-ups that fail or detach).
  ProcessResult RunDaemon(const std::vector<std::string>& args) { return Run("kd_qm_main", args, seconds(20)); }

  /// Content of the process lock's file.
  std::string LockFile() { return ReadFile(instance().work() + "sem/KD_QM_MAIN.sem"); }
};

TEST_F(DaemonStartTest, UsageIsPrintedForOneQuestionOrHelpArgument) {
  for (const char* arg : {"?", "?x", "-h", "-?", "/?"}) {
    const ProcessResult r = RunDaemon({arg});
    ASSERT_TRUE(r.finished) << arg;
    EXPECT_EQ(r.exit_code, 0) << arg;
    const std::size_t first_line = r.out.find('\n');
    ASSERT_NE(first_line, std::string::npos) << arg;
    EXPECT_EQ(r.out.substr(0, 24), "kd_qm_main Kelda GitID: ") << arg;
    EXPECT_EQ(r.out.substr(first_line + 1), kUsageText) << arg;
    EXPECT_FALSE(Exists(RequestPipe())) << "usage must not start the daemon: " << arg;
  }
}

TEST_F(DaemonStartTest, ForegroundSwitchIsRecognisedByItsFirstTwoCharacters) {
  ASSERT_TRUE(StartDaemon({"-dfoo"}));
  ASSERT_TRUE(WaitReady()) << DaemonErr();
  EXPECT_TRUE(daemon().Running());
  EXPECT_TRUE(WaitForTrace("Info: Debug switch set. Stay in foreground"));
  EXPECT_TRUE(WaitForTrace("Info: KD_QM_MAIN: successfully started"));

  struct stat st {};
  ASSERT_EQ(stat(RequestPipe().c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0770u);
  EXPECT_EQ(LockFile(), std::to_string(daemon_pid()) + " KD_QM_MAIN");
}

TEST_F(DaemonStartTest, ShutdownRequestAnswersRemovesThePipeReleasesTheLockAndExitsWithZero) {
  ASSERT_TRUE(StartDaemon());
  ASSERT_TRUE(WaitReady()) << DaemonErr();

  EXPECT_EQ(Ask(25, "-e 5").text, kNoQueue);
  ASSERT_TRUE(daemon().WaitExit(seconds(10)));
  EXPECT_EQ(daemon().exit_code(), 0);
  EXPECT_FALSE(Exists(RequestPipe()));
  EXPECT_EQ(LockFile(), "");
  const std::string log = TraceLog();
  EXPECT_NE(log.find("shutdown is requested"), std::string::npos);
  EXPECT_NE(log.find("--- FOR  exit(0)"), std::string::npos);
}

TEST_F(DaemonStartTest, SecondDaemonIsRefusedWithOneErrorLineAndExitCodeTwo) {
  ASSERT_TRUE(StartDaemon());
  ASSERT_TRUE(WaitReady()) << DaemonErr();

  const ProcessResult second = RunDaemon({"-d"});
  ASSERT_TRUE(second.finished);
  EXPECT_EQ(second.exit_code, 2);
  EXPECT_EQ(second.out, "STATUS=ERROR MSG=another process " + std::to_string(daemon_pid()) +
                            " KD_QM_MAIN is holding semaphore KD_QM_MAIN\n");
  // The first one is untouched: its pipe, its lock, its answers.
  EXPECT_TRUE(Exists(RequestPipe()));
  EXPECT_EQ(LockFile(), std::to_string(daemon_pid()) + " KD_QM_MAIN");
  EXPECT_EQ(Ask(26).text, "0STATUS=SUCCESS MSG='process executing and pending jobs' done\n");
}

TEST_F(DaemonStartTest, MissingDirectoriesInTheConfigurationEndWithExitCodeThree) {
  const std::string base = "[Pathes]\ngv_rw_lgc=" + instance().lgc() + "\ngv_rw_ini=" + instance().ini_dir() +
                           "\ngv_rw_glbv=" + instance().glbv_dir() + "\ngv_rw_work=" + instance().work() + "\n";
  WriteFile(instance().kd_ini(), base + "gv_ro_bin=" + instance().bin() + "\n");
  ProcessResult r = RunDaemon({"-d"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("ERROR: gv_rw_qm not defined"), std::string::npos) << r.err;

  WriteFile(instance().kd_ini(), base + "gv_rw_qm=" + instance().qm() + "\n");
  r = RunDaemon({"-d"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("ERROR: gv_ro_bin not defined"), std::string::npos) << r.err;
  EXPECT_FALSE(Exists(RequestPipe()));
}

TEST_F(DaemonStartTest, MissingPipeDirectoryIsCreatedAndAStaleFileReplaced) {
  std::filesystem::remove_all(instance().qm());
  ASSERT_TRUE(StartDaemon());
  ASSERT_TRUE(WaitReady()) << DaemonErr();
  ASSERT_TRUE(StopDaemon() == 0);

  WriteFile(RequestPipe(), "left over\n");
  ASSERT_TRUE(StartDaemon());
  ASSERT_TRUE(WaitReady()) << DaemonErr();
  struct stat st {};
  ASSERT_EQ(stat(RequestPipe().c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(DaemonStartTest, RequestPipeThatCannotBeCreatedEndsWithExitCodeOne) {
  std::filesystem::remove_all(instance().qm() + "com");
  WriteFile(instance().qm() + "com", "not a directory\n");
  const ProcessResult r = RunDaemon({"-d"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("ERROR: mkfifo " + RequestPipe() + " failed: 20 Not a directory"), std::string::npos)
      << r.err;
}

TEST_F(DaemonStartTest, WithoutArgumentsTheDaemonDetachesAndRunsInTheBackground) {
  const ProcessResult launcher = RunDaemon({});
  ASSERT_TRUE(launcher.finished);
  EXPECT_EQ(launcher.exit_code, 0);
  EXPECT_EQ(launcher.out, "");

  // The background daemon names itself in its lock; end it whatever happens below.
  pid_t pid = 0;
  ASSERT_TRUE(WaitFor(
      [&] {
        pid = static_cast<pid_t>(std::atol(LockFile().c_str()));
        return pid > 0 && Exists(RequestPipe());
      },
      seconds(10)));
  struct Killer {
    pid_t pid;
    ~Killer() { kill(pid, SIGKILL); }
  } killer{pid};
  EXPECT_NE(getsid(pid), getsid(0)) << "the daemon runs in a session of its own";

  EXPECT_EQ(Ask(26).text, "0STATUS=SUCCESS MSG='process executing and pending jobs' done\n");
  EXPECT_TRUE(WaitForTrace("KD_QM_MAIN: got lock after second fork"));
  EXPECT_NE(TraceLog().find("Warning: Logging enabled for module KD_QM_MAIN: Loglevel 2, PID=" + std::to_string(pid) +
                            ", parent process: "),
            std::string::npos);

  EXPECT_EQ(Ask(25).text, kNoQueue);
  EXPECT_TRUE(WaitFor([&] { return GoneOrZombie(pid); }, seconds(10)));
  EXPECT_FALSE(Exists(RequestPipe()));
}

}  // namespace
}  // namespace kdtest
