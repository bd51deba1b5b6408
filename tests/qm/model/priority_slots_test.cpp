// Priority slots: level choice, allocation and release, list updates, and
// the "-p" options of the job-limit request.
#include <string>

#include <gtest/gtest.h>

#include "cm_common.h"
#include "model/priority_slots.h"
#include "protocol/request.h"

namespace {

class PrioritySlotTest : public ::testing::Test {
 protected:
  void TearDown() override {
    DestroyPriorityList(&slots_);
    DestroyPriorityList(&limits_.ListOfJobLimitsByJobPriority);
  }
  /// A job-limit request for queue q1 with the given argument text.
  int Parse(const char* args, int skip = 0) {
    Query q;
    CopyCut(q.que_name, "q1");
    CopyCut(q.szCmdArgs, args);
    return ParseQueueArgs(skip, &q, &limits_);
  }
  std::string Parsed() const { return PrioritySlotPrint(&limits_.ListOfJobLimitsByJobPriority); }

  List slots_{nullptr, nullptr, JobLimitsByJobPriority};
  QueueJobLimits limits_;
};

TEST_F(PrioritySlotTest, AJobUsesTheHighestLevelNotAboveItsPriority) {
  InsertPrioritySlot(&slots_, 5, 2);
  InsertPrioritySlot(&slots_, 1, 1);
  EXPECT_EQ(HavePrioritySlotAvailable(&slots_, 0), 0);
  EXPECT_EQ(AllocatePrioritySlot(&slots_, 3, 11), 1);
  EXPECT_EQ(HavePrioritySlotAvailable(&slots_, 4), 0) << "level 1 is used up";
  EXPECT_EQ(AllocatePrioritySlot(&slots_, 7, 12), 1);
  EXPECT_EQ(AllocatePrioritySlot(&slots_, 5, 13), 1);
  EXPECT_EQ(AllocatePrioritySlot(&slots_, 9, 14), 0);
  EXPECT_EQ(PrioritySlotPrint(&slots_), "p1=1/1 p5=2/2");

  EXPECT_EQ(ReleasePrioritySlot(&slots_, 7, 11), 0) << "entry 11 holds level 1, not level 5";
  EXPECT_EQ(ReleasePrioritySlot(&slots_, 0, 11), 0);
  EXPECT_EQ(ReleasePrioritySlot(&slots_, 7, 12), 1);
  EXPECT_EQ(ReleasePrioritySlot(&slots_, 7, 12), 0);
  EXPECT_EQ(HaveAnyPrioritySlotAvailable(&slots_), 1);
  // Levels stay sorted; an equal one goes behind its peer.
  InsertPrioritySlot(&slots_, 3, 4);
  InsertPrioritySlot(&slots_, 5, 7);
  EXPECT_EQ(PrioritySlotPrint(&slots_), "p1=1/1 p3=0/4 p5=1/2 p5=0/7");
}

TEST_F(PrioritySlotTest, UpdateKeepsHoldersOfKeptLevelsAndDropsMissingOnes) {
  InsertPrioritySlot(&slots_, 1, 1);
  InsertPrioritySlot(&slots_, 5, 2);
  ASSERT_EQ(AllocatePrioritySlot(&slots_, 6, 21), 1);
  InsertPrioritySlot(&limits_.ListOfJobLimitsByJobPriority, 5, 4);
  InsertPrioritySlot(&limits_.ListOfJobLimitsByJobPriority, 2, 3);
  UpdatePriorityList(&slots_, &limits_.ListOfJobLimitsByJobPriority);
  EXPECT_EQ(PrioritySlotPrint(&slots_), "p2=0/3 p5=1/4");
  EXPECT_EQ(ReleasePrioritySlot(&slots_, 6, 21), 1);
}

// Levels are read from every "-p", glued or not, unless the caller skips them;
// a malformed value refuses the request and keeps the levels read before it.
TEST_F(PrioritySlotTest, ParseReadsEveryPOptionAndRefusesMalformedValues) {
  EXPECT_EQ(Parse("q1 4 cnt") + Parse("q1 -p 1=3", 1) + Parse("q1 -p"), 0);
  EXPECT_EQ(Parsed(), "");
  EXPECT_EQ(Parse("q1/a 4 -p 5=2 -p1=3"), 0);
  EXPECT_EQ(Parsed(), "p1=0/3 p5=0/2");
  DestroyPriorityList(&limits_.ListOfJobLimitsByJobPriority);
  for (const char* bad : {"q1 -p 1-3", "q1 -p =", "q1 -p x=y", "q1 -p 2=1 -p 4"}) EXPECT_EQ(Parse(bad), 1) << bad;
  EXPECT_EQ(Parsed(), "p2=0/1");
}

}  // namespace
