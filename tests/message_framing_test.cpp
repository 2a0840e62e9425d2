#include "message_framing.h"

#include <gtest/gtest.h>

#include <random>

#include "message_splitter.h"
#include "wait.h"

namespace {

using Messages = std::vector<std::string>;

/// Cuts step by step: slow, but plainly right.
int decodeSlowly(std::string& buffer, Messages& msgs, const std::string& delimiter) {
  if (buffer.size() < 2) return 0;
  const bool ended = brix::endsWith(buffer, delimiter);
  Messages pieces;
  std::string rest = ended ? buffer : buffer + delimiter;
  for (std::size_t at; (at = rest.find(delimiter)) != std::string::npos;) {
    pieces.push_back(rest.substr(0, at));
    rest = rest.substr(at + delimiter.size());
  }
  buffer.clear();
  if (!ended || delimiter.size() != 2) {
    buffer = pieces.back();
    pieces.pop_back();
  }
  for (const std::string& piece : pieces) {
    if (!piece.empty()) msgs.push_back(piece);
  }
  return 1;
}

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
    std::string slowBuffer, buffer, delimiter;
    Messages slow, decoded, split;
    brix::MessageSplitter splitter;
    for (int chunks = 0; chunks < 8; ++chunks) {
      if (chunks == 0 || random() % 16 == 0) delimiter = text(1 + random() % 3, 2);
      const std::string chunk = text(random() % 10, 3);
      const int result = decodeSlowly(slowBuffer += chunk, slow, delimiter);
      splitter.feed(chunk.data(), chunk.size(), split, delimiter);
      EXPECT_EQ(brix::decodeMsgs(buffer += chunk, decoded, delimiter), result);
      EXPECT_TRUE(buffer == slowBuffer && splitter.buffer() == slowBuffer) << seed;
    }
    EXPECT_TRUE(decoded == slow && split == slow) << seed;
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
