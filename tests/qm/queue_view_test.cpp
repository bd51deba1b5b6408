// The wildcard rule, the exact lines of the queue views and job listings,
// and the time predicates behind holding-queue order and expiry.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>

#include "qm_globalresource.h"
#include "qm_job.h"
#include "qm_queue.h"
#include "queue.h"

namespace {

/// What fn writes into a stream.
std::string Written(const std::function<void(FILE*)>& fn) {
  FILE* f = std::tmpfile();
  fn(f);
  std::fflush(f);
  std::string text;
  char buf[4096];
  lseek(fileno(f), 0, SEEK_SET);
  for (ssize_t n; (n = read(fileno(f), buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
  std::fclose(f);
  return text;
}

QMTime Local(time_t t) {
  struct tm tm {};
  localtime_r(&t, &tm);
  return QMTime{tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

TEST(WildcardTest, OneEffectiveStarAndTheFirstOccurrenceRule) {
  EXPECT_EQ(iStrWildcard("disk1", "disk1"), 1);
  EXPECT_EQ(iStrWildcard("disk1", "disk"), 0);
  EXPECT_EQ(iStrWildcard("anything", "*"), 1);
  EXPECT_EQ(iStrWildcard("", "*"), 1);
  EXPECT_EQ(iStrWildcard("disk1", "disk*"), 1);
  EXPECT_EQ(iStrWildcard("disk", "disk*"), 1);
  EXPECT_EQ(iStrWildcard("a_full", "*_full"), 1);
  EXPECT_EQ(iStrWildcard("a_full_b", "*_full"), 0);
  EXPECT_EQ(iStrWildcard("abab", "*ab"), 0);  // "ab" first occurs at the start
  EXPECT_EQ(iStrWildcard("xab", "x*ab"), 1);
  EXPECT_EQ(iStrWildcard("ab", "ab*b"), 1);    // the two fields may overlap
  EXPECT_EQ(iStrWildcard("q1_", "q*_*y"), 1);  // only two fields count: "y" is ignored
  EXPECT_EQ(iStrWildcard("q1_y", "q*_*y"), 0);
  EXPECT_EQ(iStrWildcard("p1_", "q*_"), 0);
}

class QueueViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    triple.name = "q1";
    triple.status = stopped;
    triple.eBalMode = e_balancing_balance;
    triple.eDecMode = e_decision_weight;
    triple.eAllocMode = e_allocation_volatile;
    a.name = "a";
    a.job_limit = 2;
    a.current_job_limit = 1;
    a.eState = running;
    a.isAllocated = 1;
    a.allocate = "fam";
    a.eAllocMode = e_allocation_permanent;
    a.eDecMode = e_decision_weight;
    a.dWeight = 2.5;
    counter.name = "cnt";
    counter.job_limit = 4;
    counter.current_job_limit = 3;
    b.share = "tape";
    b.name = "drive1";
    b.server = "@srvA";
    b.pCounter = &counter;
    b.allocate = "*";
    InsertPrioritySlot(&b.ListOfJobLimitsByJobPriority, 5, 2);
    InsertPrioritySlot(&b.ListOfJobLimitsByJobPriority, 1, 3);
    AllocatePrioritySlot(&b.ListOfJobLimitsByJobPriority, 6, 99);
    AddTail(&triple.ExecQueues, NodeOf(&a));
    AddTail(&triple.ExecQueues, NodeOf(&b));

    running_job.EntryNumb = 7;
    running_job.job_name = "backup";
    running_job.priority = 5;
    running_job.allocate = "fam";
    running_job.file_name = "/opt/bin/kd_backup";
    running_job.PID = 4242;
    running_job.Time = {2024, 3, 9, 10, 0, 5};
    running_job.SubmitTime = {2024, 3, 9, 9, 59, 0};
    running_job.StartTime = {2024, 3, 9, 10, 0, 6};
    running_job.MaxCompleteTimestamp = {2024, 3, 9, 12, 0, 0};
    running_job.MaxCompleteTimestampSet = true;
    running_job.server = "srvA";
    auto* resource = new Resource{};
    resource->cpShare = "tape";
    resource->cpResource = "drive1";
    resource->cpServer = "@srvA";
    AddTail(&running_job.s_preferredResource.l_preferredResources, NodeOf(resource));
    arg1.argument = "-x";
    arg2.argument = "a b";
    AddTail(&running_job.ListOfArguments, NodeOf(&arg1));
    AddTail(&running_job.ListOfArguments, NodeOf(&arg2));
    AddTail(&a.ListOfJobs, NodeOf(&running_job));

    waiting_job.EntryNumb = 12;
    waiting_job.job_name = "verify";
    waiting_job.file_name = "verify.sh";
    waiting_job.Time = {2024, 3, 9, 11, 30, 0};
    AddGlobalResource(&gGlobalResources, "tape", 2)->allocated = 2;
    AddGlobalResource(&gGlobalResources, "disk", 3)->allocated = 1;
    name_tape.name = "tape";
    name_ghost.name = "ghost";  // declared by no job: not shown
    name_disk.name = "disk";
    AddTail(&waiting_job.ListOfGlobalResourceNames, NodeOf(&name_tape));
    AddTail(&waiting_job.ListOfGlobalResourceNames, NodeOf(&name_ghost));
    AddTail(&waiting_job.ListOfGlobalResourceNames, NodeOf(&name_disk));
    AddTail(&triple.HoldingQue, NodeOf(&waiting_job));
  }
  void TearDown() override {
    DestroyPriorityList(&b.ListOfJobLimitsByJobPriority);
    FreeResourceList(&running_job.s_preferredResource.l_preferredResources);
    RemoveList(&gGlobalResources);
  }

  QueueTriple triple;
  Queue a, b;
  Counter counter;
  Job running_job, waiting_job;
  Argument arg1, arg2;
  GlobalResourceName name_tape, name_ghost, name_disk;

  const std::string kRunningLine =
      "  7  kd_backup               5 fam/tape_drive1@srvA     4242 2024-03-09 10:00:05\n";
  const std::string kWaitingLine = " 12  verify.sh               0         0 2024-03-09 11:30:00  tape(W,2/2) disk(R,1/3) \n";
  const std::string kQueueA =
      "Name:  a\tjob_limit: 1/2  \tallocated:      fam \tstatus: running \tallocation mode: permanent "
      "\tallocation: fam \tweight: 2.50\n";
  const std::string kQueueB =
      "Name: tape drive1@srvA\tcounter cnt: 3/4 p1=0/3 p5=1/2 \tis not allocated \tstatus: idle "
      "\tallocation mode: occupied \tallocation: *\n";
};

TEST_F(QueueViewTest, TableViewsOfATripleWithTwoResourceQueues) {
  const std::string queue_line =
      "que_name= q1\tstatus= stopped\tbalancing= balance/weight\t allocation mode= volatile\n";
  const std::string dashes = "----------------------------------------------------------\n";
  EXPECT_EQ(Written([&](FILE* f) { ViewQue(&triple, f); }),
            queue_line + "Entry   Job           Priority Allocate             PID  Date       Time      Resources\n" +
                "holding queue\n" + kWaitingLine + "pending queue\nexecuting queue(s)\n" + kQueueA + kRunningLine +
                kQueueB + dashes);
  EXPECT_EQ(Written([&](FILE* f) { ViewQueNames(&triple, f); }),
            queue_line + "Entry  Job Name       Priority Allocate             PID  Date       Time      Resources\n" +
                "holding queue\n" +
                " 12    verify                0         0 2024-03-09 11:30:00  tape(W,2/2) disk(R,1/3) \n" +
                "pending queue\nexecuting queue(s)\n" + kQueueA +
                "  7    backup                5 fam/tape_drive1@srvA     4242 2024-03-09 10:00:05\n" + kQueueB + dashes);
  EXPECT_EQ(Written([&](FILE* f) { ViewQueStatus(&triple, f); }),
            "que_name=q1\tstatus=stopped\tbalancing=balance/weight\tallocation mode=volatile\tpending=0\tholding=1\t"
            "job_limit: 1/2\nexecuting queue(s)\n" +
                kQueueA + kQueueB);

  // The terminating queue: its own title, jobs as name lines.
  QueueTriple admin;
  admin.name = "qu_admin";
  admin.queType = 1;
  RemNode(&triple.HoldingQue, NodeOf(&waiting_job));
  AddTail(&admin.TerminatingQueue.ListOfJobs, NodeOf(&waiting_job));
  EXPECT_EQ(Written([&](FILE* f) { ViewQueFull(&admin, f); }),
            "que_name= qu_admin\tstatus= running\tbalancing= fill/ordered\t allocation mode= occupied\n"
            "terminating queue\n" +
                kWaitingLine + dashes);
}

TEST_F(QueueViewTest, JobBlockAndCommaSeparatedLines) {
  EXPECT_EQ(Written([&](FILE* f) { PrintJob(&running_job, "full", f); }),
            "Entry: 7\tJob name: backup\tServer: srvA\n"
            "File: \"/opt/bin/kd_backup\" \"-x\" \"a b\"\n"
            "Priority: 5;  Allocate: fam;  Resource: tape_drive1@srvA;  PID: 4242\n"
            "Submit time= 2024-03-09 09:59:00\nStart time= 2024-03-09 10:00:06\n"
            "Wait time= NOT_SPECIFIED\nEnd time= 2024-03-09 12:00:00\n");
  waiting_job.bLazy = true;
  EXPECT_EQ(Written([&](FILE* f) { PrintJob(&waiting_job, "full", f); }),
            "Entry: 12\tJob name: verify\tServer: \nFile: \"verify.sh\"\n"
            "Priority: 0;  Allocate: ;  Preferred Resource: ;  PID: 0\n"
            "Submit time= 00-00-00 00:00:00\nStart time= 00-00-00 00:00:00\n"
            "Wait time= NOT_SPECIFIED\nEnd time= NOT_SPECIFIED\nResources= tape(W,2/2) disk(R,1/3) \n");
  running_job.file_name = "C:\\bin\\x.exe";
  EXPECT_EQ(Written([&](FILE* f) { PrintJob(&running_job, "", f); }),
            "  7  x.exe                   5 fam/tape_drive1@srvA     4242 2024-03-09 10:00:05\n");

  running_job.file_name = "/opt/bin/kd_backup";
  HPEER peer;
  EXPECT_EQ(Written([&](FILE* f) {
              peer.fOut = f;
              ViewQueCSV(&triple, &peer);
            }),
            "q1/a,exec,backup,5,4242,7,\"/opt/bin/kd_backup\" -x a b\n"
            "q1,holding,verify,0,0,12,\"verify.sh\"\n");
  // The line is cut at 4095 characters, its line end with it.
  arg2.argument = std::string(1023, 'y');
  for (int i = 0; i < 5; ++i) {
    auto* more = new Argument{};
    more->argument = std::string(1000, 'z');
    AddTail(&running_job.ListOfArguments, NodeOf(more));
  }
  AppendString line;
  PrintJobCSV(&running_job, "q1", &line);
  EXPECT_EQ(line.size(), 4095U);
  EXPECT_EQ(line.substr(0, 23), "q1,backup,5,4242,7,\"/op");
  RemNode(&running_job.ListOfArguments, NodeOf(&arg1));
  RemNode(&running_job.ListOfArguments, NodeOf(&arg2));
  RemoveList(&running_job.ListOfArguments);
}

TEST(JobTimeTest, StartOrderToTheMinuteAndExpiryToTheSecond) {
  Job job;
  job.Time = {2024, 3, 9, 10, 0, 50};
  const QMTime same_minute{2024, 3, 9, 10, 0, 5};
  const QMTime minute_before{2024, 3, 9, 9, 59, 59};
  EXPECT_EQ(JobTime(&job, &same_minute), 0);
  EXPECT_EQ(JobTime(&job, &minute_before), 1);

  const time_t now = std::time(nullptr);
  EXPECT_EQ(JobStartTimeExpired(&job, now), 0);  // no latest start time
  job.MaxStartTime = Local(now);
  job.MaxStartTimeSet = true;
  EXPECT_EQ(JobStartTimeExpired(&job, now), 1);  // equal counts as expired
  EXPECT_EQ(JobStartTimeExpired(&job, now - 1), 0);

  EXPECT_EQ(JobTimeExpired(&job, now), 0);
  job.MaxCompleteTimestamp = Local(now - 1);
  job.MaxCompleteTimestampSet = true;
  EXPECT_EQ(JobTimeExpired(&job, now), 1);
  EXPECT_EQ(JobTimeExpired(&job, now - 2), 0);
  job.eJobState = job_stopping;  // never again once it is being stopped
  EXPECT_EQ(JobTimeExpired(&job, now), 0);
}

}  // namespace
