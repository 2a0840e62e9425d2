#include "message_framing.h"

#include <gtest/gtest.h>

#include <random>

#include "message_splitter.h"
#include "splitter_model.h"
#include "wait.h"

namespace {

using test::Messages;

TEST(DecodeMsgs, CutsTheEdgeCases) {
  const auto decoded = [](std::string buffer, const char* delimiter) {
    Messages msgs{"kept"};
    std::string result = std::to_string(brix::decodeMsgs(buffer, msgs, delimiter));
    for (const std::string& msg : msgs) result += " " + msg;
    return result + "|" + buffer;
  };
  EXPECT_EQ(decoded("", "\r\n"), "0 kept|");
  EXPECT_EQ(decoded("\r", "\r\n"), "0 kept|\r");
  EXPECT_EQ(decoded("\r\n", "\r\n"), "1 kept|");
  EXPECT_EQ(decoded("no end\r", "\r\n"), "1 kept|no end\r");
  EXPECT_EQ(decoded("A\r\nB\r\nC", "\r\n"), "1 kept A B|C");
  EXPECT_EQ(decoded("\r\n\r\nA\r\n", "\r\n"), "1 kept A|");
  EXPECT_EQ(decoded("A\nB\n", "\n"), "1 kept A|B");  // only two bytes end a buffer
  EXPECT_EQ(decoded("ab", ""), "1 kept ab|");
}

TEST(DecodeMsgs, AgreesWithTheSlowWayHoweverTheStreamIsChunked) {
  const auto seed = std::random_device()();
  std::mt19937 random(seed);
  const auto text = [&random](std::size_t size, unsigned letters) {
    std::string result;
    while (result.size() < size) result += static_cast<char>(random() % letters);
    return result;
  };
  for (int round = 0; round < 4000 && !HasFailure(); ++round) {
    std::string buffer, delimiter;
    Messages decoded, split;
    test::SplitterModel slow;
    brix::MessageSplitter splitter;
    for (int chunks = 0; chunks < 8; ++chunks) {
      if (chunks == 0 || random() % 16 == 0) delimiter = text(1 + random() % 3, 2);
      const std::string chunk = text(random() % 10, 3);
      slow.feed(chunk, delimiter);
      splitter.feed(chunk.data(), chunk.size(), split, delimiter);
      const int enough = buffer.size() + chunk.size() >= 2;
      EXPECT_EQ(brix::decodeMsgs(buffer += chunk, decoded, delimiter), enough);
      EXPECT_TRUE(buffer == slow.tail && splitter.buffer() == slow.tail) << seed;
    }
    EXPECT_TRUE(decoded == slow.msgs && split == slow.msgs) << seed;
  }
}

// A cost that grows with the square of the bytes takes many times the limit.
TEST(MessageSplitter, CostsTimeInProportionToTheBytes) {
  constexpr double kLimitMs = test::kDeadlineMs;  // quadratic costs are minutes, linear ones 0.1 s
  Messages msgs;
  std::string buffer;
  while (buffer.size() < 2 * 1024 * 1024) buffer += "a\r\n";
  EXPECT_LT(test::timedMs([&] { brix::decodeMsgs(buffer, msgs, "\r\n"); }), kLimitMs);

  const std::string chunk(128, 'x');
  brix::MessageSplitter splitter;
  const auto start = test::Clock::now();
  while (splitter.buffer().size() < 16 * 1024 * 1024 && test::elapsedMs(start) < kLimitMs) {
    splitter.feed(chunk.data(), chunk.size(), msgs, "\r\n");
  }
  EXPECT_EQ(splitter.buffer().size(), 16u * 1024 * 1024) << "unfinished bytes taken in time";
}

}  // namespace
