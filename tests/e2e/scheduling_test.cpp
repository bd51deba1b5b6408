// Scheduling and job supervision against the running daemon: priorities and
// the cascade, priority slots, global resources, allocations, synchronised
// jobs, follow-ups and restarts, expiry, the exit log, the job listings and
// job programs that cannot run. Every job runs the fixture's job.sh.
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;

/// The cascade is read from the flow lines of the trace (level 2).
class SchedulingTest : public SharedDaemonTest<2> {
 protected:
  /// A listing with the process id of the job masked, in every form a listing
  /// shows it, and the times of today.
  std::string Masked(std::string text, const std::string& job) const {
    const std::string pid = std::to_string(Pid(job));
    for (const auto& [shown, mask] : {std::pair{std::string(8 - pid.size(), ' ') + pid, std::string("     PID")},
                                      {"PID: " + pid + "\n", "PID: PID\n"}, {"," + pid + ",", ",PID,"}})
      for (std::size_t at; (at = text.find(shown)) != std::string::npos;) text.replace(at, shown.size(), mask);
    return MaskTimes(text);
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
};

// The pending queue is in priority order (0 first, then larger numbers,
// arrival order within a level); with job limit 1 the jobs start in that
// order. With one place, a wrong start would hold the expected job back for good.
TEST_F(SchedulingTest, PriorityOrderDecidesWhichPendingJobStartsNext) {
  ASSERT_EQ(Ask(queue_init, "prio 1").text, kInitialised);
  Entry(Submit("prio", "first"));
  ASSERT_TRUE(Started("first"));
  for (const auto& [job, options] : std::vector<std::pair<std::string, std::string>>{
           {"p3", "-p 3"}, {"p0", ""}, {"p5a", "-p 5"}, {"p5b", "-p 5"}, {"p1", "-p 1"}})
    Entry(Submit("prio", job, options));
  const std::vector<std::string> order{"first", "p0", "p5a", "p5b", "p3", "p1"};
  for (std::size_t i = 1; i < order.size(); ++i) {
    Release(order[i - 1]);
    ASSERT_TRUE(Started(order[i])) << order[i];
  }
  Release("p1");
  EXPECT_TRUE(Ended("p1"));
}

// A directory and a file without execute bit pass admission (they exist);
// their process ends with 127 and frees the place.
TEST_F(SchedulingTest, ProgramsThatCannotRunEndWith127AndFreeTheirPlace) {
  ASSERT_EQ(Ask(queue_init, "unrun 1").text, kInitialised);
  std::filesystem::create_directory(instance().bin() + "adir");
  WriteFile(instance().bin() + "noexec.sh", ReadFile(instance().bin() + "job.sh"), 0644);
  const std::string dir = Entry(Ask(queue_submit, "unrun -j dir adir").text);
  const std::string noexec = Entry(Ask(queue_submit, "unrun -j noexec noexec.sh " + Dir("noexec")).text);
  const std::string failed = ";submit:T;start:T;Job exited with status [exit code: 127];\"" + instance().bin();
  EXPECT_TRUE(Logged({"CTX:" + dir + ";PID:n;name:dir" + failed + "/adir\";",
                      "CTX:" + noexec + ";PID:n;name:noexec" + failed + "/noexec.sh\" " + Dir("noexec") + ";"}));
  EXPECT_TRUE(NotStarted("noexec"));
  EXPECT_TRUE(Driven([&] { return Counts("unrun") == "pending=0\tholding=0\tjob_limit: 1/1"; }));
}

// Job limit 1 with one slot for priorities from 1: a job of priority 3 starts
// on the full queue, a second one waits for the slot, priority 0 has no slot.
TEST_F(SchedulingTest, APrioritySlotLetsOneHigherJobPastTheFullQueue) {
  ASSERT_EQ(Ask(queue_init, "slots/r -p 1=1 1").text, kInitialised);
  Entry(Submit("slots", "full"));
  ASSERT_TRUE(Started("full"));
  Entry(Submit("slots", "low"));
  Entry(Submit("slots", "high1", "-p 3"));
  ASSERT_TRUE(Started("high1"));
  Entry(Submit("slots", "high2", "-p 3"));
  EXPECT_EQ(Ask(queue_sho_status, "slots").text,
            "0que_name=slots\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\tpending=2\tholding=0\t"
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
TEST_F(SchedulingTest, CascadeStartsTheNextLevelOnceTheHigherOneHasStarted) {
  ASSERT_EQ(Ask(queue_init, "cas/r/s 2").text, kInitialised);
  Entry(Submit("cas/X/r", "x"));
  ASSERT_TRUE(Started("x"));
  EXPECT_EQ(Ask(queue_block, "cas").text, Ok("Queue is blocked"));
  EXPECT_EQ(Ask(queue_set, "cas/s allocation volatile W").text,
            Ok("Queue allocation mode set to volatile; allocate is \"W\""));
  const std::string a = Entry(Submit("cas/Y", "a", "-p 5"));
  Entry(Submit("cas/X", "b", "-p 3"));
  EXPECT_EQ(Counts("cas"), "pending=0\tholding=2\tjob_limit: 1/2");
  EXPECT_EQ(Ask(queue_start, "cas").text, Ok("Queue started"));
  ASSERT_TRUE(Started("a") && Started("b"));
  EXPECT_EQ(Args("a"), Dir("a") + " -d s\n");
  EXPECT_EQ(Args("b"), Dir("b") + " -d r\n");
  const std::string trace = TraceLog();
  const std::size_t cascade = trace.find("All pending jobs with highest prio 5 started. Try to start jobs with prio 3");
  EXPECT_NE(cascade, std::string::npos);
  EXPECT_LT(trace.find("Got job with higher priority but different allocation. Wait for jobs to complete - entry [" +
                       a + "] prio 5 server "),
            cascade);
}

// One unit of "lic": the second job waits although the queue has room, and
// starts when the first has ended; the resource goes with its last job.
TEST_F(SchedulingTest, AGlobalResourceHoldsTheSecondJobBackUntilTheFirstHasEnded) {
  ASSERT_EQ(Ask(queue_init, "glob 3").text, kInitialised);
  Entry(Submit("glob", "a", "-G lic=1"));
  ASSERT_TRUE(Started("a"));
  Entry(Submit("glob", "b", "-G lic=1"));
  // Every global resource and every queue is listed; those of this test are checked.
  const std::string view = Ask(show_global_resources).text;
  EXPECT_EQ(view.rfind("0global resource\tall_slots\tused_slots\tregistered_users\n", 0), 0u) << view;
  EXPECT_NE(view.find("\nlic\t1\t1\t2\n"), std::string::npos) << view;
  EXPECT_NE(view.find("\nqueue: glob\n[exec]\na: lic(W,1/1) \n\n[pending]\nb: lic(W,1/1) \n\n"), std::string::npos)
      << view;
  EXPECT_TRUE(view.ends_with("\n\nSTATUS=SUCCESS MSG=Ok\n")) << view;
  EXPECT_TRUE(NotStarted("b"));
  Release("a");
  ASSERT_TRUE(Started("b"));
  Release("b");
  ASSERT_TRUE(Ended("b"));
  EXPECT_TRUE(WaitFor([&] {
    const std::string now = Ask(show_global_resources).text;
    return now.find("\nlic\t") == std::string::npos && now.find("\nqueue: glob\n[") == std::string::npos;
  }, 10s));
}

// Resource "all": one start when the last of the three queues is reached,
// with one "-d" pair of each; the next job then takes the first queue.
TEST_F(SchedulingTest, AJobForAllResourcesStartsOnceWithThePairOfEach) {
  ASSERT_EQ(Ask(queue_init, "sync/a/b/c 1").text, kInitialised);
  const std::string e = Entry(Submit("sync//all", "sync"));
  ASSERT_TRUE(Started("sync"));
  EXPECT_EQ(Args("sync"), Dir("sync") + " -d a -d b -d c\n");
  EXPECT_TRUE(WaitForTrace("[CTX:" + e +
                           "] now all resource queues are synchronized, reset state of resource queues to idle"));
  Release("sync");
  ASSERT_TRUE(Ended("sync"));
  Entry(Submit("sync", "next"));
  ASSERT_TRUE(Started("next"));
  EXPECT_EQ(Args("next"), Dir("next") + " -d a\n");
}

// A permanent queue keeps the allocation of its job family after the job has
// ended and starts only that family; an occupied queue is free again.
TEST_F(SchedulingTest, APermanentQueueKeepsItsFamilyAnOccupiedOneIsFreeAgain) {
  for (const std::string q : {"perm", "occ"}) ASSERT_EQ(Ask(queue_init, q + "/r 1").text, kInitialised);
  EXPECT_EQ(Ask(queue_set, "perm allocation permanent").text,
            Ok("Queue allocation mode set to permanent; allocate is empty string"));
  for (const std::string q : {"perm", "occ"}) {
    Entry(Submit(q + "/X", q + "x"));
    ASSERT_TRUE(Started(q + "x"));
    Release(q + "x");
    ASSERT_TRUE(Ended(q + "x"));
    Entry(Submit(q + "/Y", q + "y"));
  }
  ASSERT_TRUE(Started("occy"));
  EXPECT_EQ(Args("occy"), Dir("occy") + " -d r\n");
  EXPECT_TRUE(NotStarted("permy"));
  EXPECT_NE(Ask(queue_sho_status, "perm").text.find("Name:  r\tjob_limit: 1/1  \tis not allocated \tstatus: idle "
                                                   "\tallocation mode: permanent \tallocation: X\n"),
            std::string::npos);
  Entry(Submit("perm/X", "permx2"));  // behind permy, yet it is the family's
  ASSERT_TRUE(Started("permx2"));
  Release("permx2");
  EXPECT_TRUE(Ended("permx2") && NotStarted("permy"));
}

// -R 3 restarts a job that exits 3, three times at most; its fourth exit 3
// starts the follow-up in its place with "-i 3", under the same entry number.
// The exit log holds the creation, every end and every restart note.
TEST_F(SchedulingTest, RestartsThenFollowUpAndTheExitLog) {
  ASSERT_EQ(Ask(queue_init, "rst/r 1").text, kInitialised);
  ASSERT_EQ(Ask(queue_set, "option follow_up 1").text, Ok("Option [follow_up=1] is set."));
  Prepare("a", {{"go", ""}, {"codes", "3\n3\n3\n3\n"}});
  Release("b");
  const std::string command = "-R 3 -j a job.sh " + Dir("a") + " -- -j b job.sh " + Dir("b");
  const std::string ctx = "CTX:" + Entry(Ask(queue_submit, "rst " + command).text) + ";";
  ASSERT_TRUE(Started("b"));
  const std::string a_run = Dir("a") + " -d r";
  EXPECT_EQ(Args("a"), a_run + "\n" + a_run + "\n" + a_run + "\n" + a_run + "\n");
  EXPECT_EQ(Args("b"), Dir("b") + " -i 3 -d r -- job.sh " + a_run + "\n");
  const std::string exe = "\"" + instance().bin() + "/job.sh\" ";
  const std::string a_end =
      ctx + "PID:n;name:a;submit:T;start:T;Job exited with status [exit code: 3];" + exe + a_run + ";";
  std::vector<std::string> expected{ctx + "name:a;submit:T;start:00-00-00 00:00:00;command: " + command};
  for (int restart = 0; restart < 3; ++restart)
    expected.insert(expected.end(), {a_end, ctx + "PID:n;name:aJob restart"});
  expected.insert(expected.end(),
                  {a_end, ctx + "PID:n;name:aJob not restarted - job restarts too often (too many restarts)",
                   ctx + "PID:n;name:b;submit:T;start:T;Job exited with status [exit code: 0];" + exe + Dir("b") +
                       " -i 3 -d r -- job.sh " + a_run + ";"});
  EXPECT_TRUE(WaitFor([&] { return ExitLog(ctx).size() == expected.size(); }, 10s));
  EXPECT_EQ(ExitLog(ctx), expected);
  EXPECT_TRUE(Driven([&] { return Counts("rst") == "pending=0\tholding=0\tjob_limit: 1/1"; }));
}

// A job pending behind a running one passes its latest start time (-W): it
// is run outside any resource with "-d -1". One passing its end time (-E) is
// run with its pending-state code, by default -2. A running job past its end
// time is stopped gracefully.
TEST_F(SchedulingTest, LatestStartAndEndTimesExpireJobs) {
  ASSERT_EQ(Ask(queue_init, "exp 1").text, kInitialised);
  const std::string first =
      "CTX:" + Entry(Submit("exp", "first", "-E " + In(3))) + ";PID:n;name:first;submit:T;start:T;";
  ASSERT_TRUE(Started("first"));
  for (const std::string job : {"w", "e"}) Release(job);
  Entry(Submit("exp", "w", "-W " + In(2)));
  Entry(Submit("exp", "e", "-E " + In(2)));
  EXPECT_TRUE(NotStarted("w") && NotStarted("e"));
  ASSERT_TRUE(Driven([&] { return !NotStarted("w") && !NotStarted("e") && Gone(Pid("first")); }));
  EXPECT_EQ(Args("w"), Dir("w") + " -d -1\n");
  EXPECT_EQ(Args("e"), Dir("e") + " -d -2\n");
  EXPECT_TRUE(Driven([&] { return Counts("exp") == "pending=0\tholding=0\tjob_limit: 1/1"; }));
  // The queue "single" adds no "-d" pair.
  const std::string command = ";\"" + instance().bin() + "/job.sh\" " + Dir("first") + ";";
  EXPECT_TRUE(Logged({first + "Gracefull stop requested" + command,
                      first + "Job terminated with signal [exit code: 2]" + command}));
}

// Every listing mode with a running, a pending and a holding job.
TEST_F(SchedulingTest, ListingsShowTheJobsInEveryMode) {
  ASSERT_EQ(Ask(queue_init, "list/r 1").text, kInitialised);
  const std::string a = Entry(Submit("list/X", "a", "-p 2"));
  ASSERT_TRUE(Started("a"));
  const std::string b = Entry(Submit("list", "b", "-p 4 -G tape=2"));
  const std::string c = Entry(Submit("list", "c", "-T 2099-01-01_00:00:00"));
  const auto column = [](const std::string& entry) { return std::string(3 - entry.size(), ' ') + entry; };
  const std::string queue = "0que_name= list\tstatus= running\tbalancing= fill/ordered\t allocation mode= occupied\n";
  const std::string resource = "Name:  r\tjob_limit: 0/1  \tallocated:        X \tstatus: running \tallocation mode: "
                               "occupied \tallocation: X\n";
  const std::string end = "----------------------------------------------------------\nSTATUS=SUCCESS MSG=ok\n";
  const std::string sections[] = {"holding queue\n", "pending queue\n", "executing queue(s)\n"};
  // Short lines: entry, name column, priority, allocation and resources, pid, planned start, global resources.
  const auto table = [&](const std::string& header, const std::string& name_c, const std::string& name_b,
                         const std::string& name_a) {
    return queue + header + sections[0] + column(c) + name_c + " 0         0 2099-01-01 00:00:00\n" + sections[1] +
           column(b) + name_b + " 4         0 1900-01-00 00:00:00  tape(R,0/2) \n" + sections[2] + resource +
           column(a) + name_a + " 2 X/*      PID 1900-01-00 00:00:00\n" + end;
  };
  const std::string file = "  job.sh                 ";
  EXPECT_EQ(Masked(Ask(queue_sho, "list").text, "a"),
            table("Entry   Job           Priority Allocate             PID  Date       Time      Resources\n", file,
                  file, file));
  EXPECT_EQ(Masked(Ask(queue_sho_name, "list/r").text, "a"),
            table("Entry  Job Name       Priority Allocate             PID  Date       Time      Resources\n",
                  "    c                    ", "    b                    ", "    a                    "));
  const std::string exe = instance().bin() + "/job.sh";
  const auto block = [&](const std::string& head, const std::string& job, const std::string& more) {
    return "Entry: " + head + "\tJob name: " + job + "\tServer: \nFile: \"" + exe + "\" \"" + Dir(job) + "\"" + more;
  };
  const std::string times = "\nSubmit time= T\nStart time= 00-00-00 00:00:00\nWait time= NOT_SPECIFIED\nEnd time= "
                            "NOT_SPECIFIED\n";
  EXPECT_EQ(Masked(Ask(queue_sho_full, "list").text, "a"),
            queue + sections[0] + "\n" + block(c, "c", "\nPriority: 0;  Allocate: ;  Resource: *;  PID: 0") + times +
                sections[1] + "\n" + block(b, "b", "\nPriority: 4;  Allocate: ;  Resource: *;  PID: 0") + times +
                "Resources= tape(R,0/2) \n" + sections[2] + "\n" + resource +
                block(a, "a", " \"-d\" \"r\"\nPriority: 2;  Allocate: X;  Resource: *;  PID: PID\nSubmit time= T\n"
                              "Start time= T\nWait time= NOT_SPECIFIED\nEnd time= NOT_SPECIFIED\n") +
                end);
  EXPECT_EQ(Ask(queue_sho_status, "list").text,
            "0que_name=list\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\tpending=1\tholding=1\t"
            "job_limit: 0/1\nexecuting queue(s)\n" + resource + "STATUS=SUCCESS MSG=ok\n");
  const std::string command = ",\"" + exe + "\" ";
  EXPECT_EQ(Masked(Ask(queue_sho_csv, "list").text, "a"),
            "0list/r,exec,a,2,PID," + a + command + Dir("a") + " -d r\n" + "list,pending,b,4,0," + b + command +
                Dir("b") + "\n" + "list,holding,c,0,0," + c + command + Dir("c") + "\nSTATUS=SUCCESS MSG=ok\n");
}

}  // namespace
}  // namespace kdtest
