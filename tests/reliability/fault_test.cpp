// Everything that may fail fails once: memory, system calls, threads.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdarg>
#include <new>
#include <optional>
#include <set>

#include "communication_server.h"
#include "faults.h"
#include "figures.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "tcp_server_wrapper.h"
#include "two_clients.h"
#include "two_servers.h"

namespace {

/// What fails: the nth use from now on; 0: nothing.
struct Failing {
  std::atomic<int> nth{0};
  std::atomic<int> used{0};

  bool now() {
    ++used;
    return nth > 0 && --nth == 0;
  }
};
Failing memory;

struct FailingCall {
  const char* name;
  int error = 0;
  Failing failing{};
};
FailingCall calls[] = {{"socket"},  {"bind"},       {"listen"},     {"accept"},
                       {"connect"}, {"send"},       {"recv"},       {"poll"},
                       {"fcntl"},   {"setsockopt"}, {"getsockopt"}, {"getsockname"}};
thread_local bool ownCalls = false;  // of the test, which are not to fail

/// The other end of a test works, whatever fails.
struct Unharmed {
  Unharmed() { ownCalls = true; }
  ~Unharmed() { ownCalls = false; }
};

template <std::size_t kIndex, typename Function, typename... Args>
auto callOrFail(Function, Args... args) {
  FailingCall& call = calls[kIndex];
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, call.name));
  if (!ownCalls && call.failing.now()) return errno = call.error, decltype(real(args...))(-1);
  return real(args...);
}

}  // namespace

__attribute__((noinline)) void* operator new(std::size_t size) {
  if (!ownCalls && memory.now()) throw std::bad_alloc();
  if (void* const block = std::malloc(size)) return block;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* block) noexcept {
  std::free(block);
}
__attribute__((noinline)) void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

extern "C" {
int socket(int domain, int type, int protocol) noexcept {
  return callOrFail<0>(&socket, domain, type, protocol);
}
int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  return callOrFail<1>(&bind, fd, address, size);
}
int listen(int fd, int backlog) noexcept {
  return callOrFail<2>(&listen, fd, backlog);
}
int accept(int fd, sockaddr* address, socklen_t* size) {
  return callOrFail<3>(&accept, fd, address, size);
}
int connect(int fd, const sockaddr* address, socklen_t size) {
  return callOrFail<4>(&connect, fd, address, size);
}
ssize_t send(int fd, const void* data, std::size_t size, int flags) {
  return callOrFail<5>(&send, fd, data, size, flags);
}
ssize_t recv(int fd, void* data, std::size_t size, int flags) {
  return callOrFail<6>(&recv, fd, data, size, flags);
}
int poll(pollfd* entries, nfds_t count, int ms) {
  return callOrFail<7>(&poll, entries, count, ms);
}
int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return callOrFail<8>(&fcntl, fd, command, argument);
}
int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  return callOrFail<9>(&setsockopt, fd, level, name, value, size);
}
int getsockopt(int fd, int level, int name, void* value, socklen_t* size) noexcept {
  return callOrFail<10>(&getsockopt, fd, level, name, value, size);
}
int getsockname(int fd, sockaddr* address, socklen_t* size) noexcept {
  return callOrFail<11>(&getsockname, fd, address, size);
}
}

namespace test {
namespace {

constexpr double kLostMs = 60;       // what has not come by then was lost with the fault
double patienceMs = kLostMs;         // of the first try, which the fault hits
bool firstLost = false;              // whether it failed
const LogCapture* logged = nullptr;  // of the test that runs

std::size_t missingThreads() {
  return logged->errors("start thread failed");
}

template <typename Server>
bool serves(Server& server) {
  const Unharmed other;
  static std::atomic<int> number{0};
  try {
    const RawSocket client = RawSocket::connectTo(server.port());
    const std::string name = "m" + std::to_string(++number);
    client.send("\r\n" + name + "\r\n");
    if (!eventually([&] { return server.received.count(name) == 1; }, patienceMs)) return false;
    server.broadcast("b" + name);
    return client.read(name.size() + 3, patienceMs) == "b" + name + "\r\n";
  } catch (const std::runtime_error&) {
    return false;
  }
}

/// A server starts and serves; then, whatever has failed, it serves a good client. Only a thread
/// that could not be made is not made later.
template <typename Server>
bool playServer(const brix::ServerSafetyOptions& options = {}) {
  const std::size_t missing = missingThreads();
  auto server = std::make_unique<Server>();
  if (server->start(options)) firstLost = !serves(*server);
  memory.nth = 0;
  const bool whole = server->port() != 0 && missingThreads() == missing;
  if (whole) return eventually([&] { return serves(*server); });
  server = std::make_unique<Server>();
  return server->start(options) && eventually([&] { return serves(*server); });
}

/// A client is refused for want of room; the server accepts again when there is some.
template <typename Server>
bool playRefusal() {
  const std::size_t missing = missingThreads();
  Server server;
  brix::ServerSafetyOptions options;
  options.maxClients = 1;
  if (!server.start(options)) return true;  // and said so
  {
    const Unharmed other;
    const RawSocket first = RawSocket::connectTo(server.port());
    first.send("first\r\n");
    eventually([&] { return server.received.count("first") == 1; }, kLostMs);
    const RawSocket second = RawSocket::connectTo(server.port());
    eventually([&] { return second.ended(); }, kLostMs);
  }
  memory.nth = 0;
  return missingThreads() != missing || eventually([&] { return serves(server); });
}

template <typename Client>
bool exchanges(Client& client) {
  static std::atomic<int> number{0};
  const std::string name = "m" + std::to_string(++number);
  std::unique_ptr<RawListener> door;
  {
    const Unharmed other;
    door = std::make_unique<RawListener>();
  }
  client.disconnect();  // a connect that failed may have left it connected
  if (client.connect(door->port()) != 1) return false;
  std::optional<RawSocket> peer;
  bool heard = false;
  {
    const Unharmed other;
    peer.emplace(door->accept());
    peer->send("\r\n" + name + "\r\n");
    heard = eventually([&] { return client.received.count(name) == 1; }, patienceMs);
  }
  client.disconnect();  // before the peer closes: a send that fails leaves its descriptor open
  return heard;
}

brix::ClientSafetyOptions reclaiming() {
  brix::ClientSafetyOptions options;
  options.reclaimDescriptors = true;  // a send that meets a reset keeps the descriptor otherwise
  return options;
}

template <typename Client>
bool playClient(const brix::ClientSafetyOptions& options) {
  Client client(options);
  firstLost = !exchanges(client);
  memory.nth = 0;
  return eventually([&] { return exchanges(client); });
}

bool playWrapper() {
  brix::TcpServerWrapper server(-1);
  brix::TcpServerWrapper::ObjectHandlerMap map;
  map["echo"] = [](const Json::Value& request) { return request; };
  server.setHandleMap(map);
  const char* const request = "{\"command\":\"echo\",\"list\":[1,2.5,\"three\",{}]}";
  server.commandHandle(request);
  server.onReceive(request);
  server.onReceive("no json");
  server.sendMsgs("lost");
  memory.nth = 0;
  return server.commandHandle(request).find("\"code\":1") != std::string::npos;
}

bool playCommunicationServer() {
  const auto transport = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server;
  server.setServerHandle(transport);
  server.registerBroadcastFunc([] { return std::string("state"); }, 1);
  server.initialize(0);
  transport->waitUntilListening(kLostMs);
  const auto broadcasts = [&] {
    const Unharmed other;
    try {
      return RawSocket::connectTo(transport->listeningPort()).read(7, kLostMs) == "state\r\n";
    } catch (const std::runtime_error&) {
      return false;
    }
  };
  broadcasts();
  memory.nth = 0;
  if (transport->listeningPort() == 0) return true;  // it could not start, and said so
  server.terminate();
  return true;
}

bool playLog() {
  const std::string text(100, 'x');
  brix::getLogInstance()->err(__FILE__, __LINE__, brix::ERR_COMMUNICATION, "%s %d %f %b",
                              text.c_str(), 1, 2.0, true);
  memory.nth = 0;
  return true;
}

struct Play {
  const char* name;
  bool (*play)();
};
const auto kHardened = brix::ServerSafetyOptions::hardened();
const Play kPlays[] = {
    {"state server", [] { return playServer<StateServer>(); }},
    {"command server", [] { return playServer<CommandServer>(); }},
    {"hardened state server", [] { return playServer<StateServer>(kHardened); }},
    {"hardened command server", [] { return playServer<CommandServer>(kHardened); }},
    {"state client", [] { return playClient<StateClient>(reclaiming()); }},
    {"command client", [] { return playClient<CommandClient>(reclaiming()); }},
    {"hardened command client",
     [] { return playClient<CommandClient>(brix::ClientSafetyOptions::hardened()); }},
    {"command handling", playWrapper},
    {"publishing", playCommunicationServer},
    {"log", playLog}};

const Play kRefusals[] = {{"refusing state server", playRefusal<StateServer>},
                          {"refusing command server", playRefusal<CommandServer>}};

/// Plays while one thing fails; what the call that it hits throws is the application's to catch.
bool survives(const Play& play) {
  try {
    return play.play();
  } catch (const std::bad_alloc&) {
    memory.nth = 0;
    return play.play();
  }
}

TEST(Faults, OfMemoryHitNothingButTheirOwnCall) {
  LogCapture* const log = new LogCapture;
  logged = log;
  TcpServerBroadcaster::getInstance();
  const Census census{};
  std::vector<Play> plays(std::begin(kPlays), std::end(kPlays));
  plays.insert(plays.end(), std::begin(kRefusals), std::end(kRefusals));
  for (const Play& play : plays) {
    ASSERT_TRUE(play.play()) << play.name;
    memory.used = 0;
    play.play();
    const int allocations = memory.used;
    const int step = allocations / volume(allocations, allocations / 3);
    int failures = 0;
    for (int nth = 1; nth <= allocations; nth += std::max(step, 1)) {
      memory.nth = nth;
      ++failures;
      const double ms =
          timedMs([&] { EXPECT_TRUE(survives(play)) << play.name << ", allocation " << nth; });
      EXPECT_LT(ms, kDeadlineMs / 2)
          << play.name << ", allocation " << nth << ": somebody waits for what has failed";
      ASSERT_TRUE(census.grownBy(0, 0)) << play.name << ", allocation " << nth;
    }
    figure("R8", "%s: %d of %d allocations failed once, nothing else did", play.name, failures,
           allocations);
  }
  delete log;
}

/// What is logged when the first use of a call fails; the error of an interruption is none.
constexpr struct {
  const char *by, *call, *line;
} kLines[] = {{"server", "socket", "INFO Socket error"},
              {"server", "bind", "INFO Unable to bind"},
              {"server", "listen", "INFO Listen error"},
              {"command server", "accept", "INFO accept connection failed! errno = -1"},
              {"command server", "recv", "INFO recieve error"},
              {"command server", "send", "ERROR send error,close the socket."},
              {"client", "socket", "INFO socket create failed! err:"},
              {"client", "setsockopt", "ERROR Fail to set socket option socket:"},
              {"client", "connect", "ERROR Cannot Connect the server!"},
              {"client", "send", "ERROR send failed -1."}};

void expectLine(const std::string& play, const std::string& call, const LogCapture& log) {
  for (const auto& due : kLines) {
    if (call != due.call || play.find(due.by) == play.npos) continue;
    EXPECT_TRUE(eventually([&] {
      const auto lines = log.texts(true);
      return std::any_of(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.rfind(due.line, 0) == 0; });
    })) << due.line;
  }
}

/// @return whether the library tries the call again, and nobody notices
bool isRetried(const char* call, int error) {
  const std::set<std::string> interruptible{"accept", "send", "recv", "poll"};
  return error == EINTR && interruptible.count(call) != 0;
}

TEST(Faults, OfSystemCallsAreSurvived) {
  constexpr int kErrors[] = {EINTR, EMFILE, ENOMEM, ENOBUFS, ENFILE, ECONNABORTED};
  const int errors = volume(static_cast<int>(std::size(kErrors)), 2);
  const int depth = volume(3, 2);  // how many uses of each call fail, one after the other
  TcpServerBroadcaster::getInstance();
  const Census census{};
  for (const Play& play : kPlays) {
    int failures = 0;
    for (FailingCall& call : calls) {
      for (int i = 0; i < errors; ++i) {
        const int error = kErrors[i];
        for (int nth = 1; nth <= depth; ++nth) {
          const LogCapture log;
          logged = &log;
          firstLost = false;
          patienceMs = isRetried(call.name, error) ? kDeadlineMs : kLostMs;
          SCOPED_TRACE(std::string(play.name) + ", " + call.name + " " + std::to_string(nth) +
                       ", " + std::to_string(error));
          call.error = error;
          call.failing.nth = nth;
          const double ms = timedMs([&] { EXPECT_TRUE(play.play()); });
          EXPECT_LT(ms, kDeadlineMs / 2) << "somebody waits for what has failed";
          EXPECT_FALSE(isRetried(call.name, error) && firstLost);
          const bool hit = call.failing.nth.exchange(0) <= 0;
          failures += hit;
          if (hit && nth == 1 && error != EINTR) expectLine(play.name, call.name, log);
        }
      }
    }
    figure("R9", "%s: %d failures of %zu system calls survived", play.name, failures,
           std::size(calls));
  }
  patienceMs = kLostMs;
  EXPECT_TRUE(census.threadsGrownBy(0));
}

TEST(Faults, OfAConnectLeaveNoDescriptorBehind) {
  const LogCapture log;
  const RawListener door;
  const Census census{};
  for (FailingCall& call : calls) {
    call.error = ENOMEM;
    call.failing.nth = 1;
    {
      brix::TcpClient client("127.0.0.1", door.port());
      client.setSafetyOptions(brix::ClientSafetyOptions::hardened());
      client.connectServer(1);
    }
    call.failing.nth = 0;
    EXPECT_TRUE(census.grownBy(0, 0)) << call.name;
  }
}

TEST(Faults, OfThreadCreationAreSurvived) {
  const LogCapture log;
  logged = &log;
  TcpServerBroadcaster::getInstance();
  const Census census{};
  int failures = 0;
  for (const Play& play : kPlays) {
    for (int nth = 1;; ++nth, ++failures) {
      threadThatFails = nth;
      EXPECT_TRUE(play.play()) << play.name << ", thread " << nth;
      if (threadThatFails.exchange(0) > 0) break;
    }
  }
  EXPECT_TRUE(census.threadsGrownBy(0));
  figure("R9", "%d failures of thread creation survived, at every point of %zu plays", failures,
         std::size(kPlays));
}

}  // namespace
}  // namespace test
