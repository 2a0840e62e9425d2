#pragma once

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>

#include "basic_client_interface.h"
#include "data_queue.h"
#include "texts.h"
#include "wait.h"

namespace test {

/// A client transport that follows a script, set before connecting. Texts with "throw" throw.
class FakeClient : public brix::BasicClientInterface {
 public:
  int connectServer(double /*timeout*/) override { return open_ = true, onConnect(); }
  void sendMsg(const std::string& msg) override {
    if (msg.find("throw 7") != msg.npos) throw 7;
    if (msg.find("throw") != msg.npos) throw std::runtime_error("boom");
    sent.add(msg);
  }
  void sendMsg(const char* data, int len) override {
    sendMsg("raw " + std::string(data, static_cast<std::size_t>(len)));
  }
  void closeClient() override { onClose(), open_ = false; }
  using BasicClientInterface::recieveMsg;
  std::string recieveMsg() override {
    workedOff_ = read_.load();
    if (blocking) eventually([this] { return !chunks_.empty() || !open_; });
    if (chunks_.empty()) return idleChunk;
    ++read_;
    return chunks_.pop();
  }

  /// Adds a chunk to be read.
  void push(const std::string& chunk) { ++pushed_, chunks_.push(chunk); }
  /// Waits until all chunks have been worked off.
  bool drained() const {
    return eventually([this] { return workedOff_ == pushed_; });
  }

  bool blocking = false;  ///< whether a read waits for a chunk or the end
  std::string idleChunk;  ///< what a read returns without a chunk
  std::function<int()> onConnect = [] { return 1; };
  std::function<void()> onClose = [] {};
  Texts sent;

 private:
  DataQueue<std::string> chunks_;
  std::atomic<int> pushed_{0}, read_{0}, workedOff_{0};
  std::atomic<bool> open_{false};
};

}  // namespace test
