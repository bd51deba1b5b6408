// Start-up outcomes of kd_qm_main: usage, missing configuration, a request
// pipe that cannot be made, background and foreground start (the pipe made
// with its directory or in place of a stale file), the process lock with a
// second daemon refused, and the shutdown request. Each test starts a daemon
// of its own.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "daemon_fixture.h"

namespace kdtest {
namespace {

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

/// Tests that start the daemon themselves.
class DaemonStartTest : public DaemonTest {
 protected:
  bool StartInSetUp() const override { return false; }
  int TraceLevel() const override { return 2; }
  /// Runs kd_qm_main to its end (for start-ups that fail or detach).
  ProcessResult RunDaemon(const std::vector<std::string>& args) { return Run("kd_qm_main", args, seconds(20)); }
  /// Content of the process lock's file.
  std::string LockFile() { return ReadFile(instance().work() + "sem/KD_QM_MAIN.sem"); }
};

TEST_F(DaemonStartTest, UsageEndsAtOnceWithItsText) {
  for (const char* arg : {"?x", "/?"}) {
    const ProcessResult r = RunDaemon({arg});
    EXPECT_EQ(r.exit_code, 0) << arg;
    EXPECT_EQ(r.out.rfind("kd_qm_main Kelda GitID: ", 0), 0u) << arg;
    EXPECT_EQ(r.out.substr(r.out.find('\n') + 1), kUsageText) << arg;
  }
  EXPECT_FALSE(Exists(RequestPipe()));
}

TEST_F(DaemonStartTest, FailedStartsEndAtOnceWithTheirErrorAndExitCode) {
  const std::string base = "[Pathes]\ngv_rw_lgc=" + instance().lgc() + "\ngv_rw_ini=" + instance().ini_dir() +
                           "\ngv_rw_glbv=" + instance().glbv_dir() + "\ngv_rw_work=" + instance().work() + "\n";
  using Case = std::pair<std::string, std::string>;  // the line present, the name missing
  for (const auto& [present, missing] :
       {Case{"gv_ro_bin=" + instance().bin(), "gv_rw_qm"}, Case{"gv_rw_qm=" + instance().qm(), "gv_ro_bin"}}) {
    WriteFile(instance().kd_ini(), base + present + "\n");
    const ProcessResult r = RunDaemon({"-d"});
    EXPECT_EQ(r.exit_code, 3);
    EXPECT_NE(r.err.find("ERROR: " + missing + " not defined"), std::string::npos) << r.err;
  }
  EXPECT_FALSE(Exists(RequestPipe()));

  instance().write_kd_ini();
  std::filesystem::remove_all(instance().qm() + "com");
  WriteFile(instance().qm() + "com", "not a directory\n");
  const ProcessResult r = RunDaemon({"-d"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("ERROR: mkfifo " + RequestPipe() + " failed: 20 Not a directory"), std::string::npos) << r.err;
}

// Without arguments the daemon detaches: the launcher ends at once, and the
// daemon, in a session of its own, names itself in its lock and makes its
// request pipe with the directory.
TEST_F(DaemonStartTest, BackgroundStartDetachesLocksAndEndsOnTheShutdownRequest) {
  std::filesystem::remove_all(instance().qm());
  const ProcessResult launcher = RunDaemon({});
  EXPECT_EQ(launcher.exit_code, 0);
  EXPECT_EQ(launcher.out, "");
  // The lock is read only now: until the final process has taken it, the
  // file still names the launcher, whose lock ended with it.
  ASSERT_TRUE(WaitForTrace("KD_QM_MAIN: got lock after second fork"));
  const pid_t pid = static_cast<pid_t>(std::atol(LockFile().c_str()));
  ASSERT_GT(pid, 0) << LockFile();
  EXPECT_EQ(LockFile(), std::to_string(pid) + " KD_QM_MAIN");
  EXPECT_NE(getsid(pid), getsid(0)) << "the daemon runs in a session of its own";
  EXPECT_TRUE(WaitReady()) << "answers once it reads its pipe";
  EXPECT_NE(TraceLog().find("Warning: Logging enabled for module KD_QM_MAIN: Loglevel 2, PID=" + std::to_string(pid) +
                            ", parent process: "),
            std::string::npos);
  // The shutdown answer: the view of every queue removed (the admin queue), then the record.
  const RawAnswer answer = Ask(25);
  EXPECT_TRUE(answer.complete && answer.text.rfind("0que_name= qu_admin\t", 0) == 0 &&
              answer.text.ends_with("\nSTATUS=SUCCESS MSG=shutdown completed\n"))
      << answer.text;
  EXPECT_TRUE(WaitFor([&] { return !Exists(RequestPipe()) && LockFile().empty(); }, seconds(10)));
}

// With "-d" the daemon stays in the foreground; a stale file is replaced by
// the pipe, and a second daemon is refused while the first holds the lock.
// (Its end on the shutdown request is QueueShutdownTest's.)
TEST_F(DaemonStartTest, ForegroundStartLocksOutASecondDaemon) {
  WriteFile(RequestPipe(), "left over\n");
  ASSERT_TRUE(StartDaemon({"-dfoo"}));  // only the first two characters count
  ASSERT_TRUE(WaitReady()) << DaemonErr();
  EXPECT_TRUE(WaitForTrace("Info: Debug switch set. Stay in foreground"));
  EXPECT_TRUE(WaitForTrace("Info: KD_QM_MAIN: successfully started"));
  struct stat st {};
  ASSERT_EQ(stat(RequestPipe().c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0770u);
  const std::string holder = std::to_string(daemon_pid()) + " KD_QM_MAIN";
  EXPECT_EQ(LockFile(), holder);

  const ProcessResult second = RunDaemon({"-d"});
  EXPECT_EQ(second.exit_code, 2);
  EXPECT_EQ(second.out, "STATUS=ERROR MSG=another process " + holder + " is holding semaphore KD_QM_MAIN\n");
  EXPECT_EQ(LockFile(), holder) << "the first one is untouched";
  EXPECT_EQ(Ask(26).text, kProcessed);
}

}  // namespace
}  // namespace kdtest
