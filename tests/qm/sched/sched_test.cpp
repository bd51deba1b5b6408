// The scheduling pass on real triples with tiny real jobs (/bin/true): the
// allocation modes, queues of weight 0, lazy jobs, the weighted random
// order, and walks over triples at rest.
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/exit_log.h"
#include "jobs/launch.h"
#include "jobs/removal.h"
#include "kd_test_support.h"
#include "model/entry_pool.h"
#include "model/job.h"
#include "model/triple.h"
#include "sched/pass.h"
#include "sched/selection.h"
#include "test_trace.h"

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

class SchedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetKdQmExitLog("20260101");
    InitRootLists();
    UnsettleQueTriples();
  }
  void TearDown() override {
    for (QueueTriple* t : Elements<QueueTriple>(Root)) {
      for (Queue* q : Elements<Queue>(t->ExecQueues))
        while (Node* n = RemHead(&q->ListOfJobs)) Reap(ElementOf<Job>(n));
      for (List* list : {&t->HoldingQue, &t->PendingQue})
        while (Node* n = RemHead(list)) DestroyJob(ElementOf<Job>(n));
      RemoveQueTriple(&Root, t);
    }
    QmEntry_destroy();
    gszKdQmExitLog[0] = '\0';
  }
  /// Kills a started job's group, reaps it and destroys the record.
  static void Reap(Job* job) {
    if (job->PID > 0) {
      kill(static_cast<pid_t>(-job->PID), SIGKILL);
      int status = 0;
      EXPECT_TRUE(kdtest::WaitFor([&] { return waitpid(static_cast<pid_t>(job->PID), &status, WNOHANG) != 0; }, 5s));
    }
    DestroyJob(job);
  }
  static QueueTriple* Triple(const char* resources, int limit) {
    QueueJobLimits limits;
    limits.iJobLimit = limit;
    return CreateQueTriple("q", resources, nullptr, &limits, nullptr);
  }
  Job* NewJob(int priority, const char* allocate = "", const char* resource = "*") {
    auto* job = new Job{};
    job->EntryNumb = ++entries_;
    job->job_name = "j" + std::to_string(entries_);
    job->file_name = "/bin/true";
    job->priority = priority;
    job->allocate = allocate;
    getResourceList(nullptr, resource, nullptr, &job->s_preferredResource.l_preferredResources);
    job->synchronize = SpecifyJobResource(job) == e_prt_all ? 1 : 0;
    return job;
  }
  static Job* Add(List* list, Job* job) {
    AddTail(list, NodeOf(job));
    return job;
  }
  static Strings Names(const List& jobs) {
    Strings out;
    for (Job* job : Elements<Job>(jobs)) out.push_back(job->job_name.c_str());
    return out;
  }

  kdtest::TestInstance inst_;
  kdtest::LocalTrace trace_{inst_, 3};
  int entries_ = 0;
};

// Per mode: the allocation when the last job has ended, then what an "idle"
// call does with a job of another allocation.
TEST_F(SchedTest, AllocationModes) {
  for (const auto& [mode, allocated_after_end, allocate_after_end, started, allocate_after_idle] :
       std::vector<std::tuple<AllocationMode, int, const char*, bool, const char*>>{
           {e_allocation_occupied, 1, "X", true, "Y"}, {e_allocation_permanent, 0, "X", false, "X"},
           {e_allocation_volatile, 0, "X", false, "*"}, {e_allocation_ignore, 0, "", true, "Y"}}) {
    SCOPED_TRACE(szAllocationMode(mode));
    QueueTriple* t = Triple("a", 1);
    Queue* q = FindResourceQue(t, "a");
    q->eAllocMode = mode;
    q->allocate = "X";
    q->isAllocated = 1;
    q->eState = running;
    q->current_job_limit = 0;
    Job* done = Add(&q->ListOfJobs, NewJob(0, "X"));
    done->PID = runjob(done);
    ASSERT_TRUE(kdtest::WaitFor(
        [&] {
          check_executing_que(NodeOf(q), t, nullptr);
          return q->ListOfJobs.Head == nullptr;
        },
        5s));
    EXPECT_EQ(q->eState, idle);
    EXPECT_EQ(q->isAllocated, allocated_after_end);
    EXPECT_EQ(q->allocate.view(), allocate_after_end);

    Job* other = Add(&t->PendingQue, NewJob(0, "Y"));
    check_que_and_pending_jobs(NodeOf(q), t, const_cast<char*>(kSelectIdle));
    EXPECT_EQ(q->ListOfJobs.Head == NodeOf(other), started);
    EXPECT_EQ(q->allocate.view(), allocate_after_idle);
  }
}

// Once a walk has found every triple at rest and no job exists, walks skip
// until a request unsettles the triples; a job that exists is always served.
TEST_F(SchedTest, WalksOverTriplesAtRestSkipUntilUnsettledOrAJobExists) {
  strLocalLog.iLogLevel = 1;  // flow traces would have every walk see every triple
  QueueTriple* t = Triple("a", 1);
  Queue* q = FindResourceQue(t, "a");
  q->eState = blocked;
  EXPECT_TRUE(TripleAtRest(t));
  q->eState = idle;
  ProcessAllQueTriples();

  q->eState = running;  // as a queue_start leaves an empty resource, here without a request
  EXPECT_FALSE(TripleAtRest(t));
  ProcessAllQueTriples();
  EXPECT_EQ(q->eState, running);
  UnsettleQueTriples();
  ProcessAllQueTriples();
  EXPECT_EQ(q->eState, idle);

  ProcessAllQueTriples();
  Job* job = Add(&t->PendingQue, NewJob(0));
  ProcessAllQueTriples();
  EXPECT_EQ(q->ListOfJobs.Head, NodeOf(job));
  EXPECT_GT(job->PID, 0);
  EXPECT_FALSE(TripleAtRest(t));
}

// A queue of weight 0 in a triple with weight takes only jobs that name it;
// a lazy job naming it is released to any resource instead. A stopped
// queue releases two lazy jobs per call at most.
TEST_F(SchedTest, WeightZeroQueueAndLazyJobs) {
  QueueTriple* t = Triple("a/b", 1);
  Queue* a = FindResourceQue(t, "a");
  Queue* b = FindResourceQue(t, "b");
  a->job_limit = a->current_job_limit = 2;
  a->dWeight = 0.0;
  t->dWeightSum = 1.0;
  Job* any = Add(&t->PendingQue, NewJob(0));
  Job* fixed = Add(&t->PendingQue, NewJob(0, "", "a"));
  Job* lazy = Add(&t->PendingQue, NewJob(0, "", "a"));
  lazy->bLazy = true;
  ProcessQueTriple(t);
  EXPECT_EQ(Names(a->ListOfJobs), Strings{fixed->job_name.c_str()});
  EXPECT_EQ(Names(b->ListOfJobs), Strings{any->job_name.c_str()});
  EXPECT_EQ(t->PendingQue.Head, NodeOf(lazy));
  EXPECT_FALSE(lazy->bLazy);
  EXPECT_EQ(lazy->s_preferredResource.i_resourceType, e_prt_arbitrary);
  EXPECT_TRUE(trace_.Has("==> set preferred resource to any '*'"));

  a->eState = stopped;
  a->bJobRequest = true;
  std::vector<Job*> jobs;
  for (int i = 0; i < 3; ++i) (jobs.emplace_back(Add(&t->PendingQue, NewJob(0, "", "a"))))->bLazy = true;
  check_que_and_pending_jobs(NodeOf(a), t, const_cast<char*>(kSelectIdle));
  EXPECT_EQ((std::vector<bool>{jobs[0]->bLazy, jobs[1]->bLazy, jobs[2]->bLazy}), (std::vector<bool>{false, false, true}));
  EXPECT_TRUE(trace_.Has("--- check_que_and_pending_jobs: queue a is not running"));
}

void Record(Node* queue, void* out, void*) {
  static_cast<Strings*>(out)->push_back(ElementOf<Queue>(queue)->name.c_str());
}

TEST_F(SchedTest, WeightedRandomOrderFollowsTheSeededGenerator) {
  EXPECT_EQ(dGetRandom(2.5, 2.5), 2.5);
  QueueTriple* t = Triple("a/b", 1);
  FindResourceQue(t, "a")->dWeight = 3.0;
  t->dWeightSum = 4.0;
  for (unsigned seed = 1; seed <= 50; ++seed) {
    SetQmRandomSeed(seed);
    const double r = std::rand() / 2147483648.0 * 4.0;
    SetQmRandomSeed(seed);
    Strings order;
    WalkRandomExecQueues(t, Record, &order, nullptr);
    EXPECT_EQ(order, r <= 3.0 ? (Strings{"a", "b"}) : (Strings{"b", "a"})) << seed;
  }

  // All weights 0: every draw counts the queues, each weighing 1.
  QueueTriple* zero = Triple("x/y/z", 1);
  for (Queue* q : Elements<Queue>(zero->ExecQueues)) q->dWeight = 0.0;
  zero->dWeightSum = 0.0;
  Strings order;
  WalkRandomExecQueues(zero, Record, &order, nullptr);
  EXPECT_EQ(order.size(), 3u);
  EXPECT_TRUE(trace_.Has("-> Use count of resources for random range [0.0..3.00]"));
  EXPECT_TRUE(trace_.Has("check range for resource x [0.00..1.00] (weight 1.00)"));
}

}  // namespace
