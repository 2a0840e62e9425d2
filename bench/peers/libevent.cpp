// libevent: one event_base and one thread a side, bufferevents.

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <event2/thread.h>

#include "peer.h"

namespace {

/// An event_base with its thread, and the connections that it serves.
class Network {
 public:
  /// Gets a text and the connection that it came on.
  using OnText = std::function<void(bufferevent*, std::string_view)>;

  Network() : thread_([this] { event_base_loop(base_, EVLOOP_NO_EXIT_ON_EMPTY); }) {}
  ~Network() {
    event_base_loopbreak(base_);
    thread_.join();
    if (listener_ != nullptr) evconnlistener_free(listener_);
    for (bufferevent* connection : connections_) bufferevent_free(connection);
    event_base_free(base_);
  }
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  int serve(OnText onText, std::function<void()> onClient) {
    onText_ = std::move(onText);
    onClient_ = std::move(onClient);
    const sockaddr_in address = bench::loopback(0);
    listener_ = evconnlistener_new_bind(
        base_, accepted, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_THREADSAFE, SOMAXCONN,
        reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (listener_ == nullptr) throw std::runtime_error("cannot listen");
    return bench::portOf(evconnlistener_get_fd(listener_));
  }

  void connect(int port, OnText onText) {
    onText_ = std::move(onText);
    adopt(bench::connectTo(port));
  }

  const std::vector<bufferevent*>& connections() const { return connections_; }

  static void write(bufferevent* connection, std::string_view text) {
    bufferevent_lock(connection);
    bufferevent_write(connection, text.data(), text.size());
    bufferevent_write(connection, "\r\n", 2);
    bufferevent_unlock(connection);
  }

 private:
  void adopt(evutil_socket_t fd) {
    evutil_make_socket_nonblocking(fd);
    bufferevent* connection =
        bufferevent_socket_new(base_, fd, BEV_OPT_CLOSE_ON_FREE | BEV_OPT_THREADSAFE);
    connections_.push_back(connection);
    bufferevent_setcb(connection, readable, nullptr, nullptr, this);
    bufferevent_enable(connection, EV_READ | EV_WRITE);
  }

  static void accepted(evconnlistener*, evutil_socket_t fd, sockaddr*, int, void* self) {
    auto* network = static_cast<Network*>(self);
    bench::sendAtOnce(fd);
    network->adopt(fd);
    network->onClient_();
  }

  static void readable(bufferevent* connection, void* self) {
    evbuffer* input = bufferevent_get_input(connection);
    std::size_t size = 0;
    while (char* line = evbuffer_readln(input, &size, EVBUFFER_EOL_CRLF_STRICT)) {
      static_cast<Network*>(self)->onText_(connection, {line, size});
      std::free(line);
    }
  }

  event_base* const base_ = event_base_new();
  OnText onText_;
  std::function<void()> onClient_;
  evconnlistener* listener_ = nullptr;
  std::vector<bufferevent*> connections_;
  std::thread thread_;
};

class LibeventPeer : public bench::Peer {
 public:
  int serve(Answer answer) override {
    const auto onText = [answer](bufferevent* connection, std::string_view text) {
      const std::string reply = answer(text);
      if (!reply.empty()) Network::write(connection, reply);
    };
    port_ = server_.serve(onText, [this] { clients_.add(1); });
    return port_;
  }

  void connect(int clients, OnText onText) override {
    for (int i = 0; i < clients; ++i) {
      client_.connect(port_, [onText](bufferevent*, std::string_view text) { onText(text); });
    }
  }

  void send(int client, const std::string& text) override {
    Network::write(client_.connections()[static_cast<std::size_t>(client)], text);
  }

  void publish(const std::string& text) override {
    for (bufferevent* connection : server_.connections()) Network::write(connection, text);
  }

 private:
  int port_ = 0;
  Network server_;
  Network client_;
};

}  // namespace

int main(int argc, char** argv) {
  evthread_use_pthreads();
  return bench::runProgram(argc, argv, bench::peerWorkloads([](const bench::Options&) {
                             return std::make_unique<LibeventPeer>();
                           }));
}
