// What a mock controller says.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "run.h"

namespace tcpcom {

struct MockBroadcast {
  double periodMs = 0;
  Json::Value text;

  /// @param count  replaces each string "$count"
  std::string rendered(std::int64_t count) const;
};

struct MockScript {
  std::map<std::string, Json::Value> replies;  ///< by command; each an object
  std::vector<MockBroadcast> broadcasts;
  std::vector<std::string> echo;  ///< keys that a reply takes over from its request

  /// @return the reply to a request whose command has one, still without "code" and "msg"
  Json::Value replyTo(const std::string& command, const Json::Value& request) const;
};

/// Its format, as the help shows it.
extern const char* const kScriptFormat;

/// @throws Failure  with Usage, telling what is wrong in which line
MockScript loadScript(const Run& run, const std::string& path);

}  // namespace tcpcom
