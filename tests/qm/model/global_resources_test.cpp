// Global resources: availability, slot changes and release. Their listing is
// checked end to end (e2e SchedulingTest.GlobalResourcesSynchronisedJobsAndAllocations).
#include <string>

#include <gtest/gtest.h>

#include "cm_trace.h"
#include "kd_test_support.h"
#include "model/elements.h"
#include "model/global_resources.h"
#include "model/triple.h"
#include "model/elements.h"
#include "model/job.h"

TEST(GlobalResourceTest, AJobWaitsWhileANamedResourceIsUsedUp) {
  kdtest::TestInstance inst;
  inst.write_debug_ini("KD_TEST=1\n");
  str_log log;
  v_set_log_main("kd_test.lgc", "KD_TEST", &log);
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
  EXPECT_NE(kdtest::ReadFile(log.szLogFile).find("Cannot decrease slots for tape. There are 2 users"),
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
  RemoveList(&gGlobalResources);
  v_set_log_all_close(&log);
}
