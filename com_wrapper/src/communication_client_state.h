#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "callback_slot.h"
#include "communication_client.h"
#include "connection_workers.h"
#include "log_facade.h"
#include "message_splitter.h"
#include "swap_queue.h"
#include "thread_loop.h"
#include "wake_signal.h"

namespace brix {

/// Time since the last start(), which any thread may call.
class StopWatch {
 public:
  void start() noexcept { started_ = Clock::now().time_since_epoch().count(); }
  double elapsedMs() const noexcept {
    const Clock::duration elapsed(Clock::now().time_since_epoch().count() - started_);
    return std::chrono::duration<double, std::milli>(elapsed).count();
  }

 private:
  using Clock = std::chrono::steady_clock;
  std::atomic<Clock::rep> started_{Clock::now().time_since_epoch().count()};
};

/// What belongs to one connection: a new one never meets the texts, the silence or the watchdog of
/// the one before.
struct ClientLink : ConnectionWorkers {
  ClientLink(bool heartbeatMode, DeliveryMode delivery,
             std::shared_ptr<BasicClientInterface> transport, const ClientSafetyOptions& options)
      : heartbeats(heartbeatMode),
        mode(delivery),
        handle(std::move(transport)),
        maxMessageBytes(options.maxMessageBytes),
        givesUp(options.peerTimeoutMs > 0),
        dropTail(options.dropStaleOnReconnect) {}

  WakeSignal sendSignal{stop};  // a text was queued
  WakeSignal recvSignal{stop};
  const bool heartbeats;  // whether it was begun in heartbeat mode
  const DeliveryMode mode;
  const std::shared_ptr<BasicClientInterface> handle;  // the transport that was connected
  const std::size_t maxMessageBytes;
  const bool givesUp;  // a link that has ended is left at once, without a watchdog
  bool dropTail;  // receive cycle only: the tail of the connection before is still to be dropped
  SwapQueue sendQueue;
  SwapQueue recvQueue;
  log_time::TimerUnit recvTimer;  // receive cycle only, as the three below
  int warnCount = 1;
  std::string chunk;
  std::vector<std::string> msgs;
  std::vector<std::string> delivered;  // listenerMutex
  StopWatch sinceDelivery;
  std::atomic<bool> delivering{false};  // on the unit's thread
  std::mutex writeLock;                 // held while queued texts go out; guards the two below
  std::vector<std::string> outgoing;
  std::string unsent;  // the rest of a text that its sender has begun
  std::atomic<bool> hasUnsent{false};
  std::atomic<bool> quitFlag{false};  // set by the watchdog
};

/// What the client shares with its threads: a callback on one of them may destroy the client.
///
/// Lock order: connectLock (connect), connectMutex (disConnect), listenerMutex, a link's writeLock;
/// then the innermost ones, never held while another lock is taken or anything is called. On the
/// client's own threads and inside its callbacks connectLock and connectMutex are only tried,
/// because their holder may be waiting for that very thread.
class TCP_COM_HIDDEN CommunicationClient::State
    : public std::enable_shared_from_this<CommunicationClient::State> {
 public:
  explicit State(std::shared_ptr<ThreadLoop> unitLoop) : loop(std::move(unitLoop)) {}

  int connect(ThreadUnit& unit, const std::string& ip, int port, double timeout);
  bool disConnect();
  void release();
  int send(const std::string& msg);
  int sendBytes(const char* data, int len);
  int sendRequest(const Json::Value& request);
  void setSendRate(double ms);
  void setRecvRate(double ms);
  void setSendMode(bool queued);
  void setBroadcastMode(bool receiving);
  void setHeartbeatMode(bool beating);
  void changeListeners(const std::function<void()>& change);

  void cycle();
  void broadcastLoop(ClientLink& own);
  void sendLoop(ClientLink& own);
  void heartbeatLoop(ClientLink& own);

  std::shared_ptr<ClientLink> currentLink() const { return link.load(); }

  ValueSlot<std::shared_ptr<BasicClientInterface>> clientHandle;
  ValueSlot<std::optional<ClientSafetyOptions>> safety;
  std::atomic<DeliveryMode> mode{DeliveryMode::Polled};  // of the next connection
  std::atomic<double> sendRate{0.5};
  std::atomic<double> recvRate{0.5};
  std::atomic<bool> connected{false};
  std::atomic<bool> heartbeatMode{true};
  const double recvTimeout = 3000.0;

  // listenerMutex; held by pointer, because a callback may append to its own list
  std::vector<iRecieveListener*> listeners;
  std::vector<std::shared_ptr<const std::function<void(const std::string&)>>> msgListeners;
  std::mutex listenerMutex;

  MessageSplitter recvBuffer;  // receive cycle only
  ValueSlot<std::string> heartbeatMsg;
  log_time::TimerUnit spareTimer;
  const double warnInterval = 1000.0;
  std::recursive_mutex connectMutex;
  std::atomic<bool> sendMode{true};
  std::atomic<bool> broadcastMode{true};
  std::atomic<bool> printFlag{true};
  CallbackSlot<void(bool)> connectionListener;

 private:
  bool onOwnThread() const;
  int connectLocked(ThreadUnit& unit, const std::shared_ptr<BasicClientInterface>& handle,
                    double timeout);
  std::shared_ptr<ClientLink> beginLink(std::shared_ptr<BasicClientInterface> handle);
  std::shared_ptr<ClientLink> announceLink(const std::shared_ptr<BasicClientInterface>& handle);
  void endLink();
  bool startWorkers(const std::shared_ptr<ClientLink>& own);
  bool startWorker(const std::shared_ptr<ClientLink>& own, std::thread& worker, const char* name,
                   void (State::*body)(ClientLink&));
  void endWorker(std::thread ClientLink::*worker);
  void endReceiving();
  void joinRetired();
  void notify(bool value);
  void closeTransport(BasicClientInterface& handle);
  void pauseIfUnpaced(double ms);
  template <typename Send>
  int handOver(const char* fmt, Send send);
  void handOverText(ClientLink& own, const std::string& msg);

  static bool unpaced(const std::atomic<double>& rate) { return !(rate > 0); }
  static bool waits(const ClientLink& own, const std::atomic<double>& rate) {
    return own.mode != DeliveryMode::Polled || unpaced(rate);
  }
  static bool direct(const ClientLink& own, const std::atomic<double>& rate) {
    return own.mode == DeliveryMode::Direct && unpaced(rate);
  }
  void pause(ClientLink& own, const std::atomic<double>& rate, const std::atomic<bool>& on);
  void awaitMessage(ClientLink& own);

  double readWaitMs(ClientLink& own) const;
  void warnOfSilence(ClientLink& own);
  bool beating(const ClientLink& own) const;
  void cutMessages(ClientLink& own, const std::string& delimiter);
  void handOverReceived(ClientLink& own);
  bool deliverHere(ClientLink& own);
  void reportUnfinished(const std::string& chunk) const;
  bool watchdogFires(ClientLink& own);
  void deliver(ClientLink& own);
  void deliverAll(ClientLink& own, const std::vector<std::string>& msgs);
  void deliverOne(const std::string& msg);
  void sendBatch(ClientLink& own);
  void finishText(ClientLink& own);
  void sendUnsent(ClientLink& own);
  bool sendHere(ClientLink& own, const std::string& text);
  void sendPast(ClientLink& own, const std::function<void()>& send);
  static void awaitSenders(ClientLink& own);

  const std::shared_ptr<ThreadLoop> loop;
  std::recursive_mutex connectLock;
  ValueSlot<std::shared_ptr<ClientLink>> link;
  RetiredWorkers retired;
  ClientLink* delivering = nullptr;  // listenerMutex: the link whose thread runs the listeners
  std::atomic<bool> destroyed{false};
};

}  // namespace brix
