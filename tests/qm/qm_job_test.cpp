// Job creation from submission texts (option grammar, quoting, follow-up
// chains, legacy grammar), time texts, destruction and job_set.
#include "qm_job.h"

#include <sys/wait.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon_fixture.h"
#include "kd_qm_daemon.h"
#include "kd_test_support.h"
#include "qm_entry.h"
#include "qm_globalresource.h"

namespace {

std::vector<std::string> Args(const Job* job) {
  std::vector<std::string> out;
  for (const Argument* a : Elements<Argument>(job->ListOfArguments)) out.emplace_back(a->argument.view());
  return out;
}

void DestroyChain(Job* job) {
  while (job != nullptr) {
    Job* next = job->pFollowUpJob;
    DestroyJob(job);
    job = next;
  }
}

class JobTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CopyCut(gszBinDir, bin_.path());
    kdtest::WriteFile(bin_.file("job.sh"), "#!/bin/sh\n", 0755);
    kdtest::WriteFile(bin_.file("my tool.sh"), "#!/bin/sh\n", 0755);
  }
  void TearDown() override {
    DestroyChain(job_);
    RemoveList(&gGlobalResources);
    CopyCut(gszBinDir, "");
  }
  Job* Create(const std::string& text, cmd_mode mode = queue_submit) {
    Query q;
    q.function = mode;
    q.peer.valid = true;
    q.peer.PID = 77;
    CopyCut(q.szCmdArgs, text);
    error_[0] = '\0';
    job_ = CreateJob(&q, nullptr, error_, sizeof(error_));
    return job_;
  }
  int Parse(const std::string& text, JobArgs* args) {
    Query q;
    CopyCut(q.szCmdArgs, text);
    char follow[2048];
    return ParseArgs(&q, nullptr, args, error_, sizeof(error_), follow, 0, kParseNoExecutableCheck);
  }

  kdtest::TempDir bin_;
  Job* job_ = nullptr;
  char error_[1024] = {};
};

TEST_F(JobTest, OptionsQuotedWordsAndTheCommand) {
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
  EXPECT_EQ(Args(job_), (std::vector<std::string>{"a", "b c", "d", "-x"}));
  EXPECT_EQ(job_->arg_count, 4);
  EXPECT_EQ(*job_->pFullCommand, text);
  EXPECT_EQ(job_->Time.year, 1900);  // no -T: start at once
}

TEST_F(JobTest, GluedValueLeavesTheNextWordAnOptionWord) {
  JobArgs args;
  EXPECT_EQ(Parse("-p5 /bin/true", &args), 0);
  EXPECT_EQ(args.priority, 5);
  EXPECT_STREQ(args.fileName, "");
  EXPECT_EQ(Parse("-p 3/9 -e 4 /bin/true x", &args), 0);
  EXPECT_EQ(args.MaxAnswerStep, 9);
  EXPECT_EQ(args.iPendingStateExitCode, 4);
  EXPECT_STREQ(args.fileName, "/bin/true");
  FreeJobArgs(&args);
}

TEST_F(JobTest, TimeOptions) {
  ASSERT_NE(Create("-T 2030-01-02_03:04:05 -W \"2030-01-02 04:00\" -E 2030-01-02T05:06:07 /bin/true"), nullptr)
      << error_;
  EXPECT_EQ(std::vector<int>({job_->Time.year, job_->Time.month, job_->Time.sec}), std::vector<int>({2030, 1, 5}));
  EXPECT_TRUE(job_->MaxStartTimeSet && job_->MaxCompleteTimestampSet);
  EXPECT_EQ(job_->MaxStartTime.hour, 4);
  EXPECT_EQ(job_->MaxCompleteTimestamp.min, 6);
  DestroyChain(job_);

  ASSERT_NE(Create("-T now -W 0 -E ab /bin/true"), nullptr) << error_;
  EXPECT_GT(job_->Time.year, 2000);
  EXPECT_FALSE(job_->MaxStartTimeSet || job_->MaxCompleteTimestampSet);  // texts of up to two characters
  DestroyChain(job_);

  EXPECT_EQ(Create("-T tomorrow /bin/true"), nullptr);
  EXPECT_STREQ(error_, "Invalid time specified -T");
  EXPECT_EQ(Create("-E \"2030-01-02 04:00:00x\" /bin/true"), nullptr);  // the whole text must match
  EXPECT_STREQ(error_, "Invalid time specified -E");
}

TEST_F(JobTest, RestartAndGlobalResourceOptions) {
  ASSERT_NE(Create("-R 3:5:60,7 -G lic=2,tape=1 /bin/true"), nullptr) << error_;
  std::vector<std::vector<int>> conditions;
  for (const JobRestartCondition* c : Elements<JobRestartCondition>(job_->ListOfJobRestartConditions))
    conditions.push_back({c->iRestartConditionMask, c->iRestartLimitBurst, c->iRestartLimitIntervalSec});
  EXPECT_EQ(conditions, (std::vector<std::vector<int>>{{3, 5, 60}, {7, 3, 0}}));
  GlobalResource* lic = FindGlobalResource("lic", &gGlobalResources);
  ASSERT_NE(lic, nullptr);
  EXPECT_EQ(lic->slots, 2);
  EXPECT_EQ(CountList(&job_->ListOfGlobalResourceNames), 2);

  // Held resources are released and the entry number returns to the pool.
  QmEntry_destroy();
  job_->EntryNumb = 42;
  job_allocate_global_resources(job_, &gGlobalResources);
  EXPECT_EQ(lic->allocated, 1);
  DestroyJob(job_);
  job_ = nullptr;
  EXPECT_EQ(lic->allocated, 0);
  EXPECT_EQ(QmEntry_fetch(), 42);

  EXPECT_EQ(Create("-R x /bin/true"), nullptr);
  EXPECT_STREQ(error_, "Restart arguments not specified correctly - missing exit code");
  EXPECT_EQ(Create("-G a=1,b /bin/true"), nullptr);
  EXPECT_STREQ(error_, "Global argument not specified correctly");
}

TEST_F(JobTest, RelativeAndQuotedExecutablesLiveInTheBinDirectory) {
  ASSERT_NE(Create("-j q job.sh"), nullptr) << error_;
  EXPECT_EQ(job_->file_name, bin_.file("job.sh"));
  DestroyChain(job_);
  ASSERT_NE(Create("-j q \"my tool.sh\" x"), nullptr) << error_;
  EXPECT_EQ(job_->file_name, bin_.file("my tool.sh"));
  EXPECT_EQ(Args(job_), std::vector<std::string>{"x"});
  DestroyChain(job_);
  EXPECT_EQ(Create("-j q nosuch.sh"), nullptr);
  EXPECT_STREQ(error_, "Executable [nosuch.sh] does not exist");
}

TEST_F(JobTest, FollowUpChains) {
  ASSERT_NE(Create("-j x -p 4 /bin/echo a -- -j y /bin/echo b -- /bin/echo c", queue_submit_sync), nullptr)
      << error_;
  Job* second = job_->pFollowUpJob;
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->job_name, "y");
  EXPECT_EQ(second->priority, 0);  // the parsed value, not the first job's
  EXPECT_EQ(Args(second), std::vector<std::string>{"b"});
  ASSERT_EQ(CountList(&second->ListOfPeers), 1);
  EXPECT_EQ(ElementOf<Peer>(second->ListOfPeers.Head)->handle.PID, 77);
  Job* third = second->pFollowUpJob;  // no leading option: the legacy grammar
  ASSERT_NE(third, nullptr);
  EXPECT_EQ(third->job_name, "y*");
  EXPECT_EQ(Args(third), std::vector<std::string>{"c"});
  DestroyChain(job_);

  // A missing follow-up executable is tolerated, its message kept.
  ASSERT_NE(Create("-j x /bin/true -- -j y nosuch.sh"), nullptr);
  ASSERT_NE(job_->pFollowUpJob, nullptr);
  EXPECT_EQ(job_->pFollowUpJob->file_name, bin_.file("nosuch.sh"));
  EXPECT_STREQ(error_, "Executable [nosuch.sh] does not exist");
  DestroyChain(job_);

  ASSERT_NE(Create("-j x /bin/true --"), nullptr);
  EXPECT_EQ(job_->pFollowUpJob, nullptr);
  DestroyChain(job_);
  ASSERT_NE(Create("-j x /bin/true -- --"), nullptr);
  ASSERT_NE(job_->pFollowUpJob, nullptr);
  EXPECT_EQ(job_->pFollowUpJob->job_name, "");  // its own empty -j replaces "x*"
  EXPECT_EQ(job_->pFollowUpJob->pFollowUpJob, nullptr);
  DestroyChain(job_);

  EXPECT_EQ(Create("-j x /bin/true -- nosuch.sh"), nullptr);
  EXPECT_EQ(std::string(error_), "follow_up job executable [" + bin_.file("nosuch.sh") + "] does not exist");
}

TEST_F(JobTest, LegacyGrammar) {
  ASSERT_NE(Create("10:30 2030-01-02 4/7 old job.sh x \"y z\""), nullptr) << error_;
  EXPECT_EQ(std::vector<int>({job_->Time.year, job_->Time.day, job_->Time.hour, job_->Time.min}),
            std::vector<int>({2030, 2, 10, 30}));
  EXPECT_EQ(job_->MaxAnswerStep, 7);  // kept by the legacy grammar only
  EXPECT_EQ(job_->job_name, "old");
  EXPECT_EQ(job_->file_name, bin_.file("job.sh"));
  EXPECT_EQ(Args(job_), (std::vector<std::string>{"x", "y z"}));
}

TEST_F(JobTest, ManyArgumentsAndTheLongestTextParse) {
  std::string text = "-j many /bin/echo";
  for (int i = 0; i < 400; ++i) text += " a" + std::to_string(i % 10);
  ASSERT_NE(Create(text), nullptr) << error_;
  EXPECT_EQ(job_->arg_count, 400);
  DestroyChain(job_);

  text = "-j long /bin/echo \"" + std::string(2020, 'x') + "\"";
  text.resize(2047);  // the longest command text of a request
  ASSERT_NE(Create(text), nullptr) << error_;
  ASSERT_EQ(Args(job_).size(), 1u);
  EXPECT_EQ(Args(job_)[0], std::string(1023, 'x'));  // an argument is cut, not refused
}

// job_set through the real answer pipe: the look-up, the changes, the answers.
TEST(JobSetTest, ModifiesAWaitingJobAndAnswers) {
  kdtest::TestInstance instance;
  CopyCut(gszQmDir, instance.qm());
  CopyCut(qmd_from_qm, "");
  auto* triple = new QueueTriple{};
  auto* exec = new Queue{};
  AddTail(&triple->ExecQueues, NodeOf(exec));
  AddTail(&Root, NodeOf(triple));
  char error[1024] = {};
  Query submit;
  CopyCut(submit.szCmdArgs, "-W \"2030-01-02 04:00\" -E \"2030-01-03 04:00\" -R 3 -T now -p 2 /bin/true");
  Job* job = CreateJob(&submit, nullptr, error, sizeof(error));
  ASSERT_NE(job, nullptr) << error;
  job->EntryNumb = 5;
  AddTail(&exec->ListOfJobs, NodeOf(job));
  EXPECT_EQ(FindJobByEntryNumber(triple, 5), job);

  auto ask = [](const std::string& entry, const std::string& text) {
    kdtest::RawClient client(gszQmDir, 4712);
    EXPECT_TRUE(client.CreatePipe() && client.OpenForAnswer());
    Query q;
    q.function = job_set;
    q.peer.valid = true;
    q.peer.PID = 4712;
    CopyCut(q.que_name, entry);
    CopyCut(q.szCmdArgs, text);
    process_job_set(&q);
    const std::string answer = client.ReadAnswer(std::chrono::seconds(10)).text;
    int status = 0;
    while (waitpid(-1, &status, 0) > 0) {
    }
    return answer;
  };
  EXPECT_EQ(ask("5", "-p 7"), "0STATUS=SUCCESS MSG=5");
  EXPECT_EQ(job->priority, 7);
  EXPECT_EQ(job->Time.year, 1900);  // times not named are reset
  EXPECT_FALSE(job->MaxStartTimeSet || job->MaxCompleteTimestampSet);
  EXPECT_EQ(job->ListOfJobRestartConditions.Head, nullptr);
  EXPECT_EQ(ask("5", "-T soon"), "2STATUS=ERROR MSG=Invalid time specified -T\n");
  EXPECT_EQ(ask("999", "-p 1"), "1STATUS=WARNING MSG=No such entry 999\n");

  // The terminating queue is not searched.
  RemNode(&exec->ListOfJobs, NodeOf(job));
  AddTail(&triple->TerminatingQueue.ListOfJobs, NodeOf(job));
  EXPECT_EQ(FindJobByEntryNumber(triple, 5), nullptr);
  RemNode(&triple->TerminatingQueue.ListOfJobs, NodeOf(job));
  DestroyJob(job);
  RemNode(&Root, NodeOf(triple));
  RemoveList(&triple->ExecQueues);
  delete triple;
  QmEntry_destroy();
  CopyCut(gszQmDir, "");
}

}  // namespace
