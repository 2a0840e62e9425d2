// Every way a process can end while servers and clients run, each in a process of its own.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <memory>
#include <string_view>

#include "brix_tcp_server.h"
#include "communication_client.h"
#include "communication_server.h"
#include "figures.h"
#include "raw_socket.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "tcp_server.h"
#include "tcp_server_wrapper.h"

extern char** environ;

namespace test {
namespace {

using std::string;

constexpr int kStatus = 7;
constexpr int kClock = 3;  // descriptor by which a process tells when it began to end
constexpr double kEndMs = kSanitized ? 10000 : 2000;
constexpr std::size_t kLongBytes = 2 << 20;
// Threads read these to the very end: none of them is destroyed.
constexpr std::string_view kAsk = "{\"command\":\"ask\"}\r\n",
                           kAskLong = "{\"command\":\"long\"}\r\n";
std::string_view place;          // where this process ends; empty: it is the test itself
std::atomic<bool> armed{false};  // all works: it may end

void tellTheTime() {
  const auto now = Clock::now();
  check(write(kClock, &now, sizeof now) == sizeof now, "write");
}

void leave() {
  tellTheTime();
  std::exit(kStatus);
}

std::atomic<bool> hung{false};

/// Ends the process if this is the place, or never returns. Only one thread may call exit().
void passing(const char* here) {
  while (armed && place == "hang") hung = true, pause();
  if (!armed || place != here) return;
  while (!armed.exchange(false)) pause();
  leave();
}

std::atomic<int> replies{0};

struct Replies : brix::iRecieveListener {
  void onReceive(const string&) override { ++replies, passing("reply"); }
};

struct CommandFamily : brix::iRecieveListener {
  CommandFamily() {
    brix::TcpServerWrapper::ObjectHandlerMap handlers{
        {"ask", [](const Json::Value& request) { return passing("handler"), request; }},
        {"long", [](const Json::Value&) {
           Json::Value reply;
           reply["text"] = string(kLongBytes, 'x');
           return reply;
         }}};
    wrapper.setHandleMap(handlers);
    wrapper.registerBroadcastFunc([] { return passing("broadcast"), Json::Value(1); }, 1);
    plain.attachListener(this);
    if (place == "arrival" || place == "leaving") {  // or it stays the wrapper's
      plain.attachConnectionListener([](bool up) { passing(up ? "arrival" : "leaving"); });
    }
    wrapper.init(0);
    plain.createSocket(0);
    if (place == "at once") return;
    for (const bool up :
         {wrapper.waitUntilListening(kDeadlineMs), plain.waitUntilListening(kDeadlineMs)}) {
      check(up, "listen");
    }
    client.attachListener(&told);
    check(client.connectSocket("127.0.0.1", wrapper.listeningPort()) == 1, "connect");
    ports = {wrapper.listeningPort(), plain.listeningPort()};
  }
  void onReceive(const string&) override { passing("listener"); }
  void disconnect() { client.disConnected(); }

  std::vector<int> ports;
  Replies told;
  brix::TcpServerWrapper wrapper{-1};
  brix::TcpServer plain{-1};
  brix::TcpClientWrapper client;
};

struct StateFamily {
  StateFamily() {
    server.setServerHandle(wire);
    server.registerRawDataBroadcastFunc([](const string& msg) {
      passing("handler");
      return msg + "\r\n" == kAskLong ? string(kLongBytes, 'x') : msg;
    });
    server.registerBroadcastFunc([] { return passing("broadcast"), "1"; }, 1);
    server.registerSentMsgObserver([](const string&) { passing("listener"); });
    server.registerConnectionListener([](bool up) { passing(up ? "arrival" : "leaving"); });
    server.initialize(0);
    if (place == "at once") return;
    check(wire->waitUntilListening(kDeadlineMs), "listen");
    const int port = wire->listeningPort();
    client.attachListener(&told);
    client.setClientHandle(std::make_shared<brix::TcpClient>("127.0.0.1", port));
    check(client.connect("127.0.0.1", port, 1) == 1, "connect");
    ports = {port};
  }
  void disconnect() { client.disConnect(); }

  std::vector<int> ports;
  Replies told;
  std::shared_ptr<brix::BrixTcpServer> wire = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server;
  brix::CommunicationClient client;
};

/// Sends without an end and without caring.
void keepAsking(const std::vector<RawSocket>& peers) {
  std::thread([&peers] {
    for (;;) {
      for (const RawSocket& peer : peers) {
        ::send(peer.fd(), kAsk.data(), kAsk.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      }
      usleep(300);
    }
  }).detach();
}

/// Lets a peer, which never reads, hold up whoever sends to it.
void fill(const RawSocket& peer) {
  for (int i = 0; i < 16; ++i) peer.send(string(kAskLong));
  const auto unread = [&] {
    int bytes = 0;
    return ioctl(peer.fd(), FIONREAD, &bytes), bytes;
  };
  check(eventually([&] {
          const int before = unread();
          return before > 0 && !eventually([&] { return unread() != before; }, 20);
        }),
        "fill");
}

/// @return the process's status, from main; elsewhere it ends on the way
template <typename Family>
int live(Family& family) {
  if (place == "at once") return tellTheTime(), kStatus;
  auto& peers = *new std::vector<RawSocket>;  // used until the process is gone
  for (const int port : family.ports) {
    for (int i = 0; i < 3; ++i) peers.push_back(RawSocket::connectTo(port));
  }
  keepAsking(peers);
  check(eventually([] { return replies > 0; }), "reply");
  if (place == "stuck") fill(peers[0]);
  if (place == "leaving") family.disconnect();
  const int port = family.ports.back();
  armed = true;  // from here on the family may be gone
  if (place == "hang") check(eventually([] { return hung.load(); }), "hang");
  if (place == "main" || place == "stuck" || place == "hang") return tellTheTime(), kStatus;
  if (place == "exit") leave();
  if (place == "thread") std::thread(leave).join();
  if (place == "arrival") RawSocket::connectTo(port).take();
  if (place == "leaving") {
    for (const RawSocket& peer : peers) shutdown(peer.fd(), SHUT_RDWR);
  }
  for (;;) pause();
}

/// A child's whole life. Its objects are static, or left to the process.
template <typename Family>
int liveWith(bool isStatic) {
  if (!isStatic) {
    static auto* const kept = new Family;  // static, so that it is no leak
    return live(*kept);
  }
  static Family family;
  return live(family);
}

struct Case {
  std::vector<string> arguments;
  string name() const {
    string result;
    for (const string& argument : arguments) result += argument + " ";
    return result;
  }
};

struct End {
  int status = -1;
  double tookMs = -1;
  string output;
};

/// Runs a child to its end; what it prints is kept.
End runToEnd(const Case& what) {
  int clock[2];
  check(pipe2(clock, O_CLOEXEC) == 0, "pipe");
  RawSocket reader(clock[0]), writer(clock[1]);
  const RawSocket output(memfd_create("output", MFD_CLOEXEC));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output.fd(), 1);
  posix_spawn_file_actions_adddup2(&actions, output.fd(), 2);
  posix_spawn_file_actions_adddup2(&actions, writer.fd(), kClock);
  std::vector<char*> arguments;
  for (const string& argument : what.arguments)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_t child = 0;
  const int error = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  check(error == 0, "posix_spawn");
  writer.close();
  End end;
  int state = 0;
  while (waitpid(child, &state, 0) < 0 && errno == EINTR) continue;
  const auto gone = Clock::now();
  end.status = WIFEXITED(state) ? WEXITSTATUS(state) : -WTERMSIG(state);
  Clock::time_point begun;
  if (::read(reader.fd(), &begun, sizeof begun) == sizeof begun) {
    end.tookMs = std::chrono::duration<double, std::milli>(gone - begun).count();
  }
  string text(65536, ' ');
  const ssize_t size = pread(output.fd(), text.data(), text.size(), 0);
  end.output = text.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  return end;
}

std::vector<Case> cases() {
  std::vector<Case> all;
  for (const char* family : {"command", "state"}) {
    for (const char* storage : {"static", "kept"}) {
      for (const char* where : {"at once", "main", "exit", "thread", "handler", "broadcast",
                                "listener", "reply", "arrival", "leaving", "stuck", "hang"}) {
        all.push_back({{"/proc/self/exe", "live", family, storage, where}});
      }
    }
  }
  for (const char* fate : {"keep", "destroy"}) {
    all.push_back({{PROCESS_END_HOST, PROCESS_END_MODULE, fate, std::to_string(kStatus)}});
  }
  return all;
}

TEST(ProcessEnd, HasTheStatusAskedForSoon) {
  const std::vector<Case> all = cases();
  const int rounds = std::max(volume(50, 10), 3);
  const std::size_t runs = all.size() * static_cast<std::size_t>(rounds);
  std::atomic<std::size_t> next{0};
  std::mutex lock;
  std::vector<Timings> ends(all.size());
  std::vector<std::thread> runners;
  for (int i = 0; i < 4; ++i) {
    runners.emplace_back([&] {
      for (std::size_t run; (run = next++) < runs;) {
        const Case& one = all[run % all.size()];
        const End end = runToEnd(one);
        std::lock_guard<std::mutex> guard(lock);
        EXPECT_EQ(end.status, kStatus) << one.name() << end.output;
        EXPECT_GE(end.tookMs, 0) << one.name();
        ends[run % all.size()].add(end.tookMs);
      }
    });
  }
  for (std::thread& runner : runners) runner.join();
  double worstMs = 0;
  string worst;
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_LT(ends[i].median(), kEndMs) << all[i].name();
    if (ends[i].worst() > worstMs) worstMs = ends[i].worst(), worst = all[i].name();
  }
  figure("R11", "%zu ends of a process in %zu ways, worst %.0f ms (bound of the median %.0f): %s",
         runs, all.size(), worstMs, kEndMs, worst.c_str());
}

}  // namespace
}  // namespace test

// A leak check while other threads run on takes long, fails at times, and tells nothing.
extern "C" int __lsan_is_turned_off() {
  return test::place.empty() ? 0 : 1;
}

// Objects that the end does not destroy leave ended threads unjoined; and the wait of a second at
// the end would be measured.
extern "C" const char* __tsan_default_options() {
  return "report_thread_leaks=0 atexit_sleep_ms=0";
}

int main(int count, char** values) {
  if (count != 5 || values[1] != std::string("live")) {
    testing::InitGoogleTest(&count, values);
    return RUN_ALL_TESTS();
  }
  alarm(30);  // ends a process that hangs
  test::place = values[4];
  const bool isStatic = values[3] == std::string("static");
  return values[2] == std::string("state") ? test::liveWith<test::StateFamily>(isStatic)
                                           : test::liveWith<test::CommandFamily>(isStatic);
}
