/// @file
/// The arm in real time.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "arm_model.h"

namespace arm {

struct Snapshot {
  std::uint64_t timeMs = 0;  ///< simulated time since the start
  ArmState arm;
};

/// Owns the arm model and the 1 kHz thread that moves it. Every operation may be called from any
/// thread; it calls nothing back.
class ArmSimulation {
 public:
  ArmSimulation() = default;
  ~ArmSimulation() { halt(); }
  ArmSimulation(const ArmSimulation&) = delete;
  ArmSimulation& operator=(const ArmSimulation&) = delete;

  struct Accepted {
    std::uint64_t timeMs;  ///< later snapshots show the command's effect
    double durationS;      ///< of the planned motion
  };

  /// Begins a motion as ArmModel::moveTo, which tells what it throws.
  Accepted moveTo(const JointVector& targetDeg, double speedScale);

  /// Begins to brake.
  /// @return simulated time; later snapshots show the command's effect
  std::uint64_t stop();

  Snapshot snapshot() const;

  /// Lets one millisecond of simulated time pass.
  void tick();

  /// Starts the thread, once. @throws std::system_error  if there is none to be had
  void run();

  /// Ends the thread; may be called again.
  void halt();

 private:
  void loop();

  mutable std::mutex mutex_;
  ArmModel model_;            // guarded by mutex_
  std::uint64_t timeMs_ = 0;  // guarded by mutex_

  std::atomic<bool> halted_{false};
  std::thread thread_;
};

}  // namespace arm
