// Queue administration and queue listings against the running daemon: exact
// answers and views, and the input the daemon must take without harm.
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

const std::string kOk = "STATUS=SUCCESS MSG=ok\n";
const std::string kHeader =
    "Entry   Job           Priority Allocate             PID  Date       Time      Resources\n";
const std::string kDashes = "----------------------------------------------------------\n";
const std::string kNoResource = "1STATUS=WARNING MSG=Resource [zz] not found in given queue\n";

std::string QueueLine(const std::string& name, const std::string& status = "running",
                      const std::string& balancing = "fill/ordered", const std::string& alloc = "occupied") {
  return "que_name= " + name + "\tstatus= " + status + "\tbalancing= " + balancing + "\t allocation mode= " + alloc +
         "\n";
}

/// The PrintQue line of a resource queue without jobs.
std::string ResourceLine(const std::string& name, const std::string& limits, const std::string& state = "idle",
                         const std::string& tail = " \tallocation mode: occupied \tallocation: *") {
  return "Name:  " + name + "\tjob_limit: " + limits + "  \tis not allocated \tstatus: " + state + tail + "\n";
}

std::string EmptyView(const std::string& queue_line, const std::string& resources) {
  return queue_line + kHeader + "holding queue\npending queue\nexecuting queue(s)\n" + resources + kDashes;
}

/// The head of a status view of a queue without jobs, up to its job limit.
std::string StatusHead(const std::string& name) {
  return "0que_name=" + name + "\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\tpending=0\t"
         "holding=0\tjob_limit: ";
}

/// Every test names its queues apart: the daemon is shared.
using QueueRequestsTest = SharedDaemonTest<1>;

TEST_F(QueueRequestsTest, InitMakesATripleThatEveryViewShows) {
  EXPECT_EQ(Ask(queue_init, "v1/a/b 2").text, kInitialised);
  EXPECT_EQ(Ask(queue_init, "v2").text, kInitialised);
  const std::string v1 = EmptyView(QueueLine("v1"), ResourceLine("a", "2/2") + ResourceLine("b", "2/2"));
  EXPECT_EQ(Ask(queue_sho, "v1").text, "0" + v1 + kOk);
  EXPECT_EQ(Ask(queue_sho, "v*").text, "0" + v1 + EmptyView(QueueLine("v2"), ResourceLine("single", "1/1")) + kOk);
  EXPECT_EQ(Ask(queue_sho, "*v2").text, "0" + EmptyView(QueueLine("v2"), ResourceLine("single", "1/1")) + kOk);
  EXPECT_EQ(Ask(queue_sho_status, "v1").text,
            StatusHead("v1") + "2/2\nexecuting queue(s)\n" + ResourceLine("a", "2/2") + ResourceLine("b", "2/2") + kOk);
  EXPECT_EQ(Ask(queue_sho_status, "qu_admin").text,
            "0que_name=qu_admin\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\tpending=0\t"
            "holding=0\t\nexecuting queue(s)\n" + kOk);
  // No jobs: the comma-separated view is empty; its resource part is not checked.
  EXPECT_EQ(Ask(queue_sho_csv, "v1/zz").text, "0" + kOk);
  EXPECT_EQ(Ask(queue_sho, "v1/zz").text, NoQueue("v1"));
  EXPECT_EQ(Ask(queue_sho, "x*").text, NoQueue("x*"));
}

// Without a counter word the queue leaves its counter; the slot levels are replaced.
TEST_F(QueueRequestsTest, InitAgainChangesLimitsCountersAndSlotLevels) {
  ASSERT_EQ(Ask(queue_init, "re/a/b 2").text, kInitialised);
  for (const auto& [args, answer] : std::vector<std::pair<std::string, std::string>>{
           {"re/a 5", "Changing job limit for resource queue 'a' to 5"},
           {"re/t_c@srv -p 3=2 4", "New resource queue 't_c@srv' created"},
           {"re/x_y_z@s@t", "New resource queue 'x_y_z@s@t' created"},
           {"re 3 cnt", "Job limit for resource queues changed to 3"},
           {"re/c -p 3=2 7", "Changing job limit for resource queue 'c' to 7"}})
    EXPECT_EQ(Ask(queue_init, args).text, Ok(answer)) << args;
  const std::string tail = " \tis not allocated \tstatus: idle \tallocation mode: occupied \tallocation: *\n";
  EXPECT_EQ(Ask(queue_sho_status, "re").text,
            StatusHead("re") + "3/3\nexecuting queue(s)\nName:  a\tcounter cnt: 3/3 " + tail +
                "Name:  b\tcounter cnt: 3/3 " + tail + "Name: t c@srv\tjob_limit: 7/7 p3=0/2" + tail +
                "Name: x_y z@s@t\tcounter cnt: 3/3 " + tail + kOk);
}

TEST_F(QueueRequestsTest, NamesOfDigitsAndMalformedSlotLevelsAreRefusedOddLimitsTaken) {
  for (const char* name : {"123", "0", "", "/x"})
    EXPECT_EQ(Ask(queue_init, name).text,
              std::string("2STATUS=ERROR MSG=Queue names that are composed only of numbers are not supported [") +
                  (name[0] == '/' ? "" : name) + "].\n");
  for (const char* value : {"1-3", "=", "x=y"})
    EXPECT_EQ(Ask(queue_init, std::string("bad -p ") + value + " 2").text,
              "2STATUS=ERROR MSG=Malformed string. -p requires a value like 1=3. ex.: -p 1=3\n")
        << value;
  EXPECT_EQ(Ask(queue_sho, "bad").text, NoQueue("bad"));
  // "-p" without a value sets no level; the request goes on with the default limit.
  for (const auto& [args, limit] : std::vector<std::pair<std::string, std::string>>{
           {"n123 -5", "-5/-5"}, {"n124 abc", "0/0"}, {"nop -p", "1/1"}}) {
    EXPECT_EQ(Ask(queue_init, args).text, kInitialised) << args;
    EXPECT_NE(Ask(queue_sho_status, args.substr(0, args.find(' '))).text.find("job_limit: " + limit + "\n"),
              std::string::npos)
        << args;
  }
}

// The longest name is taken whole; "*" is taken as part of a name, and as a
// pattern it matches by the wildcard rule.
TEST_F(QueueRequestsTest, LongNamesAndWildcards) {
  const std::string longest(1000, 'n');
  EXPECT_EQ(Ask(queue_init, longest).text, kInitialised);
  EXPECT_EQ(Ask(queue_sho, longest).text, "0" + EmptyView(QueueLine(longest), ResourceLine("single", "1/1")) + kOk);
  for (const char* name : {"a*b", "ab", "abab", "qs//"}) EXPECT_EQ(Ask(queue_init, name).text, kInitialised);
  const std::string listed = Ask(queue_sho_status, "a*b").text;
  EXPECT_NE(listed.find("que_name=a*b\t"), std::string::npos);
  EXPECT_NE(listed.find("que_name=ab\t"), std::string::npos);
  EXPECT_EQ(listed.find("que_name=abab\t"), std::string::npos);  // "b" first occurs before the end
  EXPECT_NE(Ask(queue_sho, "qs").text.find(ResourceLine("single", "1/1")), std::string::npos);
}

TEST_F(QueueRequestsTest, BlockStartAndStopQueuesAndResources) {
  ASSERT_EQ(Ask(queue_init, "bss/a/b").text, kInitialised);
  EXPECT_EQ(Ask(queue_block, "bss").text, Ok("Queue is blocked"));
  EXPECT_EQ(Ask(queue_block, "bss/a").text, Ok("Resource is blocked"));
  EXPECT_EQ(Ask(queue_stop, "bss/b").text, Ok("Resource stopped"));
  std::string view = Ask(queue_sho, "bss").text;
  EXPECT_NE(view.find(QueueLine("bss", "blocked")), std::string::npos);
  EXPECT_NE(view.find(ResourceLine("a", "1/1", "blocked")), std::string::npos);
  EXPECT_NE(view.find(ResourceLine("b", "1/1", "stopped")), std::string::npos);
  EXPECT_EQ(Ask(queue_start, "bss/a").text, Ok("Resource started"));
  EXPECT_EQ(Ask(queue_stop, "bss").text, Ok("Queue stopped"));
  view = Ask(queue_sho, "bss").text;
  EXPECT_NE(view.find(QueueLine("bss", "stopped")), std::string::npos);
  EXPECT_NE(view.find(ResourceLine("a", "1/1", "idle")), std::string::npos);
  EXPECT_EQ(Ask(queue_start, "bss").text, Ok("Queue started"));
  for (int mode : {queue_block, queue_start, queue_stop, queue_delete}) {
    EXPECT_EQ(Ask(mode, "nope").text, NoQueue("nope"));
    EXPECT_EQ(Ask(mode, "bss/zz").text, kNoResource);
  }
}

TEST_F(QueueRequestsTest, DeleteTakesResourcesThenTheTripleWithItsLast) {
  ASSERT_EQ(Ask(queue_init, "del/a/b").text, kInitialised);
  EXPECT_EQ(Ask(queue_delete, "qu_admin").text, "1STATUS=WARNING MSG=Queue [qu_admin] cannot be deleted\n");
  EXPECT_EQ(Ask(queue_delete, "del/a").text, Ok("Resource is deleted"));
  EXPECT_EQ(Ask(queue_sho, "del").text, "0" + EmptyView(QueueLine("del"), ResourceLine("b", "1/1")) + kOk);
  EXPECT_EQ(Ask(queue_delete, "del/b -e 5").text, Ok("Queue is deleted"));
  EXPECT_EQ(Ask(queue_sho, "del").text, NoQueue("del"));
  ASSERT_EQ(Ask(queue_init, "del2").text, kInitialised);
  // Two answers; the requester gets whichever reaches its pipe first.
  const std::string both = Ask(queue_delete, "del2 -e").text;
  EXPECT_TRUE(both.rfind("1STATUS=ERROR MSG=Mandatory argument missing for -e", 0) == 0 ||
              both.rfind(Ok("Queue is deleted"), 0) == 0)
      << both;
  EXPECT_EQ(Ask(queue_sho, "del2").text, NoQueue("del2"));
}

// A listing with deletions behind it in the pipe shows the state at its start: it is written from a copy.
TEST_F(QueueRequestsTest, AListingIsWrittenFromACopy) {
  for (int i = 0; i < 30; ++i) ASSERT_EQ(Ask(queue_init, "copy" + std::to_string(i) + "/r1/r2").text, kInitialised);
  auto lister = NewClient();
  ASSERT_TRUE(lister->CreatePipe() && lister->OpenForAnswer());
  std::string lines = std::to_string(queue_sho) + " " + std::to_string(lister->id()) + " copy*\n";
  for (int i = 0; i < 30; ++i) lines += std::to_string(queue_delete) + " 0 copy" + std::to_string(i) + "\n";
  ASSERT_TRUE(lister->Send(lines));
  const RawAnswer listing = lister->ReadAnswer(std::chrono::seconds(10));
  ASSERT_TRUE(listing.complete);
  EXPECT_TRUE(listing.text.ends_with(kOk));
  std::size_t views = 0;
  for (std::size_t at = 0; (at = listing.text.find(kDashes, at)) != std::string::npos; at += kDashes.size()) ++views;
  EXPECT_EQ(views, 30U);
  EXPECT_EQ(Ask(queue_sho, "copy*").text, NoQueue("copy*"));
}

TEST_F(QueueRequestsTest, SetAllocationBalancingAndWeight) {
  ASSERT_EQ(Ask(queue_init, "cfg/a/b").text, kInitialised);
  for (const auto& [args, answer] : std::vector<std::pair<std::string, std::string>>{
           {"cfg allocation PERMANENT fam", Ok("Queue allocation mode set to permanent; allocate is \"fam\"")},
           {"cfg/b alloc volatile", Ok("Queue allocation mode set to volatile; allocate is empty string")},
           {"cfg allocation Bogus", "2STATUS=ERROR MSG=Invalid allocation mode [Bogus].\n"},
           {"cfg balancing Balance RANDOM", Ok("Queue is set")},
           {"cfg balancing wobble", "2STATUS=ERROR MSG=Invalid balancing mode [wobble].\n"},
           {"cfg balancing fill wait", "2STATUS=ERROR MSG=Invalid decision mode [wait].\n"},
           {"cfg/a weight 2.5", Ok("Weight for resource set.")},
           {"cfg weight", "2STATUS=ERROR MSG=Missing weight argument.\n"},
           {"nope weight 1", NoQueue("nope")},
           {"cfg/zz weight 1", kNoResource}})
    EXPECT_EQ(Ask(queue_set, args).text, answer) << args;
  const auto resource = [](const char* name, const char* mode, const char* weight) {
    return ResourceLine(name, "1/1", "idle",
                        std::string(" \tallocation mode: ") + mode + " \tallocation: fam \tweight: " + weight);
  };
  EXPECT_EQ(Ask(queue_sho, "cfg").text,
            "0" + EmptyView(QueueLine("cfg", "running", "balance/weight", "permanent"),
                            resource("a", "permanent", "2.50") + resource("b", "volatile", "1.00")) + kOk);
  // Resource part with balancing: changed all the same, answered with the Error digit.
  EXPECT_EQ(Ask(queue_set, "cfg/a balancing fill ordered").text,
            "2STATUS=WARNING MSG=Resource ignored for 'set balancing'.\n");
  EXPECT_NE(Ask(queue_sho, "cfg").text.find(QueueLine("cfg", "running", "fill/ordered", "permanent")),
            std::string::npos);
  EXPECT_EQ(Ask(queue_set, "cfg balancing fill random").text, Ok("Queue is set"));
  for (const char* weight : {"-2", "abc", "nan"}) {
    EXPECT_EQ(Ask(queue_set, std::string("cfg weight ") + weight).text, Ok("Weight set for queue.")) << weight;
    EXPECT_NE(Ask(queue_sho, "cfg").text.find("\tallocation: fam \tweight: 0.00\n"), std::string::npos) << weight;
  }
}

// The one option of the daemon; no option word: nothing is answered at all.
TEST_F(QueueRequestsTest, SetOptionFollowUp) {
  for (const auto& [args, answer] : std::vector<std::pair<std::string, std::string>>{
           {"option follow_up", Ok("Option [follow_up=0].")},
           {"option follow_up 1", Ok("Option [follow_up=1] is set.")},
           {"option follx 3", Ok("Option [follow_up=3] is already set.")},
           {"option follow_up", Ok("Option [follow_up=1].")},
           {"option follow_up 0", Ok("Option [follow_up=0] is set.")},
           {"option fo 1", "2STATUS=ERROR MSG=Unknown [set option fo].\n"}})
    EXPECT_EQ(Ask(queue_set, args).text, answer) << args;
  EXPECT_EQ(Ask(queue_set, "option", std::chrono::milliseconds(300)).text, "");
}

/// The shutdown ends the daemon: a daemon of its own, whose queues are known.
class QueueShutdownTest : public DaemonTest {
 protected:
  int TraceLevel() const override { return 2; }
};

// Every queue is listed by "all" or no name; the shutdown lists them too,
// removes them, the request pipe and the lock, and ends the daemon.
TEST_F(QueueShutdownTest, ShutdownListsAndRemovesEveryQueue) {
  ASSERT_EQ(Ask(queue_init, "q1/a/b 2").text, kInitialised);
  ASSERT_EQ(Ask(queue_init, "q2").text, kInitialised);
  const std::string all = QueueLine("qu_admin") + kHeader + "terminating queue\n" + kDashes +
                          EmptyView(QueueLine("q1"), ResourceLine("a", "2/2") + ResourceLine("b", "2/2")) +
                          EmptyView(QueueLine("q2"), ResourceLine("single", "1/1"));
  for (const char* name : {"all", ""}) EXPECT_EQ(Ask(queue_sho, name).text, "0" + all + kOk) << name;
  EXPECT_EQ(Ask(shut_down, "-e 3").text, "0" + all + "STATUS=SUCCESS MSG=shutdown completed\n");
  ASSERT_TRUE(daemon().WaitExit(std::chrono::seconds(10)));
  EXPECT_EQ(daemon().exit_code(), 0);
  EXPECT_FALSE(Exists(RequestPipe()));
  EXPECT_EQ(ReadFile(instance().work() + "sem/KD_QM_MAIN.sem"), "");
  for (const char* line : {"removing queue q1", "removing queue q2", "--- FOR  exit(0)"})
    EXPECT_TRUE(WaitForTrace(line)) << line;
}

}  // namespace
}  // namespace kdtest
