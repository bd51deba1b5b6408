// The entry requests against the running daemon: delete, move and signal of
// waiting and running jobs, with their exact answers and effects on the jobs.
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

class EntryRequestsTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    // $1 is the job's directory. A run with a number behind "-d" (the run
    // with a pending-state exit code) records it and ends; a normal run waits
    // for "go" and ends on SIGINT unless "stay" exists.
    WriteFile(instance().bin() + "job.sh",
              "#!/bin/sh\nmkdir -p \"$1\"\ncase \"$3\" in -[0-9]*|[0-9]*) echo \"$3\" > \"$1/code\"; exit 0;; esac\n"
              "echo $$ > \"$1/job.pid\"\ntrap 'echo INT >> \"$1/sig\"; [ -e \"$1/stay\" ] || exit 3' INT\n"
              "while [ ! -e \"$1/go\" ]; do /bin/sleep 0.05; done\n",
              0755);
  }
  std::string Dir(const std::string& job) { return instance().root() + "/jobs/" + job; }
  std::string Submit(const std::string& queue, const std::string& job, const std::string& options = "") {
    return Ask(queue_submit, queue + " " + options + (options.empty() ? "" : " ") + "-j " + job + " job.sh " + Dir(job))
        .text;
  }
  /// The job's pid once its script has written it whole, else 0.
  long Pid(const std::string& job) {
    long pid = 0;
    WaitFor([&] { return (pid = std::atol(ReadFile(Dir(job) + "/job.pid").c_str())) > 0; }, 10s);
    return pid;
  }
  bool Gone(const std::string& job) {
    const long pid = Pid(job);
    // Each request ends a serving phase, so the daemon's passes go on while we wait.
    return WaitFor([&] {
      if (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return true;
      Ask(process_signal);
      return false;
    }, 15s);
  }
  bool FileIs(const std::string& path, const std::string& text) {
    return WaitFor([&] { return ReadFile(path) == text; }, 10s);
  }
  std::string Counts(const std::string& queue) {
    const std::string view = Ask(queue_sho_status, queue).text;
    const std::size_t at = view.find("pending=");
    return at == std::string::npos ? view : view.substr(at, view.find('\n', at) - at);
  }
};

// Jobs moved with their job limits; waiting jobs deleted or signalled run
// once with the code; a running job's group gets the signal, or is stopped
// hard after the timeout given.
TEST_F(EntryRequestsTest, MoveDeleteAndSignalWaitingAndRunningJobs) {
  for (const std::string q : {"q1/r 1", "q2/x 1", "q3 0"}) ASSERT_EQ(Ask(queue_init, q).text, Ok("Queue initialised"));
  ASSERT_EQ(Submit("q1", "a"), Ok("1"));
  ASSERT_EQ(Submit("q1", "b"), Ok("2"));
  ASSERT_EQ(Submit("q1", "c", "-T 2099-01-01_00:00"), Ok("3"));
  const long a = Pid("a");
  ASSERT_GT(a, 0);

  EXPECT_EQ(Ask(queue_move_entry, "99 q2").text, "1STATUS=WARNING MSG=No such entry 99\n");
  EXPECT_EQ(Ask(queue_move_entry, "1").text, "1Wrong arguments\n");
  EXPECT_EQ(Ask(queue_move_entry, "1 nope").text, "1STATUS=WARNING MSG=A queue with name [nope] does not exist\n");
  EXPECT_EQ(Ask(queue_move_entry, "1 q2/zz").text, "2STATUS=ERROR MSG=Target resource queue zz does not exist\n");
  EXPECT_EQ(Ask(queue_move_entry, "1 q3").text, "2STATUS=ERROR MSG=Target resource queue single is full\n");
  EXPECT_EQ(Ask(queue_move_entry, "3 q2").text, Ok("Job 3 moved to holding sub queue of queue q2"));
  EXPECT_EQ(Ask(queue_move_entry, "2 q3").text, Ok("Job 2 moved to pending sub queue of queue q3"));
  EXPECT_EQ(Ask(queue_move_entry, "1 q2").text, Ok("Job 1 moved to resource queue x of queue q2"));
  EXPECT_EQ(Counts("q1"), "pending=0\tholding=0\tjob_limit: 1/1");
  EXPECT_EQ(Counts("q2"), "pending=0\tholding=1\tjob_limit: 0/1");
  EXPECT_EQ(Counts("q3"), "pending=1\tholding=0\tjob_limit: 0/0");

  std::filesystem::create_directories(Dir("e"));
  WriteFile(Dir("e") + "/stay", "");  // e ignores SIGINT: only SIGKILL ends it
  ASSERT_EQ(Submit("q1", "e", "-S 1/0"), Ok("4"));
  ASSERT_EQ(Submit("q2", "d", "-T 2099-01-01_00:00"), Ok("5"));
  ASSERT_GT(Pid("e"), 0);
  EXPECT_EQ(Ask(queue_del_entry, "1 -o not_executing").text,
            "2STATUS=ERROR MSG=Job not found on holding or pending queue\n");
  EXPECT_EQ(Ask(queue_del_entry, "1 -K none").text,
            "1STATUS=ERROR MSG=Operation failed. -K requires -e to be specified.\n");
  EXPECT_EQ(Ask(queue_del_entry, "99").text, "1STATUS=WARNING MSG=No such entry 99\n");
  // The holding job with its default code -2, the pending one with -e 7.
  EXPECT_EQ(Ask(queue_del_entry, "3").text, Ok("Job start time expired: -2"));
  EXPECT_TRUE(FileIs(Dir("c") + "/code", "-2\n"));
  EXPECT_EQ(Ask(queue_del_entry, "2 -e 7").text, Ok("Job start time expired: 7"));
  EXPECT_TRUE(FileIs(Dir("b") + "/code", "7\n"));
  EXPECT_EQ(Counts("q3"), "pending=0\tholding=0\tjob_limit: 0/0");
  EXPECT_FALSE(Exists(Dir("a") + "/sig"));

  EXPECT_EQ(Ask(queue_signal_entry, "1 -6").text, "1Invalid signal number given.\n");
  EXPECT_EQ(Ask(queue_signal_entry, "99 -3").text, "1STATUS=WARNING MSG=No such entry 99\n");
  EXPECT_EQ(Ask(queue_signal_entry, "5 -4").text, "1STATUS=OK MSG=Entry 5 will receive signal -4\n");
  EXPECT_TRUE(FileIs(Dir("d") + "/code", "-4\n"));
  EXPECT_EQ(Ask(queue_signal_entry, "1 -3").text,
            "1STATUS=OK MSG=Sent signal SIGINT to entry no 1[PID " + std::to_string(a) + "] process group\n");
  EXPECT_TRUE(FileIs(Dir("a") + "/sig", "INT\n"));
  EXPECT_TRUE(Gone("a"));
  // The moved job has ended in its new queue and freed a place there.
  EXPECT_TRUE(WaitFor([&] { return Counts("q2") == "pending=0\tholding=0\tjob_limit: 1/1"; }, 10s));

  EXPECT_EQ(Ask(queue_del_entry, "4 -3").text, Ok("Job will be terminated and deleted in a timeout 3 seconds"));
  EXPECT_TRUE(Gone("e"));
  // The graceful stop, and the hard stop's SIGINT in front of its SIGKILL.
  EXPECT_EQ(ReadFile(Dir("e") + "/sig").substr(0, 4), "INT\n");
  EXPECT_TRUE(WaitFor([&] { return Counts("q1") == "pending=0\tholding=0\tjob_limit: 1/1"; }, 10s));
}

}  // namespace
}  // namespace kdtest
