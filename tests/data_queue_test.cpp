#include "data_queue.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include "wait.h"

namespace {

TEST(DataQueue, HandsOutAnEmptyElementAtItsEndAndGivesClearedStorageBack) {
  const auto before = mallinfo2();
  DataQueue<std::string> queue;
  for (int i = 0; i < 1000000; ++i) queue.push("text");
  queue.clear();
  const auto after = mallinfo2();
  EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + 100000);
  EXPECT_EQ(queue.pop(), "");
  queue.push("last");  // the empty pop left nothing behind
  EXPECT_EQ(queue.pop(), "last");
  EXPECT_TRUE(queue.empty());
}

}  // namespace
