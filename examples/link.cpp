#include "link.h"

#include "brix_json.h"
#include "communication_client.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"

namespace arm {

namespace {

constexpr double kConnectTimeoutS = 1.0;
constexpr double kIgnored = 0.0;

class StateLink : public Link {
 public:
  StateLink(Inbox& inbox, bool verbose) : verbose_(verbose) { client_.attachListener(&inbox); }

  bool connect(const std::string& host, int port) {
    client_.setClientHandle(std::make_shared<brix::TcpClient>(host, port));
    client_.setPrintFlag(verbose_);
    return client_.connect(host, port, kConnectTimeoutS) == 1;
  }

  bool send(const Json::Value& request) override { return client_.sendRequest(request) == 1; }
  bool isConnected() override { return client_.isConnected(); }

 private:
  bool verbose_;
  brix::CommunicationClient client_;
};

class CommandLink : public Link {
 public:
  // The inbox stays the only listener: messages go round among several.
  explicit CommandLink(Inbox& inbox) { client_.attachListener(&inbox); }

  bool connect(const std::string& host, int port) { return client_.connectSocket(host, port) == 1; }

  bool send(const Json::Value& request) override {
    const std::string text = brix_json::toStrWithoutIndentation(request, brix_json::kPrecision);
    return client_.send("", text, kIgnored);
  }
  bool isConnected() override { return client_.isConnected(); }

 private:
  brix::TcpClientWrapper client_;
};

template <typename Connecting>
std::unique_ptr<Link> connected(std::unique_ptr<Connecting> link, const std::string& host,
                                int port) {
  if (link->connect(host, port)) return link;
  throw LinkError("cannot connect to " + host + ":" + std::to_string(port) +
                  ": no server accepts there");
}

}  // namespace

std::unique_ptr<Link> connectLink(Family family, const std::string& host, int port, Inbox& inbox,
                                  bool verbose) {
  if (family == Family::Command) return connected(std::make_unique<CommandLink>(inbox), host, port);
  return connected(std::make_unique<StateLink>(inbox, verbose), host, port);
}

}  // namespace arm
