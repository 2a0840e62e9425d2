// ZeroMQ: REQ and REP, PUSH and PULL, PUB and SUB over TCP, each side with its own context.

#include <zmq.h>

#include "peer.h"

namespace {

int checked(int result) {
  if (result >= 0) return result;
  throw std::runtime_error(zmq_strerror(zmq_errno()));
}

class Context {
 public:
  ~Context() { zmq_ctx_term(handle); }
  void* const handle = zmq_ctx_new();
};

class Socket {
 public:
  Socket(const Context& context, int type) : handle_(zmq_socket(context.handle, type)) {
    set(ZMQ_LINGER, 0);
  }
  ~Socket() { close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void close() {
    if (handle_ != nullptr) zmq_close(std::exchange(handle_, nullptr));
  }

  void set(int option, int value) {
    checked(zmq_setsockopt(handle_, option, &value, sizeof value));
  }
  std::string bind() {
    checked(zmq_bind(handle_, "tcp://127.0.0.1:*"));
    char endpoint[64] = "";
    std::size_t size = sizeof endpoint;
    checked(zmq_getsockopt(handle_, ZMQ_LAST_ENDPOINT, endpoint, &size));
    return endpoint;
  }
  void connect(const std::string& endpoint) { checked(zmq_connect(handle_, endpoint.c_str())); }
  void subscribeToAll() { checked(zmq_setsockopt(handle_, ZMQ_SUBSCRIBE, "", 0)); }
  void send(std::string_view text) { checked(zmq_send(handle_, text.data(), text.size(), 0)); }

  /// @return false when nothing waits, or the context ends
  bool receive(std::string& text, int flags = 0) {
    zmq_msg_t message;
    zmq_msg_init(&message);
    const bool came = zmq_msg_recv(&message, handle_, flags) >= 0;
    if (came) text.assign(static_cast<char*>(zmq_msg_data(&message)), zmq_msg_size(&message));
    zmq_msg_close(&message);
    return came;
  }

  void* handle() const { return handle_; }

 private:
  void* handle_;
};

Json::Value requestReply(const bench::Options& options) {
  bench::ClosedLoop loop(options);
  const std::string request = bench::stampedText(bench::kRequestBytes);
  const Context serverContext;
  const Context clientContext;
  Socket server(serverContext, ZMQ_REP);
  Socket client(clientContext, ZMQ_REQ);
  client.connect(server.bind());
  std::thread replier([&] {
    for (std::string text; server.receive(text);) server.send(text);
    server.close();
  });
  std::string reply;
  loop.begin();
  do {
    client.send(request);
    client.receive(reply);
  } while (reply == request && loop.replied());
  zmq_ctx_shutdown(serverContext.handle);
  replier.join();
  return loop.figures();
}

/// Ingest goes from PUSH to PULL, fan-out from XPUB, which hears of subscribers, to SUB.
class ZeroMqPeer : public bench::Peer {
 public:
  ZeroMqPeer() {
    publisher_.set(ZMQ_XPUB_VERBOSE, 1);
    publisher_.set(ZMQ_SNDHWM, 0);  // nothing is dropped: the workload itself keeps a window
  }
  ~ZeroMqPeer() override {
    for (const Context* context : {&serverContext_, &clientContext_}) {
      zmq_ctx_shutdown(context->handle);
    }
    pulling_.join();
    if (reading_.joinable()) reading_.join();
  }

  int serve(Answer answer) override {
    requestsAt_ = puller_.bind();
    stateAt_ = publisher_.bind();
    pulling_ = std::thread([this, answer = std::move(answer)] {
      for (std::string text; puller_.receive(text);) answer(text);
      puller_.close();
    });
    return 0;
  }

  void connect(int clients, OnText onText) override {
    for (int i = 0; i < clients; ++i) {
      pushers_.push_back(std::make_unique<Socket>(clientContext_, ZMQ_PUSH));
      pushers_.back()->connect(requestsAt_);
      readers_.push_back(std::make_unique<Socket>(clientContext_, ZMQ_SUB));
      readers_.back()->set(ZMQ_RCVHWM, 0);
      readers_.back()->subscribeToAll();
      readers_.back()->connect(stateAt_);
    }
    reading_ = std::thread([this, onText = std::move(onText)] { read(onText); });
  }

  void awaitClients(int clients) override {
    std::string subscription;
    for (int i = 0; i < clients; ++i) publisher_.receive(subscription);
  }

  void send(int client, const std::string& text) override {
    pushers_[static_cast<std::size_t>(client)]->send(text);
  }
  void publish(const std::string& text) override { publisher_.send(text); }

 private:
  void read(const OnText& onText) {
    std::vector<zmq_pollitem_t> items;
    for (const auto& reader : readers_) items.push_back({reader->handle(), 0, ZMQ_POLLIN, 0});
    std::string text;
    while (zmq_poll(items.data(), static_cast<int>(items.size()), -1) >= 0) {
      for (std::size_t i = 0; i < items.size(); ++i) {
        if (items[i].revents == 0) continue;
        while (readers_[i]->receive(text, ZMQ_DONTWAIT)) onText(text);
      }
    }
  }

  const Context serverContext_;
  const Context clientContext_;
  Socket puller_{serverContext_, ZMQ_PULL};
  Socket publisher_{serverContext_, ZMQ_XPUB};
  std::string requestsAt_;
  std::string stateAt_;
  std::vector<std::unique_ptr<Socket>> pushers_;
  std::vector<std::unique_ptr<Socket>> readers_;
  std::thread pulling_;
  std::thread reading_;
};

}  // namespace

int main(int argc, char** argv) {
  bench::Workloads workloads =
      bench::peerWorkloads([](const bench::Options&) { return std::make_unique<ZeroMqPeer>(); });
  workloads["request_reply"] = requestReply;
  return bench::runProgram(argc, argv, workloads);
}
