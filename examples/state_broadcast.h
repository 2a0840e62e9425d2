/// @file
/// What the controller publishes.
#pragma once

#include <json/json.h>

#include <cstdint>

#include "arm_simulation.h"

namespace arm {

/// Numbers the states of the arm that go to one family's clients. Each family has its own: with
/// shared numbers its clients would see gaps.
///
/// Called from: one thread at a time. It calls nothing back.
class StateBroadcast {
 public:
  /// @param arm  not owned; outlives the broadcast
  explicit StateBroadcast(const ArmSimulation& arm) : arm_(arm) {}

  /// @return the next state: what toJson writes, "broadcast", and "seq", which counts from 1
  Json::Value next();

 private:
  const ArmSimulation& arm_;
  std::uint64_t seq_ = 0;
};

}  // namespace arm
