// Scheduling and job supervision against the running daemon: priorities and
// the cascade, priority slots, global resources, allocations, synchronised
// jobs, follow-ups and restarts, expiry, the exit log, the job listings and
// job programs that cannot run.
//
// Every job runs job.sh: it appends its arguments to <dir>/args, writes
// <dir>/job.pid, waits for <dir>/go and exits with the line of <dir>/codes
// that matches its run.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;

constexpr const char* kJobScript =
    "#!/bin/sh\nd=$1\nmkdir -p \"$d\"\necho \"$@\" >> \"$d/args\"\necho $$ > \"$d/job.pid\"\n"
    "while [ ! -e \"$d/go\" ]; do /bin/sleep 0.05; done\n"
    "code=$(sed -n \"$(wc -l < \"$d/args\")p\" \"$d/codes\" 2>/dev/null)\nexit ${code:-0}\n";

std::string Ok(const std::string& msg) { return "0STATUS=SUCCESS MSG=" + msg + "\n"; }

// Times of this century are masked; the all-zero start time (1900) and the
// far start time of held jobs stay.
constexpr std::string_view kTimeOfNow = "2099-99-99 99:99:99";
constexpr std::string_view kFarTime = "2099-01-01 00:00:00";
std::string MaskNow(std::string text) {
  text = kdtest::ReplaceShape(std::move(text), kFarTime, "\x01");
  text = kdtest::ReplaceShape(std::move(text), kTimeOfNow, "T");
  return kdtest::ReplaceShape(std::move(text), "\x01", kFarTime);
}

/// The process has ended and was reaped.
bool Gone(pid_t pid) { return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH; }

class SchedulingTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    WriteFile(instance().bin() + "job.sh", kJobScript, 0755);
  }
  std::string Dir(const std::string& job) { return instance().root() + "/jobs/" + job; }
  /// Submits job.sh in the job's directory: queue field, options, job name.
  std::string Submit(const std::string& queue, const std::string& job, const std::string& options = "") {
    return Ask(queue_submit, queue + " " + options + (options.empty() ? "" : " ") + "-j " + job + " job.sh " + Dir(job))
        .text;
  }
  /// Prepares the job's directory: file names with their contents ("go", "codes" ...).
  void Prepare(const std::string& job, const std::vector<std::pair<std::string, std::string>>& files) {
    std::filesystem::create_directories(Dir(job));
    for (const auto& [name, content] : files) WriteFile(Dir(job) + "/" + name, content);
  }
  void Release(const std::string& job) { Prepare(job, {{"go", ""}}); }
  bool Started(const std::string& job) { return WaitFor([&] { return !NotStarted(job); }, 10s); }
  bool NotStarted(const std::string& job) { return !Exists(Dir(job) + "/job.pid"); }
  pid_t Pid(const std::string& job) { return static_cast<pid_t>(std::atol(ReadFile(Dir(job) + "/job.pid").c_str())); }
  std::string Args(const std::string& job) { return ReadFile(Dir(job) + "/args"); }
  /// Waits until the daemon has reaped the job's (last) process.
  bool Ended(const std::string& job) { return WaitFor([&] { return Gone(Pid(job)); }, 10s); }
  /// Waits for the condition, asking for a scheduling pass every 200 ms: a
  /// time limit is noticed by the next pass only.
  bool Driven(const std::function<bool()>& condition) {
    auto next = std::chrono::steady_clock::now();
    return WaitFor([&] {
      if (condition()) return true;
      if (std::chrono::steady_clock::now() < next) return false;
      Ask(process_signal);
      next = std::chrono::steady_clock::now() + 200ms;
      return false;
    }, 20s);
  }
  /// The exit log without time stamps, other times and process ids masked.
  std::vector<std::string> ExitLog() {
    std::vector<std::string> lines;
    for (const auto& entry : std::filesystem::directory_iterator(instance().lgc())) {
      if (entry.path().filename().string().rfind("kd_qm_exit_", 0) != 0) continue;
      std::istringstream in(ReadFile(entry.path().string()));
      for (std::string line; std::getline(in, line);)
        lines.push_back(kdtest::ReplaceDigitsAfter(MaskNow(line.substr(20)), "PID:", "n"));
    }
    return lines;
  }
  /// Waits until the exit log holds every one of the lines.
  bool Logged(const std::vector<std::string>& lines) {
    return WaitFor([&] {
      const std::vector<std::string> log = ExitLog();
      return std::all_of(lines.begin(), lines.end(), [&](auto& l) { return std::count(log.begin(), log.end(), l); });
    }, 10s);
  }
  /// A listing with the job's process id and the times of today masked.
  std::string Masked(std::string text, const std::string& job) {
    const std::string pid = std::to_string(Pid(job));
    const std::string padded = std::string(8 - pid.size(), ' ') + pid;
    for (std::size_t at; (at = text.find(padded)) != std::string::npos;) text.replace(at, padded.size(), "     PID");
    for (std::size_t at; (at = text.find(pid)) != std::string::npos;) text.replace(at, pid.size(), "PID");
    return MaskNow(text);
  }
  /// Local time in some seconds as a -T/-W/-E value.
  static std::string In(int seconds) {
    const time_t t = time(nullptr) + seconds;
    struct tm tm {};
    localtime_r(&t, &tm);
    char text[32];
    strftime(text, sizeof text, "%F_%T", &tm);
    return text;
  }
  std::string Counts(const std::string& queue) {
    const std::string view = Ask(queue_sho_status, queue).text;
    const std::size_t at = view.find("pending=");
    return at == std::string::npos ? view : view.substr(at, view.find('\n', at) - at);
  }
};

/// For the checks that read the flow lines of the trace (level 2).
class SchedulingTracedTest : public SchedulingTest {
 protected:
  int TraceLevel() const override { return 2; }
};

// The pending queue is in priority order (0 first, then larger numbers,
// arrival order within a level); with job limit 1 the jobs start in that
// order. A directory and a file without execute bit pass admission (they
// exist); their process ends with 127 and frees the place.
TEST_F(SchedulingTest, PriorityOrderUnrunnableJobsAndPrioritySlots) {
  ASSERT_EQ(Ask(queue_init, "q1 1").text, Ok("Queue initialised"));
  EXPECT_EQ(Submit("q1", "first"), Ok("1"));
  ASSERT_TRUE(Started("first"));
  const std::vector<std::pair<std::string, std::string>> jobs{
      {"p3", "-p 3"}, {"p0", ""}, {"p5a", "-p 5"}, {"p5b", "-p 5"}, {"p1", "-p 1"}};
  for (const auto& [job, options] : jobs) Submit("q1", job, options);
  // With one place, a wrong start would hold the expected job back for good.
  const std::vector<std::string> order{"first", "p0", "p5a", "p5b", "p3", "p1"};
  for (std::size_t i = 1; i < order.size(); ++i) {
    Release(order[i - 1]);
    ASSERT_TRUE(Started(order[i])) << order[i];
  }
  Release("p1");
  EXPECT_TRUE(Ended("p1"));

  std::filesystem::create_directory(instance().bin() + "adir");
  WriteFile(instance().bin() + "noexec.sh", kJobScript, 0644);
  EXPECT_EQ(Ask(queue_submit, "q1 -j dir adir").text, Ok("7"));
  EXPECT_EQ(Ask(queue_submit, "q1 -j noexec noexec.sh " + Dir("noexec")).text, Ok("8"));
  const std::string failed = ";submit:T;start:T;Job exited with status [exit code: 127];\"" + instance().bin();
  EXPECT_TRUE(Logged({"CTX:7;PID:n;name:dir" + failed + "/adir\";",
                      "CTX:8;PID:n;name:noexec" + failed + "/noexec.sh\" " + Dir("noexec") + ";"}));
  EXPECT_TRUE(NotStarted("noexec"));
  EXPECT_TRUE(WaitFor([&] { return Counts("q1") == "pending=0\tholding=0\tjob_limit: 1/1"; }, 10s));

  // Job limit 1 with one slot for priorities from 1: a job of priority 3 starts
  // on the full queue, a second one waits for the slot, priority 0 has no slot.
  ASSERT_EQ(Ask(queue_init, "q2/r -p 1=1 1").text, Ok("Queue initialised"));
  Submit("q2", "full");
  ASSERT_TRUE(Started("full"));
  Submit("q2", "low");
  Submit("q2", "high1", "-p 3");
  ASSERT_TRUE(Started("high1"));
  Submit("q2", "high2", "-p 3");
  EXPECT_EQ(Ask(queue_sho_status, "q2").text,
            "0que_name=q2\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\tpending=2\tholding=0\t"
            "job_limit: 0/1\nexecuting queue(s)\nName:  r\tjob_limit: 0/1 p1=1/1 \tis not allocated \tstatus: running "
            "\tallocation mode: occupied \tallocation: *\nSTATUS=SUCCESS MSG=ok\n");
  Release("high1");
  ASSERT_TRUE(Started("high2"));
  EXPECT_TRUE(NotStarted("low"));
  Release("full");
  EXPECT_TRUE(Started("low"));
}

// r runs a job of allocation X. A (priority 5, allocation Y) holds B (3, X)
// back on r; A starts on s once s has dropped its stale allocation, and the
// cascade to level 3 then starts B on r within the same pass.
TEST_F(SchedulingTracedTest, CascadeStartsTheNextLevelOnceTheHigherOneHasStarted) {
  ASSERT_EQ(Ask(queue_init, "q1/r/s 2").text, Ok("Queue initialised"));
  EXPECT_EQ(Submit("q1/X/r", "x"), Ok("1"));
  ASSERT_TRUE(Started("x"));
  EXPECT_EQ(Ask(queue_block, "q1").text, Ok("Queue is blocked"));
  EXPECT_EQ(Ask(queue_set, "q1/s allocation volatile W").text,
            Ok("Queue allocation mode set to volatile; allocate is \"W\""));
  EXPECT_EQ(Submit("q1/Y", "a", "-p 5"), Ok("2"));
  EXPECT_EQ(Submit("q1/X", "b", "-p 3"), Ok("3"));
  EXPECT_EQ(Counts("q1"), "pending=0\tholding=2\tjob_limit: 1/2");
  EXPECT_EQ(Ask(queue_start, "q1").text, Ok("Queue started"));
  ASSERT_TRUE(Started("a") && Started("b"));
  EXPECT_EQ(Args("a"), Dir("a") + " -d s\n");
  EXPECT_EQ(Args("b"), Dir("b") + " -d r\n");
  const std::string trace = TraceLog();
  const std::size_t cascade = trace.find("All pending jobs with highest prio 5 started. Try to start jobs with prio 3");
  EXPECT_NE(cascade, std::string::npos);
  EXPECT_LT(trace.find("Got job with higher priority but different allocation. Wait for jobs to complete - entry [2] "
                       "prio 5 server "), cascade);
}

// One unit of "lic": the second job waits although the queue has room, and
// starts when the first has ended; the resource goes with its last job.
// Resource "all": one start when the last of the three queues is reached,
// with one "-d" pair of each. A permanent queue keeps the allocation of its
// job family after the job has ended and starts only that family; an
// occupied queue is free again.
TEST_F(SchedulingTest, GlobalResourcesSynchronisedJobsAndAllocations) {
  ASSERT_EQ(Ask(queue_init, "q1 3").text, Ok("Queue initialised"));
  Submit("q1", "a", "-G lic=1");
  ASSERT_TRUE(Started("a"));
  Submit("q1", "b", "-G lic=1");
  const std::string header = "0global resource\tall_slots\tused_slots\tregistered_users\n";
  EXPECT_EQ(Ask(show_global_resources).text, header +
                                                  "lic\t1\t1\t2\nqueue: qu_admin\nqueue: q1\n[exec]\na: lic(W,1/1) \n\n"
                                                  "[pending]\nb: lic(W,1/1) \n\n\nSTATUS=SUCCESS MSG=Ok\n");
  EXPECT_TRUE(NotStarted("b"));
  Release("a");
  ASSERT_TRUE(Started("b"));
  Release("b");
  ASSERT_TRUE(Ended("b"));
  EXPECT_TRUE(WaitFor([&] { return Ask(show_global_resources).text == header +
                                          "queue: qu_admin\nqueue: q1\n\nSTATUS=SUCCESS MSG=Ok\n"; }, 10s));

  ASSERT_EQ(Ask(queue_init, "q2/a/b/c 1").text, Ok("Queue initialised"));
  EXPECT_EQ(Submit("q2//all", "sync"), Ok("3"));
  ASSERT_TRUE(Started("sync"));
  EXPECT_EQ(Args("sync"), Dir("sync") + " -d a -d b -d c\n");
  EXPECT_TRUE(WaitForTrace("[CTX:3] now all resource queues are synchronized, reset state of resource queues to idle"));
  Release("sync");
  ASSERT_TRUE(Ended("sync"));
  Submit("q2", "next");
  ASSERT_TRUE(Started("next"));
  EXPECT_EQ(Args("next"), Dir("next") + " -d a\n");

  for (const std::string q : {"qp", "qo"}) ASSERT_EQ(Ask(queue_init, q + "/r 1").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_set, "qp allocation permanent").text,
            Ok("Queue allocation mode set to permanent; allocate is empty string"));
  for (const std::string q : {"qp", "qo"}) {
    Submit(q + "/X", q + "x");
    ASSERT_TRUE(Started(q + "x"));
    Release(q + "x");
    ASSERT_TRUE(Ended(q + "x"));
    Submit(q + "/Y", q + "y");
  }
  ASSERT_TRUE(Started("qoy"));
  EXPECT_EQ(Args("qoy"), Dir("qoy") + " -d r\n");
  EXPECT_TRUE(NotStarted("qpy"));
  EXPECT_NE(Ask(queue_sho_status, "qp").text.find("Name:  r\tjob_limit: 1/1  \tis not allocated \tstatus: idle "
                                                 "\tallocation mode: permanent \tallocation: X\n"),
            std::string::npos);
  Submit("qp/X", "qpx2");  // behind qpy, yet it is the family's
  ASSERT_TRUE(Started("qpx2"));
  Release("qpx2");
  EXPECT_TRUE(Ended("qpx2") && NotStarted("qpy"));
}

// -R 3 restarts a job that exits 3, three times at most; its fourth exit 3
// starts the follow-up in its place with "-i 3", under the same entry number.
// The exit log holds the creation, every end and every restart note.
TEST_F(SchedulingTest, RestartsThenFollowUpAndTheExitLog) {
  ASSERT_EQ(Ask(queue_init, "q1/r 1").text, Ok("Queue initialised"));
  ASSERT_EQ(Ask(queue_set, "option follow_up 1").text, Ok("Option [follow_up=1] is set."));
  Prepare("a", {{"go", ""}, {"codes", "3\n3\n3\n3\n"}});
  Release("b");
  const std::string command = "-R 3 -j a job.sh " + Dir("a") + " -- -j b job.sh " + Dir("b");
  EXPECT_EQ(Ask(queue_submit, "q1 " + command).text, Ok("1"));
  ASSERT_TRUE(Started("b"));
  const std::string a_run = Dir("a") + " -d r";
  EXPECT_EQ(Args("a"), a_run + "\n" + a_run + "\n" + a_run + "\n" + a_run + "\n");
  EXPECT_EQ(Args("b"), Dir("b") + " -i 3 -d r -- job.sh " + a_run + "\n");
  const std::string exe = "\"" + instance().bin() + "/job.sh\" ";
  const std::string a_end =
      "CTX:1;PID:n;name:a;submit:T;start:T;Job exited with status [exit code: 3];" + exe + a_run + ";";
  std::vector<std::string> expected{"CTX:1;name:a;submit:T;start:00-00-00 00:00:00;command: " + command};
  for (int restart = 0; restart < 3; ++restart)
    expected.insert(expected.end(), {a_end, "CTX:1;PID:n;name:aJob restart"});
  expected.insert(expected.end(),
                  {a_end, "CTX:1;PID:n;name:aJob not restarted - job restarts too often (too many restarts)",
                   "CTX:1;PID:n;name:b;submit:T;start:T;Job exited with status [exit code: 0];" + exe + Dir("b") +
                       " -i 3 -d r -- job.sh " + a_run + ";"});
  EXPECT_TRUE(WaitFor([&] { return ExitLog().size() == expected.size(); }, 10s));
  EXPECT_EQ(ExitLog(), expected);
  EXPECT_TRUE(WaitFor([&] { return Counts("q1") == "pending=0\tholding=0\tjob_limit: 1/1"; }, 10s));
}

// A job pending behind a running one passes its latest start time (-W): it
// is run outside any resource with "-d -1". One passing its end time (-E) is
// run with its pending-state code, by default -2. A running job past its end
// time is stopped gracefully.
TEST_F(SchedulingTest, LatestStartAndEndTimesExpireJobs) {
  ASSERT_EQ(Ask(queue_init, "q1 1").text, Ok("Queue initialised"));
  Submit("q1", "first", "-E " + In(3));
  ASSERT_TRUE(Started("first"));
  for (const std::string job : {"w", "e"}) Release(job);
  Submit("q1", "w", "-W " + In(2));
  Submit("q1", "e", "-E " + In(2));
  EXPECT_TRUE(NotStarted("w") && NotStarted("e"));
  ASSERT_TRUE(Driven([&] { return !NotStarted("w") && !NotStarted("e") && Gone(Pid("first")); }));
  EXPECT_EQ(Args("w"), Dir("w") + " -d -1\n");
  EXPECT_EQ(Args("e"), Dir("e") + " -d -2\n");
  EXPECT_TRUE(Driven([&] { return Counts("q1") == "pending=0\tholding=0\tjob_limit: 1/1"; }));
  // The queue "single" adds no "-d" pair.
  const std::string first = "CTX:1;PID:n;name:first;submit:T;start:T;";
  const std::string command = ";\"" + instance().bin() + "/job.sh\" " + Dir("first") + ";";
  EXPECT_TRUE(Logged({first + "Gracefull stop requested" + command,
                      first + "Job terminated with signal [exit code: 2]" + command}));
}

// Every listing mode with a running, a pending and a holding job.
TEST_F(SchedulingTest, ListingsShowTheJobsInEveryMode) {
  ASSERT_EQ(Ask(queue_init, "q1/r 1").text, Ok("Queue initialised"));
  EXPECT_EQ(Submit("q1/X", "a", "-p 2"), Ok("1"));
  ASSERT_TRUE(Started("a"));
  EXPECT_EQ(Submit("q1", "b", "-p 4 -G lic=2"), Ok("2"));
  EXPECT_EQ(Submit("q1", "c", "-T 2099-01-01_00:00:00"), Ok("3"));
  const std::string queue = "0que_name= q1\tstatus= running\tbalancing= fill/ordered\t allocation mode= occupied\n";
  const std::string resource = "Name:  r\tjob_limit: 0/1  \tallocated:        X \tstatus: running \tallocation mode: "
                               "occupied \tallocation: X\n";
  const std::string end = "----------------------------------------------------------\nSTATUS=SUCCESS MSG=ok\n";
  const std::string sections[] = {"holding queue\n", "pending queue\n", "executing queue(s)\n"};
  // Short lines: entry, name column, priority, allocation and resources, pid, planned start, global resources.
  const auto table = [&](const std::string& header, const std::string& c, const std::string& b, const std::string& a) {
    return queue + header + sections[0] + c + " 0         0 2099-01-01 00:00:00\n" + sections[1] + b +
           " 4         0 1900-01-00 00:00:00  lic(R,0/2) \n" + sections[2] + resource + a +
           " 2 X/*      PID 1900-01-00 00:00:00\n" + end;
  };
  EXPECT_EQ(Masked(Ask(queue_sho, "q1").text, "a"),
            table("Entry   Job           Priority Allocate             PID  Date       Time      Resources\n",
                  "  3  job.sh                 ", "  2  job.sh                 ", "  1  job.sh                 "));
  EXPECT_EQ(Masked(Ask(queue_sho_name, "q1/r").text, "a"),
            table("Entry  Job Name       Priority Allocate             PID  Date       Time      Resources\n",
                  "  3    c                    ", "  2    b                    ", "  1    a                    "));
  const std::string exe = instance().bin() + "/job.sh";
  const auto block = [&](const std::string& head, const std::string& job, const std::string& more) {
    return "Entry: " + head + "\tJob name: " + job + "\tServer: \nFile: \"" + exe + "\" \"" + Dir(job) + "\"" + more;
  };
  const std::string times = "\nSubmit time= T\nStart time= 00-00-00 00:00:00\nWait time= NOT_SPECIFIED\nEnd time= "
                            "NOT_SPECIFIED\n";
  EXPECT_EQ(Masked(Ask(queue_sho_full, "q1").text, "a"),
            queue + sections[0] + "\n" + block("3", "c", "\nPriority: 0;  Allocate: ;  Resource: *;  PID: 0") + times +
                sections[1] + "\n" + block("2", "b", "\nPriority: 4;  Allocate: ;  Resource: *;  PID: 0") + times +
                "Resources= lic(R,0/2) \n" + sections[2] + "\n" + resource +
                block("1", "a", " \"-d\" \"r\"\nPriority: 2;  Allocate: X;  Resource: *;  PID: PID\nSubmit time= T\n"
                                "Start time= T\nWait time= NOT_SPECIFIED\nEnd time= NOT_SPECIFIED\n") +
                end);
  EXPECT_EQ(Ask(queue_sho_status, "q1").text,
            "0que_name=q1\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\tpending=1\tholding=1\t"
            "job_limit: 0/1\nexecuting queue(s)\n" + resource + "STATUS=SUCCESS MSG=ok\n");
  const std::string command = ",\"" + exe + "\" ";
  EXPECT_EQ(Masked(Ask(queue_sho_csv, "q1").text, "a"), "0q1/r,exec,a,2,PID,1" + command + Dir("a") + " -d r\n" +
                                                            "q1,pending,b,4,0,2" + command + Dir("b") + "\n" +
                                                            "q1,holding,c,0,0,3" + command + Dir("c") +
                                                            "\nSTATUS=SUCCESS MSG=ok\n");
}

}  // namespace
}  // namespace kdtest
