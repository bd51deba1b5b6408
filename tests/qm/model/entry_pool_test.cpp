// The entry-number pool: first in, first out, never a number twice.
#include <gtest/gtest.h>

#include "model/entry_pool.h"

// Fresh numbers and released ones are one queue: a release never overtakes a
// fresh number, a number still waiting is not added again (also above the
// pool's range), and a fetched number may come back.
TEST(EntryPoolTest, FreshNumbersAscendThenReleasedOnesInReleaseOrder) {
  QmEntry_init(4);
  EXPECT_EQ(QmEntry_size(), 3u);
  QmEntry_release(5);
  QmEntry_release(3);  // still fresh: ignored
  QmEntry_release(5);
  EXPECT_EQ(QmEntry_size(), 4u);
  for (const int32_t n : {1, 2, 3, 5}) EXPECT_EQ(QmEntry_fetch(), n);
  EXPECT_EQ(QmEntry_fetch(), -1);
  QmEntry_release(3);
  QmEntry_release(1);
  QmEntry_release(3);
  EXPECT_EQ(QmEntry_fetch(), 3);
  EXPECT_EQ(QmEntry_fetch(), 1);
  EXPECT_EQ(QmEntry_fetch(), -1);
  EXPECT_EQ(QmEntry_size(), 0u);
  QmEntry_destroy();
}
