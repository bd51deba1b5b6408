// Global resources: availability, slot changes, registration lifetime and
// the usage listing.
#include "qm_globalresource.h"

#include <string>

#include <gtest/gtest.h>

#include "cm_trace.h"
#include "kd_test_support.h"
#include "qm_job.h"

namespace {

class GlobalResourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    inst_.write_debug_ini("KD_TEST=1\n");
    v_set_log_main("kd_test.lgc", "KD_TEST", &rec_);
    InitRootLists();
  }
  void TearDown() override {
    RemoveList(&job_.ListOfGlobalResourceNames);
    RemoveList(&gGlobalResources);
    v_set_log_all_close(&rec_);
  }
  void Names(Job* job, std::initializer_list<const char*> names) {
    for (const char* n : names) {
      auto* name = new GlobalResourceName{};
      name->name = n;
      AddTail(&job->ListOfGlobalResourceNames, NodeOf(name));
    }
  }

  kdtest::TestInstance inst_;
  str_log rec_;
  Job job_;
};

TEST_F(GlobalResourceTest, AJobWaitsWhileANamedResourceIsUsedUp) {
  Names(&job_, {"tape", "undeclared"});
  UpdateOrCreateGlobalResource("tape", 2);
  GlobalResource* tape = FindGlobalResource("tape", &gGlobalResources);
  ASSERT_NE(tape, nullptr);
  EXPECT_EQ(job_have_global_resources(&job_, &gGlobalResources), 1) << "an undeclared name never blocks";
  AllocateGlobalResource("tape", &gGlobalResources);
  AllocateGlobalResource("tape", &gGlobalResources);
  EXPECT_EQ(job_have_global_resources(&job_, &gGlobalResources), 0);

  UpdateOrCreateGlobalResource("tape", 1);
  EXPECT_EQ(tape->slots, 2);
  EXPECT_NE(kdtest::ReadFile(rec_.szLogFile).find("Cannot decrease slots for tape. There are 2 users"),
            std::string::npos);
  UpdateOrCreateGlobalResource("tape", 3);
  EXPECT_EQ(job_have_global_resources(&job_, &gGlobalResources), 1);

  job_allocate_global_resources(&job_, &gGlobalResources);
  EXPECT_TRUE(job_.bGLORESAllocated);
  EXPECT_EQ(tape->allocated, 3);
  job_release_global_resources(&job_, &gGlobalResources);
  job_release_global_resources(&job_, &gGlobalResources);
  EXPECT_FALSE(job_.bGLORESAllocated);
  EXPECT_EQ(tape->allocated, 2) << "a second release gives nothing back";
}

TEST_F(GlobalResourceTest, AResourceLivesWhileSomeJobIsRegisteredForIt) {
  Names(&job_, {"disk"});
  UpdateOrCreateGlobalResource("disk", 1);
  UpdateOrCreateGlobalResource("net", 1);
  job_register_global_resources(&job_, &gGlobalResources);
  CheckUnregisteredGlobalResources();
  EXPECT_NE(FindGlobalResource("disk", &gGlobalResources), nullptr);
  EXPECT_EQ(FindGlobalResource("net", &gGlobalResources), nullptr);
  std::string text;
  ViewGlobalResource(FindGlobalResource("disk", &gGlobalResources), &text);
  EXPECT_EQ(text, "disk\t1\t0\t1\n");
  job_deregister_global_resources(&job_, &gGlobalResources);
  CheckUnregisteredGlobalResources();
  EXPECT_EQ(gGlobalResources.Head, nullptr);
}

TEST_F(GlobalResourceTest, UsageListsEveryNonEmptyPartOfEachQueue) {
  UpdateOrCreateGlobalResource("tape", 2);
  Job holding, running;
  holding.job_name = "h1";
  running.job_name = "r1";
  Names(&holding, {"tape"});
  Names(&running, {"tape"});
  job_allocate_global_resources(&running, &gGlobalResources);
  QueueTriple t;
  t.name = "q1";
  Queue exec;
  AddTail(&t.ExecQueues, NodeOf(&exec));
  AddTail(&exec.ListOfJobs, NodeOf(&running));
  AddTail(&t.HoldingQue, NodeOf(&holding));
  List triples{nullptr, nullptr, QueueTriples};
  AddTail(&triples, NodeOf(&t));
  std::string text;
  PrintJobsGlobalResourcesUsage(&triples, &gGlobalResources, &text);
  EXPECT_EQ(text, "queue: q1\n[exec]\nr1: tape(R,1/2) \n\n[holding]\nh1: tape(R,1/2) \n\n");
  RemoveList(&holding.ListOfGlobalResourceNames);
  RemoveList(&running.ListOfGlobalResourceNames);
}

}  // namespace
