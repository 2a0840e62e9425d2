// The byte stream of a command server's client, and a good client after it.

#include "fuzz.h"
#include "tcp_server.h"
#include "tcp_server_wrapper.h"

namespace {

using fuzz::Messages;

constexpr std::size_t kReadBytes = 8192;  // the server takes no more at once
const std::string kGood = "\r\n{\"command\":\"heartbeat\"}\r\n";  // ends what others left first

std::string replyTo(const std::string& msg) {
  static auto* const wrapper = new brix::TcpServerWrapper(-1);
  return wrapper->commandHandle(msg) + "\r\n";
}

/// A server without a thread of its own: the clients come from here.
struct Subject : brix::iRecieveListener {
  explicit Subject(const brix::ServerSafetyOptions& safety) : options(safety) {
    server.setSafetyOptions(options);
    server.attachListener(this);
    model.maxBytes = options.maxMessageBytes;
  }

  void onReceive(const std::string& msg) override {
    heard.push_back(msg);
    if (answers) server.broadcastData(served, replyTo(msg));
  }

  /// Serves a client to its end.
  /// @return what it was sent
  std::string serve(const Messages& chunks) {
    auto [own, peer] = fuzz::packetPair();
    fuzz::sendAll(peer, chunks);
    served = own.fd();
    server.tcpCommunication(own.take());
    expect(chunks);
    fuzz::require(heard == model.msgs, "messages of the command server");
    return peer.read(SIZE_MAX);
  }

  const brix::ServerSafetyOptions options;
  bool answers = false;
  bool exited = false;
  fuzz::Model model;

 private:
  void expect(const Messages& chunks) {
    if (options.perClientBuffer) model.tail.clear();
    for (const std::string& chunk : chunks) {
      // What follows a NUL, or is longer than the server's buffer, is ignored.
      const std::string text = chunk.substr(0, kReadBytes).c_str();
      exited = options.controlTexts && text == "exit";
      const bool quits = options.controlTexts && (text == "q" || text == "Q");
      if (exited || quits || !model.feed(text)) return;
    }
  }

  int served = -1;
  Messages heard;
  brix::TcpServer server{-1};
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Input input(data, size, 2 * kReadBytes);
  brix::ServerSafetyOptions options;
  options.controlTexts = (input.options & 1) != 0;
  options.perClientBuffer = (input.options & 2) != 0;
  options.maxMessageBytes = (input.options & 4) != 0 ? 64 : 0;
  auto subject = std::make_unique<Subject>(options);
  subject->serve(input.chunks);
  if (subject->exited) subject = std::make_unique<Subject>(options);  // nobody is served any more
  subject->answers = true;
  const std::size_t before = subject->model.msgs.size();
  const std::string replies = subject->serve({kGood});
  std::string expected;
  const Messages& msgs = subject->model.msgs;
  for (std::size_t i = before; i < msgs.size(); ++i) expected += replyTo(msgs[i]);
  fuzz::require(msgs.back() == kGood.substr(2, kGood.size() - 4), "request of a good client");
  fuzz::require(replies == expected, "reply to a good client");
  return 0;
}
