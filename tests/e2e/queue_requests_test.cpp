// Queue administration and queue listings against the running daemon: exact
// answers and views, and the input the daemon must take without harm.
#include <string>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using std::chrono::milliseconds;

const std::string kOk = "STATUS=SUCCESS MSG=ok\n";
const std::string kHeader =
    "Entry   Job           Priority Allocate             PID  Date       Time      Resources\n";
const std::string kDashes = "----------------------------------------------------------\n";
const std::string kAdminView =
    "que_name= qu_admin\tstatus= running\tbalancing= fill/ordered\t allocation mode= occupied\n" + kHeader +
    "terminating queue\n" + kDashes;
const std::string kMalformed = "2STATUS=ERROR MSG=Malformed string. -p requires a value like 1=3. ex.: -p 1=3\n";

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

std::string Ok(const std::string& msg) { return "0STATUS=SUCCESS MSG=" + msg + "\n"; }
std::string NoQueue(const std::string& name) {
  return "1STATUS=WARNING MSG=A queue with name [" + name + "] does not exist\n";
}

using QueueRequestsTest = DaemonTest;

/// For the checks that read the flow lines of the trace (level 2).
class QueueRequestsTracedTest : public DaemonTest {
 protected:
  int TraceLevel() const override { return 2; }
};

TEST_F(QueueRequestsTest, InitAndReInitOfTriplesAndEveryViewOfThem) {
  EXPECT_EQ(Ask(queue_init, "q1/a/b 2").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_init, "q2").text, Ok("Queue initialised"));
  const std::string q1 = EmptyView(QueueLine("q1"), ResourceLine("a", "2/2") + ResourceLine("b", "2/2"));
  const std::string q2 = EmptyView(QueueLine("q2"), ResourceLine("single", "1/1"));
  EXPECT_EQ(Ask(queue_sho, "q1").text, "0" + q1 + kOk);
  for (const char* all : {"all", ""}) EXPECT_EQ(Ask(queue_sho, all).text, "0" + kAdminView + q1 + q2 + kOk) << all;
  EXPECT_EQ(Ask(queue_sho, "*2").text, "0" + q2 + kOk);
  const std::string status = "0que_name=q1\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\t"
                             "pending=0\tholding=0\tjob_limit: ";
  EXPECT_EQ(Ask(queue_sho_status, "q1").text,
            status + "2/2\nexecuting queue(s)\n" + ResourceLine("a", "2/2") + ResourceLine("b", "2/2") + kOk);
  EXPECT_EQ(Ask(queue_sho_status, "qu_admin").text,
            "0que_name=qu_admin\tstatus=running\tbalancing=fill/ordered\tallocation mode=occupied\tpending=0\t"
            "holding=0\t\nexecuting queue(s)\n" + kOk);
  // No jobs: the comma-separated view is empty; its resource part is not checked.
  EXPECT_EQ(Ask(queue_sho_csv, "q1/zz").text, "0" + kOk);
  EXPECT_EQ(Ask(queue_sho, "q1/zz").text, NoQueue("q1"));
  EXPECT_EQ(Ask(queue_sho, "x*").text, NoQueue("x*"));

  EXPECT_EQ(Ask(queue_init, "q1/a 5").text, Ok("Changing job limit for resource queue 'a' to 5"));
  EXPECT_EQ(Ask(queue_init, "q1/t_c@srv -p 3=2 4").text, Ok("New resource queue 't_c@srv' created"));
  EXPECT_EQ(Ask(queue_init, "q1/x_y_z@s@t").text, Ok("New resource queue 'x_y_z@s@t' created"));
  EXPECT_EQ(Ask(queue_init, "q1 3 cnt").text, Ok("Job limit for resource queues changed to 3"));
  // Without a counter word the queue leaves its counter; the slot levels are replaced.
  EXPECT_EQ(Ask(queue_init, "q1/c -p 3=2 7").text, Ok("Changing job limit for resource queue 'c' to 7"));
  const std::string counter_tail = " \tis not allocated \tstatus: idle \tallocation mode: occupied \tallocation: *\n";
  EXPECT_EQ(Ask(queue_sho_status, "q1").text,
            status + "3/3\nexecuting queue(s)\nName:  a\tcounter cnt: 3/3 " + counter_tail +
                "Name:  b\tcounter cnt: 3/3 " + counter_tail + "Name: t c@srv\tjob_limit: 7/7 p3=0/2" + counter_tail +
                "Name: x_y z@s@t\tcounter cnt: 3/3 " + counter_tail + kOk);

  for (const char* name : {"123", "0", "", "/x"})
    EXPECT_EQ(Ask(queue_init, name).text,
              std::string("2STATUS=ERROR MSG=Queue names that are composed only of numbers are not supported [") +
                  (name[0] == '/' ? "" : name) + "].\n");
  EXPECT_EQ(Ask(queue_init, "q123 -5").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_init, "q124 abc").text, Ok("Queue initialised"));
  EXPECT_NE(Ask(queue_sho_status, "q12*").text.find("job_limit: -5/-5\n"), std::string::npos);
  EXPECT_NE(Ask(queue_sho_status, "q124").text.find("job_limit: 0/0\n"), std::string::npos);
  for (const char* value : {"1-3", "=", "x=y"})
    EXPECT_EQ(Ask(queue_init, std::string("qp -p ") + value + " 2").text, kMalformed) << value;
  EXPECT_EQ(Ask(queue_sho, "qp").text, NoQueue("qp"));
  // "-p" without a value sets no level; the request goes on with the default limit.
  EXPECT_EQ(Ask(queue_init, "qm -p").text, Ok("Queue initialised"));
  EXPECT_NE(Ask(queue_sho_status, "qm").text.find("job_limit: 1/1\n"), std::string::npos);

  const std::string longest(1000, 'n');
  EXPECT_EQ(Ask(queue_init, longest).text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_sho, longest).text, "0" + EmptyView(QueueLine(longest), ResourceLine("single", "1/1")) + kOk);
  // "*" is taken as part of a name; as a pattern it matches by the wildcard rule.
  for (const char* name : {"a*b", "ab", "abab", "qs//"}) EXPECT_EQ(Ask(queue_init, name).text, Ok("Queue initialised"));
  const std::string listed = Ask(queue_sho_status, "a*b").text;
  EXPECT_NE(listed.find("que_name=a*b\t"), std::string::npos);
  EXPECT_NE(listed.find("que_name=ab\t"), std::string::npos);
  EXPECT_EQ(listed.find("que_name=abab\t"), std::string::npos);  // "b" first occurs before the end
  EXPECT_NE(Ask(queue_sho, "qs").text.find(ResourceLine("single", "1/1")), std::string::npos);
}

TEST_F(QueueRequestsTest, BlockStartStopDeleteAndSet) {
  ASSERT_EQ(Ask(queue_init, "q1/a/b").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_block, "q1").text, Ok("Queue is blocked"));
  EXPECT_EQ(Ask(queue_block, "q1/a").text, Ok("Resource is blocked"));
  EXPECT_EQ(Ask(queue_stop, "q1/b").text, Ok("Resource stopped"));
  std::string view = Ask(queue_sho, "q1").text;
  EXPECT_NE(view.find(QueueLine("q1", "blocked")), std::string::npos);
  EXPECT_NE(view.find(ResourceLine("a", "1/1", "blocked")), std::string::npos);
  EXPECT_NE(view.find(ResourceLine("b", "1/1", "stopped")), std::string::npos);
  EXPECT_EQ(Ask(queue_start, "q1/a").text, Ok("Resource started"));
  EXPECT_EQ(Ask(queue_stop, "q1").text, Ok("Queue stopped"));
  view = Ask(queue_sho, "q1").text;
  EXPECT_NE(view.find(QueueLine("q1", "stopped")), std::string::npos);
  EXPECT_NE(view.find(ResourceLine("a", "1/1", "idle")), std::string::npos);
  EXPECT_EQ(Ask(queue_start, "q1").text, Ok("Queue started"));
  for (int mode : {queue_block, queue_start, queue_stop, queue_delete}) {
    EXPECT_EQ(Ask(mode, "nope").text, NoQueue("nope"));
    EXPECT_EQ(Ask(mode, "q1/zz").text, "1STATUS=WARNING MSG=Resource [zz] not found in given queue\n");
  }

  ASSERT_EQ(Ask(queue_init, "q2/a/b").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_delete, "qu_admin").text, "1STATUS=WARNING MSG=Queue [qu_admin] cannot be deleted\n");
  EXPECT_EQ(Ask(queue_delete, "q2/a").text, Ok("Resource is deleted"));
  EXPECT_EQ(Ask(queue_sho, "q2").text, "0" + EmptyView(QueueLine("q2"), ResourceLine("b", "1/1")) + kOk);
  // The last resource queue takes its triple with it.
  EXPECT_EQ(Ask(queue_delete, "q2/b -e 5").text, Ok("Queue is deleted"));
  EXPECT_EQ(Ask(queue_sho, "q2").text, NoQueue("q2"));
  ASSERT_EQ(Ask(queue_init, "q3").text, Ok("Queue initialised"));
  // Two answers; the requester gets whichever reaches its pipe first.
  const std::string both = Ask(queue_delete, "q3 -e").text;
  EXPECT_TRUE(both.rfind("1STATUS=ERROR MSG=Mandatory argument missing for -e", 0) == 0 ||
              both.rfind(Ok("Queue is deleted"), 0) == 0)
      << both;
  EXPECT_EQ(Ask(queue_sho, "q3").text, NoQueue("q3"));
  // A listing with deletions behind it in the pipe shows the state at its start: it is written from a copy.
  auto lister = NewClient();
  ASSERT_TRUE(lister->CreatePipe() && lister->OpenForAnswer());
  for (int i = 0; i < 30; ++i) ASSERT_EQ(Ask(queue_init, "d" + std::to_string(i) + "/r1/r2").text, Ok("Queue initialised"));
  std::string lines = std::to_string(queue_sho) + " " + std::to_string(lister->id()) + " d*\n";
  for (int i = 0; i < 30; ++i) lines += std::to_string(queue_delete) + " 0 d" + std::to_string(i) + "\n";
  ASSERT_TRUE(lister->Send(lines));
  const RawAnswer listing = lister->ReadAnswer(std::chrono::seconds(10));
  ASSERT_TRUE(listing.complete);
  EXPECT_EQ(listing.text.rfind(kOk), listing.text.size() - kOk.size());
  std::size_t views = 0;
  for (std::size_t at = 0; (at = listing.text.find(kDashes, at)) != std::string::npos; at += kDashes.size()) ++views;
  EXPECT_EQ(views, 30U);
  EXPECT_EQ(Ask(queue_sho, "d*").text, NoQueue("d*"));

  ASSERT_EQ(Ask(queue_init, "q4/a/b").text, Ok("Queue initialised"));
  EXPECT_EQ(Ask(queue_set, "q4 allocation PERMANENT fam").text,
            Ok("Queue allocation mode set to permanent; allocate is \"fam\""));
  EXPECT_EQ(Ask(queue_set, "q4/b alloc volatile").text,
            Ok("Queue allocation mode set to volatile; allocate is empty string"));
  EXPECT_EQ(Ask(queue_set, "q4 allocation Bogus").text, "2STATUS=ERROR MSG=Invalid allocation mode [Bogus].\n");
  EXPECT_EQ(Ask(queue_set, "q4 balancing Balance RANDOM").text, Ok("Queue is set"));
  EXPECT_EQ(Ask(queue_set, "q4 balancing wobble").text, "2STATUS=ERROR MSG=Invalid balancing mode [wobble].\n");
  EXPECT_EQ(Ask(queue_set, "q4 balancing fill wait").text, "2STATUS=ERROR MSG=Invalid decision mode [wait].\n");
  EXPECT_EQ(Ask(queue_set, "q4/a weight 2.5").text, Ok("Weight for resource set."));
  const auto resource = [](const char* name, const char* mode, const char* weight) {
    return ResourceLine(name, "1/1", "idle",
                        std::string(" \tallocation mode: ") + mode + " \tallocation: fam \tweight: " + weight);
  };
  EXPECT_EQ(Ask(queue_sho, "q4").text,
            "0" + EmptyView(QueueLine("q4", "running", "balance/weight", "permanent"),
                            resource("a", "permanent", "2.50") + resource("b", "volatile", "1.00")) + kOk);
  // Resource part with balancing: changed all the same, answered with the Error digit.
  EXPECT_EQ(Ask(queue_set, "q4/a balancing fill ordered").text,
            "2STATUS=WARNING MSG=Resource ignored for 'set balancing'.\n");
  EXPECT_NE(Ask(queue_sho, "q4").text.find(QueueLine("q4", "running", "fill/ordered", "permanent")), std::string::npos);
  EXPECT_EQ(Ask(queue_set, "q4 balancing fill random").text, Ok("Queue is set"));
  for (const char* weight : {"-2", "abc", "nan"}) {
    EXPECT_EQ(Ask(queue_set, std::string("q4 weight ") + weight).text, Ok("Weight set for queue.")) << weight;
    EXPECT_NE(Ask(queue_sho, "q4").text.find("\tallocation: fam \tweight: 0.00\n"), std::string::npos) << weight;
  }
  EXPECT_EQ(Ask(queue_set, "q4 weight").text, "2STATUS=ERROR MSG=Missing weight argument.\n");
  EXPECT_EQ(Ask(queue_set, "nope weight 1").text, NoQueue("nope"));
  EXPECT_EQ(Ask(queue_set, "q4/zz weight 1").text, "1STATUS=WARNING MSG=Resource [zz] not found in given queue\n");

  EXPECT_EQ(Ask(queue_set, "option follow_up").text, Ok("Option [follow_up=0]."));
  EXPECT_EQ(Ask(queue_set, "option follow_up 1").text, Ok("Option [follow_up=1] is set."));
  EXPECT_EQ(Ask(queue_set, "option follx 3").text, Ok("Option [follow_up=3] is already set."));
  EXPECT_EQ(Ask(queue_set, "option follow_up").text, Ok("Option [follow_up=1]."));
  EXPECT_EQ(Ask(queue_set, "option follow_up 0").text, Ok("Option [follow_up=0] is set."));
  EXPECT_EQ(Ask(queue_set, "option fo 1").text, "2STATUS=ERROR MSG=Unknown [set option fo].\n");
  // No option word: nothing is answered at all.
  EXPECT_EQ(Ask(queue_set, "option", milliseconds(300)).text, "");
}

TEST_F(QueueRequestsTracedTest, ShutdownListsAndRemovesEveryQueue) {
  ASSERT_EQ(Ask(queue_init, "q1").text, Ok("Queue initialised"));
  const std::string q1 = EmptyView(QueueLine("q1"), ResourceLine("single", "1/1"));
  EXPECT_EQ(Ask(shut_down, "-e 3").text, "0" + kAdminView + q1 + "STATUS=SUCCESS MSG=shutdown completed\n");
  ASSERT_TRUE(daemon().WaitExit(std::chrono::seconds(10)));
  EXPECT_EQ(daemon().exit_code(), 0);
  EXPECT_TRUE(WaitForTrace("removing queue q1"));
}

}  // namespace
}  // namespace kdtest
