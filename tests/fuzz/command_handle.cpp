// Requests of the command server, one message each, and after each a good one.

#include "brix_json.h"
#include "fuzz.h"
#include "tcp_server_wrapper.h"

namespace {

const std::string kWrongType = "wrong type";

/// Never destroyed: that would wait for a quit, which pauses.
brix::TcpServerWrapper& wrapper() {
  static auto* const made = [] {
    brix::TcpServerWrapper::ObjectHandlerMap handlers{
        {"echo", [](const Json::Value& request) { return request; }},
        {"nothing", [](const Json::Value&) { return Json::Value(); }},
        {kWrongType, [](const Json::Value&) { return Json::Value("text"); }},
        {"throw", [](const Json::Value& request) -> Json::Value { throw request["what"].asInt(); }},
    };
    auto* const server = new brix::TcpServerWrapper(-1);
    server->setHandleMap(handlers);
    return server;
  }();
  return *made;
}

/// @return null if the text is no document, or nested too deep
Json::Value parse(const std::string& text) {
  try {
    return brix_json::parseStr(text);
  } catch (const Json::RuntimeError&) {
    return Json::Value();
  }
}

/// Whatever the request was, the reply is one message of one object.
void checkReply(const std::string& request, const std::string& reply) {
  for (const char byte : reply) {
    fuzz::require(byte >= ' ', "a byte of a reply that is no plain ASCII");
  }
  const Json::Value parsed = parse(reply);
  fuzz::require(parsed.isObject() && parsed["msg"].isString(), "reply without a text");
  fuzz::require(parsed["code"] == 1 || parsed["code"] == -2, "code of a reply");
  const Json::Value document = parse(request);
  if (!document.isObject() || document["command"].isConvertibleTo(Json::stringValue)) return;
  fuzz::require(parsed["command"] == "unknow", "reply to a command that is no text");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string request(reinterpret_cast<const char*>(data), size);
  try {
    checkReply(request, wrapper().commandHandle(request));
  } catch (const Json::LogicError&) {
    fuzz::require(parse(request)["command"] == kWrongType, "exception of a request");
  }
  fuzz::require(wrapper().commandHandle("{\"command\":\"heartbeat\"}") ==
                    "{\"code\":1,\"command\":\"heartbeat\",\"msg\":\"command recieved\"}",
                "reply to a good client");
  return 0;
}
