// Queue triples and resource queues: resource specifications, mode keywords,
// job-limit changes, priority order of the pending queue, share states.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cm_trace.h"
#include "kd_test_support.h"
#include "qm_job.h"
#include "qm_queue.h"
#include "queue.h"

namespace {

using Items = std::vector<std::string>;  // "share|resource|server" each

char* Text(const char* s) { return const_cast<char*>(s); }

class QueueModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    inst_.write_debug_ini("KD_TEST=1\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &rec_);
    InitRootLists();
  }
  void TearDown() override {
    for (QueueTriple* t : Elements<QueueTriple>(Root)) RemoveQueTriple(&Root, t);
    v_set_log_all_close(&rec_);
  }
  bool LogHas(const std::string& text) const {
    return kdtest::ReadFile(rec_.szLogFile).find(text) != std::string::npos;
  }
  static Items ResourceList(QueueTriple* triple, const char* request) {
    List list{nullptr, nullptr, JobPreferredResources};
    std::string text = "stale";
    getResourceList(triple, request, &text, &list);
    Items out;
    for (Resource* r : Elements<Resource>(list)) out.push_back(r->cpShare + "|" + r->cpResource + "|" + r->cpServer);
    FreeResourceList(&list);
    EXPECT_EQ(text, "");
    return out;
  }

  kdtest::TestInstance inst_;
  str_log rec_;
};

TEST_F(QueueModelTest, ResourceSpecificationsAndRequests) {
  std::string share, resource, server;
  getResourceNames("tape_drive1@srvA", &share, &resource, &server);
  EXPECT_EQ(share + "|" + resource + "|" + server, "tape|drive1|@srvA");
  getResourceNames("a_b_c", &share, &resource, &server);
  EXPECT_EQ(share + "|" + resource + "|" + server, "a_b|c|");

  // The first item ends at a comma, every later one at a blank.
  EXPECT_EQ(ResourceList(nullptr, ""), Items{"||"});
  EXPECT_EQ(ResourceList(nullptr, "a,b,c"), (Items{"|a|", "|b,c|"}));
  EXPECT_EQ(ResourceList(nullptr, "a,b c"), (Items{"|a|", "|b|", "|c|"}));
  EXPECT_EQ(ResourceList(nullptr, "tape_drive1@srvA"), Items{"tape|drive1|@srvA"});
  QueueTriple* t = CreateQueTriple("q1", "x_d1@srvA/d2", nullptr, nullptr, nullptr);
  iContext = 17;
  EXPECT_EQ(ResourceList(t, "d1@srvA,d2@srvB"), (Items{"|d1|@srvA", "|d2|"}));
  iContext = 0;
  EXPECT_TRUE(LogHas("[CTX:17] WARNING: Requested server not found in given queue -> ignore server @srvB"));
}

TEST_F(QueueModelTest, ModeKeywordsIgnoreCaseAndUnknownOnesAreInvalid) {
  EXPECT_EQ(e_GetDecisionMode("Weight"), e_decision_weight);
  EXPECT_EQ(e_GetDecisionMode("WEIGHT"), e_decision_weight);
  EXPECT_EQ(e_GetDecisionMode("wait"), e_decision_invalid_mode);
  EXPECT_TRUE(LogHas("WARNING: invalid mode >wait<"));
  EXPECT_STREQ(szDecisionMode(99), "invalid_mode");
}

TEST_F(QueueModelTest, TripleIsBuiltFromSlashSeparatedResources) {
  QueueJobLimits limits;
  limits.iJobLimit = 3;
  InsertPrioritySlot(&limits.ListOfJobLimitsByJobPriority, 1, 2);
  QueueTriple* t = CreateQueTriple("q1", "a/s_b@srv", nullptr, &limits, nullptr);
  DestroyPriorityList(&limits.ListOfJobLimitsByJobPriority);
  EXPECT_EQ(t->iExecQueCount, 2);
  EXPECT_DOUBLE_EQ(t->dWeightSum, 2.0);
  Queue* b = FindResourceQue(t, "b");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(std::string(b->share) + "|" + std::string(b->server) + "|" + std::string(b->allocate), "s|@srv|*");
  EXPECT_EQ(b->current_job_limit, 3);
  EXPECT_EQ(PrioritySlotPrint(&b->ListOfJobLimitsByJobPriority), "p1=0/2");

  QueueTriple* single = CreateQueTriple("q2", "", nullptr, nullptr, nullptr);
  EXPECT_NE(FindResourceQue(single, "single"), nullptr);
  RemoveQueTriple(&Root, t);
  EXPECT_EQ(FindQueTriple("q1"), nullptr);
  EXPECT_EQ(Root.Head, NodeOf(single));
}

TEST_F(QueueModelTest, JobLimitChangeKeepsTheShareOfRunningJobs) {
  Queue* q = FindResourceQue(CreateQueTriple("q1", "a", nullptr, nullptr, nullptr), "a");
  q->job_limit = 2;
  q->current_job_limit = 1;
  QueueJobLimits limits;
  limits.iJobLimit = 5;
  Counter counter;
  que_change_job_limit(NodeOf(q), &counter, &limits);
  EXPECT_EQ(q->job_limit, 5);
  EXPECT_EQ(q->current_job_limit, 4);
  EXPECT_EQ(q->pCounter, &counter);
}

TEST_F(QueueModelTest, PrioritySearchFindsThePlaceOfANewPendingJob) {
  List pending{nullptr, nullptr, Jobs};
  int entry = 0;
  for (int priority : {0, 5, 3, 4, 0, 5}) {
    auto* job = new Job{};
    job->priority = priority;
    job->EntryNumb = ++entry;
    if (Node* before = SearchList(&pending, Priority, IntArg(priority), nullptr))
      PreInsert(&pending, before, NodeOf(job));
    else
      AddTail(&pending, NodeOf(job));
  }
  std::vector<int> order;
  for (Job* j : Elements<Job>(pending)) order.push_back(j->EntryNumb);
  EXPECT_EQ(order, (std::vector<int>{1, 5, 2, 6, 4, 3}));
  RemoveList(&pending);
}

TEST_F(QueueModelTest, ShareStatesFollowQueueAndTripleAllocationModes) {
  QueueTriple* t = CreateQueTriple("q1", "s_a/s_b/o_d", nullptr, nullptr, nullptr);
  Queue* a = FindResourceQue(t, "a");
  Queue* b = FindResourceQue(t, "b");
  Queue* d = FindResourceQue(t, "d");
  b->eState = running;
  d->eState = blocked;
  QueState max = idle;
  WalkList(&t->ExecQueues, que_get_state, Text("s"), &max);
  EXPECT_EQ(max, running);
  auto allocate_all = [&] {
    for (Queue* q : Elements<Queue>(t->ExecQueues)) q->isAllocated = 1, q->allocate = "fam", q->bJobRequest = false;
  };
  allocate_all();
  a->eAllocMode = e_allocation_permanent;
  t->eAllocMode = e_allocation_volatile;
  WalkList(&t->ExecQueues, que_set_share_idle, t, Text("s"));
  EXPECT_TRUE(a->eState == idle && a->bJobRequest);
  EXPECT_EQ(a->isAllocated + b->isAllocated, 0);
  EXPECT_EQ(std::string(a->allocate) + "|" + std::string(b->allocate) + "|" + std::string(d->allocate), "fam||fam");
  // In an occupied triple the allocation outlives the job.
  allocate_all();
  t->eAllocMode = e_allocation_occupied;
  WalkList(&t->ExecQueues, que_set_share_idle, t, Text("s"));
  EXPECT_TRUE(b->isAllocated == 1 && b->allocate == "fam");
}

}  // namespace
