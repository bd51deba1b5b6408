// The job exit log: its path, the time stamp of each record, the real times
// of a record, and nothing at trace level 0.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/exit_log.h"
#include "jobs/launch.h"
#include "kd_test_support.h"
#include "model/job.h"
#include "test_trace.h"

TEST(ExitLogTest, CreationAndEndGiveOneExactRecordEachAndNothingAtLevelZero) {
  kdtest::TestInstance inst;
  kdtest::LocalTrace trace(inst, 1);
  SetKdQmExitLog("20260513");
  EXPECT_EQ(std::string(gszKdQmExitLog), inst.lgc() + "/kd_qm_exit_20260513.log");
  auto* job = new Job{};
  job->EntryNumb = 5;
  job->PID = 4242;
  job->job_name = "nightly";
  job->SubmitTime = QMTime{2026, 5, 13, 10, 11, 2};
  job->pFullCommand = new std::string("-j nightly /opt/bin/backup -f x");
  job->file_name = "/opt/bin/backup";
  ASSERT_EQ(jobAddArg_str(job, "-f") + jobAddArg_str(job, "x y"), 0);
  JobCreatedKdQmExitLog(job);
  job->StartTime = QMTime{2026, 5, 13, 10, 12, 0};
  strLocalLog.iLogLevel = 0;
  AppendJobTerminationReason(job, "Job stopped with signal");
  strLocalLog.iLogLevel = 1;
  AppendJobTerminationReasonExitStatus(job, "Job exited with status", 0);
  EXPECT_EQ(job->pTermReason, nullptr);
  DestroyJob(job);

  std::vector<std::string> lines;
  std::istringstream in(kdtest::ReadFile(gszKdQmExitLog));
  for (std::string line; std::getline(in, line); lines.push_back(line.substr(20)))
    EXPECT_TRUE(kdtest::StartsWithShape(line, "9999-99-99 99:99:99 ")) << line;
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "CTX:5;name:nightly;submit:2026-05-13 10:11:02;start:00-00-00 00:00:00;command: -j nightly "
                       "/opt/bin/backup -f x",
                       "CTX:5;PID:4242;name:nightly;submit:2026-05-13 10:11:02;start:2026-05-13 10:12:00;Job exited "
                       "with status [exit code: 0];\"/opt/bin/backup\" -f x y;"}));
  gszKdQmExitLog[0] = '\0';
}
