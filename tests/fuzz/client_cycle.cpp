// The client's cycle of receiving, delivery and sending on a transport that follows a script. Its
// threads' bodies run here, one after the other.

#include "communication_client.h"
#include "fake_client.h"
#include "fuzz.h"

namespace {

using fuzz::Messages;

const std::string kLast = "the last message";

bool throws(const std::string& text) {
  return text.find("throw") != std::string::npos;
}

struct Wire : test::FakeClient {
  using FakeClient::sendMsg;
  void sendMsg(const std::string& msg) override {
    FakeClient::sendMsg(msg);
    if (msg == kLast + delimiter) onLast();
  }
  std::function<void()> onLast;
};

struct Subject {
  explicit Subject(std::size_t maxMessageBytes) {
    brix::ClientSafetyOptions options;
    options.maxMessageBytes = model.maxBytes = maxMessageBytes;
    client.setSafetyOptions(options);
    client.setClientHandle(wire);
    client.setRecvRate(0);
    client.setSendRate(0);
    client.registerMsgListener([this](const std::string& msg) {
      heard.push_back(msg);
      if (msg == kLast) client.setBroadcastMode(false);
      if (throws(msg)) throw 7;
    });
    wire->onLast = [this] { client.setSendMode(false); };
    connect();
  }

  // Modes that are off let no thread start.
  void connect() {
    client.setSendMode(false);
    client.setBroadcastMode(false);
    client.setHeartbeatMode(false);
    fuzz::require(client.connect("", 0, 0) == 1, "connect");
  }

  /// Reads a chunk.
  void take(const std::string& chunk) {
    wire->push(chunk);
    client.threadCycle();
    if (chunk == wire->delimiter || model.feed(chunk)) return;
    client.threadCycle();
    fuzz::require(!client.isConnected(), "end of a connection with a message too long");
    model.msgs.clear();  // undelivered
    connect();
  }

  /// Delivers what was read, a message of a good server at the end.
  void deliver() {
    take("\r\n" + kLast + "\r\n");
    client.setBroadcastMode(true);
    client.broadcastDataFunc();
    const auto last = std::find(model.msgs.begin(), model.msgs.end(), kLast);
    fuzz::require(heard == Messages(model.msgs.begin(), last + 1), "messages of the client");
  }

  /// Sends the texts until one makes the transport throw.
  void send(Messages texts) {
    texts.push_back(kLast);
    client.setSendMode(true);
    for (const std::string& text : texts) client.sendMsg(text);
    client.sendRequestFunc();
    Messages expected;
    for (const std::string& text : texts) {
      if (throws(text)) break;
      const bool ended = text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0;
      expected.push_back(text.size() > 2 && !ended ? text + "\r\n" : text);
    }
    fuzz::require(wire->sent.all() == expected, "texts of the client");
  }

  std::shared_ptr<Wire> wire = std::make_shared<Wire>();
  fuzz::Model model;
  Messages heard;
  brix::CommunicationClient client;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Input input(data, size, 4096);
  Subject subject((input.options & 1) != 0 ? 64 : 0);
  subject.client.setPrintFlag((input.options & 2) == 0);
  for (const std::string& chunk : input.chunks) subject.take(chunk);
  subject.deliver();
  subject.send(input.chunks);
  return 0;
}
