// Faults around the running daemon's jobs and clients: jobs that ignore
// SIGINT, kill programs that hang or fail, files planted under an answer
// pipe's name, clients that vanish or stall in the middle of a long answer,
// a log directory that cannot be written, job words that a shell would
// expand, and SIGTERM and the shutdown request with jobs running.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;

class ReliabilityTest : public SharedDaemonTest<1> {
 protected:
  // The minimal run time is counted in standard time: keep summer time out.
  static void SetUpTestSuite() { setenv("TZ", "UTC", 1); }
  static void TearDownTestSuite() {
    SharedDaemonTest::TearDownTestSuite();
    unsetenv("TZ");
  }
  void SetUp() override {
    SharedDaemonTest::SetUp();
    // Kill programs for the job named $6 (behind "-j"), in the job directory
    // "kill_<name>": one hangs ignoring SIGINT, one fails at once.
    const std::string head =
        "#!/bin/sh\ntrap '' INT\nd=" + Dir("kill_") + "$6\nmkdir -p \"$d\"\necho \"$@\" > \"$d/args\"\n";
    WriteFile(instance().bin() + "hang.sh", head + "echo $$ > \"$d/job.pid\"\nwhile :; do /bin/sleep 0.05; done\n",
              0755);
    WriteFile(instance().bin() + "fail.sh", head + "exit 3\n", 0755);
  }
};

// Three jobs that ignore SIGINT are deleted with a hard timeout of 1 second:
// one by signals only, one through a kill program that hangs (and ignores
// SIGINT too), one through a kill program that fails at once. Every group,
// the hanging kill program's included, ends by SIGKILL, and each deleting
// client is answered with its job's pid.
TEST_F(ReliabilityTest, StubbornJobsAndHangingOrFailingKillProgramsEndBySigkill) {
  ASSERT_EQ(Ask(queue_init, "stub 3").text, kInitialised);
  const std::vector<std::string> jobs{"plain", "hang", "fail"};
  std::vector<std::string> entries;
  std::vector<long> pids;
  for (const std::string& job : jobs) {
    Prepare(job, {{"stay", ""}});
    // Hard timeout 1 s; a kill job waits 2 s before its own SIGINT, so it has ignored SIGINT by then.
    entries.push_back(Entry(Submit("stub", job, "-S 1/2")));
    pids.push_back(Pid(job));
    ASSERT_GT(pids.back(), 1);
  }
  std::vector<std::unique_ptr<RawClient>> clients;
  for (const std::string options : {" 1", " 1 -e 0 -K hang.sh", " 1 -e 0 -K fail.sh"}) {
    clients.push_back(NewClient());
    ASSERT_TRUE(clients.back()->Request(queue_del_entry, entries[clients.size() - 1] + options));
  }
  ASSERT_TRUE(WaitFor([&] { return !Args("kill_fail").empty(); }, 10s));
  const long hang = Pid("kill_hang");
  ASSERT_GT(hang, 1);
  EXPECT_TRUE(Driven([&] { return std::all_of(pids.begin(), pids.end(), GroupGone) && GroupGone(hang); }));
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    const RawAnswer a = clients[i]->ReadAnswer(10s);
    EXPECT_TRUE(a.complete) << jobs[i];
    EXPECT_EQ(a.text, Ok(std::to_string(pids[i]))) << jobs[i];
  }
  const std::string exe = "\"" + instance().bin() + "/job.sh\" ";
  const auto kill_command = [&](std::size_t i) {
    return "-p " + std::to_string(pids[i]) + " -n " + entries[i] + " -j " + jobs[i] + " -d single -w 1 -- " + exe +
           Dir(jobs[i]);
  };
  EXPECT_EQ(Args("kill_fail"), kill_command(2) + "\n");
  EXPECT_TRUE(Driven([&] { return Counts("stub") == "pending=0\tholding=0\tjob_limit: 3/3"; }));
  // Each record of a stop, then of the end by SIGKILL: as the reaping of the
  // job saw it, or as the hard stop noted it, whichever came first.
  const auto stopped_then_killed = [&](const std::string& head, const std::string& stop, const std::string& command) {
    const std::vector<std::string> log = ExitLog(head);
    return log.size() == 2 && log[0] == head + stop + ";" + command &&
           (log[1] == head + "Job terminated with signal [exit code: 9];" + command ||
            log[1] == head + "Terminated with SIGKILL [exit code: 0];" + command);
  };
  for (std::size_t i = 0; i < jobs.size(); ++i)
    EXPECT_TRUE(WaitFor([&] {
      return stopped_then_killed("CTX:" + entries[i] + ";PID:n;name:" + jobs[i] + ";submit:T;start:T;",
                                 i == 0 ? "Gracefull stop requested" : "Custom kill process", exe + Dir(jobs[i]) + ";");
    }, 10s)) << jobs[i];
  const std::string kill_head = "CTX:0;PID:n;name:custom_kill_";
  const std::string kill_times = ";submit:00-00-00 00:00:00;start:T;";
  EXPECT_TRUE(WaitFor([&] {
    return stopped_then_killed(kill_head + "hang" + kill_times, "Gracefull stop requested",
                               "\"" + instance().bin() + "/hang.sh\" " + kill_command(1) + ";");
  }, 10s)) << "custom_kill_hang";
  EXPECT_EQ(ExitLog(kill_head + "fail"),
            std::vector<std::string>{kill_head + "fail" + kill_times + "Job exited with status [exit code: 3];\"" +
                                     instance().bin() + "/fail.sh\" " + kill_command(2) + ";"});
  EXPECT_TRUE(WaitNoZombies());
}

// Answer pipes are opened without following a symbolic link, and only a FIFO
// is written to: a link (to a file, or even to another client's FIFO) and a
// regular file planted under a requester's pipe name are refused and left
// untouched.
TEST_F(ReliabilityTest, AnswerPipesThatAreLinksOrPlainFilesAreRefusedAndLeftUntouched) {
  const std::string victim = instance().root() + "/victim";
  WriteFile(victim, "precious\n");
  auto other = NewClient();  // a real FIFO with a reader
  ASSERT_TRUE(other->CreatePipe() && other->OpenForAnswer());
  auto to_file = NewClient(), to_fifo = NewClient(), plain = NewClient();
  ASSERT_EQ(symlink(victim.c_str(), to_file->answer_pipe().c_str()), 0);
  ASSERT_EQ(symlink(other->answer_pipe().c_str(), to_fifo->answer_pipe().c_str()), 0);
  WriteFile(plain->answer_pipe(), "planted\n", 0660);
  for (RawClient* c : {to_file.get(), to_fifo.get(), plain.get()})
    ASSERT_TRUE(c->Send("26 " + std::to_string(c->id()) + "\n"));
  for (RawClient* c : {to_file.get(), to_fifo.get()})
    EXPECT_TRUE(WaitForTrace("ERROR: from_qm pipe [" + c->answer_pipe() + "] is a symbolic link - refused"));
  EXPECT_TRUE(WaitForTrace("ERROR: from_qm pipe [" + plain->answer_pipe() + "] is no FIFO - refused"));
  EXPECT_TRUE(WaitFor([&] { return AnswerWriters().empty(); }, 20s));
  EXPECT_EQ(ReadFile(victim), "precious\n");
  EXPECT_EQ(ReadFile(plain->answer_pipe()), "planted\n");
  EXPECT_FALSE(other->AnythingArrived());
}

// Of two clients of a listing far larger than a pipe holds, one reads a
// little and goes away, the other never reads: neither holds the daemon, and
// every answer writer ends on its own.
TEST_F(ReliabilityTest, ClientsThatVanishOrStallInALongListingHoldNothing) {
  ASSERT_EQ(Ask(queue_init, "long 1").text, kInitialised);
  const std::string name(900, 'n');
  for (int i = 0; i < 90; ++i)
    Entry(Ask(queue_submit, "long -T 2099-01-01_00:00 -j " + name + std::to_string(i) + " job.sh x").text);
  auto vanishing = NewClient(), stalling = NewClient();
  for (RawClient* c : {vanishing.get(), stalling.get()}) ASSERT_TRUE(c->Request(queue_sho_full, "long"));
  ASSERT_TRUE(WaitFor([&] { return vanishing->AnythingArrived(); }, 10s));
  vanishing->CloseAnswer();
  unlink(vanishing->answer_pipe().c_str());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Counts("long"), "pending=0\tholding=90\tjob_limit: 1/1");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_TRUE(WaitFor([&] { return AnswerWriters().empty(); }, 20s));
}

// The log directory becomes unwritable (a file stands in its place, which
// stops root as well): jobs still run and requests are still answered; once
// it is back, tracing resumes.
TEST_F(ReliabilityTest, JobsRunWithoutALogDirectoryAndTracingResumesOnceItIsBack) {
  ASSERT_EQ(Ask(queue_init, "nolog 1").text, kInitialised);
  const std::string lgc = instance().root() + "/log";
  const std::string away = instance().root() + "/log.away";
  ASSERT_EQ(rename(lgc.c_str(), away.c_str()), 0);
  WriteFile(lgc, "");
  struct Restore {  // for the tests that follow, whatever happens here
    std::string lgc, away;
    ~Restore() {
      if (Exists(away) && unlink(lgc.c_str()) == 0) rename(away.c_str(), lgc.c_str());
    }
  } restore{lgc, away};
  Release("a");
  const std::string a = Entry(Submit("nolog", "a"));
  const long pid = Pid("a");
  EXPECT_TRUE(Driven([&] { return GroupGone(pid) && Counts("nolog") == "pending=0\tholding=0\tjob_limit: 1/1"; }));
  EXPECT_EQ(ReadFile(lgc), "");

  ASSERT_EQ(unlink(lgc.c_str()), 0);
  ASSERT_EQ(rename(away.c_str(), lgc.c_str()), 0);
  Release("b");
  const std::string b = Entry(Submit("nolog", "b"));
  EXPECT_TRUE(WaitForTrace("Allocated entry number [" + b + "] for job [b]"));
  EXPECT_TRUE(Driven([&] { return !ExitLog("CTX:" + b + ";PID:").empty(); }));
  EXPECT_TRUE(ExitLog("CTX:" + a + ";PID:").empty());  // lost while the directory was away
}

// Jobs are started by execv: words that a shell would expand reach the
// program as they were given.
TEST_F(ReliabilityTest, JobWordsReachTheProgramUnexpanded) {
  ASSERT_EQ(Ask(queue_init, "words 1").text, kInitialised);
  const std::string marker = instance().root() + "/expanded";
  const std::string touch = "touch${IFS}" + marker;
  const std::string words = "$(" + touch + ") `" + touch + "`;" + touch + " * $HOME";
  Release("a");
  Entry(Ask(queue_submit, "words -j a job.sh " + Dir("a") + " " + words).text);
  EXPECT_TRUE(Ended("a"));
  EXPECT_EQ(Args("a"), Dir("a") + " " + words + "\n");
  EXPECT_FALSE(Exists(marker));
}

/// Shutdown ends the daemon: each case has a daemon of its own.
class ShutdownWithJobsTest : public DaemonTest {
 protected:
  /// The daemon has ended with the code, its request pipe removed and its lock released.
  void ExpectEnded(int code) {
    ASSERT_TRUE(daemon().WaitExit(10s));
    EXPECT_EQ(daemon().exit_code(), code);
    EXPECT_FALSE(Exists(RequestPipe()));
    EXPECT_EQ(ReadFile(instance().work() + "sem/KD_QM_MAIN.sem"), "");
  }
};

// By SIGTERM the daemon answers nobody, and the listing that removes the
// triples is part of that answer: the jobs are left running. A job waiting
// to run is not run.
TEST_F(ShutdownWithJobsTest, BySigtermTheJobsAreLeftRunning) {
  ASSERT_EQ(Ask(queue_init, "q1 2").text, kInitialised);
  Entry(Submit("q1", "a"));
  Entry(Submit("q1", "later", "-e 5 -T 2099-01-01_00:00"));
  const long a = Pid("a");
  ASSERT_GT(a, 1);
  daemon().Signal(SIGTERM);
  ExpectEnded(1);
  EXPECT_FALSE(GroupGone(a));
  EXPECT_TRUE(NotStarted("later"));
}

// By request the triples are listed and removed, which stops their groups
// (SIGINT, then SIGKILL for a job that ignores it). A job waiting to run is
// not run.
TEST_F(ShutdownWithJobsTest, ByRequestTheJobGroupsAreStopped) {
  ASSERT_EQ(Ask(queue_init, "q1 2").text, kInitialised);
  Prepare("c", {{"stay", ""}});
  for (const std::string job : {"b", "c"}) Entry(Submit("q1", job));
  Entry(Submit("q1", "later", "-e 5 -T 2099-01-01_00:00"));
  const long b = Pid("b"), c = Pid("c");
  ASSERT_TRUE(b > 1 && c > 1);
  const RawAnswer answer = Ask(shut_down);
  EXPECT_TRUE(answer.complete);
  EXPECT_TRUE(answer.text.ends_with("STATUS=SUCCESS MSG=shutdown completed\n")) << answer.text;
  ExpectEnded(0);
  EXPECT_TRUE(WaitFor([&] { return GroupGone(b) && GroupGone(c); }, 10s));
  EXPECT_TRUE(NotStarted("later"));
}

}  // namespace
}  // namespace kdtest
