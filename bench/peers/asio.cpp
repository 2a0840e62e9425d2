// Asio, asynchronous: one io_context and one thread a side, async_read_until, a write queue that
// leaves in one async_write.

#include <asio.hpp>

#include "peer.h"

namespace {

using asio::ip::tcp;

class Session : public std::enable_shared_from_this<Session> {
 public:
  using OnText = std::function<void(Session&, std::string_view)>;

  Session(tcp::socket socket, OnText onText)
      : socket_(std::move(socket)), onText_(std::move(onText)) {
    socket_.set_option(tcp::no_delay(true));
  }

  void read() {
    const auto self = shared_from_this();
    asio::async_read_until(socket_, in_, "\r\n", [self](asio::error_code error, std::size_t size) {
      if (error) return;
      const auto* text = static_cast<const char*>(self->in_.data().data());
      self->onText_(*self, {text, size - 2});
      self->in_.consume(size);
      self->read();
    });
  }

  /// On the network thread.
  void write(std::string_view text) {
    waiting_.append(text).append("\r\n");
    if (writing_.empty()) writeWaiting();
  }

  void post(const std::string& text) {
    asio::dispatch(socket_.get_executor(),
                   [self = shared_from_this(), text] { self->write(text); });
  }

 private:
  void writeWaiting() {
    writing_.swap(waiting_);
    asio::async_write(socket_, asio::buffer(writing_),
                      [self = shared_from_this()](asio::error_code error, std::size_t) {
                        self->writing_.clear();
                        if (!error && !self->waiting_.empty()) self->writeWaiting();
                      });
  }

  tcp::socket socket_;
  const OnText onText_;
  asio::streambuf in_;
  std::string waiting_;
  std::string writing_;
};

/// An io_context with its thread.
class Network {
 public:
  ~Network() { stop(); }
  void stop() {
    context.stop();
    if (thread_.joinable()) thread_.join();
  }
  asio::io_context context;

 private:
  asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(context);
  std::thread thread_{[this] { context.run(); }};
};

class AsioPeer : public bench::Peer {
 public:
  ~AsioPeer() override {
    server_.stop();
    client_.stop();
  }

  int serve(Answer answer) override {
    answer_ = std::move(answer);
    acceptor_.listen();
    accept();
    return acceptor_.local_endpoint().port();
  }

  void connect(int clients, OnText onText) override {
    for (int i = 0; i < clients; ++i) {
      tcp::socket socket(client_.context);
      socket.connect(acceptor_.local_endpoint());
      connections_.push_back(std::make_shared<Session>(
          std::move(socket), [onText](Session&, std::string_view text) { onText(text); }));
      asio::post(client_.context, [session = connections_.back()] { session->read(); });
    }
  }

  void send(int client, const std::string& text) override {
    connections_[static_cast<std::size_t>(client)]->post(text);
  }

  void publish(const std::string& text) override {
    asio::post(server_.context, [this, text] {
      for (const auto& session : sessions_) session->write(text);
    });
  }

 private:
  void accept() {
    acceptor_.async_accept([this](asio::error_code error, tcp::socket socket) {
      if (error) return;
      sessions_.push_back(std::make_shared<Session>(
          std::move(socket), [this](Session& session, std::string_view text) {
            const std::string reply = answer_(text);
            if (!reply.empty()) session.write(reply);
          }));
      sessions_.back()->read();
      clients_.add(1);
      accept();
    });
  }

  Answer answer_;
  Network server_;
  Network client_;
  std::vector<std::shared_ptr<Session>> sessions_;
  std::vector<std::shared_ptr<Session>> connections_;
  tcp::acceptor acceptor_{server_.context, tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
};

}  // namespace

int main(int argc, char** argv) {
  return bench::runProgram(argc, argv, bench::peerWorkloads([](const bench::Options&) {
                             return std::make_unique<AsioPeer>();
                           }));
}
