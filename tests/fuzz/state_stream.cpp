// The byte stream of a state server's client, while a good client is connected to it too.

#include <mutex>

#include "brix_tcp_server.h"
#include "fuzz.h"

namespace {

using fuzz::Messages;

constexpr std::size_t kReadBytes = 16384;
constexpr std::size_t kMaxMessageBytes = 256;

/// A server that lives as long as the process, with its good client. The clients come from here.
struct Subject {
  Subject() {
    brix::ServerSafetyOptions options;
    options.maxMessageBytes = kMaxMessageBytes;
    server.setSafetyOptions(options);
    server.registerMsgListener([this](const std::string& msg) {
      std::lock_guard<std::mutex> guard(lock);
      heard.push_back(msg);
      if (msg == request) server.sendMsg(reply);
    });
    server.setSendRate(0);
    server.setRecvRate(0);
    server.initialize(0);
    server.creatSocketHandle(good.first.take());
  }

  /// @return messages since the last call
  Messages takeHeard() {
    std::lock_guard<std::mutex> guard(lock);
    return std::move(heard);
  }

  /// Serves a client to its end, and then asks with the good one.
  void serve(const Messages& chunks) {
    fuzz::Model model;
    model.maxBytes = kMaxMessageBytes;
    auto [own, peer] = fuzz::packetPair();
    server.creatSocketHandle(own.take());
    fuzz::sendAll(peer, chunks);
    peer.read(SIZE_MAX);  // until the server has taken all and closed
    for (const std::string& chunk : chunks) {
      if (!model.feed(chunk)) break;
    }
    const std::string end = std::to_string(++requests);
    setRequest("good request " + end, "good reply " + end);
    good.second.send(request + "\r\n");
    model.msgs.push_back(request);
    const std::string expected = reply + "\r\n";
    fuzz::require(good.second.read(expected.size()) == expected, "reply to a good client");
    fuzz::require(takeHeard() == model.msgs, "messages of the state server");
  }

 private:
  void setRequest(const std::string& nextRequest, const std::string& nextReply) {
    std::lock_guard<std::mutex> guard(lock);
    request = nextRequest;
    reply = nextReply;
  }

  std::pair<test::RawSocket, test::RawSocket> good = test::RawSocket::pair();
  unsigned long requests = 0;
  std::mutex lock;  // guards the following
  std::string request, reply;
  Messages heard;
  brix::BrixTcpServer server;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static auto* const subject = new Subject;
  subject->serve(fuzz::Input(data, size, kReadBytes).chunks);
  return 0;
}
