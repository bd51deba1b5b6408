// Job processes with tiny real /bin/sh jobs: the decoding of a child's end,
// follow-up arguments, the argument limit, the pending-state code 0, and the
// restart policy under a test clock.
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/exit_log.h"
#include "jobs/launch.h"
#include "jobs/restart.h"
#include "jobs/supervision.h"
#include "kd_test_support.h"
#include "model/job.h"
#include "protocol/globals.h"
#include "test_clock.h"
#include "test_trace.h"

namespace {

using namespace std::chrono_literals;
using kdtest::ReadFile;
using V = std::vector<std::string>;

class JobProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetKdQmExitLog("20260513");
    queue_.name = "q1";
    queue_.pCounter = &counter_;
    eQMOptions = follow_up;
  }
  void TearDown() override {
    while (Node* n = RemHead(&queue_.ListOfJobs)) {
      DestroyJob(ElementOf<Job>(n)->pFollowUpJob);
      DestroyJob(ElementOf<Job>(n));
    }
    // Every job group we started is killed and its leader reaped (unless JobControl did).
    for (pid_t pid : pids_) {
      if (pid <= 0 || waitpid(pid, nullptr, WNOHANG) < 0) continue;
      kill(-pid, SIGKILL);
      EXPECT_TRUE(kdtest::WaitFor([&] { return waitpid(pid, nullptr, WNOHANG) != 0; }, 5s));
    }
    eQMOptions = 0;
    gszKdQmExitLog[0] = '\0';
  }

  /// A job of the program; with a script its arguments are "-c" and the script.
  static Job* NewJob(const std::string& program, const std::string& script = "") {
    auto* job = new Job{};
    job->EntryNumb = 7;
    job->job_name = "j";
    job->file_name = program;
    if (!script.empty() && (jobAddArg_str(job, "-c") != 0 || jobAddArg_str(job, script.c_str()) != 0))
      ADD_FAILURE() << script;
    return job;
  }
  /// A /bin/sh job that writes its $0 and $@ into the file, one a line.
  Job* ArgsWriter(const std::string& file) { return NewJob("/bin/sh", "printf '%s\\n' \"$0\" \"$@\" > " + File(file)); }
  void Start(Job* job) {
    job->PID = runjob(job);
    pids_.insert(job->PID);
    AddTail(&queue_.ListOfJobs, NodeOf(job));
  }
  /// Runs JobControl passes until the queue is empty (10 s at most).
  bool PassUntilEmpty() {
    return kdtest::WaitFor(
        [&] {
          WalkList(&queue_.ListOfJobs, JobControl, &queue_, nullptr);
          for (Job* j : Elements<Job>(queue_.ListOfJobs)) pids_.insert(j->PID);
          return queue_.ListOfJobs.Head == nullptr;
        },
        10s);
  }
  std::string File(const std::string& name) const { return inst_.root() + "/" + name; }
  /// Exit-log lines without time stamp, with PIDs and start times masked.
  static V ExitLog() {
    V lines;
    std::istringstream in(ReadFile(gszKdQmExitLog));
    for (std::string line; std::getline(in, line);)
      lines.push_back(kdtest::ReplaceUntil(kdtest::ReplaceDigitsAfter(line.substr(20), ";PID:", "*"), ";start:", ';', "*"));
    return lines;
  }

  kdtest::TestInstance inst_;
  kdtest::LocalTrace trace_{inst_, 3};
  Queue queue_;
  Counter counter_;
  std::set<pid_t> pids_;
};

TEST_F(JobProcessTest, SignalDeathRestartsOnCode142ExecFailureEndsWith127AndFollowUpsGetTheCode) {
  Job* job = NewJob("/bin/sh", "kill -TERM $$");
  AddTail(&job->ListOfJobRestartConditions, NodeOf(new JobRestartCondition{{}, 142, 1, 0}));
  job->pFollowUpJob = ArgsWriter("args");
  Start(job);
  ASSERT_TRUE(PassUntilEmpty());
  EXPECT_EQ(ReadFile(File("args")), "-i\n-15\n-d\nq1\n--\nsh\n-c\nkill -TERM $$\n");
  const std::string end = "CTX:7;PID:*;name:j;submit:00-00-00 00:00:00;start:*;";
  const std::string killed = end + "Job terminated with signal [exit code: 15];\"/bin/sh\" -c kill -TERM $$;";
  EXPECT_EQ(ExitLog(), (V{killed, "CTX:7;PID:*;name:jJob restart", killed,
                          "CTX:7;PID:*;name:jJob not restarted - job restarts too often (too many restarts)",
                          end + "Job exited with status [exit code: 0];\"/bin/sh\" -c printf '%s\\n' \"$0\" \"$@\" > " +
                              File("args") + " -i -15 -d q1 -- sh -c kill -TERM $$;"}));
  // Only the follow-up's end frees the place; the counter follows the queue.
  EXPECT_EQ(queue_.current_job_limit, 1);
  EXPECT_EQ(counter_.current_job_limit, 1);

  // A program that cannot be started; in the queue "single" the follow-up gets no queue pair.
  queue_.name = "single";
  job = NewJob("/nonexistent/program");
  job->pFollowUpJob = ArgsWriter("args127");
  Start(job);
  ASSERT_TRUE(PassUntilEmpty());
  EXPECT_EQ(ReadFile(File("args127")), "-i\n127\n");  // no "--" either: the job had no arguments
}

TEST_F(JobProcessTest, FourHundredArgumentsKeepTheLastInEntry309AndWarnOnce) {
  inst_.write_glbv("gv_prot", File("prot.log"));
  Job* job = ArgsWriter("out");
  for (int i = 3; i <= 400; ++i) ASSERT_EQ(jobAddArg_str(job, ("a" + std::to_string(i)).c_str()), 0);
  ASSERT_EQ(job->arg_count, 400);
  Start(job);
  const std::string prot = ReadFile(File("prot.log"));
  EXPECT_NE(prot.find("QueueManager Submit: Argument index reached max value > 309"), std::string::npos) << prot;
  EXPECT_EQ(prot.find("W003"), prot.rfind("W003")) << prot;
  ASSERT_TRUE(PassUntilEmpty());
  // $0 is argument 3; arguments 3..308 fill entries up to 308, entry 309 holds the last.
  std::string expected;
  for (int i = 3; i <= 308; ++i) expected += "a" + std::to_string(i) + "\n";
  EXPECT_EQ(ReadFile(File("out")), expected + "a400\n");
}

TEST_F(JobProcessTest, RestartBurstAndSlidingWindowBoundaries) {
  kdtest::TestClock clock(1000);
  Job* job = NewJob("/bin/sh", "exit 0");
  for (const auto& [code, burst, interval] : {std::tuple{3, 2, 60}, {3, 10, 0}, {5, 1, 0}, {0, 5, 0}})
    AddTail(&job->ListOfJobRestartConditions, NodeOf(new JobRestartCondition{{}, code, burst, interval}));
  auto restart = [&](int64_t code) { return *pids_.insert(JobRestart(job, code)).first; };
  EXPECT_EQ(restart(0), 0);  // a clean end never restarts, even with a condition for 0
  EXPECT_GT(restart(3), 0);
  EXPECT_GT(restart(3), 0);
  clock.Set(1059);  // third within the window: refused (only the first condition for 3 counts)
  EXPECT_EQ(restart(3), 0);
  clock.Set(1060);  // elapsed == interval: neither refused nor the oldest dropped
  EXPECT_GT(restart(3), 0);
  EXPECT_EQ(CountList(&job->ListOfRestartTimes), 3);
  clock.Advance(1);  // past the window: one oldest time is dropped
  EXPECT_GT(restart(3), 0);
  EXPECT_EQ(CountList(&job->ListOfRestartTimes), 3);
  // Without a window the burst counts every restart of the job's life.
  EXPECT_EQ(restart(5), 0);
  const std::string refused = "CTX:7;PID:*;name:jJob not restarted - job restarts too often (too many restarts";
  EXPECT_EQ(ExitLog()[2], refused + " in time window)");
  EXPECT_EQ(ExitLog().back(), refused + ")");
  DestroyJob(job);
}

// Code 0 leaves the job unrun and its arguments as they were.
TEST_F(JobProcessTest, PendingStateCodeZeroDoesNotRunTheJob) {
  Job* job = ArgsWriter("args");
  SetPendingStateExitCode(NodeOf(job), const_cast<char*>("0"), nullptr);
  RunWithPendingStateExitCode(job);
  EXPECT_EQ(job->PID, 0);
  EXPECT_EQ(job->arg_count, 2);
  DestroyJob(job);
}

}  // namespace
