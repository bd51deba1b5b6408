// Queue triples and resource queues: look-up by name, resource
// specifications, job-limit changes under running jobs, share states per
// allocation mode.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/removal.h"
#include "kd_test_support.h"
#include "model/elements.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "test_trace.h"

namespace {

using Items = std::vector<std::string>;  // "share|resource|server" each

class QueueModelTest : public ::testing::Test {
 protected:
  void SetUp() override { InitRootLists(); }
  void TearDown() override {
    for (QueueTriple* t : Elements<QueueTriple>(Root)) RemoveQueTriple(&Root, t);
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
  kdtest::ModuleTrace log_{inst_, 1};
};

// The look-up follows Root through creation, removal, unlinking and
// re-linking; names are compared whole and exactly, at their cut length.
TEST_F(QueueModelTest, LookUpByNameFollowsRoot) {
  QueueTriple* a = CreateQueTriple("a", "", nullptr, nullptr, nullptr);
  QueueTriple* b = CreateQueTriple("b", "", nullptr, nullptr, nullptr);
  const std::string long_name(2000, 'x');
  QueueTriple* cut = CreateQueTriple(long_name, "", nullptr, nullptr, nullptr);
  EXPECT_EQ(FindQueTriple("a"), a);
  EXPECT_EQ(FindQueTriple("b"), b);
  for (const std::string& miss : {std::string(), std::string("A"), std::string("a "), long_name})
    EXPECT_EQ(FindQueTriple(miss), nullptr) << miss.size();
  EXPECT_EQ(FindQueTriple(long_name.substr(0, 1023)), cut);

  RemoveQueTriple(&Root, a);
  EXPECT_EQ(FindQueTriple("a"), nullptr);
  UnlinkQueTriple(b);
  EXPECT_EQ(FindQueTriple("b"), nullptr);
  EXPECT_EQ(CountList(&Root), 1);
  LinkQueTriple(b);
  EXPECT_EQ(FindQueTriple("b"), b);
  EXPECT_EQ(ElementOf<QueueTriple>(Root.Tail), b);

  // A second triple of a taken name (never made by a request) is not the
  // one found, and unlinking it leaves the first one found.
  QueueTriple* twin = NewQueTriple("b", 2);
  LinkQueTriple(twin);
  EXPECT_EQ(FindQueTriple("b"), b);
  UnlinkQueTriple(twin);
  EXPECT_EQ(FindQueTriple("b"), b);
  delete twin;

  InitRootLists();  // forgets the triples without freeing them
  EXPECT_EQ(FindQueTriple("b"), nullptr);
  LinkQueTriple(b);  // for the fixture to free
  LinkQueTriple(cut);
}

// A resource queue's name split into share, resource and server: e2e QueueRequestsTest.
TEST_F(QueueModelTest, ResourceRequests) {
  // The first item ends at a comma, every later one at a blank.
  EXPECT_EQ(ResourceList(nullptr, ""), Items{"||"});
  EXPECT_EQ(ResourceList(nullptr, "a,b,c"), (Items{"|a|", "|b,c|"}));
  EXPECT_EQ(ResourceList(nullptr, "a,b c"), (Items{"|a|", "|b|", "|c|"}));
  EXPECT_EQ(ResourceList(nullptr, "tape_drive1@srvA"), Items{"tape|drive1|@srvA"});
  QueueTriple* t = CreateQueTriple("q1", "x_d1@srvA/d2", nullptr, nullptr, nullptr);
  iContext = 17;
  EXPECT_EQ(ResourceList(t, "d1@srvA,d2@srvB"), (Items{"|d1|@srvA", "|d2|"}));
  iContext = 0;
  EXPECT_TRUE(log_.Has("[CTX:17] WARNING: Requested server not found in given queue -> ignore server @srvB"));
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

TEST_F(QueueModelTest, ShareStatesFollowQueueAndTripleAllocationModes) {
  QueueTriple* t = CreateQueTriple("q1", "s_a/s_b/o_d", nullptr, nullptr, nullptr);
  Queue* a = FindResourceQue(t, "a");
  Queue* b = FindResourceQue(t, "b");
  Queue* d = FindResourceQue(t, "d");
  char share[] = "s";
  b->eState = running;
  d->eState = blocked;
  QueState max = idle;
  WalkList(&t->ExecQueues, que_get_state, share, &max);
  EXPECT_EQ(max, running);
  auto allocate_all = [&] {
    for (Queue* q : Elements<Queue>(t->ExecQueues)) q->isAllocated = 1, q->allocate = "fam", q->bJobRequest = false;
  };
  allocate_all();
  a->eAllocMode = e_allocation_permanent;
  t->eAllocMode = e_allocation_volatile;
  WalkList(&t->ExecQueues, que_set_share_idle, t, share);
  EXPECT_TRUE(a->eState == idle && a->bJobRequest);
  EXPECT_EQ(a->isAllocated + b->isAllocated, 0);
  EXPECT_EQ(std::string(a->allocate) + "|" + std::string(b->allocate) + "|" + std::string(d->allocate), "fam||fam");
  // In an occupied triple the allocation outlives the job.
  allocate_all();
  t->eAllocMode = e_allocation_occupied;
  WalkList(&t->ExecQueues, que_set_share_idle, t, share);
  EXPECT_TRUE(b->isAllocated == 1 && b->allocate == "fam");
}

}  // namespace
