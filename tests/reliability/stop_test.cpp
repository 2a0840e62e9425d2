// Stops at every moment.

#include <gtest/gtest.h>

#include <future>
#include <random>

#include "figures.h"
#include "log_capture.h"
#include "stop_subjects.h"

namespace test {
namespace {

constexpr double kStopMs = kSanitized ? 500 : 100;  // the promise, for the median of each cell

// Twice, so that every listener of a client gets one.
constexpr char kMessage[] = "{\"command\":\"m\"}\r\n{\"command\":\"m\"}\r\n";

/// Sends and connects from other threads until it is destroyed.
class Traffic {
 public:
  explicit Traffic(std::function<void()> step) {
    for (int i = 0; i < 2; ++i) {
      threads_.push_back(std::async(std::launch::async, [this, step] {
        try {
          while (!stop_) step();
        } catch (const std::runtime_error&) {  // the other end has gone
        }
      }));
    }
  }
  ~Traffic() { stop_ = true; }

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::future<void>> threads_;
};

/// Brings the subject into a situation and returns what keeps it there.
using Situation = std::function<std::shared_ptr<void>(Subject&)>;

std::shared_ptr<void> keep(RawSocket&& peer) {
  return std::make_shared<RawSocket>(std::move(peer));
}

std::shared_ptr<void> connectedSilently(Subject& subject) {
  return keep(subject.peer());
}

/// @return a peer that the subject has heard
RawSocket served(Subject& subject) {
  const auto heard = std::make_shared<std::promise<void>>();
  subject.setCallback([heard] { heard->set_value(); });
  RawSocket peer = subject.peer();
  peer.send(kMessage);
  EXPECT_TRUE(ready(*heard));
  return peer;
}

std::shared_ptr<void> connectedIdle(Subject& subject) {
  return keep(served(subject));
}

std::shared_ptr<void> withFullBuffers(Subject& subject) {
  RawSocket peer = served(subject);
  for (int i = 0; i < 8; ++i) subject.emit(std::string(4 << 20, 'x'));
  EXPECT_NE(peer.read(1), "");
  return keep(std::move(peer));
}

std::shared_ptr<void> inABurst(Subject& subject) {
  auto peer = std::make_shared<RawSocket>(subject.peer());
  return std::make_shared<Traffic>([peer] { peer->send(kMessage); });
}

std::shared_ptr<void> inAStormOfConnections(Subject& subject) {
  const auto first = std::make_shared<RawSocket>(subject.peer());
  if (subject.port() == 0) return first;
  return std::make_shared<Traffic>(
      [first, port = subject.port()] { RawSocket::connectTo(port).reset(); });
}

Situation endedByItsCallback(void (Subject::*end)()) {
  return [end](Subject& subject) {
    const auto ended = std::make_shared<std::promise<void>>();
    subject.setCallback([ended, end, &subject] {
      subject.ownStopMs = timedMs([&] { (subject.*end)(); });
      ended->set_value();
    });
    RawSocket peer = subject.peer();
    peer.send(kMessage);
    EXPECT_TRUE(ready(*ended));
    return keep(std::move(peer));
  };
}

constexpr char kMinuteRate[] = "rate of a minute", kDestroyed[] = "destroyed by its callback";

struct Class {
  const char* name;
  std::function<std::unique_ptr<Subject>()> make;
  bool goesInCallback = true;  // whether a callback may destroy it
};
template <typename Made>
Class classOf(const char* name, bool goesInCallback = true) {
  return {name, [] { return std::make_unique<Made>(); }, goesInCallback};
}
const Class kClasses[] = {classOf<StateServerSubject>("BrixTcpServer"),
                          classOf<CommandServerSubject>("TcpServer"),
                          classOf<WrapperSubject>("TcpServerWrapper"),
                          classOf<CommunicationServerSubject>("CommunicationServer"),
                          classOf<StateClientSubject>("CommunicationClient"),
                          classOf<ClientSubject<CommandClient>>("TcpClientWrapper"),
                          classOf<ClientSubject<Transport>>("TcpClient", false),
                          classOf<HandlerSubject>("TcpServerHandler"),
                          classOf<UnitSubject>("ThreadUnit", false)};

const std::pair<const char*, Situation> kSituations[] = {
    {"idle", [](Subject&) { return nullptr; }},
    {"connected", connectedIdle},
    {"silent peer", connectedSilently},
    {"full buffers", withFullBuffers},
    {"mid-burst", inABurst},
    {"accept storm", inAStormOfConnections},
    {"own callback", endedByItsCallback(&Subject::stop)},
    {kDestroyed, endedByItsCallback(&Subject::destroy)},
    {"during connect", [](Subject& subject) { return subject.connecting(); }},
    {kMinuteRate, connectedSilently}};

/// @return milliseconds beyond what the class pauses on purpose
double stopMs(const Class& of, const std::string& name, const Situation& situation) {
  const auto subject = of.make();
  if (name == kMinuteRate) subject->setRatesOfAMinute();
  subject->start();
  const auto kept = situation(*subject);
  const double ms = timedMs([&] {
    if (name != kDestroyed) subject->stop();
    subject->destroy();
  });
  return std::max(ms, subject->ownStopMs) - subject->fixedPauseMs;
}

/// Stops that many, a few at a time.
void addStops(int times, const Class& of, const std::string& name, const Situation& situation,
              Timings& cell) {
  std::vector<std::future<double>> stops;
  for (int i = 0; i < times; ++i) {
    stops.push_back(std::async(std::launch::async, stopMs, of, name, situation));
    if (stops.size() < 7 && i + 1 < times) continue;
    for (auto& stop : stops) cell.add(stop.get());
    stops.clear();
  }
}

TEST(Stops, AreShortInEverySituation) {
  const LogCapture log;
  const int times = std::max(volume(20, 20), 3);
  for (const Class& of : kClasses) {
    double worstMs = 0, worstMedianMs = 0;
    const char* worst = "";
    for (const auto& [name, situation] : kSituations) {
      if (name == kDestroyed && !of.goesInCallback) continue;
      Timings cell;
      do {  // again if the machine was held up: that hits all of the few that run at a time
        addStops(times, of, name, situation, cell);
      } while (cell.median() >= kStopMs && cell.count() < 4 * static_cast<std::size_t>(times));
      EXPECT_LT(cell.median(), kStopMs) << of.name << ", " << name;
      EXPECT_LT(cell.worst(), kStallMs) << of.name << ", " << name;
      worstMedianMs = std::max(worstMedianMs, cell.median());
      if (cell.worst() > worstMs) worstMs = cell.worst(), worst = name;
    }
    figure("R4", "%s: %zu situations, %d stops each, slowest %.0f ms (%s), slowest median %.0f ms",
           of.name, std::size(kSituations), times, worstMs, worst, worstMedianMs);
  }
}

/// @param random  up to 200 us pass between the start and the stop
/// @return milliseconds of the stop beyond what the class pauses on purpose
double stopAtOnceMs(const Class& of, std::minstd_rand& random) {
  const double delayUs = static_cast<double>(random() % 200);
  const auto subject = of.make();
  const auto start = Clock::now();
  subject->begin();
  while (elapsedMs(start) * 1000 < delayUs) {
  }
  return timedMs([&] { subject->stop(), subject->destroy(); }) - subject->fixedPauseMs;
}

TEST(Stops, RightAfterTheStartNeverHang) {
  const LogCapture log;
  const int times = volume(5000, 1000);
  const Traffic burners([] {});
  std::atomic<int> next{0};
  Timings stops;
  std::vector<std::future<void>> workers;
  for (unsigned worker = 0; worker < 32; ++worker) {  // most are in the pause of a wrapper
    workers.push_back(std::async(std::launch::async, [&, worker] {
      std::minstd_rand random(worker);
      for (std::size_t i; (i = static_cast<std::size_t>(next++)) < std::size_t(times);) {
        stops.add(stopAtOnceMs(kClasses[i % std::size(kClasses)], random));
      }
    }));
  }
  for (auto& worker : workers) worker.get();
  EXPECT_LT(stops.worst(), kDeadlineMs);
  figure("R5", "%d stops 0 to 200 us after the start beside 2 busy threads, slowest %.0f ms", times,
         stops.worst());
}

}  // namespace
}  // namespace test
