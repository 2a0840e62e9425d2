// The limit: plain POSIX sockets and the fewest threads that can do the work.

#include <condition_variable>
#include <deque>

#include "peer.h"

namespace {

using bench::Options;

constexpr std::size_t kLineBytes = bench::kRequestBytes + bench::kDelimiterBytes;

/// Hands texts to a thread that does the rest: one more hop.
class Hop {
 public:
  explicit Hop(std::function<void(const std::string&)> body)
      : body_(std::move(body)), thread_([this] { run(); }) {}
  ~Hop() {
    push({});
    thread_.join();
  }
  Hop(const Hop&) = delete;
  Hop& operator=(const Hop&) = delete;

  void push(std::string text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(std::move(text));
    filled_.notify_one();
  }

 private:
  void run() {
    for (std::string text = pop(); !text.empty(); text = pop()) body_(text);
  }

  std::string pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    filled_.wait(lock, [this] { return !texts_.empty(); });
    std::string text = std::move(texts_.front());
    texts_.pop_front();
    return text;
  }

  const std::function<void(const std::string&)> body_;
  std::mutex mutex_;
  std::condition_variable filled_;
  std::deque<std::string> texts_;
  std::thread thread_;
};

/// Two threads that block in their reads, with `hops` 0 or 1 more on each side.
Json::Value requestReply(const Options& options) {
  const bool hop = options.count("hops", 0) == 1;
  bench::ClosedLoop loop(options);
  const std::string request = bench::stampedText(bench::kRequestBytes) + "\r\n";
  const std::pair<int, int> ends = bench::connectedPair();
  const auto reply = [&](const std::string& text) { bench::sendAll(ends.second, text); };
  const auto next = [&](const std::string&) {
    if (loop.replied()) {
      bench::sendAll(ends.first, request);
    } else {
      shutdown(ends.first, SHUT_RDWR);
    }
  };
  const auto readAll = [hop](int fd, const std::function<void(const std::string&)>& onText) {
    std::unique_ptr<Hop> worker;
    if (hop) worker = std::make_unique<Hop>(onText);
    std::string text(kLineBytes, '\0');
    while (bench::receiveAll(fd, text.data(), text.size())) {
      worker ? worker->push(text) : onText(text);
    }
  };
  std::thread server([&] { readAll(ends.second, reply); });
  loop.begin();
  bench::sendAll(ends.first, request);
  readAll(ends.first, next);
  server.join();
  close(ends.first);
  close(ends.second);
  return loop.figures();
}

/// One thread for the server's sockets, one for the clients'.
class RawPeer : public bench::Peer {
 public:
  explicit RawPeer(const Options& options)
      : batchBytes_(static_cast<std::size_t>(options.count("batch_bytes", bench::kChunkBytes))) {}

  int serve(Answer answer) override {
    answer_ = std::move(answer);
    port_ = server_.serve([this](int fd) {
      serverSockets_.push_back(fd);
      clients_.add(1);
    });
    return port_;
  }

  void connect(int clients, OnText onText) override {
    onText_ = std::move(onText);
    for (int i = 0; i < clients; ++i) {
      clientSockets_.push_back(bench::connectTo(port_));
      client_.add(clientSockets_.back());
    }
  }

  void send(int client, const std::string& text) override {
    bench::sendAll(clientSockets_[static_cast<std::size_t>(client)], text + "\r\n");
  }

  void publish(const std::string& text) override {
    batch_.append(text).append("\r\n");
    if (batch_.size() >= batchBytes_) flush();
  }

  void flush() override {
    for (const int fd : serverSockets_) bench::sendAll(fd, batch_);
    batch_.clear();
  }

 private:
  void onRequests(int fd, std::string_view chunk) {
    requests_[fd].feed(chunk, [&](std::string_view text) {
      const std::string reply = answer_(text);
      if (!reply.empty()) bench::sendAll(fd, reply + "\r\n");
    });
  }

  const std::size_t batchBytes_;  // 0: one send a text
  int port_ = 0;
  Answer answer_;
  OnText onText_;
  std::string batch_;
  std::vector<int> clientSockets_;
  std::vector<int> serverSockets_;  // filled before a client counts as connected
  std::map<int, bench::Lines> requests_;
  std::map<int, bench::Lines> texts_;
  bench::SocketLoop server_{[this](int fd, std::string_view chunk) { onRequests(fd, chunk); }};
  bench::SocketLoop client_{
      [this](int fd, std::string_view chunk) { texts_[fd].feed(chunk, onText_); }};
};

}  // namespace

int main(int argc, char** argv) {
  bench::Workloads workloads = bench::peerWorkloads(
      [](const Options& options) { return std::make_unique<RawPeer>(options); });
  workloads["request_reply"] = requestReply;
  return bench::runProgram(argc, argv, workloads);
}
