// The entry requests on jobs placed directly into queues: the delete options,
// and answers of delete, move and signal read from a real answer pipe.
#include <sys/wait.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "daemon_fixture.h"
#include "jobs/admin_queue.h"
#include "jobs/removal.h"
#include "model/job.h"
#include "model/priority_slots.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "requests/entry_requests.h"

namespace {

using namespace std::chrono_literals;

class EntryRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CopyCut(gszQmDir, inst_.qm());
    CopyCut(gszBinDir, inst_.root() + "/bin");
    InitRootLists();
    ASSERT_EQ(InitQMAdminQueue(), 0);
    QueueJobLimits limits;
    limits.iJobLimit = 1;
    q1_ = CreateQueTriple("q1", "r1", nullptr, &limits, nullptr);
    q2_ = CreateQueTriple("q2", "r3", nullptr, &limits, nullptr);
    ASSERT_TRUE(client_.CreatePipe());
  }
  void TearDown() override {
    // The answer writers: all children are ours.
    kdtest::WaitFor([] { return waitpid(-1, nullptr, WNOHANG) < 0; }, 10s);
    for (QueueTriple* t : Elements<QueueTriple>(Root)) {
      for (List* list : {&t->HoldingQue, &t->PendingQue})
        while (Node* n = RemHead(list)) DestroyJob(ElementOf<Job>(n));
      for (Queue* queue : Elements<Queue>(t->ExecQueues))
        while (Node* n = RemHead(&queue->ListOfJobs)) DestroyJob(ElementOf<Job>(n));
    }
    while (Node* n = RemHead(&gAdminQueue->TerminatingQueue->ListOfJobs)) DestroyJob(ElementOf<Job>(n));
    UnlinkQueTriple(gAdminQueue);
    delete gAdminQueue;
    gAdminQueue = nullptr;
    for (QueueTriple* t : Elements<QueueTriple>(Root)) RemoveQueTriple(&Root, t);
    CopyCut(gszQmDir, "");
  }
  static Job* Place(List* list, int entry) {
    auto* job = new Job{};
    job->EntryNumb = entry;
    job->stopJobExecutable = "/x/kill";
    AddTail(list, NodeOf(job));
    return job;
  }
  static Queue* Exec(QueueTriple* t) { return ElementOf<Queue>(t->ExecQueues.Head); }
  /// Runs the handler on "<args>" (word 0 the entry number) and reads the answer.
  std::string Ask(int (*handler)(Query*), const std::string& args) {
    Query q;
    q.peer.valid = true;
    q.peer.PID = client_.id();
    CopyCut(q.que_name, args.substr(0, args.find(' ')));
    CopyCut(q.szCmdArgs, args);
    client_.OpenForAnswer();
    handler(&q);
    const std::string text = client_.ReadAnswer(10s).text;
    client_.CloseAnswer();
    return text;
  }

  kdtest::TestInstance inst_;
  kdtest::RawClient client_{inst_.qm(), 4901};
  QueueTriple* q1_ = nullptr;
  QueueTriple* q2_ = nullptr;
};

// The message of -K without -e: e2e EntryRequestsTest.
TEST_F(EntryRequestTest, DeleteOptions) {
  kdtest::WriteFile(inst_.root() + "/bin/stop_it", "#!/bin/sh\n", 0755);
  Job* job = Place(&q1_->HoldingQue, 7);
  char error[1024] = {};
  const auto parse = [&](const char* text) {
    Query q;
    CopyCut(q.szCmdArgs, text);
    return _que_del_entry_ParseArgs(&q, job, error, sizeof error);
  };
  EXPECT_EQ(parse("7 -K none"), 0);
  EXPECT_EQ(job->stopJobExecutable.view(), "/x/kill");  // an error changes nothing
  // A path that is no executable is dropped and ends the options: -o is not read.
  EXPECT_EQ(parse("7 12 -e 1 -K /nonexistent -o not_executing"), 1);
  EXPECT_EQ(job->iPendingStateExitCode, 1);
  EXPECT_EQ(job->stopJobExecutable.view(), "/x/kill");
  EXPECT_EQ(job->iHardKillTimeout, 12);
  EXPECT_EQ(parse("7 -30 -e 4 -K stop_it"), 1);
  EXPECT_EQ(job->stopJobExecutable.view(), inst_.root() + "/bin/stop_it");
  EXPECT_EQ(job->iHardKillTimeout, 30);
  EXPECT_EQ(parse("7 -o not_executing_only"), 2);
  EXPECT_EQ(job->stopJobExecutable.view(), "");  // neither -K nor -e: stopped by signals only
  EXPECT_EQ(job->iHardKillTimeout, 30);
}

// Answers the running daemon's tests do not reach: a follow-up that already
// runs, a job being terminated, a delete with a timeout (the client becomes a
// peer of the job), a move that gives back a priority slot, a signal to a job
// without a process. Moves into holding and signals to waiting jobs: e2e EntryRequestsTest.
TEST_F(EntryRequestTest, AnswersOfDeleteMoveAndSignal) {
  Place(&q1_->HoldingQue, 7);
  Job* running = Place(&Exec(q1_)->ListOfJobs, 8);
  Place(&Exec(q1_)->ListOfJobs, 9)->bFollowUpJobIsExecuted = true;
  Place(&gAdminQueue->TerminatingQueue->ListOfJobs, 10);
  EXPECT_EQ(Ask(process_que_del_entry, "9"),
            "1STATUS=WARNING MSG=Origin job entry 9 finished - follow_up is executing!\n");
  EXPECT_EQ(Ask(process_que_del_entry, "10"),
            "1STATUS=WARNING MSG=Entry 10 is on qu_admin queue. It will be deleted automatically.\n");
  EXPECT_EQ(Ask(process_que_del_entry, "7 -25"),
            "0STATUS=SUCCESS MSG=Job will be terminated and deleted in a timeout 25 seconds\n");
  Job* job = ElementOf<Job>(q1_->HoldingQue.Head);
  EXPECT_TRUE(job->MaxCompleteTimestampSet);
  ASSERT_EQ(CountList(&job->ListOfPeers), 1);  // answered again when the job is removed
  EXPECT_EQ(ElementOf<Peer>(job->ListOfPeers.Head)->handle.PID, 4901);

  running->priority = 5;
  InsertPrioritySlot(&Exec(q1_)->ListOfJobLimitsByJobPriority, 1, 1);
  ASSERT_EQ(AllocatePrioritySlot(&Exec(q1_)->ListOfJobLimitsByJobPriority, 5, 8), 1);
  Exec(q1_)->current_job_limit = 0;
  EXPECT_EQ(Ask(process_que_move_entry, "8 q2"), "0STATUS=SUCCESS MSG=Job 8 moved to resource queue r3 of queue q2\n");
  EXPECT_EQ(ElementOf<Job>(Exec(q2_)->ListOfJobs.Head), running);
  EXPECT_EQ(Exec(q1_)->current_job_limit, 1);
  EXPECT_EQ(Exec(q2_)->current_job_limit, 0);
  EXPECT_EQ(HaveAnyPrioritySlotAvailable(&Exec(q1_)->ListOfJobLimitsByJobPriority), 1);  // slot given back

  EXPECT_EQ(Ask(process_queue_signal_entry, "9 -2"), "1STATUS=WARNING MSG=Cannot send signal to process 0\n");
}

}  // namespace
