// The wildcard rule, the job lines and blocks of the listings, and the time
// predicates behind holding-queue order and expiry.
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "model/elements.h"
#include "model/global_resources.h"
#include "model/job.h"
#include "model/triple.h"
#include "views/job_view.h"
#include "views/listing.h"
#include "views/queue_view.h"

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
  for (const auto& [text, pattern, match] : std::vector<std::tuple<const char*, const char*, int>>{
           {"disk1", "disk1", 1}, {"disk1", "disk", 0}, {"anything", "*", 1}, {"", "*", 1}, {"disk1", "disk*", 1},
           {"disk", "disk*", 1}, {"a_full", "*_full", 1}, {"a_full_b", "*_full", 0},
           {"abab", "*ab", 0},  // "ab" first occurs at the start
           {"xab", "x*ab", 1}, {"ab", "ab*b", 1},       // the two fields may overlap
           {"q1_", "q*_*y", 1}, {"q1_y", "q*_*y", 0},  // only two fields count: "y" is ignored
           {"p1_", "q*_", 0}})
    EXPECT_EQ(iStrWildcard(text, pattern), match) << text << " " << pattern;
}

// Two jobs: a running one on a preferred resource with share and server, and
// a waiting one naming two declared global resources and an undeclared one.
class JobListingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    running.EntryNumb = 7;
    running.job_name = "backup";
    running.priority = 5;
    running.allocate = "fam";
    running.file_name = "/opt/bin/kd_backup";
    running.PID = 4242;
    running.Time = {2024, 3, 9, 10, 0, 5};
    auto* resource = new Resource{};
    resource->cpShare = "tape";
    resource->cpResource = "drive1";
    resource->cpServer = "@srvA";
    AddTail(&running.s_preferredResource.l_preferredResources, NodeOf(resource));
    arg1.argument = "-x";
    arg2.argument = "a b";
    AddTail(&running.ListOfArguments, NodeOf(&arg1));
    AddTail(&running.ListOfArguments, NodeOf(&arg2));

    waiting.EntryNumb = 12;
    waiting.job_name = "verify";
    waiting.file_name = "verify.sh";
    waiting.Time = {2024, 3, 9, 11, 30, 0};
    AddGlobalResource(&gGlobalResources, "tape", 2)->allocated = 2;
    AddGlobalResource(&gGlobalResources, "disk", 3)->allocated = 1;
    name_tape.name = "tape";
    name_ghost.name = "ghost";  // declared by no job: not shown
    name_disk.name = "disk";
    AddTail(&waiting.ListOfGlobalResourceNames, NodeOf(&name_tape));
    AddTail(&waiting.ListOfGlobalResourceNames, NodeOf(&name_ghost));
    AddTail(&waiting.ListOfGlobalResourceNames, NodeOf(&name_disk));
  }
  void TearDown() override {
    FreeResourceList(&running.s_preferredResource.l_preferredResources);
    RemoveList(&gGlobalResources);
  }

  Job running, waiting;
  Argument arg1, arg2;
  GlobalResourceName name_tape, name_ghost, name_disk;
};

TEST_F(JobListingTest, ShortLinesShowResourcesAlsoInTheTerminatingQueue) {
  const std::string waiting_line =
      " 12  verify.sh               0         0 2024-03-09 11:30:00  tape(W,2/2) disk(R,1/3) \n";
  EXPECT_EQ(Written([&](FILE* f) { PrintJob(&running, "", f); }),
            "  7  kd_backup               5 fam/tape_drive1@srvA     4242 2024-03-09 10:00:05\n");
  running.file_name = "C:\\bin\\x.exe";
  EXPECT_EQ(Written([&](FILE* f) { PrintJob(&running, "", f); }),
            "  7  x.exe                   5 fam/tape_drive1@srvA     4242 2024-03-09 10:00:05\n");

  // The terminating queue: its own title, its jobs as short lines in every view.
  QueueTriple admin;
  admin.name = "qu_admin";
  admin.queType = 1;
  admin.TerminatingQueue.reset(new Queue{});
  AddTail(&admin.TerminatingQueue->ListOfJobs, NodeOf(&waiting));
  EXPECT_EQ(Written([&](FILE* f) { ViewQueFull(&admin, f); }),
            "que_name= qu_admin\tstatus= running\tbalancing= fill/ordered\t allocation mode= occupied\n"
            "terminating queue\n" +
                waiting_line + "----------------------------------------------------------\n");
}

TEST_F(JobListingTest, LazyJobsBlockAndTheCutCommaSeparatedLine) {
  waiting.bLazy = true;  // shows its preferred resource under another title
  EXPECT_NE(Written([&](FILE* f) { PrintJob(&waiting, "full", f); })
                .find("\nPriority: 0;  Allocate: ;  Preferred Resource: ;  PID: 0\n"),
            std::string::npos);

  // The line is cut at 4095 characters, its line end with it.
  arg2.argument = std::string(1023, 'y');
  for (int i = 0; i < 5; ++i) {
    auto* more = new Argument{};
    more->argument = std::string(1000, 'z');
    AddTail(&running.ListOfArguments, NodeOf(more));
  }
  AppendString line;
  PrintJobCSV(&running, "q1", &line);
  EXPECT_EQ(line.size(), 4095U);
  EXPECT_EQ(line.substr(0, 23), "q1,backup,5,4242,7,\"/op");
  RemNode(&running.ListOfArguments, NodeOf(&arg1));
  RemNode(&running.ListOfArguments, NodeOf(&arg2));
  RemoveList(&running.ListOfArguments);
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
