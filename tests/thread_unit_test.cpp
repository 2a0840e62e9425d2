#include "thread_unit.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>

#include "faults.h"
#include "log_capture.h"
#include "stop_signal.h"

namespace {

using test::eventually;

const std::string kName = "unit_with_a_long_name";

class Unit final : public brix::ThreadUnit {
 public:
  using Cycle = std::function<void(Unit&)>;
  explicit Unit(Cycle body) : ThreadUnit(kName, 0), cycle(std::move(body)) {}
  ~Unit() { stop(); }
  using ThreadUnit::isRunning;
  using ThreadUnit::setPeriod;
  using ThreadUnit::stop;

  void threadCycle() override {
    ++cycles;
    const Cycle copy = cycle;  // it may destroy this object
    copy(*this);
  }
  bool reaches(int count) const {
    return eventually([&] { return cycles >= count; });
  }

  std::atomic<int> cycles{0};
  const Cycle cycle;
};

void doNothing(Unit&) {}

bool hasThreads(std::size_t count) {
  return eventually([&] { return test::threadsNamed(kName.substr(0, 15)) == count; });
}

TEST(ThreadUnit, PrintsItsNameAndNamesItsThread) {
  testing::internal::CaptureStdout();
  {
    const Unit neverStarted(doNothing);
    Unit unit(doNothing);
    unit.start();
    unit.start();
    EXPECT_TRUE(unit.reaches(3) && hasThreads(1));
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            kName + "\n" + kName + "\nstart " + kName + "\nstart " + kName + "\n");
  EXPECT_TRUE(hasThreads(0));
}

TEST(ThreadUnit, RunsAfterEveryRestartAndNeverTwice) {
  testing::internal::CaptureStdout();
  std::atomic<int> inside{0};
  std::atomic<bool> alone{true};
  Unit unit([&](Unit&) {
    if (++inside > 1) alone = false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    --inside;
  });
  for (int round = 0; round < 200; ++round) {
    unit.start();
    std::thread other([&unit] { unit.start(); });
    unit.stop();  // either may win, and neither waits for ever
    other.join();
  }
  bool advances = true;
  for (const auto begin = test::Clock::now(); advances && test::elapsedMs(begin) < 500;) {
    Unit(doNothing).start();  // and destroyed at once
    unit.stop();
    const int before = unit.cycles;
    unit.start();
    const auto late = test::Clock::now() + std::chrono::seconds(20);
    while (unit.cycles == before && advances) advances = test::Clock::now() < late;
  }
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(advances && alone);
}

TEST(ThreadUnit, ItsCycleMayStopStartAndDestroyIt) {
  Unit once([](Unit& unit) {
    unit.stop();
    EXPECT_FALSE(unit.isRunning());
  });
  once.start();
  EXPECT_TRUE(once.reaches(1) && hasThreads(0));
  EXPECT_EQ(once.cycles, 1);

  Unit again([](Unit& unit) {
    if (unit.cycles < 3) unit.stop();
    if (unit.cycles == 3) eventually([&unit] { return !unit.isRunning(); });
    unit.start();  // refused the third time: another thread waits for the end
  });
  again.start();
  EXPECT_TRUE(again.reaches(3));
  again.stop();
  EXPECT_EQ(again.cycles, 3);

  std::atomic<bool> destroyed{false};
  (new Unit([&destroyed](Unit& unit) {
    delete &unit;
    destroyed = true;
  }))->start();
  EXPECT_TRUE(eventually([&] { return destroyed.load(); }) && hasThreads(0));
}

TEST(ThreadUnit, SurvivesThrowingCyclesAndStopsPromptlyInALongPause) {
  const test::LogCapture log;
  Unit unit([](Unit& self) {
    if (self.cycles == 1) throw std::runtime_error("bad joint");
    if (self.cycles == 3) self.setPeriod(60000);
    throw 7;
  });
  test::threadThatFails = 1;
  unit.start();
  EXPECT_FALSE(unit.isRunning());
  unit.start();
  EXPECT_TRUE(unit.reaches(3));
  EXPECT_LT(test::timedMs([&] { unit.stop(); }), test::kStopBoundMs);
  EXPECT_EQ(log.errors("threadCycle exception: bad joint"), 1u);
  EXPECT_EQ(log.errors("threadCycle exception: not a std::exception"), 2u);
}

TEST(StopSignal, TruncatesPausesAndTakesAnyNumber) {
  for (const double ms : {-1.0, std::nan(""), 0.0004}) {
    EXPECT_EQ(brix::pauseMicros(ms) + brix::wholeMs(ms), 0) << ms;
  }
  for (const double ms : {HUGE_VAL, 1e300}) {
    EXPECT_EQ(brix::pauseMicros(ms), 365L * 24 * 3600 * 1000 * 1000);
    EXPECT_EQ(brix::wholeMs(ms), INT_MAX);
  }
  EXPECT_EQ(brix::pauseMicros(60000), 60000000);
  EXPECT_EQ(brix::pauseMicros(1.9999) + brix::wholeMs(1.9999), 1999 + 1);
  brix::StopSignal signal;
  for (const double ms : {1.0, 30.0}) {  // short pauses sleep, longer ones wait
    EXPECT_GE(test::timedMs([&] { signal.pauseMs(ms); }), ms);
  }
}

}  // namespace
