// Job submission against the running daemon: admission answers, job limits,
// start times, synchronous submits, refusals and jobs that fail at once. The
// job scripts write job.pid, so the fixture kills every job group at teardown.
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "daemon_fixture.h"
#include "qm_lib.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;

std::string Ok(const std::string& msg) { return "0STATUS=SUCCESS MSG=" + msg + "\n"; }

class SubmitTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    // Writes its arguments and pid into the directory $1, then waits there for "go".
    WriteFile(instance().bin() + "wait.sh", "#!/bin/sh\nmkdir -p \"$1\"\necho \"$@\" > \"$1/args\"\necho $$ > \"$1/job.pid\"\n"
                        "while [ ! -e \"$1/go\" ]; do /bin/sleep 0.05; done\n",
              0755);
  }
  std::string Dir(const std::string& job) { return instance().root() + "/jobs/" + job; }
  /// The submit arguments: queue field, then the job running wait.sh in its directory.
  std::string Job(const std::string& queue, const std::string& job, const std::string& options = "") {
    return queue + " " + options + (options.empty() ? "" : " ") + "-j " + job + " wait.sh " + Dir(job);
  }
  bool Started(const std::string& job) {
    return WaitFor([&] { return Exists(Dir(job) + "/job.pid"); }, 10s);
  }
  /// Waits until the daemon has reaped the job (its process is gone), so
  /// that no job runs when the daemon is shut down.
  bool Ended(const std::string& job) {
    pid_t pid = 0;
    const auto gone = [&] {
      if (pid <= 0) pid = static_cast<pid_t>(std::atol(ReadFile(Dir(job) + "/job.pid").c_str()));
      return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
    };
    return WaitFor(gone, 10s);
  }
  void Release(const std::string& job) {
    std::filesystem::create_directories(Dir(job));
    WriteFile(Dir(job) + "/go", "");
  }
  /// "pending=%d\tholding=%d\tjob_limit: %s" of the status view of q1.
  std::string Counts() {
    const std::string view = Ask(queue_sho_status, "q1").text;
    const std::size_t at = view.find("pending=");
    return at == std::string::npos ? view : view.substr(at, view.find('\n', at) - at);
  }
};

// Job limit 1: the second job waits and starts when the first ends; a job
// whose start time lies in the future stays in the holding queue.
TEST_F(SubmitTest, JobLimitAndStartTime) {
  ASSERT_EQ(Ask(queue_init, "q1/r 1").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_submit, Job("q1", "a")).text, Ok("1"));
  ASSERT_TRUE(Started("a"));
  EXPECT_EQ(ReadFile(Dir("a") + "/args"), Dir("a") + " -d r\n");
  EXPECT_EQ(Ask(queue_submit, Job("q1", "b")).text, Ok("2"));
  EXPECT_EQ(Ask(queue_submit, Job("q1", "later", "-T 2099-01-01_00:00")).text, Ok("3"));
  EXPECT_EQ(Counts(), "pending=1\tholding=1\tjob_limit: 0/1");
  Release("a");
  ASSERT_TRUE(Started("b"));
  EXPECT_EQ(Counts(), "pending=0\tholding=1\tjob_limit: 0/1");
  Release("b");
  EXPECT_TRUE(WaitFor([&] { return Counts() == "pending=0\tholding=1\tjob_limit: 1/1"; }, 10s));
}

TEST_F(SubmitTest, SynchronousSubmitIsAnsweredByTheJobNotAtAdmission) {
  ASSERT_EQ(Ask(queue_init, "q1 1").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_submit, Job("q1", "a")).text, Ok("1"));
  ASSERT_TRUE(Started("a"));
  auto client = NewClient();
  ASSERT_TRUE(client->CreatePipe() && client->OpenForAnswer());
  Release("b");  // b ends as soon as it runs
  ASSERT_TRUE(client->Send(std::to_string(queue_submit_sync) + " " + std::to_string(client->id()) + " " +
                           Job("q1", "b") + "\n"));
  ASSERT_TRUE(WaitFor([&] { return Counts() == "pending=1\tholding=0\tjob_limit: 0/1"; }, 10s));
  EXPECT_FALSE(client->AnythingArrived());
  Release("a");
  const RawAnswer answer = client->ReadAnswer(10s);
  EXPECT_TRUE(answer.complete);
  EXPECT_EQ(answer.text, Ok("2"));
  EXPECT_TRUE(Ended("b"));
}

TEST_F(SubmitTest, RefusalsAnswerExactlyAndQueueNothing) {
  ASSERT_EQ(Ask(queue_init, "q1/r/s").text, Ok("Queue initialised"));
  ASSERT_EQ(Ask(queue_set, "q1/r allocation permanent X").text,
            Ok("Queue allocation mode set to permanent; allocate is \"X\""));
  EXPECT_EQ(Ask(queue_submit, Job("nq", "a")).text, "1STATUS=WARNING MSG=A queue with name [nq] does not exist\n");
  EXPECT_EQ(Ask(queue_submit, Job("q1//zz", "a")).text,
            "1STATUS=WARNING MSG=Preferred resource(s) [zz] not found in given queue\n");
  EXPECT_EQ(Ask(queue_submit, Job("q1/Y/r", "a")).text,
            "2STATUS=ERROR MSG=Resource [r] has allocation string [X] while your allocation string is [Y]. Only jobs "
            "with allocation string X can utilise it.\n");
  EXPECT_EQ(Ask(queue_submit, "q1 -j a missing.sh").text,
            "2STATUS=ERROR MSG=Executable [missing.sh] does not exist\n");
  EXPECT_EQ(Counts(), "pending=0\tholding=0\tjob_limit: 1/1");
  // The same allocation is welcome on r; s, a fresh queue, takes the other one.
  // Number 1 went back to the pool's end; 2 and 3 stay with the refused jobs.
  EXPECT_EQ(Ask(queue_submit, Job("q1/X/r", "x")).text, Ok("4"));
  EXPECT_EQ(Ask(queue_submit, Job("q1/Y/s", "y")).text, Ok("5"));
  ASSERT_TRUE(Started("x") && Started("y"));
  EXPECT_EQ(ReadFile(Dir("y") + "/args"), Dir("y") + " -d s\n");
  Release("x");
  Release("y");
  EXPECT_TRUE(Ended("x") && Ended("y"));
}

TEST_F(SubmitTest, JobProgramThatCannotRunFreesItsPlace) {
  ASSERT_EQ(Ask(queue_init, "q1 1").text, Ok("Queue initialised"));
  WriteFile(instance().bin() + "broken.sh", "#!/bin/sh\nexit 0\n", 0644);  // not executable
  EXPECT_EQ(Ask(queue_submit, "q1 -j broken broken.sh").text, Ok("1"));
  EXPECT_EQ(Ask(queue_submit, Job("q1", "next")).text, Ok("2"));
  ASSERT_TRUE(Started("next"));
  Release("next");
  EXPECT_TRUE(Ended("next"));
}

}  // namespace
}  // namespace kdtest
