#pragma once

#include <functional>
#include <string>
#include <utility>

#include "basic_server_interface.h"
#include "callback_slot.h"
#include "texts.h"

namespace test {

/// A server transport that records what it is asked and delivers what the test says.
class FakeServer : public brix::BasicServerInterface {
 public:
  int initialize(int port) override { return calls.add("initialize"), -port; }
  void terminateServer() override { calls.add("terminateServer"); }
  void registerConnectionListener(std::function<void(bool)> listener) override {
    calls.add("registerConnectionListener");
    notify = std::move(listener);
  }
  void registerMsgListener(std::function<void(const std::string&)> listener) override {
    calls.add("registerMsgListener");
    deliver = std::move(listener);
  }
  void sendMsg(const std::string& msg) override { sent.add(msg); }

  brix::CallbackSlot<void(bool)> notify;                 ///< a client arrives, the last one leaves
  brix::CallbackSlot<void(const std::string&)> deliver;  ///< a message has come
  Texts calls, sent;
};

}  // namespace test
