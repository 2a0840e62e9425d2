// Connections that come and go, in every way and quickly.

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/stat.h>

#include <array>
#include <deque>
#include <future>
#include <map>

#include "figures.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "two_clients.h"
#include "two_servers.h"

namespace test {
namespace {

/// Runs the body with each number below `times`, on some threads at a time.
void inParallel(int times, int threadCount, const std::function<void(int)>& body) {
  std::atomic<int> next{0};
  std::vector<std::future<void>> workers;
  for (int i = 0; i < threadCount; ++i) {
    workers.push_back(std::async(std::launch::async, [&] {
      for (int number; (number = next++) < times;) body(number);
    }));
  }
  for (auto& worker : workers) worker.get();
}

template <typename Server>
struct ServersOfMany : testing::Test {};
using Servers = testing::Types<StateServer, CommandServer>;
TYPED_TEST_SUITE(ServersOfMany, Servers, );

enum Ending { Closed, ResetWhenHeard, HalfClosed, ResetAtOnce, Reading, CutShort, CutLong };
constexpr int kEndings = CutLong + 1;
constexpr std::size_t kLongBytes = 20000;

/// @param noisy  while broadcasts come: closing a socket with unread bytes is a reset
/// @return whether the server must hear the client; a reset takes what was not read yet with it
bool promised(int ending, bool noisy) {
  return ending == ResetWhenHeard || ending == HalfClosed ||
         (!noisy && (ending == Closed || ending == CutShort));
}

std::string nameOf(int number) {
  return "m" + std::to_string(number);
}

// Who resets while the kernel has no room for one more client has never come, for the server. What
// is acknowledged shows that there was room.
void resetOnceCome(RawSocket& client) {
  EXPECT_TRUE(eventually([&] {
    tcp_info info{};
    socklen_t size = sizeof info;
    return getsockopt(client.fd(), IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           (info.tcpi_unacked == 0 || info.tcpi_state != TCP_ESTABLISHED);
  }));
  client.reset();
}

// The message begins with a delimiter, which ends what a client before left unfinished.
template <typename Server>
void comeAndGo(const Server& server, int number, bool noisy) {
  RawSocket client = RawSocket::connectTo(server.port());
  const int ending = number % kEndings;
  if (ending == ResetAtOnce) {
    client.send("\r\n");
    return resetOnceCome(client);
  }
  client.send("\r\n" + nameOf(number) + "\r\n");
  if (ending == ResetWhenHeard) {
    EXPECT_TRUE(server.received.gets(nameOf(number)));
  } else if (ending == HalfClosed) {
    shutdown(client.fd(), SHUT_WR);
    EXPECT_TRUE(eventually([&] { return client.read(1 << 16, 1).empty() && client.ended(); }));
  } else if (ending == Reading && noisy) {
    EXPECT_EQ(client.read(1), "n");
  } else if (ending == CutShort) {
    client.send("unfinished");
  } else if (ending == CutLong) {
    client.send(std::string(kLongBytes, 'u'));
  }
  if (ending != Closed && ending != CutShort) resetOnceCome(client);
}

/// Every promised message was heard once, no other one more often.
template <typename Server>
void expectHeard(const Server& server, int clients) {
  std::map<std::string, int> heard;
  const auto missing = [&] {
    heard.clear();
    for (const std::string& msg : server.received.all()) ++heard[msg];
    int count = 0;
    for (int i = 0; i < clients; ++i) {
      count += promised(i % kEndings, i >= clients / 2) && heard[nameOf(i)] == 0;
    }
    return count;
  };
  EXPECT_TRUE(eventually([&] { return missing() == 0; })) << missing();
  for (int i = 0; i < clients; ++i) EXPECT_LE(heard[nameOf(i)], 1) << i;
}

/// @return the numbers behind `before` in the log's lines with `mark`, in ascending order
std::vector<int> numbersBehind(const LogCapture& log, const char* mark, const std::string& before) {
  std::vector<int> numbers;
  for (const std::string& text : log.texts()) {
    const std::size_t at = text.find(mark) == text.npos ? text.npos : text.find(before);
    if (at != text.npos) numbers.push_back(std::atoi(text.c_str() + at + before.size()));
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// Every client of a state server is one arrival, the last one's end the only leaving.
void expectAllTold(const std::vector<StateServer>& servers, std::size_t clients,
                   const LogCapture& log) {
  for (const StateServer& server : servers) {
    EXPECT_EQ(server.links.count("on"), clients);
    EXPECT_TRUE(eventually([&] { return server.links.all().back() == "off"; }));
  }
  const std::vector<int> ids = numbersBehind(log, " quit, remain", "socket ");
  std::map<int, std::size_t> times;
  for (const int id : ids) ++times[id];
  for (std::size_t id = 1; id <= clients; ++id) {
    EXPECT_EQ(times[static_cast<int>(id)], servers.size()) << id;
  }
}

// All command servers of the process share the connection listener and the numbers.
void expectAllTold(const std::vector<CommandServer>& servers, std::size_t clients,
                   const LogCapture& log) {
  const std::size_t all = clients * servers.size();
  const auto links = servers.back().links.all();
  EXPECT_EQ(links.size(), 2 * all);
  EXPECT_EQ(links.back(), "off");
  EXPECT_EQ(log.infos("pop robot state listener"), all);
  EXPECT_EQ(TcpServerBroadcaster::getInstance().listenerCount(), 0U);
  const std::vector<int> ids = numbersBehind(log, "unique id ", "unique id ");
  for (std::size_t i = 1; i < ids.size(); ++i) EXPECT_EQ(ids[i], ids[i - 1] + 1);
  EXPECT_EQ(ids.size(), all);
}

TYPED_TEST(ServersOfMany, KeepNothingOfClientsHoweverTheyEnd) {
  constexpr int kServers = 5;
  constexpr std::size_t kCrowd = 10;
  const LogCapture log;
  const int clients = (isGate() && !kSanitized ? 5000 : 1000) / kServers;
  std::vector<TypeParam> servers(kServers);
  for (TypeParam& server : servers) ASSERT_TRUE(server.start());
  const Census census{};
  std::vector<RawSocket> residents;  // what was received is dropped when nobody is left
  for (const TypeParam& server : servers) {
    residents.push_back(RawSocket::connectTo(server.port()));
    residents.back().send("m resident\r\n");
    ASSERT_TRUE(server.received.gets("m resident"));
  }
  const auto start = Clock::now();
  const auto all = static_cast<std::size_t>(clients * kServers);
  for (const bool noisy : {false, true}) {
    const int half = clients / 2 * kServers;
    const auto coming = std::async(std::launch::async, [&] {
      inParallel(half, 2 * kServers, [&](int i) {
        comeAndGo(servers[static_cast<std::size_t>(i % kServers)],
                  i / kServers + (noisy ? clients / 2 : 0), noisy);
      });
    });
    EXPECT_TRUE(eventually(
        [&] {
          const Bystanders others(4);
          for (TypeParam& server : servers) {
            if (noisy) server.broadcast("n"), server.listenAnew();
          }
          return others.untouched() &&
                 log.infos(" quit, remain connection") == all / (noisy ? 1 : 2);
        },
        6 * kDeadlineMs));
  }
  const double seconds = elapsedMs(start) / 1000;
  for (const TypeParam& server : servers) expectHeard(server, clients);
  for (const TypeParam& server : servers) {  // a crowd, which leaves all at once
    for (std::size_t i = 1; i <= kCrowd; ++i) {
      residents.push_back(RawSocket::connectTo(server.port()));
      residents.back().send("\r\ncrowd\r\n");
      EXPECT_TRUE(eventually([&] { return server.received.count("crowd") == i; }));
    }
  }
  residents.clear();
  EXPECT_TRUE(
      eventually([&] { return log.infos(" quit, remain") == all + kServers * (1 + kCrowd); }));
  EXPECT_TRUE(census.grownBy(0, 0));
  expectAllTold(servers, static_cast<std::size_t>(clients) + 1 + kCrowd, log);
  figure("R1",
         "%s: %d clients (closed, reset, half-closed, reset at once, cut in a short or long "
         "message) in %.1f s",
         TypeParam::kName, clients * kServers, seconds);
}

TYPED_TEST(ServersOfMany, AreHeldUpForSecondsOnlyByWhoNeverReads) {
  const LogCapture log;
  TypeParam server;
  ASSERT_TRUE(server.start(brix::ServerSafetyOptions::hardened()));
  std::vector<RawSocket> clients;  // the first one is sent to first, and never reads
  for (std::size_t i = 1; i <= 2; ++i) {
    clients.push_back(RawSocket::connectTo(server.port()));
    ASSERT_TRUE(eventually([&] { return server.links.count("on") == i; }));
  }
  const std::string text(64 << 10, 'x');
  std::size_t left = 0;
  for (int i = 0; i < 256; ++i) server.broadcast(text), left += text.size() + 2;
  double longestMs = 0;
  for (auto last = Clock::now(); left > 0 && longestMs < kDeadlineMs;) {
    const std::size_t got = clients[1].read(std::min<std::size_t>(left, 4096), 10).size();
    longestMs = std::max(longestMs, elapsedMs(last));
    if (got > 0) last = Clock::now(), left -= got;
  }
  EXPECT_EQ(left, 0U);
  EXPECT_GT(longestMs, 1000);  // it does hold them up
  EXPECT_LE(longestMs, 5500 + kStallMs);
  figure("R10", "%s, hardened: who never reads holds the others up for %.1f s", TypeParam::kName,
         longestMs / 1000);
}

template <typename Client>
struct ClientsOfMany : testing::Test {};
using Clients = testing::Types<StateClient, CommandClient>;
TYPED_TEST_SUITE(ClientsOfMany, Clients, );

/// One client with its own peer.
template <typename Client>
struct Pair {
  RawListener door;
  Client client;
  std::vector<std::string> expected;
  double worstMs = 0;

  RawSocket reconnect(int pauseMs, int round) {
    client.disconnect();
    std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    worstMs = std::max(worstMs, timedMs([&] { EXPECT_EQ(client.connect(door.port()), 1); }));
    RawSocket peer = door.accept();
    const std::string request = "request " + std::to_string(round);
    EXPECT_TRUE(client.send(request));
    expected.push_back("reply " + std::to_string(round));
    peer.send(expected.back() + "\r\n");
    EXPECT_TRUE(client.received.gets(expected.back()));
    std::string got;
    EXPECT_TRUE(eventually([&] {
      got += peer.read(1 << 16, 5);
      return got.find(request + "\r\n") != got.npos;
    }));
    EXPECT_EQ(got.find(request), got.rfind(request));
    EXPECT_EQ(client.received.all(), expected);
    return peer;
  }
};

TYPED_TEST(ClientsOfMany, ReconnectAtAnyMoment) {
  constexpr int kPausesMs[] = {0, 1, 10, 200, 900, 2400};
  constexpr std::size_t kClients = 25;
  const int rounds =
      std::max(volume(300, 100) / static_cast<int>(kClients * std::size(kPausesMs)), 1);
  const LogCapture log;
  const Census before{};
  double worstMs = 0;
  {
    std::vector<Pair<TypeParam>> pairs(kClients);
    for (int round = 0; round < rounds; ++round) {
      for (const int pauseMs : kPausesMs) {
        inParallel(kClients, kClients, [&](int i) {
          pairs[static_cast<std::size_t>(i)].reconnect(pauseMs, round * 10000 + pauseMs);
        });
      }
    }
    for (auto& pair : pairs) pair.client.disconnect();
    for (auto& pair : pairs) EXPECT_EQ(pair.client.connect(pair.door.port()), 1);
    EXPECT_TRUE(before.threadsGrownBy(kClients * TypeParam::kThreads));  // one of each
    for (auto& pair : pairs) worstMs = std::max(worstMs, pair.worstMs);
  }
  EXPECT_TRUE(before.threadsGrownBy(0));
  EXPECT_LT(worstMs, 1000 + kStallMs);
  figure("R2", "%s: %zu reconnects 0 to 2400 ms after a disconnect, slowest %.0f ms",
         TypeParam::kName, kClients * static_cast<std::size_t>(rounds) * std::size(kPausesMs),
         worstMs);
}

/// Files and sockets of somebody else, opened all the time and kept for a while: a number that is
/// given back is theirs at once, as theirs fill the table from below.
class Strangers {
 public:
  ~Strangers() { stop_ = true; }
  /// Ends the coming and going.
  /// @return how many were closed, or got a byte, before their own end
  int harmed() { return stop_ = true, harmed_.get(); }
  int made() const { return made_; }
  /// Lets others have the numbers that are given back.
  void rest(bool on) { resting_ = on; }

 private:
  struct Kept {
    bool untouched() const {
      return ends.first.silent() && ends.second.silent() && inodes() == before;
    }
    std::array<ino_t, 3> inodes() const {
      std::array<ino_t, 3> result{};
      const int numbers[] = {ends.first.fd(), ends.second.fd(), file.fd()};
      for (std::size_t i = 0; i < result.size(); ++i) {
        struct stat is {};
        if (fstat(numbers[i], &is) == 0) result[i] = is.st_ino;
      }
      return result;
    }
    const std::pair<RawSocket, RawSocket> ends = RawSocket::pair();
    const RawSocket file{::open("/dev/null", O_RDWR | O_CLOEXEC)};
    const std::array<ino_t, 3> before = inodes();
  };

  int comeAndGo() {
    constexpr std::size_t kKept = 64;
    int harmed = 0;
    std::deque<Kept> all;
    while (!stop_ || !all.empty()) {
      if (!stop_ && resting_) continue;
      if (!stop_) all.emplace_back(), ++made_;
      if (!stop_ && all.size() < kKept) continue;
      harmed += !all.front().untouched();
      all.pop_front();
    }
    return harmed;
  }

  std::atomic<bool> stop_{false}, resting_{false};
  std::atomic<int> made_{0};
  std::future<int> harmed_ = std::async(std::launch::async, [this] { return comeAndGo(); });
};

/// @return a client whose connection holds little, so that who sends to it waits until it reads
template <typename Server>
RawSocket slowClientOf(const Server& server) {
  RawSocket slow = RawSocket::connectTo(server.port());
  slow.send("\r\nslow\r\n");
  EXPECT_TRUE(server.received.gets("slow"));  // now it is registered
  const int bytes = 32768;
  setsockopt(slow.fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  EXPECT_EQ(setsockopt(slow.twin(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes), 0);
  return slow;
}

TYPED_TEST(ServersOfMany, NeverMistakeANumberThatIsGivenOutAgain) {
  const LogCapture log;
  TypeParam server;
  ASSERT_TRUE(server.start());
  const RawSocket slow = slowClientOf(server);
  Strangers strangers;
  const std::string large(1 << 20, 'x');
  const int rounds = volume(300, 100);
  for (int round = 0; round < rounds; ++round) {
    const bool stays = round % 2 != 0;
    strangers.rest(round % 4 == 0);
    RawSocket client = RawSocket::connectTo(server.port());
    const std::string number = std::to_string(round), text = "text" + number;
    client.send("\r\nhello" + number + "\r\n");
    ASSERT_TRUE(server.received.gets("hello" + number));
    for (const std::string& each : {large, text}) server.broadcast(each);
    const std::string all = large + "\r\n" + text + "\r\n";
    ASSERT_EQ(slow.read(1), "x");  // the server sends to it, and has to wait
    if (!stays) client.reset();
    const RawSocket next = RawSocket::connectTo(server.port());  // while the server waits
    next.send("next" + number + "\r\n");
    ASSERT_EQ("x" + slow.read(all.size() - 1), all) << round;
    if (stays) {
      ASSERT_EQ(client.read(all.size()), all) << round;
    }
    ASSERT_TRUE(server.received.gets("next" + number));
    server.broadcast("end");
    ASSERT_EQ(slow.read(5), "end\r\n") << round;
    if (stays) {
      ASSERT_EQ(client.read(5), "end\r\n") << round;
    }
    std::string heard;
    ASSERT_TRUE(eventually([&] {
      return heard += next.read(1 << 16, 1), heard.find("end\r\n") != heard.npos;
    })) << round;
  }
  EXPECT_EQ(strangers.harmed(), 0);
  figure("R3", "%s: %d clients among %d foreign sockets and files, 0 harmed", TypeParam::kName,
         rounds, 3 * strangers.made());
}

TYPED_TEST(ClientsOfMany, NeverMistakeANumberThatIsGivenOutAgain) {
  const LogCapture log;
  Pair<TypeParam> pair;
  Strangers strangers;
  std::unique_ptr<RawSocket> slow;
  const int rounds = volume(300, 100);
  for (int round = 0; round < rounds; ++round) {
    slow = std::make_unique<RawSocket>(pair.reconnect(0, round));
    EXPECT_TRUE(pair.client.send(std::string(8 << 20, 'x')));
    // It reads no more: the client is to leave while it sends.
    ASSERT_TRUE(eventually([&] { return slow->read(1) == "x"; }));
  }
  EXPECT_EQ(strangers.harmed(), 0);
  figure("R3", "%s: %d connections among %d foreign sockets and files, 0 harmed", TypeParam::kName,
         rounds, 3 * strangers.made());
}

}  // namespace
}  // namespace test
