/// @file
/// The controller's answers.
#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "arm_simulation.h"

namespace arm {

/// Answers requests to the arm and writes its state broadcasts.
///
/// Commands: heartbeat; get_state; stop; move_joints with "joints_deg" (six numbers) and, if
/// wanted, "speed_scale" (0.01 to 1). Replies reach all clients, so a request may carry an "id", a
/// string or an integer, which its reply repeats.
///
/// Called from: any thread. It calls nothing back.
class CommandHandler {
 public:
  /// @param arm  not owned; outlives the handler
  explicit CommandHandler(ArmSimulation& arm);

  /// @return the reply to one request, as JSON text; a rejected one has code -2 and says why
  std::string answer(const std::string& request);

  /// @return the next state broadcast, as JSON text
  std::string stateBroadcast();

 private:
  using Handler = std::function<Json::Value(const Json::Value& request)>;

  Json::Value reply(const Json::Value& request);
  Json::Value handle(const std::string& command, const Json::Value& request);
  Json::Value moveJoints(const Json::Value& request);
  Json::Value stop();
  Json::Value getState();

  ArmSimulation& arm_;
  std::map<std::string, Handler> handlers_;  // fixed after construction
  std::atomic<std::uint64_t> broadcasts_{0};
};

}  // namespace arm
