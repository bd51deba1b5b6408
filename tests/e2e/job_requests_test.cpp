// The job requests against the running daemon: jobs shown and deleted by
// entry number, pid, name with sequence number, wildcard name and queue.
#include <string>

#include "daemon_fixture.h"
#include "protocol/request.h"

namespace kdtest {
namespace {

using namespace std::chrono_literals;

const std::string kOk = "STATUS=SUCCESS MSG=ok\n";

/// Job names are looked up in every queue: each test has a daemon of its own
/// with two queues, two jobs "alpha" (one running in q1, one pending behind
/// it) and one "beta" held in q2.
class JobRequestsTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    for (const std::string q : {"q1 1", "q2"}) ASSERT_EQ(Ask(queue_init, q).text, kInitialised);
    ASSERT_EQ(Ask(queue_submit, "q1 -j alpha job.sh " + Dir("a1")).text, Ok("1"));
    ASSERT_EQ(Ask(queue_submit, "q1 -j alpha job.sh " + Dir("a2")).text, Ok("2"));
    ASSERT_EQ(Ask(queue_submit, "q2 -T 2099-01-01_00:00 -j beta job.sh " + Dir("b")).text, Ok("3"));
    ASSERT_TRUE(Started("a1"));
    pid_ = std::to_string(Pid("a1"));
  }
  std::string pid_;
};

TEST_F(JobRequestsTest, ShowPicksJobsByEntryPidNameSequenceWildcardAndQueue) {
  const std::string pending = "  2  job.sh                  0         0 1900-01-00 00:00:00\n";
  const std::string pid8 = std::string(8 - pid_.size(), ' ') + pid_;
  const std::string running = "  1  job.sh                  0  " + pid8 + " 1900-01-00 00:00:00\n";
  const std::string running_name = "  1    alpha                 0  " + pid8 + " 1900-01-00 00:00:00\n";
  // Sequence numbers count like-named jobs in view order: holding, pending, executing.
  EXPECT_EQ(Ask(job_sho, "alpha").text, "0" + pending + kOk);
  EXPECT_EQ(Ask(job_sho, "alpha 1").text, "0" + running + kOk);
  EXPECT_EQ(Ask(job_sho, "alpha 2").text, "1STATUS=WARNING MSG=No such job [alpha]\n");
  EXPECT_EQ(Ask(job_sho, "1").text, "0" + running + kOk);
  EXPECT_EQ(Ask(job_sho_name, pid_).text, "0" + running_name + kOk);
  EXPECT_EQ(Ask(job_sho_name, "al*").text,
            "0  2    alpha                 0         0 1900-01-00 00:00:00\n" + running_name + kOk + "\n");
  EXPECT_EQ(Ask(job_sho, "zz*").text, "1STATUS=WARNING MSG=No such job [zz*]\n");

  const std::string full = Ask(job_sho_full, "alpha 1").text;
  EXPECT_EQ(full.substr(0, full.find("Submit time=")),
            "0Entry: 1\tJob name: alpha\tServer: \nFile: \"" + instance().bin() + "/job.sh\" \"" + Dir("a1") +
                "\"\nPriority: 0;  Allocate: ;  Resource: *;  PID: " + pid_ + "\n");
  EXPECT_EQ(full.substr(full.find("Wait time=")), "Wait time= NOT_SPECIFIED\nEnd time= NOT_SPECIFIED\n" + kOk);

  EXPECT_EQ(Ask(job_sho, "all").text,
            "0q1:\t alpha 2 pending\nq1:\t alpha 1 executing\nq2:\t beta 3 holding\n" + kOk + "\n");
  EXPECT_EQ(Ask(job_set, "3 -T 2099-01-01_00:00 -p 5").text, "0STATUS=SUCCESS MSG=3");
  EXPECT_EQ(Ask(job_sho, "q2/ csv").text,
            "0q2,holding,beta,5,0,3,\"" + instance().bin() + "/job.sh\" " + Dir("b") + "\n" + kOk + "\n");
  EXPECT_EQ(Ask(job_sho, "x*/").text, "1x*:\t not existing\n" + NoQueue("x*").substr(1));
}

TEST_F(JobRequestsTest, DeleteTakesOneJobByNameOrPid) {
  EXPECT_EQ(Ask(job_del, "al*").text, "2STATUS=ERROR MSG=job_del deletes one job; [al*] may name several\n");
  EXPECT_EQ(Ask(job_del, "q1/").text, "2STATUS=ERROR MSG=job_del deletes one job; [q1] may name several\n");
  EXPECT_EQ(Ask(job_del, "beta 1").text, "1STATUS=WARNING MSG=No such job [beta]\n");
  // As an entry delete with its defaults: the waiting job runs once with -d -2.
  Release("b");
  EXPECT_EQ(Ask(job_del, "beta").text, Ok("Job start time expired: -2"));
  EXPECT_TRUE(WaitFor([&] { return Args("b") == Dir("b") + " -d -2\n"; }, 10s));
  EXPECT_EQ(Ask(job_del, pid_, 15s).text, Ok(pid_));
  EXPECT_EQ(ReadFile(Dir("a1") + "/sig"), "INT\n");
  // The pending alpha took the free place.
  EXPECT_TRUE(WaitFor([&] { return Ask(job_sho, "all").text == "0q1:\t alpha 2 executing\n" + kOk + "\n"; }, 10s));
}

}  // namespace
}  // namespace kdtest
