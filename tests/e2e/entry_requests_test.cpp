// The entry requests against the running daemon: delete, move and signal of
// waiting and running jobs, with their exact answers and effects on the jobs.
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;
using Cases = std::vector<std::pair<std::string, std::string>>;

const std::string kNoEntry = "1STATUS=WARNING MSG=No such entry 200000\n";  // far above any entry given out

class EntryRequestsTest : public SharedDaemonTest<1> {
 protected:
  /// Waits until the job's args are the text.
  bool ArgsAre(const std::string& job, const std::string& text) {
    return WaitFor([&] { return Args(job) == text; }, 10s);
  }
};

// Jobs move with their job limits: a held one to the holding queue, a pending
// one to the pending queue, a running one onto a resource queue, whose place
// it frees when it ends.
TEST_F(EntryRequestsTest, MoveTakesEachJobToItsPlaceInTheOtherQueue) {
  for (const std::string q : {"mv1/r 1", "mv2/x 1", "mv3 0"}) ASSERT_EQ(Ask(queue_init, q).text, kInitialised);
  const std::string a = Entry(Submit("mv1", "a"));
  const std::string b = Entry(Submit("mv1", "b"));
  const std::string c = Entry(Submit("mv1", "c", "-T 2099-01-01_00:00"));
  ASSERT_TRUE(Started("a"));
  for (const auto& [args, answer] : Cases{
           {"200000 mv2", kNoEntry},
           {a, "1Wrong arguments\n"},
           {a + " nope", NoQueue("nope")},
           {a + " mv2/zz", "2STATUS=ERROR MSG=Target resource queue zz does not exist\n"},
           {a + " mv3", "2STATUS=ERROR MSG=Target resource queue single is full\n"},
           {c + " mv2", Ok("Job " + c + " moved to holding sub queue of queue mv2")},
           {b + " mv3", Ok("Job " + b + " moved to pending sub queue of queue mv3")},
           {a + " mv2", Ok("Job " + a + " moved to resource queue x of queue mv2")}})
    EXPECT_EQ(Ask(queue_move_entry, args).text, answer) << args;
  EXPECT_EQ(Counts("mv1"), "pending=0\tholding=0\tjob_limit: 1/1");
  EXPECT_EQ(Counts("mv2"), "pending=0\tholding=1\tjob_limit: 0/1");
  EXPECT_EQ(Counts("mv3"), "pending=1\tholding=0\tjob_limit: 0/0");
  Release("a");
  EXPECT_TRUE(Ended("a"));
  EXPECT_TRUE(Driven([&] { return Counts("mv2") == "pending=0\tholding=1\tjob_limit: 1/1"; }));
}

// Waiting jobs deleted are run once with their pending-state code: the held
// one with its default -2, the pending one with the code given.
TEST_F(EntryRequestsTest, DeleteRunsAWaitingJobOnceWithItsCode) {
  ASSERT_EQ(Ask(queue_init, "dl 1").text, kInitialised);
  const std::string a = Entry(Submit("dl", "a"));
  const std::string b = Entry(Submit("dl", "b"));
  const std::string c = Entry(Submit("dl", "c", "-T 2099-01-01_00:00"));
  ASSERT_TRUE(Started("a"));
  for (const std::string job : {"b", "c"}) Release(job);
  for (const auto& [args, answer] : Cases{
           {a + " -o not_executing", "2STATUS=ERROR MSG=Job not found on holding or pending queue\n"},
           {a + " -K none", "1STATUS=ERROR MSG=Operation failed. -K requires -e to be specified.\n"},
           {"200000", kNoEntry},
           {c, Ok("Job start time expired: -2")},
           {b + " -e 7", Ok("Job start time expired: 7")}})
    EXPECT_EQ(Ask(queue_del_entry, args).text, answer) << args;
  EXPECT_TRUE(ArgsAre("c", Dir("c") + " -d -2\n"));
  EXPECT_TRUE(ArgsAre("b", Dir("b") + " -d 7\n"));
  EXPECT_EQ(Counts("dl"), "pending=0\tholding=0\tjob_limit: 0/1");
  EXPECT_FALSE(Exists(Dir("a") + "/sig"));
}

// A waiting job signalled is run once with the signal as its code; a running
// job's group gets the signal.
TEST_F(EntryRequestsTest, SignalRunsAWaitingJobWithItsCodeAndReachesARunningGroup) {
  ASSERT_EQ(Ask(queue_init, "sg 1").text, kInitialised);
  const std::string a = Entry(Submit("sg", "a"));
  const std::string d = Entry(Submit("sg", "d", "-T 2099-01-01_00:00"));
  const long pid = Pid("a");
  ASSERT_GT(pid, 0);
  Release("d");
  for (const auto& [args, answer] : Cases{
           {a + " -6", "1Invalid signal number given.\n"},
           {"200000 -3", kNoEntry},
           {d + " -4", "1STATUS=OK MSG=Entry " + d + " will receive signal -4\n"},
           {a + " -3", "1STATUS=OK MSG=Sent signal SIGINT to entry no " + a + "[PID " + std::to_string(pid) +
                           "] process group\n"}})
    EXPECT_EQ(Ask(queue_signal_entry, args).text, answer) << args;
  EXPECT_TRUE(ArgsAre("d", Dir("d") + " -d -4\n"));
  EXPECT_TRUE(Ended("a"));
  EXPECT_EQ(ReadFile(Dir("a") + "/sig"), "INT\n");
}

// A running job that ignores SIGINT is stopped hard after the timeout given:
// the graceful stop's SIGINT, then the hard stop's SIGINT in front of its SIGKILL.
TEST_F(EntryRequestsTest, DeleteWithATimeoutStopsAJobThatIgnoresSigint) {
  ASSERT_EQ(Ask(queue_init, "hd 1").text, kInitialised);
  Prepare("e", {{"stay", ""}});
  const std::string e = Entry(Submit("hd", "e", "-S 1/0"));
  ASSERT_TRUE(Started("e"));
  EXPECT_EQ(Ask(queue_del_entry, e + " -3").text, Ok("Job will be terminated and deleted in a timeout 3 seconds"));
  EXPECT_TRUE(Ended("e"));
  EXPECT_EQ(ReadFile(Dir("e") + "/sig").substr(0, 4), "INT\n");
  EXPECT_TRUE(Driven([&] { return Counts("hd") == "pending=0\tholding=0\tjob_limit: 1/1"; }));
}

}  // namespace
}  // namespace kdtest
