// The wall clock jumps an hour to and fro, a signal comes each millisecond, and handlers start
// children: no connection may notice.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "brix_json.h"
#include "brix_log.h"
#include "brix_tcp_server.h"
#include "communication_server.h"
#include "data_queue.h"
#include "figures.h"
#include "raw_socket.h"
#include "tcp_server_wrapper.h"
#include "two_clients.h"

namespace {

std::atomic<long> wallOffsetS{0};  // what the wall clock shows too much
std::atomic<int> wallReads{0}, signalCount{0};

template <typename Function>
Function* nextOf(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

long falseSeconds() {
  ++wallReads;
  return wallOffsetS;
}

}  // namespace

// The clocks of the whole process, the library among it.
extern "C" __attribute__((used)) int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const real = nextOf<int(clockid_t, timespec*)>("clock_gettime");
  const int result = real(clock, now);
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) now->tv_sec += falseSeconds();
  return result;
}

extern "C" __attribute__((used)) int gettimeofday(timeval* now, void* zone) noexcept {
  static auto* const real = nextOf<int(timeval*, void*)>("gettimeofday");
  const int result = real(now, zone);
  now->tv_sec += falseSeconds();
  return result;
}

extern "C" __attribute__((used)) time_t time(time_t* now) noexcept {
  static auto* const real = nextOf<time_t(time_t*)>("time");
  const time_t shown = real(nullptr) + falseSeconds();
  if (now != nullptr) *now = shown;
  return shown;
}

namespace {

using namespace test;

constexpr int kStateMs = 20;
constexpr char kStart[] = R"({"command":"start"})";

/// While it lives the clock jumps each 100 ms, and every millisecond one thread after the other,
/// apart from the test's, gets a signal that restarts no system call.
class Disturbance {
 public:
  Disturbance() {
    struct sigaction action {};
    action.sa_handler = [](int) { ++signalCount; };
    sigaction(SIGUSR1, &action, nullptr);
    thread_ = std::thread([this] { run(); });
  }
  ~Disturbance() {
    stop_ = true;
    thread_.join();
    wallOffsetS = 0;
  }
  Disturbance(const Disturbance&) = delete;
  Disturbance& operator=(const Disturbance&) = delete;

 private:
  void run() const {
    const auto self = static_cast<int>(syscall(SYS_gettid));
    for (int ms = 0; !stop_;) {
      for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const int thread = std::stoi(task.path().filename());
        if (thread == self || thread == getpid()) continue;
        syscall(SYS_tgkill, getpid(), thread, SIGUSR1);  // fails for one that has ended meanwhile
        if (++ms % 100 == 0) wallOffsetS = (ms / 100 % 3 - 1) * 3600;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }

  std::atomic<bool> stop_{false};
  std::thread thread_;
};

/// Connects to a server that never says anything, again and again.
/// @return how often the client took the link for dead, always in time
template <typename Client>
int watchSilence(double forMs, double silenceMs, double longestSilenceMs) {
  const RawListener mute(64);  // nobody accepts
  Client client;
  int fired = 0;
  for (const auto start = Clock::now(); fired == 0 || elapsedMs(start) < forMs; ++fired) {
    const auto since = Clock::now();
    EXPECT_EQ(client.connect(mute.port()), 1);
    EXPECT_TRUE(eventually([&] { return !client.connected(); }));
    EXPECT_GE(elapsedMs(since), silenceMs);
    EXPECT_LE(elapsedMs(since), longestSilenceMs + kStallMs);
  }
  return fired;
}

/// @return how many of the messages are whole JSON objects
int wholeOnes(const std::vector<std::string>& msgs) {
  return static_cast<int>(std::count_if(msgs.begin(), msgs.end(), [](const std::string& msg) {
    return brix_json::parseStr(msg).isObject();
  }));
}

std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

class ClockTest : public testing::Test {
 protected:
  ClockTest() {
    brix_log::setSink([](brix::LogLevel, const std::string&) {});
    brix::TcpServerWrapper::ObjectHandlerMap handlers{{"start", [this](const Json::Value&) {
                                                         startChild();
                                                         return Json::Value(Json::objectValue);
                                                       }}};
    commands_.setHandleMap(handlers);
    states_.setServerHandle(transport_);
    states_.registerRawDataBroadcastFunc([this](const std::string& msg) {
      if (msg == kStart) startChild();
      return std::string();
    });
    commands_.init(0);
    states_.initialize(0);
    EXPECT_TRUE(commands_.waitUntilListening(kDeadlineMs));
    EXPECT_TRUE(transport_->waitUntilListening(kDeadlineMs));
    const std::string pad(2000, 'x');
    Json::Value state(Json::objectValue);
    state["pad"] = pad;
    commands_.registerBroadcastFunc([state] { return state; }, kStateMs);
    states_.registerBroadcastFunc([pad] { return "{\"pad\":\"" + pad + "\"}"; }, kStateMs);
  }
  ~ClockTest() override { brix_log::setSink(nullptr); }

  void startChild() {
    const pid_t child = fork();
    if (child == 0) {
      execlp("sleep", "sleep", "120", nullptr);
      _exit(EXIT_FAILURE);
    }
    children_.push(child);
  }

  /// The child lives, holds none of our sockets and obeys the signal that ends it.
  void endChild() {
    pid_t child = 0;
    ASSERT_TRUE(eventually([&] { return children_.tryPop(child); }));
    const std::string place = "/proc/" + std::to_string(child);
    ASSERT_TRUE(eventually([&] { return firstLine(place + "/comm") == "sleep"; }));
    for (const auto& entry : std::filesystem::directory_iterator(place + "/fd")) {
      EXPECT_EQ(std::filesystem::read_symlink(entry).string().find("socket:"), std::string::npos);
    }
    kill(child, SIGTERM);
    int status = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
  }

  DataQueue<pid_t> children_;
  brix::TcpServerWrapper commands_{-1};
  std::shared_ptr<brix::BrixTcpServer> transport_ = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer states_;
};

TEST_F(ClockTest, JumpsSignalsAndChildrenDisturbNobody) {
  const double forMs = isGate() ? 30000 : 2000;
  const int statePort = transport_->listeningPort(), commandPort = commands_.listeningPort();
  StateClient state;
  CommandClient command;
  int fired[2] = {0, 0};
  {
    const Disturbance disturbance;
    ASSERT_TRUE(state.connect(statePort) == 1 && command.connect(commandPort) == 1);
    RawSocket neighbours[] = {RawSocket::connectTo(statePort), RawSocket::connectTo(commandPort)};
    for (const RawSocket& neighbour : neighbours) EXPECT_FALSE(neighbour.read(1).empty());
    state.send(kStart), command.send(kStart);
    ASSERT_TRUE(eventually([&] { return children_.size() == 2; }));
    std::thread watching([&] { fired[0] = watchSilence<StateClient>(forMs, 3000, 3600); });
    fired[1] = watchSilence<CommandClient>(forMs, 1500, 2000);
    watching.join();
    EXPECT_TRUE(state.connected() && command.connected());
    // The children live: they must not hold open what the servers close.
    neighbours[1].send("q");
    states_.terminate();
    commands_.quit();
    for (const RawSocket& neighbour : neighbours) {
      EXPECT_TRUE(
          eventually([&] { return neighbour.read(1 << 20, 1).empty() && neighbour.ended(); }));
    }
    endChild(), endChild();
  }
  state.disconnect(), command.disconnect();
  int whole = 0, broken = 0;
  for (const auto& msgs : {state.received.all(), command.received.all()}) {
    EXPECT_GT(static_cast<double>(msgs.size()), forMs / kStateMs / 4);
    whole += wholeOnes(msgs);
    broken += static_cast<int>(msgs.size()) - wholeOnes(msgs);
  }
  EXPECT_EQ(broken, 0);
  EXPECT_GT(signalCount, forMs / 4);
  EXPECT_GT(wallReads, 0);
  figure("R12",
         "%.0f s, %d signals, %d readings of a clock that jumps: 0 disconnects, %d whole and %d "
         "broken frames, watchdogs fired in time %d + %d times, 2 children ended",
         forMs / 1000, signalCount.load(), wallReads.load(), whole, broken, fired[0], fired[1]);
}

}  // namespace
