#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "brix_tcp_server.h"
#include "callback_slot.h"
#include "listen_socket.h"
#include "stop_signal.h"
#include "text_queue.h"

namespace brix {

/// What the server shares with its threads: a listener on one of them may destroy the server.
///
/// Lock order: lifecycleLock; connectionLock, recvLock, sendLock; then the innermost ones, which
/// are never held while another lock is taken or anything is called: mapLock, selfLock, the
/// own locks of the listening socket, the queues and the slots.
struct TCP_COM_HIDDEN BrixTcpServer::State : std::enable_shared_from_this<State> {
  explicit State(BasicServerInterface* owner) : self(owner) {}
  ~State();

  /// One direction's pump.
  struct Pump {
    const char* onText;
    const char* delayText;
    const char* exitText;
    double BasicServerInterface::*rate;
    TextQueue& queue;
    std::mutex& lock;
    std::atomic<bool>& ended;
    void (State::*deliver)(const std::string& msg);
  };

  void start(int port);
  bool anyWorker() const;
  void startWorkers(int port);
  void terminate();
  void joinWorkers();
  void release();
  bool releaseAble() const;

  void acceptLoop(int port);
  void createHandler(int socket);
  int connectionCount() const;
  void queueReceived(const std::string& msg);
  void insertHandler(int id, const std::shared_ptr<TcpServerHandler>& handler);
  void connectionNotify(bool value);

  void monitorLoop();
  void removeConnection(int id);
  void popSocketHandle(int id);

  void sendLoop();
  void recvLoop();
  void pumpLoop(const Pump& pump);
  bool waitUntilConnected(std::unique_lock<std::mutex>& lock);
  void pumpOne(const Pump& pump);
  void passToListener(const std::string& msg);
  void passToHandlers(const std::string& msg);

  double rate(double BasicServerInterface::*field) const;
  std::string ownDelimiter() const;
  std::vector<std::shared_ptr<TcpServerHandler>> handlers() const;
  void terminateHandlers() const;

  std::atomic<int> idCounter{0};
  std::map<int, std::shared_ptr<TcpServerHandler>> connections;  // connectionLock and mapLock
  std::vector<int> quitIds;                                      // connectionLock
  std::mutex connectionLock;
  std::condition_variable connectionCondition;
  [[maybe_unused]] int reserved = 0;
  StopSignal quit;
  ListenSocket listening{quit};
  ValueSlot<ServerSafetyOptions> safety;
  std::atomic<DeliveryMode> mode{DeliveryMode::Polled};
  TextQueue sendQueue;
  TextQueue recvQueue;
  CallbackSlot<void(bool)> connectionListener;
  CallbackSlot<void(const std::string&)> msgListener;
  std::thread acceptThread;  // lifecycleLock, as the three below
  std::thread sendThread;
  std::thread recvThread;
  std::thread monitorThread;
  std::atomic<bool> acceptEnded{false};
  std::atomic<bool> sendEnded{false};
  std::atomic<bool> recvEnded{false};
  std::atomic<bool> connected{false};
  std::mutex recvLock;
  std::mutex sendLock;
  std::condition_variable_any pumpCondition;  // waited on with two different locks

  std::mutex lifecycleLock;
  mutable std::mutex mapLock;
  mutable std::mutex selfLock;
  BasicServerInterface* self;  // selfLock; null once the server is gone
};

}  // namespace brix
