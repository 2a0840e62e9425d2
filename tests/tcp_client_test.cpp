#include "tcp_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <ctime>
#include <future>

#include "faults.h"
#include "log_capture.h"
#include "raw_socket.h"

namespace {

using namespace test;
using Lines = std::vector<std::string>;

struct TcpClientTest : testing::Test {
  RawSocket connected() {
    EXPECT_EQ(client.connectServer(2.0), 1);
    return listener.accept();
  }
  /// @return the number of the last socket that was made
  int socketNumber() const {
    int number = -1;
    for (const std::string& text : log.texts()) std::sscanf(text.c_str(), "socket_fd %d", &number);
    return number;
  }
  void expectNoConnection(int bytesRead) {
    const std::size_t lines = log.lines().size();
    client.sendMsg("x", 1);
    client.closeClient();
    EXPECT_EQ(client.recieveMsg(), "");
    EXPECT_EQ(client.recieveMsg(bytes, sizeof bytes), bytesRead);
    EXPECT_TRUE(client.waitReadable(kDeadlineMs));
    EXPECT_EQ(log.lines().size(), lines);
  }

  LogCapture log;
  RawListener listener;
  const int port = listener.port();
  brix::TcpClient client{"127.0.0.1", port};
  char bytes[16] = {};
};

TEST_F(TcpClientTest, ASignalIsNoEndOfALongWait) {
  const RawSocket peer = connected();
  std::string chunk = "old";
  interruptEach(1000);
  EXPECT_TRUE(client.recieveMsgWithin(300, chunk));
  interruptEach(0);
  EXPECT_EQ(chunk, "");
}

TEST_F(TcpClientTest, LogsTheStepsOfAConnect) {
  enum { Connects, NoDescriptor, Refused };
  const std::string common[] = {
      "INFO Attempt to create socket connects to [127.0.0.1:" + std::to_string(port) + "]",
      "INFO Socket created...", "INFO Connecting server... @127.0.0.1"};
  const std::string failures[] = {"ERROR connectServer: Too many open files (errno 24)",
                                  "ERROR connectServer: Connection refused (errno 111)"};
  const std::size_t descriptors = openDescriptors();
  for (const int way : {Connects, Connects, NoDescriptor, NoDescriptor, Refused, Refused}) {
    const auto before = static_cast<std::ptrdiff_t>(log.lines().size());
    if (way == Refused) listener.close();
    if (way == NoDescriptor) limitDescriptors(3);
    EXPECT_EQ(client.connectServer(2.0), way == Connects ? 1 : -1);
    limitDescriptors(1200);
    const std::string number = "INFO socket_fd " + std::to_string(socketNumber());
    const Lines expected[] = {
        {common[0], number, common[1], common[2], "INFO connect successful"},
        {common[0], number, "INFO socket create failed! err:24", failures[0]},
        {common[0], number, common[1], common[2], "ERROR Cannot Connect the server!", failures[1]}};
    const Lines quiet = way == NoDescriptor ? Lines{failures[0]} : Lines{};
    const Lines lines = log.texts(true);
    EXPECT_EQ(Lines(lines.begin() + before, lines.end()), client.logFlag ? expected[way] : quiet);
    client.logFlag = !client.logFlag;
  }
  EXPECT_EQ(openDescriptors(), descriptors + 2 - 1);  // two connections, and no listener
}

TEST_F(TcpClientTest, ChecksThePortAndNeitherAddressNorNumber) {
  for (const char* address : {"192.168.1.300", "robot"}) {  // stand for this machine
    EXPECT_EQ(brix::TcpClient(address, port).connectServer(2.0), 1);
  }
  for (const int wrong : {-1, 65536, 70000, port + 65536, port - 65536}) {
    EXPECT_EQ(brix::TcpClient("127.0.0.1", wrong).connectServer(2.0), -1) << wrong;
  }
  limitDescriptors(1200);
  std::vector<RawSocket> held;
  while (held.empty() || held.back().fd() < 1106) held.emplace_back(dup(STDERR_FILENO));
  EXPECT_EQ(client.connectServer(2.0), 1);
  int noDelay = 0;
  socklen_t size = sizeof noDelay;
  getsockopt(socketNumber(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &size);
  EXPECT_EQ(noDelay, 1);
  EXPECT_GT(socketNumber(), 1106);
  EXPECT_EQ(fcntl(socketNumber(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_FALSE(client.waitReadable(1));
}

TEST_F(TcpClientTest, SignalsEndNeitherAReadNorTheOneSecondOfAConnect) {
  const RawSocket peer = connected();
  const RawListener full(0);
  const RawSocket only = RawSocket::connectTo(full.port());
  const auto attempt = [&](double timeout) {
    brix::TcpClient late("127.0.0.1", full.port());
    const double ms = timedMs([&] { EXPECT_EQ(late.connectServer(timeout), -1); });
    EXPECT_GE(ms, 990);
    EXPECT_LE(ms, 4500);
  };
  interruptEach(1000);
  const auto sender = std::async(std::launch::async, [&] {
    EXPECT_TRUE(eventually([] { return signalCount > 10; }));
    peer.send(std::string("\0x", 2));
    attempt(0.0);
  });
  EXPECT_EQ(client.recieveMsg(), std::string("\0x", 2));
  attempt(5.0);
  interruptEach(0);
}

TEST_F(TcpClientTest, RefusesNullAndNegativeLengthsAndReadsAClosedPeerCheaply) {
  RawSocket peer = connected();
  peer.send("in");
  client.sendMsg(bytes, -1);
  client.sendMsg(nullptr, 8);
  EXPECT_EQ(client.recieveMsg(bytes, -1), -1);
  EXPECT_EQ(client.recieveMsg(nullptr, 8), -1);
  EXPECT_EQ(client.recieveMsg(bytes, sizeof bytes), 2);
  client.sendMsg("ok", 1);
  EXPECT_EQ(peer.read(1), "o");
  peer.close();
  const std::clock_t start = std::clock();
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(client.recieveMsg(), "");
  EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 20) << "clearing 2 MiB each time takes longer";
  EXPECT_NE(fcntl(socketNumber(), F_GETFD), -1);
}

TEST_F(TcpClientTest, AFailedSendAbandonsTheSocket) {
  expectNoConnection(0);
  for (std::size_t round = 1; round <= 2; ++round) {
    RawSocket peer = connected();
    const std::size_t descriptors = openDescriptors();
    peer.reset();
    EXPECT_TRUE(eventually([&] {
      client.sendMsg("x");
      return log.errors("send failed -1.") == round;
    }));
    client.sendMsg("x");
    EXPECT_EQ(log.errors("send failed"), round);
    expectNoConnection(0);
    EXPECT_EQ(openDescriptors(), descriptors - 1);  // the peer's
  }
}

TEST_F(TcpClientTest, NeverTouchesAClosedNumber) {
  const RawSocket peer = connected();
  client.closeClient();
  const Bystanders others;
  EXPECT_NE(fcntl(socketNumber(), F_GETFD), -1);  // one of them has it now
  expectNoConnection(-1);                         // the number is kept
  client.sendMsg("x");
  EXPECT_EQ(log.errors("send failed -1."), 1u);
  EXPECT_TRUE(others.untouched());
  EXPECT_EQ(peer.read(1), "");
}

}  // namespace
