// The entry-number pool: first in, first out, never a number twice.
#include "model/entry_pool.h"

#include <gtest/gtest.h>

namespace {

class EntryPoolTest : public ::testing::Test {
 protected:
  void SetUp() override { QmEntry_destroy(); }
  void TearDown() override { QmEntry_destroy(); }
};

TEST_F(EntryPoolTest, FreshNumbersAscendThenReleasedOnesInReleaseOrder) {
  QmEntry_init(4);
  EXPECT_EQ(QmEntry_size(), 3u);
  QmEntry_release(5);
  QmEntry_release(3);  // already waiting: not added again
  QmEntry_release(5);
  EXPECT_EQ(QmEntry_fetch(), 1);
  EXPECT_EQ(QmEntry_fetch(), 2);
  EXPECT_EQ(QmEntry_fetch(), 3);
  EXPECT_EQ(QmEntry_fetch(), 5);
  EXPECT_EQ(QmEntry_fetch(), -1);
  QmEntry_release(3);
  QmEntry_release(1);
  EXPECT_EQ(QmEntry_fetch(), 3);
  EXPECT_EQ(QmEntry_fetch(), 1);
}

// The daemon's pool holds 1 to 262143. Fresh numbers and released ones are
// one queue: a release never overtakes a fresh number, a fetched number may
// come back, and the no-duplicate rule also holds above the daemon's range.
TEST_F(EntryPoolTest, TheDaemonsPoolQueuesReleasesBehindFreshNumbersThenRunsDry) {
  QmEntry_init(0x40000);
  QmEntry_release(262143);  // still fresh: ignored
  QmEntry_release(300000);
  QmEntry_release(300000);
  EXPECT_EQ(QmEntry_size(), 262144u);
  for (int32_t n = 1; n <= 262142; ++n) ASSERT_EQ(QmEntry_fetch(), n);
  QmEntry_release(7);
  QmEntry_release(7);
  EXPECT_EQ(QmEntry_fetch(), 262143);
  EXPECT_EQ(QmEntry_fetch(), 300000);
  EXPECT_EQ(QmEntry_fetch(), 7);
  QmEntry_release(7);  // fetched, so welcome again
  EXPECT_EQ(QmEntry_fetch(), 7);
  EXPECT_EQ(QmEntry_fetch(), -1);
  EXPECT_EQ(QmEntry_size(), 0u);
}

}  // namespace
