// Job creation from submission texts (option grammar, quoting, legacy
// grammar, follow-up chains, refusals) and the change of a waiting job.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kd_test_support.h"
#include "model/elements.h"
#include "model/job.h"
#include "model/job_grammar.h"
#include "model/triple.h"
#include "protocol/globals.h"

namespace {

using Strings = std::vector<std::string>;

Strings Args(const Job* job) {
  Strings out;
  for (const Argument* a : Elements<Argument>(job->ListOfArguments)) out.emplace_back(a->argument.view());
  return out;
}

class JobTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CopyCut(gszBinDir, bin_.path());
    kdtest::WriteFile(bin_.file("job.sh"), "#!/bin/sh\n", 0755);
    kdtest::WriteFile(bin_.file("my tool.sh"), "#!/bin/sh\n", 0755);
  }
  void TearDown() override {
    DestroyJobChain(job_);
    RemoveList(&gGlobalResources);
    CopyCut(gszBinDir, "");
  }
  /// Creates job_ from the text (the previous one destroyed).
  Job* Create(const std::string& text, cmd_mode mode = queue_submit) {
    DestroyJobChain(job_);
    Query q;
    q.function = mode;
    q.peer.valid = true;
    q.peer.PID = 77;
    CopyCut(q.szCmdArgs, text);
    error_[0] = '\0';
    job_ = CreateJob(&q, nullptr, error_, sizeof(error_));
    return job_;
  }

  kdtest::TempDir bin_;
  Job* job_ = nullptr;
  char error_[1024] = {};
};

TEST_F(JobTest, OptionsQuotedWordsLegacyGrammarAndTheLongestTexts) {
  const std::string text =
      "-j \"my job\" -p 3/2 -S 5/60 -e restricted -K job.sh /bin/echo a \"b c\" \"d\" -x";
  ASSERT_NE(Create(text), nullptr) << error_;
  EXPECT_EQ(job_->job_name, "\"my job\"");
  EXPECT_EQ(std::vector<int>({job_->priority, job_->MaxAnswerStep, job_->iHardKillTimeout, job_->iSoftKillTimeout}),
            std::vector<int>({3, 0, 5, 60}));
  EXPECT_EQ(job_->iRestrictedAccess, 1);    // "restricted" after -e reaches the u option
  EXPECT_EQ(job_->iPendingStateExitCode, -2);
  EXPECT_EQ(job_->stopJobExecutable, bin_.file("job.sh"));
  EXPECT_EQ(job_->file_name, "/bin/echo");
  // The whole command and no -T: in the exit log and the listings (e2e SchedulingTest).
  EXPECT_EQ(Args(job_), (Strings{"a", "b c", "d", "-x"}));

  ASSERT_NE(Create("-j q \"my tool.sh\" x"), nullptr) << error_;
  EXPECT_EQ(job_->file_name, bin_.file("my tool.sh"));
  EXPECT_EQ(Args(job_), Strings{"x"});

  // A glued value leaves the next word an option word.
  JobArgs args;
  Query q;
  char follow[2048];
  CopyCut(q.szCmdArgs, "-p5 /bin/true");
  EXPECT_EQ(ParseArgs(&q, nullptr, &args, error_, sizeof(error_), follow, 0, kParseNoExecutableCheck), 0);
  EXPECT_EQ(args.priority, 5);
  EXPECT_STREQ(args.fileName, "");
  FreeJobArgs(&args);

  // The legacy grammar: time, date, priority/answer step, name, program.
  ASSERT_NE(Create("10:30 2030-01-02 4/7 old job.sh x \"y z\""), nullptr) << error_;
  EXPECT_EQ(std::vector<int>({job_->Time.year, job_->Time.day, job_->Time.hour, job_->Time.min, job_->MaxAnswerStep}),
            std::vector<int>({2030, 2, 10, 30, 7}));  // the answer step is kept by the legacy grammar only
  EXPECT_EQ(job_->job_name, "old");
  EXPECT_EQ(job_->file_name, bin_.file("job.sh"));
  EXPECT_EQ(Args(job_), (Strings{"x", "y z"}));

  std::string text400 = "-j many /bin/echo";
  for (int i = 0; i < 400; ++i) text400 += " a" + std::to_string(i % 10);
  ASSERT_NE(Create(text400), nullptr) << error_;
  EXPECT_EQ(job_->arg_count, 400);
  std::string longest = "-j long /bin/echo \"" + std::string(2020, 'x') + "\"";
  longest.resize(2047);  // the longest command text of a request
  ASSERT_NE(Create(longest), nullptr) << error_;
  EXPECT_EQ(Args(job_), Strings{std::string(1023, 'x')});  // an argument is cut, not refused
}

TEST_F(JobTest, TimeRestartAndGlobalResourceOptions) {
  ASSERT_NE(Create("-T 2030-01-02_03:04:05 -W \"2030-01-02 04:00\" -E 2030-01-02T05:06:07 -R 3:5:60,7 "
                   "-G lic=2,tape=1 /bin/true"),
            nullptr)
      << error_;
  EXPECT_EQ(std::vector<int>({job_->Time.year, job_->Time.month, job_->Time.sec}), std::vector<int>({2030, 1, 5}));
  EXPECT_TRUE(job_->MaxStartTimeSet && job_->MaxCompleteTimestampSet);
  EXPECT_EQ(job_->MaxStartTime.hour, 4);
  EXPECT_EQ(job_->MaxCompleteTimestamp.min, 6);
  std::vector<std::vector<int>> conditions;
  for (const JobRestartCondition* c : Elements<JobRestartCondition>(job_->ListOfJobRestartConditions))
    conditions.push_back({c->iRestartConditionMask, c->iRestartLimitBurst, c->iRestartLimitIntervalSec});
  EXPECT_EQ(conditions, (std::vector<std::vector<int>>{{3, 5, 60}, {7, 3, 0}}));
  // The slots a global resource is given show in the listing (e2e SchedulingTest).
  EXPECT_EQ(CountList(&job_->ListOfGlobalResourceNames), 2);

  ASSERT_NE(Create("-T now -W 0 -E ab /bin/true"), nullptr) << error_;
  EXPECT_GT(job_->Time.year, 2000);
  EXPECT_FALSE(job_->MaxStartTimeSet || job_->MaxCompleteTimestampSet);  // texts of up to two characters
}

TEST_F(JobTest, RefusalsNameTheFaultyOption) {
  const std::pair<std::string, std::string> rows[] = {
      {"-T tomorrow /bin/true", "Invalid time specified -T"},
      {"-E \"2030-01-02 04:00:00x\" /bin/true", "Invalid time specified -E"},  // the whole text must match
      {"-R x /bin/true", "Restart arguments not specified correctly - missing exit code"},
      {"-G a=1,b /bin/true", "Global argument not specified correctly"},
      {"-j x /bin/true -- nosuch.sh", "follow_up job executable [" + bin_.file("nosuch.sh") + "] does not exist"}};
  for (const auto& [text, error] : rows) {
    EXPECT_EQ(Create(text), nullptr) << text;
    EXPECT_EQ(std::string(error_), error) << text;
  }
}

TEST_F(JobTest, FollowUpChains) {
  ASSERT_NE(Create("-j x -p 4 /bin/echo a -- -j y /bin/echo b -- /bin/echo c", queue_submit_sync), nullptr)
      << error_;
  Job* second = job_->pFollowUpJob;
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->job_name, "y");
  EXPECT_EQ(second->priority, 0);  // the parsed value, not the first job's
  EXPECT_EQ(Args(second), Strings{"b"});
  ASSERT_EQ(CountList(&second->ListOfPeers), 1);
  EXPECT_EQ(ElementOf<Peer>(second->ListOfPeers.Head)->handle.PID, 77);
  Job* third = second->pFollowUpJob;  // no leading option: the legacy grammar
  ASSERT_NE(third, nullptr);
  EXPECT_EQ(third->job_name, "y*");
  EXPECT_EQ(Args(third), Strings{"c"});

  // A missing follow-up executable is tolerated, its message kept.
  ASSERT_NE(Create("-j x /bin/true -- -j y nosuch.sh"), nullptr);
  ASSERT_NE(job_->pFollowUpJob, nullptr);
  EXPECT_EQ(job_->pFollowUpJob->file_name, bin_.file("nosuch.sh"));
  EXPECT_STREQ(error_, "Executable [nosuch.sh] does not exist");

  ASSERT_NE(Create("-j x /bin/true --"), nullptr);
  EXPECT_EQ(job_->pFollowUpJob, nullptr);
  ASSERT_NE(Create("-j x /bin/true -- --"), nullptr);
  ASSERT_NE(job_->pFollowUpJob, nullptr);
  EXPECT_EQ(job_->pFollowUpJob->job_name, "");  // its own empty -j replaces "x*"
  EXPECT_EQ(job_->pFollowUpJob->pFollowUpJob, nullptr);
}

// job_set's change: the named values, every time not named reset, the
// restart conditions dropped.
TEST_F(JobTest, ModifyResetsWhatTheRequestDoesNotName) {
  ASSERT_NE(Create("-W \"2030-01-02 04:00\" -E \"2030-01-03 04:00\" -R 3 -T now -p 2 /bin/true"), nullptr) << error_;
  Query q;
  CopyCut(q.szCmdArgs, "-p 7");
  EXPECT_EQ(JobModify(&q, job_, error_, sizeof(error_)), 0);
  EXPECT_EQ(job_->priority, 7);
  EXPECT_EQ(job_->Time.year, 1900);
  EXPECT_FALSE(job_->MaxStartTimeSet || job_->MaxCompleteTimestampSet);
  EXPECT_EQ(job_->ListOfJobRestartConditions.Head, nullptr);
  CopyCut(q.szCmdArgs, "-T soon -p 1");
  EXPECT_EQ(JobModify(&q, job_, error_, sizeof(error_)), 1);
  EXPECT_STREQ(error_, "Invalid time specified -T");
  EXPECT_EQ(job_->priority, 7);
}

}  // namespace
