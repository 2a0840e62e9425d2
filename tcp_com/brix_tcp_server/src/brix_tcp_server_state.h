#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "brix_tcp_server.h"
#include "callback_slot.h"
#include "drop_report.h"
#include "listen_socket.h"
#include "log_facade.h"
#include "stop_signal.h"
#include "text_queue.h"
#include "wake_signal.h"

namespace brix {

/// What the server shares with its threads: a listener on one of them may destroy the server.
///
/// Lock order: lifecycleLock; optionsLock; connectionLock, notifyLock, the lock of the receiving
/// pump, that of the sending one; then the innermost ones, which are never held while another lock
/// is taken or anything is called: mapLock, selfLock, the own locks of the listening socket, the
/// queues and the slots.
struct TCP_COM_HIDDEN BrixTcpServer::State : std::enable_shared_from_this<State> {
  explicit State(BasicServerInterface* owner);
  ~State();

  using Batch = std::vector<std::string>;
  using Handlers = std::vector<std::shared_ptr<TcpServerHandler>>;

  /// One direction's pump, and what it works off.
  struct Pump {
    const char* onText;
    const char* delayText;
    const char* exitText;
    double BasicServerInterface::*rate;
    void (State::*deliver)(std::unique_lock<std::mutex>& lock);
    WakeSignal signal;  // to be woken when a text was queued
    TextQueue queue{};
    std::mutex lock{};  // held while deliver runs
    Batch batch{};      // taken from the queue; lock, as the two below
    bool delayTold = false;
    log_time::TimerUnit sinceDelayLine{};
    std::atomic<std::size_t> left{0};  // of the batch, at its end; changed under lock
    std::atomic<bool> ended{false};

    bool idle() const { return left == 0 && queue.empty(); }
    std::string& following() { return batch[batch.size() - left]; }
    void clear();
  };

  void start(int port);
  bool anyWorker() const;
  void startWorkers(int port);
  void terminate();
  void joinWorkers();
  void release();
  bool releaseAble() const;

  struct Accepting;
  void acceptLoop(int port);
  void createHandler(int socket);
  int connectionCount() const;
  void insertHandler(int id, const std::shared_ptr<TcpServerHandler>& handler);
  void connectionNotify(bool value);

  void monitorLoop();
  void removeConnection(int id);
  void popSocketHandle(int id);

  void sendLoop() { pumpLoop(sending); }
  void recvLoop();
  void pumpLoop(Pump& pump);
  void pausePump(const Pump& pump);
  void waitForWork(Pump& pump);
  bool owesLine(const Pump& pump) const;
  void tellDrops(Pump& pump);
  void pumpOnce(Pump& pump, std::unique_lock<std::mutex>& lock);
  void take(Pump& pump);
  void tellDelay(Pump& pump, bool unpacedNow);
  void passToListener(std::unique_lock<std::mutex>& lock);
  void passToHandlers(std::unique_lock<std::mutex>& lock);
  void letNotifierIn(std::unique_lock<std::mutex>& lock);

  void queueReceived(Batch& msgs, std::size_t first);
  void receive(Batch& msgs);
  std::size_t receiveHere(Batch& msgs);
  void send(std::string text);
  bool sendHere(const std::string& text);
  void offer(const std::string& text);
  void retryStalled();

  double rate(double BasicServerInterface::*field) const;
  bool unpaced(const Pump& pump) const { return !(rate(pump.rate) > 0); }
  bool waits(const Pump& pump) const { return mode != DeliveryMode::Polled || unpaced(pump); }
  std::string ownDelimiter() const;
  std::shared_ptr<const Handlers> handlers();
  void terminateHandlers() const;

  std::atomic<int> idCounter{0};
  std::map<int, std::shared_ptr<TcpServerHandler>> connections;  // connectionLock and mapLock
  std::shared_ptr<const Handlers> handlerList;  // mapLock; the same, or null: to be made anew
  std::vector<int> quitIds;                     // connectionLock
  std::mutex connectionLock;
  [[maybe_unused]] int reserved = 0;
  StopSignal quit;
  StopSignal monitorAsk;  // never asked to stop: the monitor works off the ends that a stop causes
  WakeSignal monitorSignal{monitorAsk};
  std::atomic<bool> accepting{false};  // until the accept thread lets no client in any more
  std::atomic<bool> anyQuitId{false};  // changed under connectionLock
  ListenSocket listening{quit};
  ValueSlot<ServerSafetyOptions> safety;
  std::atomic<DeliveryMode> mode{DeliveryMode::Polled};
  Pump sending;
  Pump receiving;
  CallbackSlot<void(bool)> connectionListener;
  CallbackSlot<void(const std::string&)> msgListener;
  std::thread acceptThread;  // lifecycleLock, as the three below
  std::thread sendThread;
  std::thread recvThread;
  std::thread monitorThread;
  std::atomic<bool> acceptEnded{false};
  std::atomic<bool> connected{false};
  std::mutex notifyLock;          // for those who want the locks of both pumps
  std::atomic<int> notifiers{0};  // how many there are

  std::string joined;                // the sending pump's lock: what a batch goes out as
  std::atomic<bool> stalled{false};  // a client did not take its texts at once
  std::atomic<double> retryMs{0};    // until it is tried again
  DropReport dropped;                // of stalled clients' texts

  std::mutex lifecycleLock;
  std::mutex optionsLock;  // held for moments only
  bool started = false;    // optionsLock; whether the options and the mode are fixed
  mutable std::mutex mapLock;
  mutable std::mutex selfLock;
  BasicServerInterface* self;  // selfLock; null once the server is gone
};

}  // namespace brix
