#include "mock_script.h"

#include <algorithm>

#include "brix_json.h"
#include "command_envelope.h"
#include "input.h"
#include "json_text.h"
#include "status.h"

namespace tcpcom {
namespace {

constexpr char kCount[] = "$count";

/// One file that is being read, for its errors.
class Reader {
 public:
  Reader(const Run& run, const std::string& path) : path_(path), text_(readFile(run, path)) {}

  MockScript read() const {
    std::string error;
    const auto root = parseJson(text_, &error);
    if (!root) refuse(": is not JSON: " + error);
    requireKeys(*root, {"replies", "broadcasts", "echo"}, "the script");
    MockScript script;
    const Json::Value& replies = (*root)["replies"];
    require(replies.isNull() || replies.isObject(), replies, "\"replies\" must be an object");
    for (const std::string& name : replies.getMemberNames()) {
      require(replies[name].isObject(), replies[name],
              "the reply to \"" + name + "\" must be an object");
      script.replies[name] = replies[name];
    }
    for (const Json::Value& entry : listAt(*root, "broadcasts")) {
      script.broadcasts.push_back(broadcast(entry));
    }
    for (const Json::Value& key : listAt(*root, "echo")) {
      require(key.isString(), key, "\"echo\" must hold strings");
      script.echo.push_back(key.asString());
    }
    return script;
  }

 private:
  [[noreturn]] void refuse(const std::string& why) const {
    throw Failure(Status::Usage, "script \"" + path_ + "\"" + why);
  }

  /// @param value  tells the line
  [[noreturn]] void refuse(const Json::Value& value, const std::string& why) const {
    const auto line = 1 + std::count(text_.begin(), text_.begin() + value.getOffsetStart(), '\n');
    refuse(", line " + std::to_string(line) + ": " + why);
  }

  void require(bool good, const Json::Value& value, const std::string& rule) const {
    if (!good) refuse(value, rule);
  }

  void requireKeys(const Json::Value& value, const std::vector<std::string>& known,
                   const std::string& what) const {
    require(value.isObject(), value, what + " must be an object");
    const auto names = value.getMemberNames();
    const auto unknown = std::find_if(names.begin(), names.end(), [&](const std::string& name) {
      return std::find(known.begin(), known.end(), name) == known.end();
    });
    if (unknown != names.end()) {
      refuse(value[*unknown], what + " has an unknown member \"" + *unknown + "\"");
    }
  }

  const Json::Value& listAt(const Json::Value& root, const char* key) const {
    const Json::Value& list = root[key];
    require(list.isNull() || list.isArray(), list, std::string("\"") + key + "\" must be an array");
    return list;
  }

  MockBroadcast broadcast(const Json::Value& entry) const {
    requireKeys(entry, {"periodMs", "text"}, "a broadcast");
    const Json::Value& period = entry["periodMs"];
    require(period.isNumeric() && period.asDouble() >= 0.1 && period.asDouble() <= 1e9, entry,
            "\"periodMs\" must be a number from 0.1 to 1e9");
    const Json::Value& text = entry["text"];
    require(text.isObject() || (text.isString() && !text.asString().empty()), entry,
            "a broadcast's \"text\" must be an object, or a string that is not empty");
    return {period.asDouble(), text};
  }

  const std::string& path_;
  const std::string text_;
};

void fillIn(Json::Value& value, std::int64_t count) {
  if (value.isString()) {
    if (value.asString() == kCount) value = Json::Int64(count);
  } else if (value.isObject() || value.isArray()) {
    for (Json::Value& member : value) fillIn(member, count);
  }
}

}  // namespace

const char* const kScriptFormat =
    "A script is a JSON object; each member may be left out:\n"
    "  {\"replies\":    {\"get_state\": {\"state\": \"idle\"}},\n"
    "   \"broadcasts\": [{\"periodMs\": 10, \"text\": {\"command\": \"state\", \"count\": "
    "\"$count\"}}],\n"
    "   \"echo\":       [\"id\"]}\n"
    "  replies     by command; \"command\", \"code\" and \"msg\" are added\n"
    "  broadcasts  what goes to all clients each periodMs; \"$count\" becomes 0, 1, 2, ...\n"
    "  echo        keys that a reply takes over from its request\n"
    "Commands without a reply are rejected with code -2; \"heartbeat\" is always answered. In the\n"
    "state family a \"code\" in the script stays; in the command family it becomes 1.\n";

std::string MockBroadcast::rendered(std::int64_t count) const {
  if (text.isString()) return text.asString();
  Json::Value filled = text;
  fillIn(filled, count);
  return brix_json::toStrWithoutIndentation(filled, brix_json::kPrecision);
}

Json::Value MockScript::replyTo(const std::string& command, const Json::Value& request) const {
  const auto found = replies.find(command);
  Json::Value reply = found != replies.end() ? found->second : Json::Value(Json::objectValue);
  reply[brix::envelope::kCommandKey] = command;
  for (const std::string& key : echo) {
    if (request.isMember(key) && !reply.isMember(key)) reply[key] = request[key];
  }
  return reply;
}

MockScript loadScript(const Run& run, const std::string& path) {
  return Reader(run, path).read();
}

}  // namespace tcpcom
