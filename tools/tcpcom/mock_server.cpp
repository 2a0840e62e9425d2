#include "mock_server.h"

#include "brix_json.h"
#include "brix_tcp_server.h"
#include "command_envelope.h"
#include "communication_server.h"
#include "json_text.h"
#include "message_framing.h"
#include "status.h"
#include "tcp_server_wrapper.h"

namespace tcpcom {
namespace {

namespace envelope = brix::envelope;

constexpr double kListenMs = 5000;

/// Only the relay of this process is to reach it.
brix::ServerSafetyOptions onLoopback() {
  brix::ServerSafetyOptions options;
  options.bindAddress = "127.0.0.1";
  return options;
}

template <typename Server>
void checkListening(const Server& server) {
  if (!server.waitUntilListening(kListenMs)) {
    throw Failure(Status::CannotListen, "the mock controller cannot listen on 127.0.0.1");
  }
}

class CommandMock : public MockServer {
 public:
  explicit CommandMock(const MockScript& script) : script_(script) {
    brix::TcpServerWrapper::ObjectHandlerMap handlers;
    for (const auto& [name, unused] : script_.replies) {
      handlers[name] = [this, command = name](const Json::Value& request) {
        return script_.replyTo(command, request);
      };
    }
    server_.setHandleMap(handlers);
    server_.setSafetyOptions(onLoopback());
    server_.init(0);
    try {
      checkListening(server_);
    } catch (const Failure&) {
      server_.quit();
      throw;
    }
  }

  ~CommandMock() override { server_.quit(); }

  int port() const override { return server_.listeningPort(); }
  void broadcast(const std::string& text) override { server_.sendMsgs(text + brix::kDelimiter); }

 private:
  const MockScript script_;
  brix::TcpServerWrapper server_{-1};
};

/// Answers as the command server does, but leaves the script its "code".
class StateMock : public MockServer {
 public:
  explicit StateMock(const MockScript& script) : script_(script) {
    transport_->setSafetyOptions(onLoopback());
    server_.setServerHandle(transport_);
    server_.registerRawDataBroadcastFunc(
        [this](const std::string& request) { return answer(request); });
    server_.initialize(0);
    checkListening(*transport_);
  }

  int port() const override { return transport_->listeningPort(); }
  void broadcast(const std::string& text) override { server_.sendMsg(text); }

 private:
  std::string answer(const std::string& text) const {
    const auto request = parseJson(text);
    const bool named =
        request && request->isObject() && (*request)[envelope::kCommandKey].isString();
    Json::Value reply(Json::objectValue);
    if (!named) {
      envelope::markRejected(reply, envelope::kMsgParseError);
    } else {
      const std::string command = (*request)[envelope::kCommandKey].asString();
      const bool known =
          script_.replies.count(command) > 0 || command == envelope::kHeartbeatCommand;
      reply = script_.replyTo(command, *request);
      if (!known) {
        envelope::markRejected(reply, envelope::kMsgNoHandler);
      } else if (!reply.isMember(envelope::kCodeKey)) {
        envelope::markHandled(reply);
      }
    }
    return brix_json::toStrWithoutIndentation(reply, brix_json::kPrecision);
  }

  const MockScript script_;
  const std::shared_ptr<brix::BrixTcpServer> transport_ = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer server_;
};

}  // namespace

std::unique_ptr<MockServer> startMockServer(Family family, const MockScript& script) {
  if (family == Family::Command) return std::make_unique<CommandMock>(script);
  return std::make_unique<StateMock>(script);
}

}  // namespace tcpcom
