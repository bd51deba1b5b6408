// Faults around the running daemon's jobs and clients: jobs that ignore
// SIGINT, kill programs that hang or fail, files planted under an answer
// pipe's name, clients that vanish or stall in the middle of a long answer,
// SIGTERM and the shutdown request with jobs running, a log directory that
// cannot be written, and job words that a shell would expand. Every job
// script writes job.pid, so the fixture kills every job group at teardown.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;

std::string Ok(const std::string& msg) { return "0STATUS=SUCCESS MSG=" + msg + "\n"; }
bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

/// No process is left in the group (an unreaped orphan counts as gone).
bool GroupGone(long pgid) {
  if (pgid <= 1) return false;
  if (kill(static_cast<pid_t>(-pgid), 0) != 0) return errno == ESRCH;
  const std::string stat = ReadFile("/proc/" + std::to_string(pgid) + "/stat");
  const std::size_t paren = stat.rfind(')');
  return paren != std::string::npos && stat.compare(paren + 2, 1, "Z") == 0;
}

class ReliabilityTest : public DaemonTest {
 protected:
  void SetUp() override {
    // The minimal run time is counted in standard time: keep summer time out.
    setenv("TZ", "UTC", 1);
    DaemonTest::SetUp();
    // $1 is the job's directory. It ignores SIGINT, and so does its grandchild.
    WriteFile(instance().bin() + "stubborn.sh",
              "#!/bin/sh\ntrap '' INT\nmkdir -p \"$1\"\nprintf '%s\\n' \"$@\" > \"$1/args\"\necho $$ > \"$1/job.pid\"\n"
              "/bin/sleep 600 &\nwhile [ ! -e \"$1/go\" ]; do /bin/sleep 0.05; done\n",
              0755);
    // Kill programs: $6 is the job's name behind "-j". One hangs ignoring SIGINT, one fails at once.
    const std::string head =
        "#!/bin/sh\ntrap '' INT\nd=" + KillDir("") + "$6\nmkdir -p \"$d\"\necho \"$@\" > \"$d/args\"\n";
    WriteFile(instance().bin() + "hang.sh", head + "echo $$ > \"$d/job.pid\"\nwhile :; do /bin/sleep 0.05; done\n",
              0755);
    WriteFile(instance().bin() + "fail.sh", head + "exit 3\n", 0755);
  }
  void TearDown() override {
    DaemonTest::TearDown();
    unsetenv("TZ");
  }
  std::string Dir(const std::string& job) { return instance().root() + "/jobs/" + job; }
  std::string KillDir(const std::string& job) { return instance().root() + "/kills/" + job; }
  std::string Submit(const std::string& queue, const std::string& job, const std::string& options = "") {
    return Ask(queue_submit, queue + " " + options + (options.empty() ? "" : " ") + "-j " + job + " stubborn.sh " +
                                 Dir(job)).text;
  }
  /// The job's "go" file exists before its start: it ends at once.
  void Go(const std::string& job) {
    std::filesystem::create_directories(Dir(job));
    WriteFile(Dir(job) + "/go", "");
  }
  /// The pid a script wrote into dir/job.pid, once it is there whole.
  long Pid(const std::string& dir) {
    long pid = 0;
    WaitFor([&] { return (pid = std::atol(ReadFile(dir + "/job.pid").c_str())) > 1; }, 10s);
    return pid;
  }
  std::string Counts(const std::string& queue) {
    const std::string view = Ask(queue_sho_status, queue).text;
    const std::size_t at = view.find("pending=");
    return at == std::string::npos ? view : view.substr(at, view.find('\n', at) - at);
  }
  /// Waits for the condition while ringing the daemon's alarm now and then:
  /// each ring ends its wait for requests and brings a whole pass, the
  /// terminating queue included.
  bool Driven(const std::function<bool()>& condition, std::chrono::milliseconds deadline = 20s) {
    auto next = std::chrono::steady_clock::now();
    return WaitFor(
        [&] {
          if (condition()) return true;
          if (std::chrono::steady_clock::now() >= next) {
            daemon().Signal(SIGALRM);
            next = std::chrono::steady_clock::now() + 250ms;
          }
          return false;
        },
        deadline);
  }
  /// Some line of the exit log holds both parts.
  bool Logged(const std::string& part, const std::string& other) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(instance().lgc(), ec)) {
      if (entry.path().filename().string().rfind("kd_qm_exit_", 0) != 0) continue;
      std::istringstream lines(ReadFile(entry.path().string()));
      for (std::string line; std::getline(lines, line);)
        if (Has(line, part) && Has(line, other)) return true;
    }
    return false;
  }
  /// The daemon has ended with the code, its request pipe removed and its lock released.
  void ExpectEnded(int code) {
    ASSERT_TRUE(daemon().WaitExit(10s));
    EXPECT_EQ(daemon().exit_code(), code);
    EXPECT_FALSE(Exists(RequestPipe()));
    EXPECT_EQ(ReadFile(instance().work() + "sem/KD_QM_MAIN.sem"), "");
  }
};

// Three jobs that ignore SIGINT are deleted with a hard timeout of 1 second:
// one by signals only, one through a kill program that hangs (and ignores
// SIGINT too), one through a kill program that fails at once. Every group,
// the hanging kill program's included, ends by SIGKILL, and each deleting
// client is answered with its job's pid.
TEST_F(ReliabilityTest, StubbornJobsAndHangingOrFailingKillProgramsEndBySigkill) {
  ASSERT_EQ(Ask(queue_init, "q1 3").text, Ok("Queue initialised"));
  const std::vector<std::string> jobs{"plain", "hang", "fail"};
  std::vector<long> pids;
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    // Hard timeout 1 s; a kill job waits 2 s before its own SIGINT, so it has
    // ignored SIGINT by then.
    ASSERT_EQ(Submit("q1", jobs[i], "-S 1/2"), Ok(std::to_string(i + 1)));
    pids.push_back(Pid(Dir(jobs[i])));
    ASSERT_GT(pids.back(), 1);
  }
  std::vector<std::unique_ptr<RawClient>> clients;
  for (const char* del : {"1 1", "2 1 -e 0 -K hang.sh", "3 1 -e 0 -K fail.sh"}) {
    clients.push_back(NewClient());
    RawClient& c = *clients.back();
    ASSERT_TRUE(c.CreatePipe() && c.OpenForAnswer());
    ASSERT_TRUE(c.Send(std::to_string(queue_del_entry) + " " + std::to_string(c.id()) + " " + del + "\n"));
  }
  ASSERT_TRUE(WaitFor([&] { return !ReadFile(KillDir("fail") + "/args").empty(); }, 10s));
  const long hang = Pid(KillDir("hang"));
  ASSERT_GT(hang, 1);
  EXPECT_TRUE(
      Driven([&] { return GroupGone(pids[0]) && GroupGone(pids[1]) && GroupGone(pids[2]) && GroupGone(hang); }));
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    const RawAnswer a = clients[i]->ReadAnswer(10s);
    EXPECT_TRUE(a.complete) << jobs[i];
    EXPECT_EQ(a.text, Ok(std::to_string(pids[i]))) << jobs[i];
  }
  const std::string exe = instance().bin() + "/stubborn.sh";
  EXPECT_EQ(ReadFile(KillDir("fail") + "/args"),
            "-p " + std::to_string(pids[2]) + " -n 3 -j fail -d single -w 1 -- \"" + exe + "\" " + Dir("fail") + "\n");
  EXPECT_TRUE(Driven([&] { return Counts("q1") == "pending=0\tholding=0\tjob_limit: 3/3"; }));
  EXPECT_TRUE(Driven([&] { return Logged("CTX:0;PID:" + std::to_string(hang) + ";name:custom_kill_hang;", ""); }));
  EXPECT_TRUE(Logged("name:plain;", ";Gracefull stop requested;"));
  EXPECT_TRUE(Logged("name:hang;", ";Custom kill process;"));
  EXPECT_TRUE(Logged("name:fail;", ";Custom kill process;"));
  EXPECT_TRUE(Logged("name:custom_kill_fail;", ";Job exited with status [exit code: 3];"));
  for (const std::string& job : jobs) EXPECT_FALSE(Logged("name:" + job + ";", "exited with status")) << job;
  EXPECT_TRUE(WaitNoZombies());
}

// Answer pipes are opened without following a symbolic link, and only a FIFO
// is written to: a link (to a file, or even to another client's FIFO) and a
// regular file planted under a requester's pipe name are refused and left
// untouched. Of two clients of a listing far larger than a pipe holds, one
// reads a little and goes away, the other never reads: neither holds the
// daemon, and every answer writer ends on its own.
TEST_F(ReliabilityTest, PlantedVanishingAndStallingAnswerPipesHoldNothing) {
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

  ASSERT_EQ(Ask(queue_init, "q1 1").text, Ok("Queue initialised"));
  const std::string name(900, 'n');
  for (int i = 0; i < 90; ++i)
    ASSERT_EQ(Ask(queue_submit, "q1 -T 2099-01-01_00:00 -j " + name + std::to_string(i) + " stubborn.sh x").text,
              Ok(std::to_string(i + 1)));
  auto vanishing = NewClient(), stalling = NewClient();
  for (RawClient* c : {vanishing.get(), stalling.get()}) {
    ASSERT_TRUE(c->CreatePipe() && c->OpenForAnswer());
    ASSERT_TRUE(c->Send(std::to_string(queue_sho_full) + " " + std::to_string(c->id()) + " q1\n"));
  }
  ASSERT_TRUE(WaitFor([&] { return vanishing->AnythingArrived(); }, 10s));
  vanishing->CloseAnswer();
  unlink(vanishing->answer_pipe().c_str());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Counts("q1"), "pending=0\tholding=90\tjob_limit: 1/1");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);

  EXPECT_TRUE(WaitFor([&] { return ChildrenOf(daemon_pid(), false).empty(); }, 20s));
  EXPECT_EQ(ReadFile(victim), "precious\n");
  EXPECT_EQ(ReadFile(plain->answer_pipe()), "planted\n");
  EXPECT_FALSE(other->AnythingArrived());
  EXPECT_EQ(Ask(process_signal).text.substr(0, 1), "0");
}

// Shutdown with jobs running. By SIGTERM the daemon answers nobody, and the
// listing that removes the triples is part of that answer: the jobs are left
// running. By request the triples are listed and removed, which stops their
// groups (SIGINT, then SIGKILL for jobs that ignore it). Either way the
// request pipe is removed, the lock released and waiting jobs are not run.
TEST_F(ReliabilityTest, ShutdownWithRunningJobsBySigtermAndByRequest) {
  ASSERT_EQ(Ask(queue_init, "q1 2").text, Ok("Queue initialised"));
  ASSERT_EQ(Submit("q1", "a"), Ok("1"));
  ASSERT_EQ(Submit("q1", "later", "-e 5 -T 2099-01-01_00:00"), Ok("2"));
  const long a = Pid(Dir("a"));
  ASSERT_GT(a, 1);
  daemon().Signal(SIGTERM);
  ExpectEnded(1);
  EXPECT_EQ(kill(static_cast<pid_t>(-a), 0), 0);
  kill(static_cast<pid_t>(-a), SIGKILL);

  ASSERT_TRUE(StartDaemon());
  ASSERT_TRUE(WaitReady());
  ASSERT_EQ(Ask(queue_init, "q1 2").text, Ok("Queue initialised"));
  ASSERT_EQ(Submit("q1", "b"), Ok("1"));
  ASSERT_EQ(Submit("q1", "c"), Ok("2"));
  ASSERT_EQ(Submit("q1", "later2", "-e 5 -T 2099-01-01_00:00"), Ok("3"));
  const long b = Pid(Dir("b")), c = Pid(Dir("c"));
  ASSERT_TRUE(b > 1 && c > 1);
  const RawAnswer answer = Ask(shut_down);
  EXPECT_TRUE(answer.complete);
  EXPECT_TRUE(Has(answer.text, "STATUS=SUCCESS MSG=shutdown completed\n")) << answer.text;
  ExpectEnded(0);
  EXPECT_TRUE(WaitFor([&] { return GroupGone(b) && GroupGone(c); }, 10s));
  EXPECT_FALSE(Exists(Dir("later")) || Exists(Dir("later2")));
}

// The log directory becomes unwritable (a file stands in its place, which
// stops root as well): jobs still run and requests are still answered; once
// it is back, tracing resumes. Jobs are started by execv: words that a shell
// would expand reach the program as they were given.
TEST_F(ReliabilityTest, JobsRunWithoutALogDirectoryAndGetTheirWordsUnexpanded) {
  ASSERT_EQ(Ask(queue_init, "q1 1").text, Ok("Queue initialised"));
  const std::string lgc = instance().root() + "/log";
  const std::string away = instance().root() + "/log.away";
  ASSERT_EQ(rename(lgc.c_str(), away.c_str()), 0);
  WriteFile(lgc, "");
  const std::string marker = instance().root() + "/expanded";
  const std::string words =
      "$(touch${IFS}" + marker + ") `touch${IFS}" + marker + "`;touch${IFS}" + marker + " * $HOME";
  Go("a");
  EXPECT_EQ(Ask(queue_submit, "q1 -j a stubborn.sh " + Dir("a") + " " + words).text, Ok("1"));
  const long a = Pid(Dir("a"));
  EXPECT_TRUE(Driven([&] { return GroupGone(a) && Counts("q1") == "pending=0\tholding=0\tjob_limit: 1/1"; }));
  EXPECT_EQ(ReadFile(lgc), "");
  EXPECT_EQ(ReadFile(Dir("a") + "/args"), Dir("a") + "\n$(touch${IFS}" + marker + ")\n`touch${IFS}" + marker +
                                              "`;touch${IFS}" + marker + "\n*\n$HOME\n");
  EXPECT_FALSE(Exists(marker));

  ASSERT_EQ(unlink(lgc.c_str()), 0);
  ASSERT_EQ(rename(away.c_str(), lgc.c_str()), 0);
  Go("b");
  EXPECT_EQ(Submit("q1", "b"), Ok("2"));
  EXPECT_TRUE(WaitForTrace("Allocated entry number [2] for job [b]"));
  EXPECT_TRUE(Driven([&] { return Logged("CTX:2;PID:", ""); }));
  EXPECT_FALSE(Logged("CTX:1;PID:", ""));  // lost while the directory was away
}

}  // namespace
}  // namespace kdtest
