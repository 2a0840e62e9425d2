#include "tcp_server_sender.h"

#include <gtest/gtest.h>

#include "faults.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "tcp_server.h"
#include "texts.h"

namespace {

using namespace test;

constexpr auto sender = TcpServerBroadcaster::getInstance;

TEST(TcpServerBroadcaster, SendsOneTextACycleInTheOrderOfSocketsWhateverIsThrown) {
  LogCapture log;
  Texts sent;
  const auto attach = [](int socket, std::function<void(int, const std::string&)> fn) {
    static int attached = 0;  // of the process
    const std::string name = "tcp_" + std::to_string(socket) + "_" + std::to_string(++attached);
    EXPECT_EQ(sender().attachListener(fn, socket), name);
  };
  const auto record = [&](int to, auto& text) { sent.add(std::to_string(to) + text), throw 7; };
  sender().setConnectionListener([&](bool any) { sent.add(any ? "any" : "none"), throw 7; });
  EXPECT_EQ(sender().pushMsg("lost"), 0);
  attach(9, nullptr);
  EXPECT_EQ(sender().pushMsg("unheard"), 1);
  EXPECT_TRUE(eventually([&] { return log.errors("send function exception: ") == 1; }));
  attach(7, record);
  attach(9, record);
  std::vector<std::string> expected(3, "any");
  const auto start = Clock::now();
  for (int i = 0; i < 30; ++i) {
    sender().pushMsg(" \r\n" + std::to_string(i));
    for (const char* to : {"7", "9"}) expected.push_back(to + (" \r\n" + std::to_string(i)));
  }
  EXPECT_TRUE(eventually([&] { return sent.all() == expected; }));
  EXPECT_GE(elapsedMs(start), 29);
  for (const int socket : {9, 3}) sender().detachListener(socket);
  sender().pushMsg("x");  // follows the removals
  EXPECT_TRUE(eventually([&] { return sent.count("7x") == 1; }));
  sender().detachListener(7);
  EXPECT_TRUE(eventually([&] { return log.errors("connection listener exception: ") == 6; }));
  for (const char* told : {"any", "any", "7x", "none"}) expected.push_back(told);
  EXPECT_EQ(sent.all(), expected);
  for (const char* line :
       {"tcp sender attach listener, socket[9], total count 1", "[7], total count 2",
        "[9], total count 2", "pop robot state listener 9",
        "socket[9]quit, remain listener count 1", "socket[3]quit, remain listener count 1",
        "listener 7", "[7]quit, remain listener count 0"})
    EXPECT_EQ(log.infos(line), 1u) << line;
}

enum Place { LateSender, SendFunction, SenderEnded };

/// Ends the process while clients are connected, or lets it go on without the sender.
bool endAt(Place place) {
  threadThatFails = place == LateSender ? 1 : 0;  // the next use starts it
  sender();
  static brix::TcpServer server(0);
  server.waitUntilListening(kDeadlineMs);
  const RawSocket stays = RawSocket::connectTo(server.listeningPort());
  RawSocket leaves = RawSocket::connectTo(server.listeningPort());
  eventually([] { return sender().listenerCount() == 2; });
  const std::string text(64 << 20, 'x');
  const std::size_t running = settledThreads(), descriptors = openDescriptors(),
                    kib = residentKib();
  if (place == SenderEnded) leaves.send("exit");
  if (place == SendFunction) sender().attachListener([](auto&&...) { std::exit(EXIT_SUCCESS); }, 0);
  if (place != SenderEnded) return sender().pushMsg(text) == 1 && stays.read(1) == "x";
  leaves.close();
  bool ok = eventually([=] { return threads() == running - 2; });
  for (int i = 0; i < 3; ++i) ok = ok && sender().pushMsg(text) == 1;
  ok = ok && openDescriptors() == descriptors - 2 && residentKib() < kib + (64 << 10);
  const RawSocket last = RawSocket::connectTo(server.listeningPort());
  return ok && eventually([=] { return server.listeningPort() == 0; });
}

TEST(TcpServerBroadcaster, LetsTheProcessEndAtAnyMomentAndKeepsNothingAfterItsOwnEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const Place place : {LateSender, SendFunction, SenderEnded}) {
    EXPECT_EXIT(endProcessAfter([=] { return endAt(place); }), testing::ExitedWithCode(0), "");
  }
}

}  // namespace
