// Job submission against the running daemon: admission answers, job limits,
// start times and synchronous submits (allocations: scheduling_test.cpp).
#include <string>
#include <vector>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;

using SubmitTest = SharedDaemonTest<1>;

// Refusals answer exactly and queue nothing. Those refused once the job has
// its entry number use that number up; a program that does not exist is
// refused before.
TEST_F(SubmitTest, RefusalsAnswerExactlyAndQueueNothing) {
  ASSERT_EQ(Ask(queue_init, "ref/r/s").text, kInitialised);
  ASSERT_EQ(Ask(queue_set, "ref/r allocation permanent X").text,
            Ok("Queue allocation mode set to permanent; allocate is \"X\""));
  Release("before");
  const int before = std::stoi(Entry(Submit("ref//s", "before")));
  for (const auto& [queue, answer] : std::vector<std::pair<std::string, std::string>>{
           {"nq", NoQueue("nq")},
           {"ref//zz", "1STATUS=WARNING MSG=Preferred resource(s) [zz] not found in given queue\n"},
           {"ref/Y/r", "2STATUS=ERROR MSG=Resource [r] has allocation string [X] while your allocation string is [Y]. "
                       "Only jobs with allocation string X can utilise it.\n"}})
    EXPECT_EQ(Submit(queue, "n"), answer) << queue;
  EXPECT_EQ(Ask(queue_submit, "ref -j n missing.sh").text,
            "2STATUS=ERROR MSG=Executable [missing.sh] does not exist\n");
  EXPECT_TRUE(NotStarted("n"));
  EXPECT_TRUE(Ended("before"));
  EXPECT_EQ(Counts("ref"), "pending=0\tholding=0\tjob_limit: 1/1");
  Release("after");
  EXPECT_EQ(Submit("ref//s", "after"), Ok(std::to_string(before + 4)));
}

// With job limit 1, a synchronous submit behind a running job waits
// unanswered in the pending queue and is answered when its job starts; a job
// whose start time lies in the future stays in the holding queue.
TEST_F(SubmitTest, ASynchronousSubmitIsAnsweredWhenItsJobStarts) {
  ASSERT_EQ(Ask(queue_init, "sync/r 1").text, kInitialised);
  Entry(Submit("sync", "a"));
  ASSERT_TRUE(Started("a"));
  Entry(Submit("sync", "later", "-T 2099-01-01_00:00"));
  auto client = NewClient();
  ASSERT_TRUE(client->Request(queue_submit_sync, "sync -j b job.sh " + Dir("b")));
  ASSERT_TRUE(WaitFor([&] { return Counts("sync") == "pending=1\tholding=1\tjob_limit: 0/1"; }, 10s));
  EXPECT_FALSE(client->AnythingArrived());
  Release("a");
  const RawAnswer answer = client->ReadAnswer(10s);
  EXPECT_TRUE(answer.complete);
  Entry(answer.text);
  ASSERT_TRUE(Started("b"));
  EXPECT_EQ(Counts("sync"), "pending=0\tholding=1\tjob_limit: 0/1");
  Release("b");
  EXPECT_TRUE(Ended("b"));
  EXPECT_TRUE(Driven([&] { return Counts("sync") == "pending=0\tholding=1\tjob_limit: 1/1"; }));
}

}  // namespace
}  // namespace kdtest
