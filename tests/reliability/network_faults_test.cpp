// Troubles of a real network: each peer is a process with a network namespace of its own, behind a
// link that can fail.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include "figures.h"
#include "log_capture.h"
#include "raw_socket.h"
#include "two_clients.h"
#include "two_servers.h"

namespace {

using namespace test;

constexpr char kInside[] = "NETWORK_FAULTS_INSIDE";  // set in the environment of the second start
constexpr int kPeerPort = 5000;                      // in a namespace that has no other program
constexpr std::size_t kFloodBytes = 65536;           // 8 MiB in all: more than the buffers take
constexpr int kFloodTexts = 128;

sockaddr_in addressOf(const std::string& ip, int port) {
  sockaddr_in address = loopback(port);
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

/// What a peer does; it is a plain program, not the code under test.
struct Habit {
  bool reads;
  int sendsBytes;  // in each message; 0: sends nothing
  int periodMs;
};

constexpr Habit kTalks{true, 200, 100};
constexpr Habit kStreams{true, 2000, 20};
constexpr Habit kNeverReads{false, 200, 100};
constexpr Habit kMute{false, 0, 100};

[[noreturn]] void servePeer(const Habit& habit) {
  const RawSocket listener(::socket(AF_INET, SOCK_STREAM, 0));
  const sockaddr_in address = addressOf("0.0.0.0", kPeerPort);
  check(bind(listener.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
        "bind");
  check(listen(listener.fd(), 8) == 0, "listen");
  const std::string text =
      "{\"pad\":\"" + std::string(static_cast<std::size_t>(habit.sendsBytes), 'x') + "\"}\r\n";
  std::vector<RawSocket> clients;
  for (auto due = Clock::now();; due += std::chrono::milliseconds(habit.periodMs)) {
    std::this_thread::sleep_until(due);
    pollfd entry{listener.fd(), POLLIN, 0};
    while (poll(&entry, 1, 0) > 0) clients.emplace_back(::accept(listener.fd(), nullptr, nullptr));
    for (const RawSocket& client : clients) {
      static char block[1 << 20];
      while (habit.reads && recv(client.fd(), block, sizeof block, MSG_DONTWAIT) > 0) continue;
      if (habit.sendsBytes > 0)
        ::send(client.fd(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
  }
}

/// @return a connection
RawSocket connectedTo(const std::string& ip, int port) {
  RawSocket socket(::socket(AF_INET, SOCK_STREAM, 0));
  const sockaddr_in address = addressOf(ip, port);
  check(connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
        "connect");
  return socket;
}

/// A process in a network of its own; ours is at 10.0.N.1, its own at 10.0.N.2. To be made before
/// this process has threads: it forks.
class Peer {
 public:
  Peer(int number, const Habit& habit) : number_(number), ends_(RawSocket::pair()) {
    child_ = fork();
    check(child_ >= 0, "fork");
    if (child_ == 0) live(habit);
    check(ends_.first.read(1) == "r", "a namespace of its own");
    const std::string net = "10.0." + std::to_string(number);
    shell("ip link add name " + device() + " type veth peer name p netns " +
          std::to_string(child_));
    shell("ip addr add " + net + ".1/24 dev " + device() + " && ip link set " + device() + " up");
    inside("ip addr add " + net + ".2/24 dev p");
    inside("ip link set p up");
  }
  ~Peer() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  std::string ip() const { return "10.0." + std::to_string(number_) + ".2"; }
  void serve() const { ends_.first.send("0\n"); }
  void dial(int port) const { ends_.first.send(std::to_string(port) + "\n"); }
  void signal(int number) const { kill(child_, number); }
  void ourEnd(const char* state) const { shell("ip link set " + device() + " " + state); }
  void inside(const std::string& command) const {
    shell("nsenter -t " + std::to_string(child_) + " -n " + command);
  }

 private:
  [[noreturn]] void live(const Habit& habit) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      check(unshare(CLONE_NEWNET) == 0, "unshare");
      ends_.second.send("r");
      std::vector<RawSocket> dialled;  // never read
      for (std::string port;; port.clear()) {
        while (port.empty() || port.back() != '\n') port += ends_.second.read(1);
        if (std::stoi(port) == 0) servePeer(habit);
        dialled.push_back(connectedTo("10.0." + std::to_string(number_) + ".1", std::stoi(port)));
      }
    } catch (const std::exception& error) {
      std::fprintf(stderr, "peer %d: %s\n", number_, error.what());
      _exit(EXIT_FAILURE);
    }
  }
  std::string device() const { return "v" + std::to_string(number_); }
  static void shell(const std::string& command) {
    check(std::system(command.c_str()) == 0, command.c_str());
  }

  const int number_;
  std::pair<RawSocket, RawSocket> ends_;
  pid_t child_ = -1;
};

enum class Expect { Silence, Alive, NoConnection, ServerStops };

struct Scenario {
  const char* name;
  Habit habit;
  Expect expect;
  bool flood;   // the client sends more than all buffers take
  bool always;  // not only at the gate
  void (*fault)(Peer&);
  void (*mend)(Peer&);  // null: it cannot be mended
};

struct Fault {
  static void none(Peer&) {}
  static void ourEndDown(Peer& peer) { peer.ourEnd("down"); }
  static void ourEndUp(Peer& peer) { peer.ourEnd("up"); }
  static void itsEndDown(Peer& peer) { peer.inside("ip link set p down"); }
  static void itsEndUp(Peer& peer) { peer.inside("ip link set p up"); }
  static void freeze(Peer& peer) { peer.signal(SIGSTOP); }
  static void thaw(Peer& peer) { peer.signal(SIGCONT); }
  static void die(Peer& peer) { peer.signal(SIGKILL); }
  static void slow(Peer& peer) {
    peer.inside("tc qdisc add dev p root tbf rate 64kbit burst 4kb limit 100kb");
  }
  static void blink(Peer& peer) {
    peer.ourEnd("down");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // shorter than any watchdog
    peer.ourEnd("up");
  }
};

constexpr Scenario kScenarios[] = {
    {"our end down", kTalks, Expect::Silence, false, true, Fault::ourEndDown, Fault::ourEndUp},
    {"its end down", kTalks, Expect::Silence, false, false, Fault::itsEndDown, Fault::itsEndUp},
    {"peer stopped", kTalks, Expect::Silence, false, true, Fault::freeze, Fault::thaw},
    {"peer killed", kTalks, Expect::Silence, false, false, Fault::die, nullptr},
    {"peer mute, never reads", kMute, Expect::Silence, true, false, Fault::none, nullptr},
    {"peer never reads", kNeverReads, Expect::Alive, true, false, Fault::none, nullptr},
    {"link down for a moment", kTalks, Expect::Alive, false, false, Fault::blink, nullptr},
    {"64 kbit", kStreams, Expect::Alive, false, false, Fault::slow, nullptr},
    {"no way to the peer", kTalks, Expect::NoConnection, false, false, Fault::itsEndDown,
     Fault::itsEndUp},
    {"client that does not read vanishes", kMute, Expect::ServerStops, false, true,
     Fault::ourEndDown, Fault::ourEndUp},
};

/// A client that knows when it heard something last.
template <typename Client>
struct Watched : Client {
  void onReceive(const std::string& msg) override {
    if (msg.empty()) return;
    last = Clock::now().time_since_epoch().count();
    ++count;
  }
  double silentMs() const { return elapsedMs(Clock::time_point(Clock::duration(last))); }
  bool connectTo(const std::string& ip) {
    last = Clock::now().time_since_epoch().count();
    return connectTo(*this, ip);
  }

  std::atomic<Clock::rep> last{0};
  std::atomic<int> count{0};

 private:
  static bool connectTo(StateClient& own, const std::string& ip) {
    own.client->setClientHandle(std::make_shared<brix::TcpClient>(ip, kPeerPort));
    return own.client->connect(ip, kPeerPort, 1) == 1;
  }
  static bool connectTo(CommandClient& own, const std::string& ip) {
    return own.client->connectSocket(ip, kPeerPort) == 1;
  }
};

/// What all scenarios of a family have shown.
struct Family {
  void expectInTime() const {
    EXPECT_LE(silence.median(), longestSilenceMs);
    EXPECT_LE(silence.worst(), longestSilenceMs + kStopBoundMs);
    EXPECT_LE(stops.worst(), kStopBoundMs);
  }
  const double silenceMs, longestSilenceMs;
  Timings silence, stops;
};

template <typename Client, typename Server>
class Play {
 public:
  Play(const Scenario& scenario, Peer& peer, Family& family)
      : scenario_(scenario), peer_(peer), family_(family) {}

  void run() {
    if (scenario_.expect == Expect::ServerStops) return stopServer();
    if (scenario_.expect == Expect::NoConnection) return failToConnect();
    Watched<Client> watched, other;
    begin(other), begin(watched);
    scenario_.fault(peer_);
    if (scenario_.expect == Expect::Silence) {
      stop(other);
      awaitSilence(watched);
      if (scenario_.mend != nullptr) comeBack(watched);
    } else {
      stayConnected(watched);
      stop(other);
    }
    stop(watched);
  }

 private:
  void begin(Watched<Client>& client) {
    EXPECT_TRUE(eventually([&] { return client.connectTo(peer_.ip()); }));
    const bool hears = scenario_.habit.sendsBytes > 0;
    EXPECT_TRUE(!hears || eventually([&] { return client.count > 0; }));
    for (int i = 0; scenario_.flood && i < kFloodTexts; ++i)
      client.send(std::string(kFloodBytes, 'x'));
  }

  void awaitSilence(const Watched<Client>& client) {
    EXPECT_TRUE(eventually([&] { return !client.connected(); }));
    const double ms = client.silentMs();
    family_.silence.add(ms);
    // The listener is called a little later than the count begins.
    EXPECT_GE(ms, family_.silenceMs - 20);
  }

  void comeBack(Watched<Client>& client) {
    scenario_.mend(peer_);
    EXPECT_TRUE(eventually([&] { return client.connectTo(peer_.ip()); }));
    const int before = client.count;
    EXPECT_TRUE(eventually([&] { return client.count > before; }));
  }

  // Longer than every watchdog.
  void stayConnected(const Watched<Client>& client) {
    const int before = client.count;
    EXPECT_FALSE(eventually([&] { return !client.connected(); }, 4000)) << client.silentMs();
    EXPECT_GT(client.count, before);
  }

  void failToConnect() {
    scenario_.fault(peer_);
    Watched<Client> client;
    const double ms = timedMs([&] { EXPECT_FALSE(client.connectTo(peer_.ip())); });
    EXPECT_LE(ms, 1000 + kStopBoundMs);
    scenario_.mend(peer_);
    EXPECT_TRUE(eventually([&] { return client.connectTo(peer_.ip()); }));
    stop(client);
  }

  // Disconnects first: the helper's client is of a derived class, whose threads must have ended.
  void stop(Watched<Client>& client) {
    family_.stops.add(timedMs([&] { client.disconnect(), client.client.reset(); }));
  }

  void stopServer() {
    Server server;
    EXPECT_TRUE(server.start());
    peer_.dial(server.port());
    EXPECT_TRUE(server.links.gets("on"));
    for (int i = 0; i < kFloodTexts; ++i) server.broadcast(std::string(kFloodBytes, 'x'));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the sender fills the buffers
    scenario_.fault(peer_);
    family_.stops.add(timedMs([&] { server.stop(); }));
    scenario_.mend(peer_);
    peer_.signal(SIGKILL);  // lets go of the sender of the command servers
  }

  const Scenario& scenario_;
  Peer& peer_;
  Family& family_;
};

/// @return how many warnings of silence named one, two and three seconds
std::array<std::size_t, 3> warnings(const LogCapture& log) {
  std::array<std::size_t, 3> counts{};
  for (const std::string& text : log.texts()) {
    double ms = 0;
    if (std::sscanf(text.c_str(), "recv cost exceed %lf ms", &ms) != 1) continue;
    EXPECT_TRUE(ms >= 1000 && ms < 4000) << text;
    if (ms >= 1000 && ms < 4000) ++counts[static_cast<std::size_t>(ms / 1000) - 1];
  }
  return counts;
}

/// Clients vanish that have taken every place but one of a hardened server.
/// @return after how long others have all their places
template <typename Server>
double placesFreeAfterMs(const Peer& peer) {
  const auto hardened = brix::ServerSafetyOptions::hardened();
  const auto places = static_cast<std::size_t>(hardened.maxClients);
  Server server;
  EXPECT_TRUE(server.start(hardened));
  const auto serves = [&](const RawSocket& client, const std::string& text, double deadlineMs) {
    const std::string line = text + "\r\n";
    return ::send(client.fd(), line.data(), line.size(), MSG_NOSIGNAL) > 0 &&
           eventually([&] { return server.received.count(text) > 0; }, deadlineMs);
  };
  const RawSocket resident = RawSocket::connectTo(server.port());
  for (std::size_t i = 1; i < places; ++i) peer.dial(server.port());
  EXPECT_TRUE(eventually([&] { return server.links.count("on") == places; }));
  const auto start = Clock::now();
  peer.ourEnd("down");
  std::vector<RawSocket> others;
  int tries = 0;
  EXPECT_TRUE(eventually([&] {
    const std::string number = std::to_string(++tries);
    EXPECT_TRUE(serves(resident, "resident" + number, kDeadlineMs));
    RawSocket other = RawSocket::connectTo(server.port());
    if (serves(other, "other" + number, 50)) others.push_back(std::move(other));
    return others.size() == places - 1;
  }));
  EXPECT_GE(static_cast<std::size_t>(tries), places);  // none was free before
  return elapsedMs(start);
}

struct NetworkFaultsTest : testing::Test {
  void SetUp() override {
    if (std::getenv(kInside) != nullptr) return;
    figure("R10", "skipped: network namespaces are not allowed on this machine");
    GTEST_SKIP() << "network namespaces are not allowed on this machine";
  }
};

TEST_F(NetworkFaultsTest, ClientsThatVanishAreLetGo) {
  Peer one(100, kMute), other(101, kMute);
  const LogCapture log;
  auto command =
      std::async(std::launch::async, [&] { return placesFreeAfterMs<CommandServer>(one); });
  const double stateMs = placesFreeAfterMs<StateServer>(other), commandMs = command.get();
  for (const double ms : {stateMs, commandMs}) EXPECT_LT(ms, 6000 + kStopBoundMs);
  figure("R10",
         "15 idle clients vanish from a hardened server, others have their places after: command "
         "%.0f ms, state %.0f ms",
         commandMs, stateMs);
}

TEST_F(NetworkFaultsTest, SilenceIsNoticedInTimeAndEveryStopIsShort) {
  std::vector<const Scenario*> scenarios;
  for (const Scenario& scenario : kScenarios) {
    if (scenario.always || isGate()) scenarios.push_back(&scenario);
  }
  std::vector<std::unique_ptr<Peer>> peers;  // two for each scenario
  for (std::size_t i = 0; i < 2 * scenarios.size(); ++i) {
    const Scenario& scenario = *scenarios[i / 2];
    peers.push_back(std::make_unique<Peer>(static_cast<int>(i), scenario.habit));
    if (scenario.expect != Expect::ServerStops) peers.back()->serve();
  }
  LogCapture log;
  Family command{1500, 2000, {}, {}}, state{3000, 3600, {}, {}};
  std::vector<std::thread> plays;
  for (std::size_t i = 0; i < peers.size(); ++i) {
    plays.emplace_back([&, i] {
      const Scenario& scenario = *scenarios[i / 2];
      const bool isCommand = i % 2 == 0;
      SCOPED_TRACE(std::string(scenario.name) + (isCommand ? ", command" : ", state"));
      if (isCommand) {
        Play<CommandClient, CommandServer>(scenario, *peers[i], command).run();
      } else {
        Play<StateClient, StateServer>(scenario, *peers[i], state).run();
      }
    });
  }
  for (std::thread& play : plays) play.join();
  command.expectInTime(), state.expectInTime();
  const auto warned = warnings(log);
  for (const std::size_t count : warned) {
    EXPECT_GE(count, state.silence.count());
    EXPECT_LE(count, 2 * state.silence.count());
  }
  EXPECT_GT(command.silence.count(), 0U);
  figure(
      "R10",
      "%zu scenarios x 2 families; silence noticed: command client %.0f to %.0f ms, state client "
      "%.0f to %.0f ms with %zu, %zu, %zu warnings at 1, 2, 3 s for %zu links; slowest stop: "
      "command "
      "%.1f ms, state %.1f ms",
      scenarios.size(), command.silence.least(), command.silence.worst(), state.silence.least(),
      state.silence.worst(), warned[0], warned[1], warned[2], state.silence.count(),
      command.stops.worst(), state.stops.worst());
}

bool namespacesAllowed() {
  return std::system(
             "unshare -rn sh -c 'ip link set lo up && ip link add name v type veth peer name p && "
             "tc qdisc add dev v root tbf rate 64kbit burst 4kb limit 9kb && command -v nsenter' "
             ">/dev/null 2>&1") == 0;
}

}  // namespace

// Starts itself again as root of a user and a network namespace, without any right outside.
int main(int argc, char** argv) {
  if (std::getenv(kInside) == nullptr && namespacesAllowed()) {
    setenv(kInside, "1", 1);
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<char*> arguments;
    for (const char* word :
         {"unshare", "-rn", "sh", "-c", "ip link set lo up && exec \"$0\" \"$@\""}) {
      arguments.push_back(const_cast<char*>(word));
    }
    arguments.push_back(self.data());
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    unsetenv(kInside);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
