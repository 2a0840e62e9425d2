// nng: req and rep, push and pull, pub and sub over TCP.

#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "peer.h"

namespace {

void check(int error) {
  if (error != 0) throw std::runtime_error(nng_strerror(error));
}

class Socket {
 public:
  explicit Socket(int (*open)(nng_socket*)) { check(open(&handle_)); }
  ~Socket() { close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  /// Wakes who receives.
  void close() { nng_close(handle_); }

  std::string listen() {
    nng_listener listener{};
    int port = 0;
    check(nng_listen(handle_, "tcp://127.0.0.1:0", &listener, 0));
    check(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port));
    return "tcp://127.0.0.1:" + std::to_string(port);
  }
  void dial(const std::string& url) { check(nng_dial(handle_, url.c_str(), nullptr, 0)); }

  void send(const std::string& text) {
    check(nng_send(handle_, const_cast<char*>(text.data()), text.size(), 0));
  }

  /// @return false when the socket was closed
  bool receive(std::string& text) {
    void* data = nullptr;
    std::size_t size = 0;
    if (nng_recv(handle_, static_cast<void*>(&data), &size, NNG_FLAG_ALLOC) != 0) return false;
    text.assign(static_cast<char*>(data), size);
    nng_free(data, size);
    return true;
  }

  nng_socket handle() const { return handle_; }

 private:
  nng_socket handle_{};
};

/// A subscriber that is called back.
class Reader {
 public:
  Reader(const std::string& url, bench::Peer::OnText onText) : onText_(std::move(onText)) {
    check(nng_socket_set(socket_.handle(), NNG_OPT_SUB_SUBSCRIBE, "", 0));
    check(nng_socket_set_int(socket_.handle(), NNG_OPT_RECVBUF, 2 * bench::kWindow));
    check(nng_aio_alloc(&aio_, received, this));
    socket_.dial(url);
    nng_recv_aio(socket_.handle(), aio_);
  }
  ~Reader() {
    socket_.close();
    nng_aio_stop(aio_);
    nng_aio_free(aio_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

 private:
  static void received(void* context) {
    auto* self = static_cast<Reader*>(context);
    if (nng_aio_result(self->aio_) != 0) return;
    nng_msg* message = nng_aio_get_msg(self->aio_);
    self->onText_({static_cast<const char*>(nng_msg_body(message)), nng_msg_len(message)});
    nng_msg_free(message);
    nng_recv_aio(self->socket_.handle(), self->aio_);
  }

  const bench::Peer::OnText onText_;
  Socket socket_{nng_sub0_open};
  nng_aio* aio_ = nullptr;
};

Json::Value requestReply(const bench::Options& options) {
  bench::ClosedLoop loop(options);
  const std::string request = bench::stampedText(bench::kRequestBytes);
  Socket server(nng_rep0_open);
  Socket client(nng_req0_open);
  client.dial(server.listen());
  std::thread replier([&] {
    for (std::string text; server.receive(text);) server.send(text);
  });
  std::string reply;
  loop.begin();
  do {
    client.send(request);
    client.receive(reply);
  } while (reply == request && loop.replied());
  server.close();
  replier.join();
  return loop.figures();
}

/// Ingest goes from push to pull, fan-out from pub to sub.
class NngPeer : public bench::Peer {
 public:
  NngPeer() {
    check(nng_socket_set_int(publisher_.handle(), NNG_OPT_SENDBUF, 2 * bench::kWindow));
    const auto added = [](nng_pipe, nng_pipe_ev, void* self) {
      static_cast<NngPeer*>(self)->clients_.add(1);
    };
    check(nng_pipe_notify(publisher_.handle(), NNG_PIPE_EV_ADD_POST, added, this));
  }
  ~NngPeer() override {
    puller_.close();
    pulling_.join();
  }

  int serve(Answer answer) override {
    requestsAt_ = puller_.listen();
    stateAt_ = publisher_.listen();
    pulling_ = std::thread([this, answer = std::move(answer)] {
      for (std::string text; puller_.receive(text);) answer(text);
    });
    return 0;
  }

  void connect(int clients, OnText onText) override {
    for (int i = 0; i < clients; ++i) {
      pushers_.push_back(std::make_unique<Socket>(nng_push0_open));
      pushers_.back()->dial(requestsAt_);
      readers_.push_back(std::make_unique<Reader>(stateAt_, onText));
    }
  }

  void send(int client, const std::string& text) override {
    pushers_[static_cast<std::size_t>(client)]->send(text);
  }
  void publish(const std::string& text) override { publisher_.send(text); }

 private:
  Socket puller_{nng_pull0_open};
  Socket publisher_{nng_pub0_open};
  std::string requestsAt_;
  std::string stateAt_;
  std::vector<std::unique_ptr<Socket>> pushers_;
  std::vector<std::unique_ptr<Reader>> readers_;
  std::thread pulling_;
};

}  // namespace

int main(int argc, char** argv) {
  bench::Workloads workloads =
      bench::peerWorkloads([](const bench::Options&) { return std::make_unique<NngPeer>(); });
  workloads["request_reply"] = requestReply;
  return bench::runProgram(argc, argv, workloads);
}
