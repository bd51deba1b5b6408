// The scheduling pass on real triples with tiny real jobs (/bin/true): the
// priority cascade and the hold-back rule, priority slots, global resources,
// the allocation modes, the synchronised start, lazy jobs, and the weighted
// random order.
#include "kd_qm_sched.h"

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_trace.h"
#include "kd_hal_qm.h"
#include "kd_test_support.h"
#include "qm_common.h"
#include "qm_entry.h"
#include "qm_globalresource.h"
#include "qm_queue.h"

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

class SchedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CopyCut(strLocalLog.szLogFile, inst_.lgc() + "trace.log");
    strLocalLog.iLogLevel = 3;
    SetKdQmExitLog("20260101");
    InitRootLists();
  }
  void TearDown() override {
    for (QueueTriple* t : Elements<QueueTriple>(Root)) {
      for (Queue* q : Elements<Queue>(t->ExecQueues))
        while (Node* n = RemHead(&q->ListOfJobs)) Reap(ElementOf<Job>(n));
      for (List* list : {&t->HoldingQue, &t->PendingQue})
        while (Node* n = RemHead(list)) DestroyJob(ElementOf<Job>(n));
      RemoveQueTriple(&Root, t);
    }
    RemoveList(&gGlobalResources);
    QmEntry_destroy();
    gszKdQmExitLog[0] = '\0';
    strLocalLog.szLogFile[0] = '\0';
    strLocalLog.iLogLevel = 0;
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
  static Strings Args(const Job* job) {
    Strings out;
    for (Argument* a : Elements<Argument>(job->ListOfArguments)) out.push_back(a->argument.c_str());
    return out;
  }
  bool TraceHas(const std::string& text) const {
    return kdtest::ReadFile(strLocalLog.szLogFile).find(text) != std::string::npos;
  }

  kdtest::TestInstance inst_;
  int entries_ = 0;
};

// b (volatile, left bound to X) is released in the "allocated" pass and
// takes the 7s only in the "idle" pass; a (permanent, bound to Y) holds the 3
// back while a 7 it cannot take waits. Only when every 7 has left the
// pending queue does the same call go on to priority 3.
TEST_F(SchedTest, CascadeAndHoldBackOfALowerPriority) {
  for (int b_limit : {2, 1}) {
    kdtest::WriteFile(strLocalLog.szLogFile, "");
    QueueTriple* t = Triple("a/b", 1);
    Queue* a = FindResourceQue(t, "a");
    Queue* b = FindResourceQue(t, "b");
    a->eAllocMode = e_allocation_permanent;
    a->allocate = "Y";
    a->isAllocated = 1;
    b->eAllocMode = e_allocation_volatile;
    b->allocate = "X";
    b->job_limit = b->current_job_limit = b_limit;
    Job* j7 = Add(&t->PendingQue, NewJob(7));
    Job* k7 = Add(&t->PendingQue, NewJob(7));
    Job* j3 = Add(&t->PendingQue, NewJob(3, "Y"));
    ProcessQueTriple(t);

    EXPECT_TRUE(TraceHas("Got job with higher priority but different allocation. Wait for jobs to complete - entry [" +
                         std::to_string(j7->EntryNumb) + "] prio 7"));
    EXPECT_TRUE(TraceHas("Set allocation from X to *, bJobRequest 1 because queue b has no running jobs"));
    const bool cascaded = TraceHas("All pending jobs with highest prio 7 started. Try to start jobs with prio 3");
    EXPECT_EQ(cascaded, b_limit == 2);
    EXPECT_EQ(Args(j7), (Strings{"-d", "b"}));
    if (b_limit == 2) {
      EXPECT_EQ(Names(b->ListOfJobs), (Strings{j7->job_name.c_str(), k7->job_name.c_str()}));
      EXPECT_EQ(Names(a->ListOfJobs), Strings{j3->job_name.c_str()});
    } else {
      EXPECT_EQ(Names(t->PendingQue), (Strings{k7->job_name.c_str(), j3->job_name.c_str()}));
      EXPECT_EQ(a->ListOfJobs.Head, nullptr);
    }
  }
}

// On a full queue a priority slot takes the job of high enough priority; a
// job naming a global resource without a free unit waits, and still counts
// as a request for the queue.
TEST_F(SchedTest, PrioritySlotsAndGlobalResources) {
  QueueTriple* t = Triple("", 1);
  Queue* q = FindResourceQue(t, "single");
  InsertPrioritySlot(&q->ListOfJobLimitsByJobPriority, 5, 1);
  q->current_job_limit = 0;  // one job runs
  Job* high = Add(&t->PendingQue, NewJob(7));
  Add(&t->PendingQue, NewJob(3));
  ProcessQueTriple(t);
  EXPECT_EQ(Names(q->ListOfJobs), Strings{high->job_name.c_str()});
  EXPECT_EQ(Args(high), Strings{});  // "single" adds no "-d" pair
  EXPECT_EQ(PrioritySlotPrint(&q->ListOfJobLimitsByJobPriority), "p5=1/1");
  EXPECT_EQ(q->current_job_limit, 0);
  EXPECT_EQ(CountList(&t->PendingQue), 1);

  QueueTriple* g = Triple("a", 2);
  Queue* a = FindResourceQue(g, "a");
  GlobalResource* tape = AddGlobalResource(&gGlobalResources, "tape", 1);
  tape->allocated = 1;
  Job* job = Add(&g->PendingQue, NewJob(0));
  auto* name = new GlobalResourceName{};
  name->name = "tape";
  AddTail(&job->ListOfGlobalResourceNames, NodeOf(name));
  ProcessQueTriple(g);
  EXPECT_EQ(g->PendingQue.Head, NodeOf(job));
  EXPECT_TRUE(a->bJobRequest);
  tape->allocated = 0;
  ProcessQueTriple(g);
  EXPECT_EQ(a->ListOfJobs.Head, NodeOf(job));
  EXPECT_EQ(tape->allocated, 1);
}

// Per mode: the allocation when the last job has ended, then what an "idle"
// call does with a job of another allocation.
TEST_F(SchedTest, AllocationModes) {
  struct Row {
    AllocationMode mode;
    int allocated_after_end;
    const char* allocate_after_end;
    bool started;
    const char* allocate_after_idle;
  };
  const Row rows[] = {{e_allocation_occupied, 1, "X", true, "Y"},
                      {e_allocation_permanent, 0, "X", false, "X"},
                      {e_allocation_volatile, 0, "X", false, "*"},
                      {e_allocation_ignore, 0, "", true, "Y"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(szAllocationMode(row.mode));
    QueueTriple* t = Triple("a", 1);
    Queue* q = FindResourceQue(t, "a");
    q->eAllocMode = row.mode;
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
    EXPECT_EQ(q->isAllocated, row.allocated_after_end);
    EXPECT_EQ(q->allocate.view(), row.allocate_after_end);

    Job* other = Add(&t->PendingQue, NewJob(0, "Y"));
    check_que_and_pending_jobs(NodeOf(q), t, const_cast<char*>(kSelectIdle));
    EXPECT_EQ(q->ListOfJobs.Head == NodeOf(other), row.started);
    EXPECT_EQ(q->allocate.view(), row.allocate_after_idle);
  }
}

TEST_F(SchedTest, SynchronisedJobStartsOnceEveryQueueReachedItWithOneDPairEach) {
  QueueTriple* t = Triple("a/b/c", 1);
  Job* job = Add(&t->PendingQue, NewJob(0, "", "all"));
  ProcessQueTriple(t);
  EXPECT_TRUE(TraceHas("synchronize multi queue for job " + std::string(job->job_name.c_str())));
  EXPECT_EQ(Args(job), (Strings{"-d", "a", "-d", "b", "-d", "c"}));
  Queue* c = FindResourceQue(t, "c");
  EXPECT_EQ(c->ListOfJobs.Head, NodeOf(job));
  EXPECT_EQ(c->eState, running);
  EXPECT_EQ(FindResourceQue(t, "a")->eState, idle);
  EXPECT_EQ(t->status, running);
  EXPECT_EQ(t->iSynchronCount, 0);
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
  EXPECT_TRUE(TraceHas("==> set preferred resource to any '*'"));

  a->eState = stopped;
  a->bJobRequest = true;
  std::vector<Job*> jobs;
  for (int i = 0; i < 3; ++i) (jobs.emplace_back(Add(&t->PendingQue, NewJob(0, "", "a"))))->bLazy = true;
  check_que_and_pending_jobs(NodeOf(a), t, const_cast<char*>(kSelectIdle));
  EXPECT_EQ((Strings{std::to_string(jobs[0]->bLazy), std::to_string(jobs[1]->bLazy), std::to_string(jobs[2]->bLazy)}),
            (Strings{"0", "0", "1"}));
  EXPECT_TRUE(TraceHas("--- check_que_and_pending_jobs: queue a is not running"));
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
  EXPECT_TRUE(TraceHas("-> Use count of resources for random range [0.0..3.00]"));
  EXPECT_TRUE(TraceHas("check range for resource x [0.00..1.00] (weight 1.00)"));
}

}  // namespace
