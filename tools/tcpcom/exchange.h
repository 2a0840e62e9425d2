// A request and its reply, by the command protocol.
#pragma once

#include <json/json.h>

#include <functional>
#include <optional>
#include <string>

#include "session.h"

namespace tcpcom {

struct Reply {
  std::string text;
  Json::Value value;
  double ms = 0;  ///< round trip
};

/// @return whether it is no rejection: a reply without "code", as from a peer that has no envelope,
/// is an answer like any other
bool isHandled(const Json::Value& reply);

/// One request at a time over a session; whatever else comes is handed to `onOther`.
class Exchange {
 public:
  using OnOther = std::function<void(const Message&)>;

  explicit Exchange(Session& session, OnOther onOther = {})
      : session_(session), onOther_(std::move(onOther)) {}

  /// Sends a request and waits for the reply with its "command". Replies go to every client, so one
  /// with another's name is nobody's but his; one that came before the request is a late one.
  /// @param mustHold  members that the reply has to have as well
  /// @param rejection  gets a rejection that does not tell whose it is, if one comes instead
  /// @return Ready with a reply
  Wake ask(const std::string& command, const std::string& request, TimePoint until, Reply& reply,
           const Json::Value& mustHold = Json::Value::nullSingleton(),
           std::optional<Reply>* rejection = nullptr);

  /// Receives until then.
  Wake idle(TimePoint until) { return receive(until, until); }

 private:
  /// Receives until then, and what has come by then as long as it is not later than `latest`.
  Wake receive(TimePoint until, TimePoint latest);

  Session& session_;
  OnOther onOther_;
};

/// @return the heartbeat that every server of the protocol answers
std::string heartbeatText();

}  // namespace tcpcom
