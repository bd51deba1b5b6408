// The entry-number pool: first in, first out, never a number twice.
#include "qm_entry.h"

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

TEST_F(EntryPoolTest, TheDaemonsPoolHoldsOneTo262143ThenRunsDry) {
  QmEntry_init(0x40000);
  int32_t last = 0;
  for (int i = 0; i < 262143; ++i) {
    const int32_t n = QmEntry_fetch();
    ASSERT_EQ(n, last + 1);
    last = n;
  }
  EXPECT_EQ(last, 262143);
  EXPECT_EQ(QmEntry_fetch(), -1);
  EXPECT_EQ(QmEntry_size(), 0u);
}

}  // namespace
