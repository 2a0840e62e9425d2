// A model of links that poll: threads that sleep a fixed time and look. It shows what the pace
// itself costs, and is not the library's code.

#include <deque>

#include "peer.h"

namespace {

using bench::Options;

class TextQueue {
 public:
  void push(std::string text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    texts_.push_back(std::move(text));
  }
  bool pop(std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (texts_.empty()) return false;
    text = std::move(texts_.front());
    texts_.pop_front();
    return true;
  }

 private:
  std::mutex mutex_;
  std::deque<std::string> texts_;
};

/// Three threads on one socket: one reads, one delivers, one sends. A client's reader sleeps before
/// each read, a server's does not.
class Side {
 public:
  using OnText = std::function<void(const std::string&)>;

  Side(int fd, double periodMs, bool sleepsToRead, OnText onText)
      : fd_(fd),
        periodUs_(static_cast<useconds_t>(periodMs * 1e3)),
        sleepsToRead_(sleepsToRead),
        onText_(std::move(onText)) {
    threads_.emplace_back([this] { read(); });
    threads_.emplace_back([this] { poll(received_, onText_); });
    threads_.emplace_back([this] {
      poll(toSend_, [this](const std::string& text) { bench::sendAll(fd_, text + "\r\n"); });
    });
  }
  ~Side() {
    quit_ = true;
    shutdown(fd_, SHUT_RDWR);
    for (std::thread& thread : threads_) thread.join();
    close(fd_);
  }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  void send(const std::string& text) { toSend_.push(text); }

 private:
  void read() {
    std::vector<char> chunk(bench::kChunkBytes);
    bench::Lines lines;
    while (!quit_) {
      if (sleepsToRead_) usleep(periodUs_);
      const ssize_t got = recv(fd_, chunk.data(), chunk.size(), 0);
      if (got <= 0) return;
      lines.feed({chunk.data(), static_cast<std::size_t>(got)},
                 [this](std::string_view text) { received_.push(std::string(text)); });
    }
  }

  void poll(TextQueue& queue, const OnText& deliver) {
    std::string text;
    while (!quit_) {
      usleep(periodUs_);
      if (queue.pop(text)) deliver(text);
    }
  }

  const int fd_;
  const useconds_t periodUs_;
  const bool sleepsToRead_;
  const OnText onText_;
  std::atomic<bool> quit_{false};
  TextQueue received_;
  TextQueue toSend_;
  std::vector<std::thread> threads_;
};

Json::Value requestReply(const Options& options) {
  const double periodMs = options.number("rate_ms", 0.5);
  bench::ClosedLoop loop(options);
  const std::string request = bench::stampedText(bench::kRequestBytes);
  for (std::int64_t i = 0; i < loop.repeats(); ++i) {
    const std::pair<int, int> ends = bench::connectedPair();
    std::unique_ptr<Side> client;
    std::unique_ptr<Side> server;
    server = std::make_unique<Side>(ends.second, periodMs, false,
                                    [&](const std::string& text) { server->send(text); });
    client = std::make_unique<Side>(ends.first, periodMs, true, [&](const std::string&) {
      if (loop.replied()) client->send(request);
    });
    loop.begin();
    client->send(request);
    loop.waitUntilDone();
    client.reset();
  }
  return loop.figures();
}

Json::Value idle(const Options& options) {
  const double periodMs = options.number("rate_ms", 0.5);
  const bench::ProcessState before = bench::ProcessState::now();
  std::vector<int> servers;
  std::vector<std::unique_ptr<Side>> clients;
  for (std::int64_t i = 0; i < options.count("clients", 1); ++i) {
    const std::pair<int, int> ends = bench::connectedPair();
    servers.push_back(ends.second);
    clients.push_back(
        std::make_unique<Side>(ends.first, periodMs, true, [](const std::string&) {}));
  }
  Json::Value figures = bench::idleFigures(options, before);
  for (const int fd : servers) close(fd);
  return figures;
}

}  // namespace

int main(int argc, char** argv) {
  return bench::runProgram(argc, argv, {{"request_reply", requestReply}, {"idle", idle}});
}
