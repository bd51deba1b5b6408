// Job submission against the running daemon: admission answers, job limits,
// start times, synchronous submits and refusals. The job script writes
// job.pid, so the fixture kills every job group at teardown.
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "daemon_fixture.h"
#include "protocol/request.h"

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
  bool Started(const std::string& job) { return WaitFor([&] { return Exists(Dir(job) + "/job.pid"); }, 10s); }
  /// Waits until the daemon has reaped the job, so that none runs at shutdown.
  bool Ended(const std::string& job) {
    return WaitFor([&] {
      const pid_t pid = static_cast<pid_t>(std::atol(ReadFile(Dir(job) + "/job.pid").c_str()));
      return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH;
    }, 10s);
  }
  void Release(const std::string& job) {
    std::filesystem::create_directories(Dir(job));
    WriteFile(Dir(job) + "/go", "");
  }
  /// "pending=%d\tholding=%d\tjob_limit: %s" of the queue's status view.
  std::string Counts(const std::string& queue) {
    const std::string view = Ask(queue_sho_status, queue).text;
    const std::size_t at = view.find("pending=");
    return at == std::string::npos ? view : view.substr(at, view.find('\n', at) - at);
  }
};

// Refusals answer exactly and queue nothing. Then job limit 1: a synchronous
// submit behind a running job waits unanswered in the pending queue and is
// answered when its job starts; a job whose start time lies in the future
// stays in the holding queue.
TEST_F(SubmitTest, RefusalsJobLimitStartTimeAndSynchronousSubmit) {
  ASSERT_EQ(Ask(queue_init, "q1/r/s").text, Ok("Queue initialised"));
  ASSERT_EQ(Ask(queue_set, "q1/r allocation permanent X").text,
            Ok("Queue allocation mode set to permanent; allocate is \"X\""));
  EXPECT_EQ(Ask(queue_submit, Job("nq", "n")).text, "1STATUS=WARNING MSG=A queue with name [nq] does not exist\n");
  EXPECT_EQ(Ask(queue_submit, Job("q1//zz", "n")).text,
            "1STATUS=WARNING MSG=Preferred resource(s) [zz] not found in given queue\n");
  EXPECT_EQ(Ask(queue_submit, Job("q1/Y/r", "n")).text,
            "2STATUS=ERROR MSG=Resource [r] has allocation string [X] while your allocation string is [Y]. Only jobs "
            "with allocation string X can utilise it.\n");
  EXPECT_EQ(Ask(queue_submit, "q1 -j n missing.sh").text, "2STATUS=ERROR MSG=Executable [missing.sh] does not exist\n");
  EXPECT_EQ(Counts("q1"), "pending=0\tholding=0\tjob_limit: 1/1");
  // The same allocation is welcome on r; s, a fresh queue, takes the other one.
  // Number 1 went back to the pool's end; 2 and 3 stay with the refused jobs.
  EXPECT_EQ(Ask(queue_submit, Job("q1/X/r", "x")).text, Ok("4"));
  EXPECT_EQ(Ask(queue_submit, Job("q1/Y/s", "y")).text, Ok("5"));
  ASSERT_TRUE(Started("x") && Started("y"));
  EXPECT_EQ(ReadFile(Dir("y") + "/args"), Dir("y") + " -d s\n");

  ASSERT_EQ(Ask(queue_init, "q2/r 1").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_submit, Job("q2", "a")).text, Ok("6"));
  ASSERT_TRUE(Started("a"));
  EXPECT_EQ(Ask(queue_submit, Job("q2", "later", "-T 2099-01-01_00:00")).text, Ok("7"));
  auto client = NewClient();
  ASSERT_TRUE(client->CreatePipe() && client->OpenForAnswer());
  ASSERT_TRUE(client->Send(std::to_string(queue_submit_sync) + " " + std::to_string(client->id()) + " " +
                           Job("q2", "b") + "\n"));
  ASSERT_TRUE(WaitFor([&] { return Counts("q2") == "pending=1\tholding=1\tjob_limit: 0/1"; }, 10s));
  EXPECT_FALSE(client->AnythingArrived());
  Release("a");
  const RawAnswer answer = client->ReadAnswer(10s);
  EXPECT_TRUE(answer.complete);
  EXPECT_EQ(answer.text, Ok("8"));
  ASSERT_TRUE(Started("b"));
  EXPECT_EQ(Counts("q2"), "pending=0\tholding=1\tjob_limit: 0/1");
  for (const std::string job : {"b", "x", "y"}) Release(job);
  EXPECT_TRUE(Ended("b") && Ended("x") && Ended("y"));
  EXPECT_TRUE(WaitFor([&] { return Counts("q2") == "pending=0\tholding=1\tjob_limit: 1/1"; }, 10s));
}

}  // namespace
}  // namespace kdtest
