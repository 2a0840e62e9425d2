#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <future>

#include "brix_tcp_server.h"
#include "faults.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "texts.h"

namespace {

using namespace test;
using Messages = std::vector<std::string>;

/// A held handler and what its callbacks were told.
struct Subject {
  explicit Subject(int type = SOCK_STREAM, int intervalMs = 0) : ends(RawSocket::pair(type)) {
    handler = std::make_unique<brix::TcpServerHandler>(ends.first.take(), 7, intervalMs,
                                                       brix::HandlerStart::Held);
    handler->msgCallback = [this](const std::string& msg) { msgs.add(msg); };
    handler->quitCallback = [this](int id) { quits += id == 7 ? 1 : 100; };
    handler->delimiter = "\r\n";
  }
  bool quitsOnce() const {
    return eventually([&] { return quits > 0; }) && quits == 1;
  }

  Texts msgs;
  std::atomic<int> quits{0};
  std::pair<RawSocket, RawSocket> ends;
  const int number = ends.first.fd();
  RawSocket& peer = ends.second;
  std::unique_ptr<brix::TcpServerHandler> handler;
};

struct TcpServerHandlerTest : testing::Test {
  LogCapture log;
};

TEST_F(TcpServerHandlerTest, CutsTheStreamAtTheDelimiter) {
  const std::string block(16384, 'x');
  const struct {
    std::string delimiter;
    Messages chunks;
    Messages messages;
  } cases[] = {
      {"\r\n", {"A\r", "\n", "B", "\r", "\n"}, {"A", "B"}},
      {"\r\n", {"A\r\n\r\nB\r\nC", "\r\n", "D\r\nE"}, {"A", "B", "C", "D"}},
      {"\r\n", {std::string("\0A\r\0\n\r\n", 7)}, {std::string("\0A\r\0\n", 5)}},
      {"\r\n", {block, block, "y\r\nz\r\n"}, {block + block + "y", "z"}},
      {"", {"A\r", "\n", "B\r\nC"}, {"A\r", "\n", "B\r\nC"}},
      {";", {"A;B;", "C;D;"}, {"A", "BC"}},
  };
  for (const auto& entry : cases) {
    Subject subject(SOCK_SEQPACKET);  // one packet, one chunk
    subject.handler->delimiter = entry.delimiter;
    subject.handler->release();
    for (const std::string& chunk : entry.chunks) subject.peer.send(chunk);
    subject.peer.close();
    EXPECT_TRUE(subject.quitsOnce());
    EXPECT_EQ(subject.msgs.all(), entry.messages);
  }
}

TEST_F(TcpServerHandlerTest, OutlivesCallbacksThatThrow) {
  Subject subject;
  subject.handler->msgCallback = [&](const std::string& msg) {
    subject.msgs.add(msg);
    if (msg == "std") throw std::runtime_error("thrown");
    if (msg == "int") throw 7;
  };
  subject.handler->quitCallback = [&](int) {
    ++subject.quits;
    throw 7;
  };
  subject.handler->release();
  subject.peer.send("std\r\nint\r\nlast\r\n");
  subject.peer.close();
  EXPECT_TRUE(subject.quitsOnce());
  subject.handler.reset();
  EXPECT_EQ(subject.msgs.all(), (Messages{"std", "int", "last"}));
  EXPECT_EQ(log.errors("message callback exception: "), 2u);
  EXPECT_EQ(log.errors("quit callback exception: "), 1u);
}

TEST_F(TcpServerHandlerTest, TellsTheEndOnceHoweverItComes) {
  enum { Terminate, Destroy, Close, DestroyOnMessage, DestroyOnQuit };
  const struct {
    int end;
    int intervalMs;
    bool held;
  } cases[] = {{Terminate, 0, false}, {Terminate, 60000, false},    {Terminate, 0, true},
               {Destroy, 0, false},   {Destroy, 60000, false},      {Destroy, 0, true},
               {Close, 0, false},     {DestroyOnMessage, 0, false}, {DestroyOnQuit, 0, false}};
  const std::size_t descriptors = openDescriptors();
  const std::size_t runningThreads = settledThreads();
  for (const auto& entry : cases) {
    Subject s(SOCK_STREAM, entry.intervalMs);
    if (!entry.held) s.handler->release();
    if (entry.end == DestroyOnMessage) s.handler->msgCallback = [&](auto&) { s.handler.reset(); };
    if (entry.end == DestroyOnQuit) {
      s.handler->quitCallback = [&](int) { s.handler.reset(), ++s.quits; };
    }
    const double ms = timedMs([&] {
      if (entry.end == Terminate) s.handler->terminate();
      if (entry.end == Destroy) s.handler.reset();
      if (entry.end == DestroyOnMessage) s.peer.send("A\r\n");
      if (entry.end == Close || entry.end == DestroyOnQuit) s.peer.close();
      EXPECT_TRUE(s.quitsOnce()) << entry.end;
      if (s.handler) s.handler->terminate();
      s.handler.reset();
    });
    EXPECT_LE(ms, kStopBoundMs) << entry.end;
    EXPECT_EQ(s.quits, 1) << entry.end;
    EXPECT_TRUE(s.peer.fd() < 0 || s.peer.ended()) << entry.end;
    EXPECT_TRUE(eventually([&] { return threads() == runningThreads; })) << entry.end;
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(log.errors("catch std::system_error "), 2u);  // destroyed on its own thread
}

TEST_F(TcpServerHandlerTest, ReadsNothingBeforeItsRelease) {
  for (int round = 0; round < 100; ++round) {
    Subject subject;
    subject.peer.send("A\r\n");
    for (int i = 0; i < 20; ++i) std::this_thread::yield();
    int unread = 0;
    ioctl(subject.peer.fd(), TIOCOUTQ, &unread);
    ASSERT_GT(unread, 0);
    subject.handler->release();
    ASSERT_TRUE(eventually([&] { return subject.msgs.all().size() == 1; }));
  }
}

TEST_F(TcpServerHandlerTest, SendsRaiseNoSigpipeAndAreNotCutBySignals) {
  const auto before = signal(SIGPIPE, SIG_DFL);  // a SIGPIPE would end this program
  const std::string large(4 << 20, 'x');
  Subject subject;
  interruptEach(1000);
  auto reader = std::async(std::launch::async, [&, start = signalCount.load()] {
    EXPECT_TRUE(eventually([&] { return signalCount > start + 5; }));
    return subject.peer.read(large.size()).size();
  });
  subject.handler->sendMsg(large);
  EXPECT_EQ(reader.get(), large.size());
  interruptEach(0);
  subject.peer.close();
  subject.handler->sendMsg("x");
  EXPECT_EQ(signal(SIGPIPE, before), SIG_DFL);
}

TEST_F(TcpServerHandlerTest, NeverTouchesAClosedNumber) {
  for (const bool started : {true, false}) {
    threadThatFails = started ? 0 : 1;
    Subject subject;
    EXPECT_EQ(subject.handler->started(), started);
    EXPECT_EQ(subject.peer.ended(), !started);
    subject.handler->terminate();
    EXPECT_TRUE(eventually([&] { return fcntl(subject.number, F_GETFD) == -1; }));
    const Bystanders others;
    EXPECT_NE(fcntl(subject.number, F_GETFD), -1);  // one of them has it now
    subject.handler->sendMsg("x");
    subject.handler->terminate();
    subject.handler.reset();
    EXPECT_TRUE(others.untouched());
    EXPECT_TRUE(subject.peer.ended());
  }
  EXPECT_EQ(log.errors("start thread failed, connection handler: "), 1u);
}

}  // namespace
