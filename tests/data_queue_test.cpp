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

TEST(DataQueue, KeepsEachProducersOrderAndLosesNothing) {
  DataQueue<std::pair<int*, int>> queue;
  int last[2] = {};
  const auto produce = [&queue](int* mine) {
    for (int i = 1; i <= 10000; ++i) queue.push({mine, i});
  };
  std::thread producers[] = {std::thread(produce, &last[0]), std::thread(produce, &last[1])};
  EXPECT_TRUE(test::eventually([&] {
    while (!queue.empty()) {
      const auto [seen, i] = queue.pop();
      *seen = i == *seen + 1 ? i : -1;
    }
    return last[0] == 10000 && last[1] == 10000;
  }));
  for (std::thread& producer : producers) producer.join();
}

}  // namespace
