#include "arm_simulation.h"

#include <cerrno>
#include <chrono>
#include <ctime>

namespace arm {

namespace {

using namespace std::chrono_literals;

constexpr double kTickS = 0.001;
constexpr auto kTick = 1ms;

// Beyond this the lost time is given up: a process that was held up must not make the arm race.
constexpr auto kCatchUpLimit = 100ms;

// steady_clock is CLOCK_MONOTONIC here; an absolute deadline does not drift with the work per tick.
void sleepUntil(std::chrono::steady_clock::time_point deadline) {
  const auto sinceBoot = deadline.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceBoot);
  timespec time{};
  time.tv_sec = seconds.count();
  time.tv_nsec = std::chrono::nanoseconds(sinceBoot - seconds).count();
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
  }
}

}  // namespace

ArmSimulation::Accepted ArmSimulation::moveTo(const JointVector& targetDeg, double speedScale) {
  std::lock_guard<std::mutex> lock(mutex_);
  const double durationS = model_.moveTo(targetDeg, speedScale);
  return {timeMs_, durationS};
}

std::uint64_t ArmSimulation::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  model_.stop();
  return timeMs_;
}

Snapshot ArmSimulation::snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {timeMs_, model_.state()};
}

void ArmSimulation::tick() {
  std::lock_guard<std::mutex> lock(mutex_);
  model_.step(kTickS);
  ++timeMs_;
}

void ArmSimulation::run() {
  thread_ = std::thread([this] { loop(); });
}

void ArmSimulation::halt() {
  halted_ = true;
  if (thread_.joinable()) thread_.join();
}

void ArmSimulation::loop() {
  auto deadline = std::chrono::steady_clock::now();
  while (!halted_) {
    deadline += kTick;
    sleepUntil(deadline);
    tick();
    const auto now = std::chrono::steady_clock::now();
    if (now - deadline > kCatchUpLimit) deadline = now;
  }
}

}  // namespace arm
