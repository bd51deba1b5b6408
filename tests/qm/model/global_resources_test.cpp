// Global resources: availability, slot changes and release. Their listing is
// checked end to end (e2e SchedulingTest.GlobalResourcesSynchronisedJobsAndAllocations).
#include <string>

#include <gtest/gtest.h>

#include "model/elements.h"
#include "model/global_resources.h"
#include "model/triple.h"
#include "test_trace.h"
#include "model/elements.h"
#include "model/job.h"

TEST(GlobalResourceTest, AJobWaitsWhileANamedResourceIsUsedUp) {
  kdtest::TestInstance inst;
  kdtest::ModuleTrace log(inst, 1);
  auto* job = new Job{};
  for (const char* n : {"tape", "undeclared"}) {
    auto* name = new GlobalResourceName{};
    name->name = n;
    AddTail(&job->ListOfGlobalResourceNames, NodeOf(name));
  }
  UpdateOrCreateGlobalResource("tape", 2);
  GlobalResource* tape = FindGlobalResource("tape", &gGlobalResources);
  ASSERT_NE(tape, nullptr);
  EXPECT_EQ(job_have_global_resources(job, &gGlobalResources), 1) << "an undeclared name never blocks";
  AllocateGlobalResource("tape", &gGlobalResources);
  AllocateGlobalResource("tape", &gGlobalResources);
  EXPECT_EQ(job_have_global_resources(job, &gGlobalResources), 0);

  UpdateOrCreateGlobalResource("tape", 1);
  EXPECT_EQ(tape->slots, 2);
  EXPECT_TRUE(log.Has("Cannot decrease slots for tape. There are 2 users"));
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
  RemoveList(&gGlobalResources);
}
