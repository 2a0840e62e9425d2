// Both families in one process for a long time, with a fault every two seconds.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

#include "brix_json.h"
#include "brix_log.h"
#include "brix_tcp_server.h"
#include "communication_server.h"
#include "figures.h"
#include "raw_socket.h"
#include "soak_client.h"
#include "tcp_server_wrapper.h"

namespace {

using namespace test;

constexpr int kCommandClients = 4, kStateClients = 8;
constexpr int kRequestMs = 10, kStateMs = 20;  // periods
constexpr double kFaultMs = 2000;
constexpr int kLongestStallMs = 1000;            // below every watchdog
constexpr std::size_t kBulkBytes = 1000 * 1000;  // between the pieces of a longer reply others come
constexpr std::size_t kBurstBytes = 7500;        // less than one read
constexpr int kBursts = 3, kBulks = 4;
constexpr std::size_t kHeapAllowance = 4 << 20;

std::size_t heapBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return __sanitizer_get_current_allocated_bytes();
#else
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

/// @return seconds for one soak of the two
double soakSeconds() {
  if (const char* asked = std::getenv("RELIABILITY_SECONDS"))
    return std::max(2.0, std::atof(asked) / 2);
#if defined(__SANITIZE_ADDRESS__)
  constexpr int kGateSeconds = 180;
#else
  constexpr int kGateSeconds = 20;
#endif
  return std::max(5, volume(kGateSeconds, kGateSeconds)) / 2.0;
}

unsigned soakSeed() {
  const char* asked = std::getenv("RELIABILITY_SEED");
  return asked != nullptr ? static_cast<unsigned>(std::atoi(asked)) : std::random_device()();
}

/// Servers, 4 + 8 clients and what goes wrong. Hardened or as it comes.
class SoakTest : public testing::TestWithParam<bool> {
 protected:
  SoakTest() {
    brix_log::setSink([](brix::LogLevel, const std::string&) {});
    startServers();
    while (members_.size() < kCommandClients + kStateClients) {
      Family& family = members_.size() < kCommandClients ? command_ : state_;
      const int id = static_cast<int>(members_.size());
      members_.push_back(std::make_unique<Member>(id, family, hardened_, faults_));
      members_.back()->join();
    }
  }
  ~SoakTest() override {
    members_.clear();
    states_.terminate();
    commands_.quit();
    brix_log::setSink(nullptr);
  }

  void startServers() {
    if (hardened_) {
      commands_.setSafetyOptions(brix::ServerSafetyOptions::hardened());
      transport_->setSafetyOptions(brix::ServerSafetyOptions::hardened());
    }
    const auto handler = [this](const Json::Value& asked) { return answer(asked); };
    brix::TcpServerWrapper::ObjectHandlerMap handlers{{"ask", handler}, {"bulk", handler}};
    commands_.setHandleMap(handlers);
    states_.setServerHandle(transport_);
    states_.registerRawDataBroadcastFunc([this](const std::string& msg) {
      return readTag(msg) ? compact(answer(brix_json::parseStr(msg))) : std::string();
    });
    commands_.init(0);
    states_.initialize(0);
    commands_.waitUntilListening(kDeadlineMs);
    transport_->waitUntilListening(kDeadlineMs);
    command_.port = commands_.listeningPort();
    state_.port = transport_->listeningPort();
    commands_.registerBroadcastFunc([this] { return makeState(command_); }, kStateMs);
    states_.registerBroadcastFunc([this] { return compact(makeState(state_)); }, kStateMs);
  }

  /// Replaces every client once all its requests have been answered; with it go its buffers, which
  /// keep the size of the largest burst.
  void renewAll() {
    for (auto& member : members_) member->reconnect(true, true, 0);
  }

  static std::string compact(const Json::Value& value) {
    return brix_json::toStrWithoutIndentation(value, brix_json::kPrecision);
  }

  static Json::Value makeState(Family& family) {
    const Tag tag = Tag::next(kFromServer, 0);
    Json::Value state(Json::objectValue);
    state["pad"] = std::string(kStateBytes, 'x');
    state["tag"] = tag.text();
    family.published = tag.n;
    return state;
  }

  Json::Value answer(const Json::Value& asked) {
    const Tag tag = readTag(compact(asked)).value_or(Tag{0, 0, kFromRaw, 0});
    if (tag.origin >= 0) {
      const auto client = static_cast<std::size_t>(tag.origin);
      if (!members_[client]->asked.arrive(tag.seq)) faults_.add("request " + tag.text());
    }
    Json::Value reply(Json::objectValue);
    reply["command"] = asked["command"];
    reply["tag"] = Tag::next(tag.origin, tag.seq).text();
    if (asked["command"] == "bulk") reply["pad"] = std::string(kBulkBytes, 'b');
    return reply;
  }

  /// Asks with one client after the other, at the fixed rate.
  void askUntil(const std::atomic<bool>& stop) {
    auto due = Clock::now();
    for (std::size_t i = 0; !stop; ++i) {
      std::this_thread::sleep_until(due += std::chrono::milliseconds(kRequestMs));
      members_[i % members_.size()]->ask();
    }
  }

  int random(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

  void oneFault() {
    const bool command = random(2) == 0;
    const int client = command ? random(kCommandClients) : kCommandClients + random(kStateClients);
    Member& member = *members_[static_cast<std::size_t>(client)];
    const int kind = random(5);
    if (kind < 2) {
      member.reconnect(kind == 0, random(2) == 0, random(500));
    } else {
      rawClient(command, kind);
    }
  }

  // The buffer that all clients of a command server share would mix what this one cuts into the
  // messages of the others: unless hardened, it sends whole messages, few enough for one read.
  void rawClient(bool command, int kind) {
    const bool mayCut = hardened_ || !command;
    RawSocket raw = RawSocket::connectTo(command ? command_.port : state_.port);
    const int small = 4096;
    setsockopt(raw.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    std::string burst;
    while (burst.size() < kBurstBytes) burst += request("ask", kFromRaw, 0) + "\r\n";
    if (kind == 2) {
      for (int i = 0; i < (mayCut ? kBursts : 1); ++i) raw.send(burst);
    } else if (kind == 3) {  // does not read what would fill every buffer
      for (int i = 0; i < kBulks; ++i) raw.send(request("bulk", kFromRaw, 0) + "\r\n");
      std::this_thread::sleep_for(std::chrono::milliseconds(random(kLongestStallMs)));
    } else if (mayCut) {
      raw.send(burst.substr(0, static_cast<std::size_t>(random(200))));
    }
    raw.reset();
  }

  const bool hardened_ = GetParam();
  const unsigned seed_ = soakSeed();
  std::mt19937 random_{seed_};
  Texts faults_;
  Family command_{true}, state_{false};
  std::vector<std::unique_ptr<Member>> members_;
  brix::TcpServerWrapper commands_{-1};
  std::shared_ptr<brix::BrixTcpServer> transport_ = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer states_;
};

TEST_P(SoakTest, PromisedMessagesComeOnceAndInOrderAndNothingGrows) {
  const double seconds = soakSeconds();
  std::printf("seed %u, set RELIABILITY_SEED to repeat it\n", seed_);
  renewAll();
  const Census census;
  const std::size_t heap = heapBytes(), memory = residentKib();
  std::atomic<bool> stop{false};
  std::thread asker([&] { askUntil(stop); });
  const auto start = Clock::now();
  const double faultMs = std::min(kFaultMs, seconds * 1000 / 20);
  int count = 0;
  for (; elapsedMs(start) < seconds * 1000; ++count) {
    oneFault();
    eventually([&] { return elapsedMs(start) >= (count + 1) * faultMs; });
  }
  stop = true;
  asker.join();
  renewAll();
  int asked = 0, lost = 0, received = 0, unplanned = 0;
  for (auto& member : members_) {
    asked += member->asked.sent();
    lost += member->answered.lost();
    received += member->received;
    unplanned += member->unplanned;
  }
  const auto broken = faults_.all();
  for (std::size_t i = 0; i < std::min<std::size_t>(broken.size(), 10); ++i) {
    ADD_FAILURE() << broken[i];
  }
  EXPECT_TRUE(census.grownBy(0, 0)) << threads() << " threads, " << openDescriptors() << " files";
  // A late burst may have grown the buffers of the new clients too.
  EXPECT_TRUE(eventually([&] {
    return heapBytes() < heap + kHeapAllowance || (renewAll(), false);
  })) << heapBytes() - heap;
  EXPECT_GT(asked, seconds * 20);
  EXPECT_LE(lost, asked / 20 + 10 + 50 * unplanned)
      << "more than what can be on its way at a disconnect";
  figure(
      "R13",
      "%s %.0f s, seed %u: %d faults, %d requests, %d messages received, %zu broken promises, %d "
      "replies cut off by a disconnect, %d unplanned disconnects, heap %+ld KiB, resident %+ld KiB",
      hardened_ ? "hardened" : "default", seconds, seed_, count, asked, received, broken.size(),
      lost, unplanned, (static_cast<long>(heapBytes()) - static_cast<long>(heap)) / 1024,
      static_cast<long>(residentKib()) - static_cast<long>(memory));
}

INSTANTIATE_TEST_SUITE_P(Options, SoakTest, testing::Bool(), [](const auto& hardened) {
  return hardened.param ? "Hardened" : "Default";
});

}  // namespace
