// The task processor's pass and the wait for a deleted job to disappear.
#include <sys/wait.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "daemon_fixture.h"
#include "jobs/removal.h"
#include "jobs/tasks.h"
#include "model/job.h"
#include "model/triple.h"
#include "protocol/globals.h"

namespace {

/// Appends its name to a log on every execute; expires in it when told.
struct RecordingTask : qm_task {
  RecordingTask(char name, std::string* log, bool expire_at_once) : name(name), log(log), at_once(expire_at_once) {}
  void execute() override {
    *log += name;
    if (at_once) expire();
  }
  char name;
  std::string* log;
  bool at_once;
};

TEST(TaskProcessor, RunsInOrderOfAdditionAndErasesATaskThePassAfterItExpired) {
  qm_task_processor processor;
  std::string log;
  auto done = boost::shared_ptr<qm_task>(new RecordingTask('c', &log, false));
  done->expire();
  processor.add(boost::shared_ptr<qm_task>(new RecordingTask('a', &log, false)));
  processor.add(boost::shared_ptr<qm_task>(new RecordingTask('b', &log, true)));
  processor.add(done);
  processor.add(boost::shared_ptr<qm_task>(new RecordingTask('d', &log, false)));
  processor.process();
  EXPECT_EQ(log, "abd");                    // c, expired before, is erased unrun
  EXPECT_EQ(processor.m_tasks.size(), 3U);  // b expired during this pass and stays
  EXPECT_EQ(done.use_count(), 1);
  processor.process();
  EXPECT_EQ(log, "abdad");
}

TEST(WaitJobToTerminateTest, WaitsOnExecutingJobsAndTheQmAdminTerminatingQueueOnlyAndWarnsOnNegativeTimeout) {
  kdtest::TestInstance inst;
  CopyCut(gszQmDir, inst.qm());
  InitRootLists();
  QueueJobLimits limits;
  for (const char* name : {"q1", "qm_admin", "qu_admin"})
    ASSERT_NE(CreateQueTriple(name, "r1", nullptr, &limits, nullptr), nullptr);
  const auto place = [](List* list, int64_t pid) {
    auto* job = new Job{};
    job->PID = pid;
    job->EntryNumb = 7;
    AddTail(list, NodeOf(job));
  };
  place(&ElementOf<Queue>(FindQueTriple("q1")->ExecQueues.Head)->ListOfJobs, 100);
  for (const char* name : {"qm_admin", "qu_admin"}) FindQueTriple(name)->TerminatingQueue.reset(new Queue{});
  place(&FindQueTriple("qm_admin")->TerminatingQueue->ListOfJobs, 200);
  place(&FindQueTriple("qu_admin")->TerminatingQueue->ListOfJobs, 300);
  const auto gone_at_once = [](int32_t pid, int32_t entry) {
    WaitJobToTerminate task(pid, entry, HPEER{}, 5);
    task.execute();
    return task.expired();
  };
  EXPECT_FALSE(gone_at_once(100, 7));
  EXPECT_TRUE(gone_at_once(100, 8));  // pid and entry number must both match
  EXPECT_FALSE(gone_at_once(200, 7));
  EXPECT_TRUE(gone_at_once(300, 7));  // handed to the admin triple "qu_admin": counts as gone

  kdtest::RawClient client(inst.qm(), 4801);
  ASSERT_TRUE(client.CreatePipe() && client.OpenForAnswer());
  HPEER peer{true, 4801};
  WaitJobToTerminate zero(100, 7, peer, 0);
  zero.execute();
  EXPECT_FALSE(zero.expired());  // the elapsed time counts as 0, never above the timeout
  WaitJobToTerminate negative(100, 7, peer, -1);
  peer.valid = false;  // the task answers its own copy
  negative.execute();
  EXPECT_TRUE(negative.expired());
  EXPECT_EQ(client.ReadAnswer(std::chrono::seconds(10)).text,
            "1STATUS=WARNING MSG=Job 7 did not terminate in specified time\n");
  EXPECT_TRUE(kdtest::WaitFor([] { return waitpid(-1, nullptr, WNOHANG) > 0; }, std::chrono::seconds(10)));

  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    for (Queue* queue : {triple->TerminatingQueue.get(), ElementOf<Queue>(triple->ExecQueues.Head)})
      while (Node* j = queue != nullptr ? RemHead(&queue->ListOfJobs) : nullptr) DestroyJob(ElementOf<Job>(j));
    RemoveQueTriple(&Root, triple);
  }
  CopyCut(gszQmDir, "");
}

}  // namespace
