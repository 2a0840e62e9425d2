/// @file
/// The controller's answers.
#pragma once

#include <json/json.h>

#include <functional>
#include <map>
#include <string>

#include "arm_simulation.h"

namespace arm {

/// Carries out requests to the arm, for both families.
///
/// Commands: heartbeat; get_state; stop; move_joints with "joints_deg" (six numbers) and, if
/// wanted, "speed_scale" (0.01 to 1). Replies reach all clients, so a request may carry an "id", a
/// string or an integer, which its reply repeats.
///
/// Called from: any thread. It calls nothing back.
class CommandHandler {
 public:
  using Handler = std::function<Json::Value(const Json::Value& request)>;
  using HandlerMap = std::map<std::string, Handler>;

  /// @param arm  not owned; outlives the handler
  explicit CommandHandler(ArmSimulation& arm);
  CommandHandler(const CommandHandler&) = delete;
  CommandHandler& operator=(const CommandHandler&) = delete;

  /// For the command server, which turns each object into a handled reply. A refused command is
  /// therefore told by "refused", the reason; an exception would be answered without reason and id.
  /// @return the handlers by their commands; they use this object
  HandlerMap handlers() const { return handlers_; }

  /// For the communication server.
  /// @return the reply to one request, as JSON text; a rejected one has code -2 and says why
  std::string answer(const std::string& request) const;

 private:
  void add(const std::string& command, const Handler& carryOut);
  Json::Value reply(const Json::Value& request) const;
  Json::Value moveJoints(const Json::Value& request);
  Json::Value stop();
  Json::Value getState();

  ArmSimulation& arm_;
  HandlerMap handlers_;  // fixed after construction
};

}  // namespace arm
