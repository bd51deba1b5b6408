// Global resources: availability, slot changes, release, and the usage
// listing of the holding queue.
#include "cm_trace.h"
#include "kd_test_support.h"
#include "model/elements.h"
#include "model/global_resources.h"
#include "model/job.h"
#include "model/list.h"
#include "model/records.h"
#include "model/triple.h"
#include "views/global_resource_view.h"

#include <string>

#include <gtest/gtest.h>

namespace {

class GlobalResourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    inst_.write_debug_ini("KD_TEST=1\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &rec_);
    InitRootLists();
  }
  void TearDown() override {
    RemoveList(&gGlobalResources);
    v_set_log_all_close(&rec_);
  }
  /// A fresh job naming the global resources; DestroyJob frees it.
  static Job* NewJob(const char* job_name, std::initializer_list<const char*> names) {
    auto* job = new Job{};
    job->job_name = job_name;
    for (const char* n : names) {
      auto* name = new GlobalResourceName{};
      name->name = n;
      AddTail(&job->ListOfGlobalResourceNames, NodeOf(name));
    }
    return job;
  }

  kdtest::TestInstance inst_;
  str_log rec_;
};

TEST_F(GlobalResourceTest, AJobWaitsWhileANamedResourceIsUsedUp) {
  Job* job = NewJob("j", {"tape", "undeclared"});
  UpdateOrCreateGlobalResource("tape", 2);
  GlobalResource* tape = FindGlobalResource("tape", &gGlobalResources);
  ASSERT_NE(tape, nullptr);
  EXPECT_EQ(job_have_global_resources(job, &gGlobalResources), 1) << "an undeclared name never blocks";
  AllocateGlobalResource("tape", &gGlobalResources);
  AllocateGlobalResource("tape", &gGlobalResources);
  EXPECT_EQ(job_have_global_resources(job, &gGlobalResources), 0);

  UpdateOrCreateGlobalResource("tape", 1);
  EXPECT_EQ(tape->slots, 2);
  EXPECT_NE(kdtest::ReadFile(rec_.szLogFile).find("Cannot decrease slots for tape. There are 2 users"),
            std::string::npos);
  UpdateOrCreateGlobalResource("tape", 3);
  EXPECT_EQ(job_have_global_resources(job, &gGlobalResources), 1);

  job_allocate_global_resources(job, &gGlobalResources);
  EXPECT_TRUE(job->bGLORESAllocated);
  EXPECT_EQ(tape->allocated, 3);
  job_release_global_resources(job, &gGlobalResources);
  job_release_global_resources(job, &gGlobalResources);
  EXPECT_FALSE(job->bGLORESAllocated);
  EXPECT_EQ(tape->allocated, 2) << "a second release gives nothing back";
  DestroyJob(job);
}

TEST_F(GlobalResourceTest, UsageListsEveryNonEmptyPartOfEachQueue) {
  UpdateOrCreateGlobalResource("tape", 2);
  Job* holding = NewJob("h1", {"tape"});
  Job* running = NewJob("r1", {"tape"});
  job_allocate_global_resources(running, &gGlobalResources);
  QueueTriple t;
  t.name = "q1";
  Queue exec;
  AddTail(&t.ExecQueues, NodeOf(&exec));
  AddTail(&exec.ListOfJobs, NodeOf(running));
  AddTail(&t.HoldingQue, NodeOf(holding));
  List triples{nullptr, nullptr, QueueTriples};
  AddTail(&triples, NodeOf(&t));
  std::string text;
  PrintJobsGlobalResourcesUsage(&triples, &gGlobalResources, &text);
  EXPECT_EQ(text, "queue: q1\n[exec]\nr1: tape(R,1/2) \n\n[holding]\nh1: tape(R,1/2) \n\n");
  DestroyJob(holding);
  DestroyJob(running);
}

}  // namespace
