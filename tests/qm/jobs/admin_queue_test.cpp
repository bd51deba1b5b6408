// The terminating queue of the admin triple with tiny real /bin/sh jobs under
// a test clock: minimal run time, graceful stop, hard kill, custom kill program.
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "jobs/admin_queue.h"
#include "jobs/launch.h"
#include "kd_test_support.h"
#include "model/job.h"
#include "model/triple.h"
#include "test_clock.h"
#include "test_trace.h"

namespace {

using namespace std::chrono_literals;
using kdtest::ReadFile;
using kdtest::WaitFor;

constexpr time_t kStartUtc = 1778673600;  // 2026-05-13 12:00:00, the jobs' start time

class TerminatingQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);  // start times are local times; this process needs no other zone
    tzset();
    InitRootLists();
    ASSERT_EQ(InitQMAdminQueue(), 0);
  }
  void TearDown() override {
    for (pid_t pid : pids_) {
      kill(-pid, SIGKILL);
      WaitFor([&] { return waitpid(pid, nullptr, WNOHANG) != 0; }, 5s);
    }
    while (Node* n = RemHead(&Terminating()->ListOfJobs)) DestroyJob(ElementOf<Job>(n));
    UnlinkQueTriple(gAdminQueue);
    delete gAdminQueue;
    gAdminQueue = nullptr;
  }

  static Queue* Terminating() { return gAdminQueue->TerminatingQueue.get(); }
  /// A started job running script, handed to the terminating queue.
  Job* StartInTerminating(const std::string& script, int soft, int hard) {
    auto* job = new Job{};
    job->EntryNumb = 42;
    job->job_name = "backup";
    job->file_name = "/bin/sh";
    job->resourceTaken = "disk1";
    job->iSoftKillTimeout = soft;
    job->iHardKillTimeout = hard;
    EXPECT_EQ(jobAddArg_str(job, "-c") + jobAddArg_str(job, script.c_str()), 0);
    job->PID = runjob(job);
    EXPECT_GT(job->PID, 0);
    pids_.insert(static_cast<pid_t>(job->PID));
    job->StartTime = QMTime{2026, 5, 13, 12, 0, 0};
    JobToAdminQueueTerminate(job, nullptr);
    return job;
  }
  /// One pass, offset seconds after the start.
  void PassAt(time_t offset) {
    clock_.Set(kStartUtc + offset);
    ProcessQMAdminQueue();
  }
  std::string File(const std::string& name) const { return inst_.root() + "/" + name; }

  kdtest::TestInstance inst_;
  kdtest::LocalTrace trace_{inst_, 3};
  kdtest::TestClock clock_;
  std::set<pid_t> pids_;
};

TEST_F(TerminatingQueueTest, StagesWaitForTheMinimalRunTimeThenStopGracefullyThenKill) {
  // The job notes every SIGINT and runs on.
  Job* job = StartInTerminating(
      "trap 'echo INT >> " + File("sigs") + "' INT; echo up > " + File("up") + "; while :; do sleep 0.05; done", 300,
      20);
  ASSERT_TRUE(WaitFor([&] { return kdtest::Exists(File("up")); }, 10s));
  PassAt(299);
  EXPECT_EQ(job->iGracefullStopRequested, 0);
  EXPECT_TRUE(trace_.Has("[CTX:42] Job not expired yet. Minimal runtime not met"));

  PassAt(300);
  EXPECT_EQ(job->GracefullStopRequestTimestamp, kStartUtc + 300);
  ASSERT_TRUE(WaitFor([&] { return ReadFile(File("sigs")) == "INT\n"; }, 10s));
  PassAt(319);
  clock_.Set(kStartUtc + 320);
  EXPECT_EQ(JobGracefullStopPeriodExpired(job), 0);  // strictly greater, unlike the kill below
  clock_.Advance(1);
  EXPECT_EQ(JobGracefullStopPeriodExpired(job), 1);
  EXPECT_FALSE(trace_.Has("Job graceful stop timeout expired"));

  PassAt(320);
  EXPECT_TRUE(trace_.Has("[CTX:42] Job graceful stop timeout expired - terminating job"));
  ASSERT_TRUE(WaitFor(
      [&] {
        PassAt(321);  // reaps the job if SIGKILL did not end it at once
        return Terminating()->ListOfJobs.Head == nullptr;
      },
      10s));
}

// The kill job's name and words: also e2e ReliabilityTest; here that it runs once only.
TEST_F(TerminatingQueueTest, CustomKillProgramRunsExactlyOnceWithTheJobsWholeCommand) {
  kdtest::WriteFile(File("kill.sh"), "#!/bin/sh\nprintf '%s\\n' \"$@\" >> " + File("kill_args") + "\n", 0755);
  Job* job = StartInTerminating("trap '' INT; while :; do sleep 0.05; done", 0, 20);
  job->stopJobExecutable = File("kill.sh");
  PassAt(0);
  ASSERT_EQ(CountList(&Terminating()->ListOfJobs), 2);
  pids_.insert(static_cast<pid_t>(ElementOf<Job>(Terminating()->ListOfJobs.Tail)->PID));
  const std::string expected = "-p\n" + std::to_string(job->PID) +
                               "\n-n\n42\n-j\nbackup\n-d\ndisk1\n-w\n20\n--\n\"/bin/sh\"\n-c\n"
                               "trap '' INT; while :; do sleep 0.05; done\n";
  ASSERT_TRUE(WaitFor([&] { return ReadFile(File("kill_args")) == expected; }, 10s)) << ReadFile(File("kill_args"));
  // Later passes reap the kill job and start no second one.
  ASSERT_TRUE(WaitFor(
      [&] {
        PassAt(5);
        return CountList(&Terminating()->ListOfJobs) == 1;
      },
      10s));
  EXPECT_EQ(ReadFile(File("kill_args")), expected);
  EXPECT_EQ(ElementOf<Job>(Terminating()->ListOfJobs.Head), job);
}

}  // namespace
