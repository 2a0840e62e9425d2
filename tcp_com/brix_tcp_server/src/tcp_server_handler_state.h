#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "brix_tcp_server.h"
#include "callback_slot.h"
#include "message_splitter.h"
#include "send_backlog.h"
#include "sized_thread.h"
#include "socket_owner.h"
#include "stop_signal.h"

namespace brix {

/// What the receiving thread shares with the handler: a callback on that thread may destroy the
/// handler.
struct TCP_COM_HIDDEN TcpServerHandler::State {
  using Batch = std::vector<std::string>;

  State(int fd, int connectionId) : socket(fd), id(connectionId) {}

  void receiveLoop(int intervalMs);
  bool receiveChunk(char* block);
  bool handOver();
  void waitForRelease();
  void open();
  void stop();
  void finish();

  /// Sends without blocking; what the client does not take, or what waits before it, waits in the
  /// backlog. One caller at a time, as retry().
  /// @return whether nothing waits
  bool offer(SharedText& shared, DropReport& dropped);

  /// Sends what waits, as far as it goes.
  /// @return whether anything went
  bool retry() { return backlog.flush(socket); }

  StopSignal quit;
  SocketOwner socket;
  const int id;
  MessageSplitter splitter;  // receiving thread only, as the next one
  Batch msgs;
  CallbackSlot<void(const std::string&)> msgCallback;
  std::function<void(Batch&)> batchCallback;  // set before the release: in the place of msgCallback
  CallbackSlot<void(int)> quitCallback;
  SizedThread thread;  // creator and destructor only
  ValueSlot<std::string> delimiter;
  [[maybe_unused]] int reserved = 0;
  std::atomic<std::size_t> maxMessageBytes{0};
  std::atomic<bool> cutStalled{false};
  SendBacklog backlog;

  std::mutex gateLock;  // guards released
  std::condition_variable gate;
  bool released = false;
};

}  // namespace brix
