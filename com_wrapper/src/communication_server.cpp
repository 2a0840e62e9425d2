#include "communication_server.h"

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "atomic_access.h"
#include "broadcast_thread.h"
#include "callback_guard.h"
#include "callback_slot.h"
#include "data_queue.h"
#include "delivery_gate.h"
#include "log_macros.h"
#include "process_end.h"
#include "stop_signal.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr int kNoServerHandle = -1;
constexpr double kDefaultBroadcastMs = 10.0;

// Held by pointer: a call goes on when the function is replaced, and keeps what its captures count.
using RawDataFunc = std::function<std::string(const std::string&)>;
using ConnectionListener = std::function<void(bool)>;
template <typename Function>
using FunctionSlot = ValueSlot<std::shared_ptr<const Function>>;

}  // namespace

/// What the server shares with its broadcast thread and the transport's listeners: both may outlive
/// the server.
///
/// Lock order: the broadcast thread's; the transport's connection lock, then stateLock; the
/// transport's receive lock, then rawDataLock. The last two are never held together: inside one of
/// this server's callbacks neither is taken.
struct TCP_COM_HIDDEN CommunicationServer::State : std::enable_shared_from_this<State> {
  void setServerHandle(const std::shared_ptr<BasicServerInterface>& handle);
  void terminate();
  void release();
  void setSendRate(double rate);
  void startBroadcasting();
  void sendMsg(const std::string& msg);
  void recieveMsg(const std::string& msg);
  void connectionNotify(bool value);
  void broadcastLoop(StopSignal& run);
  void broadcastOnce(StopSignal& run);
  bool waitForAudience(StopSignal& run, std::unique_lock<std::mutex>& lock);
  void finishTransportWork();
  bool onBroadcastThread() const { return broadcastThread.isOwnThread(); }
  bool insideCallback() const { return ThreadMark::standsFor(this); }
  template <typename Function>
  void replace(std::mutex& runningCalls, FunctionSlot<Function>& slot, Function next);

  DataQueue<std::string> firstQueue;
  DataQueue<std::string> secondQueue;
  ValueSlot<std::shared_ptr<BasicServerInterface>> serverHandle;
  std::mutex rawDataLock;  // held while raw-data functions run
  FunctionSlot<RawDataFunc> rawDataFunc;
  FunctionSlot<ConnectionListener> connectionListener;
  std::atomic<bool> connected{false};  // changed under stateLock, and by terminate()
  CallbackSlot<std::string()> broadcastFunc;
  std::atomic<double> broadcastRate{kDefaultBroadcastMs};
  std::atomic<double> sendRate{0.0};
  std::atomic<double> recvRate{0.0};
  BroadcastThread broadcastThread;
  std::mutex stateLock;  // held while connection listeners and the broadcast function run
  CallbackSlot<void(const std::string&)> sentMsgObserver;
  log_time::TimerUnit timerUnit;

  // What the broadcast thread has to do for its function once that has returned.
  ValueSlot<std::shared_ptr<BasicServerInterface>> toTerminate;
  std::vector<std::shared_ptr<BasicServerInterface>> toRelease;  // broadcast thread only
  DeliveryGate gate;                                             // the transport's deliveries
};

CommunicationServer::CommunicationServer() : state_(std::make_shared<State>()) {}

CommunicationServer::~CommunicationServer() {
  noticeProcessEnd();
  state_->terminate();
  state_->release();
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature that applications know
void CommunicationServer::setServerHandle(std::shared_ptr<BasicServerInterface> handle) {
  state_->setServerHandle(handle);
}

// The transport may outlive this server: its listeners hold the state only while they run.
void CommunicationServer::State::setServerHandle(
    const std::shared_ptr<BasicServerInterface>& handle) {
  // Its destruction would join threads that may be waiting for the lock held here.
  if (onBroadcastThread()) toRelease.push_back(serverHandle.load());
  serverHandle = handle;
  if (!handle) return;
  const std::weak_ptr<State> weak = weak_from_this();
  handle->registerMsgListener([weak](const std::string& msg) {
    const auto state = weak.lock();
    if (!state) return;
    const DeliveryGate::Entry entry(state->gate);
    if (entry) state->recieveMsg(msg);
  });
  handle->registerConnectionListener([weak](bool value) {
    const auto state = weak.lock();
    if (!state) return;
    const DeliveryGate::Entry entry(state->gate);
    if (entry) state->connectionNotify(value);
  });
}

int CommunicationServer::initialize(int port) {
  const auto handle = state_->serverHandle.load();
  if (!handle) {
    BRIX_LOG_ERROR("server handle not set, cannot initialize...");
    return kNoServerHandle;
  }
  return handle->initialize(port);
}

void CommunicationServer::terminate() {
  const auto state = state_;
  state->terminate();
}

// Stop sequence: 1. quit signal, which ends the broadcast thread's waits; 2. stop the transport.
// The broadcast thread itself holds the state lock, for which the transport's threads may be
// waiting: it does 2 when its function has returned.
void CommunicationServer::State::terminate() {
  connected = false;
  broadcastThread.requestStop();
  const auto handle = serverHandle.load();
  if (!handle) return;
  if (onBroadcastThread()) {
    toTerminate = handle;
  } else {
    handle->terminateServer();
  }
}

// Inside a callback nobody can be waited for: the callback may hold a lock that they need.
void CommunicationServer::State::release() {
  const bool wait = !insideCallback();
  broadcastThread.close(false);  // a callback may have started it since terminate()
  gate.close(wait);
  if (wait) broadcastThread.close(true);
}

void CommunicationServer::setSendRate(double rate) {
  state_->setSendRate(rate);
}

void CommunicationServer::State::setSendRate(double rate) {
  const auto handle = serverHandle.load();
  if (!handle) {
    BRIX_LOG_ERROR("server handle not set, set send rate invalid...");
    sendRate = rate;
    return;
  }
  // Every broadcast is to find the sending pump at least twice a period.
  if (broadcastFunc && rate > broadcastRate) rate = broadcastRate * 0.5;
  handle->setSendRate(rate);
  sendRate = rate;
}

void CommunicationServer::setRecvRate(double rate) {
  if (const auto handle = state_->serverHandle.load()) {
    handle->setRecvRate(rate);
  } else {
    BRIX_LOG_ERROR("server handle not set, set recv rate invalid...");
  }
  state_->recvRate = rate;
}

void CommunicationServer::setBroadcastRate(double rate) {
  const double sendRate = state_->sendRate;
  if (sendRate > rate) {
    BRIX_LOG_ERROR("broadcast rate %f ms less than send rate %f ms, set invalid...", rate,
                   sendRate);
    return;
  }
  state_->broadcastRate = rate;
}

void CommunicationServer::registerBroadcastFunc(std::function<std::string()> func, double rate) {
  const auto state = state_;
  state->broadcastFunc = std::move(func);
  state->broadcastRate = rate;
  const auto handle = state->serverHandle.load();
  if (handle && atomicLoad(handle->sendRate) > rate) state->setSendRate(rate * 0.5);
  BRIX_LOG_INFO("register broadcast callback, broadcast rate %f ms", state->broadcastRate.load());
  state->startBroadcasting();
}

void CommunicationServer::State::startBroadcasting() {
  broadcastThread.start(
      [state = shared_from_this()](StopSignal& run) { state->broadcastLoop(run); },
      [] { return false; });
}

// From outside this returns when the function before is not running any more. Inside a callback the
// lock may be held by this very thread, or by one that waits for it.
template <typename Function>
void CommunicationServer::State::replace(std::mutex& runningCalls, FunctionSlot<Function>& slot,
                                         Function next) {
  std::unique_lock<std::mutex> lock(runningCalls, std::defer_lock);
  if (!insideCallback()) lock.lock();
  slot = std::make_shared<const Function>(std::move(next));
}

void CommunicationServer::registerRawDataBroadcastFunc(
    std::function<std::string(const std::string&)> func) {
  state_->replace(state_->rawDataLock, state_->rawDataFunc, RawDataFunc(std::move(func)));
}

void CommunicationServer::registerConnectionListener(std::function<void(bool)> listener) {
  state_->replace(state_->stateLock, state_->connectionListener,
                  ConnectionListener(std::move(listener)));
}

void CommunicationServer::registerSentMsgObserver(
    std::function<void(const std::string&)> observer) {
  state_->sentMsgObserver = std::move(observer);
  state_->broadcastThread.wake();
}

void CommunicationServer::sendMsg(const std::string& msg) {
  state_->sendMsg(msg);
}

void CommunicationServer::State::sendMsg(const std::string& msg) {
  if (msg.empty()) return;
  const auto handle = serverHandle.load();
  if (handle && connected) handle->sendMsg(msg);
  guarded("sent message observer exception: %s", [&] { sentMsgObserver(msg); });
  if (handle && onBroadcastThread()) toRelease.push_back(handle);  // it may be the last reference
}

void CommunicationServer::recieveMsgCallback(const std::string& msg) {
  const auto state = state_;
  state->recieveMsg(msg);
}

void CommunicationServer::State::recieveMsg(const std::string& msg) {
  std::lock_guard<std::mutex> lock(rawDataLock);
  const ThreadMark mark(this);
  const auto func = rawDataFunc.load();
  if (!func) return;
  const std::string reply = (*func)(msg);
  if (!reply.empty()) sendMsg(reply);
}

void CommunicationServer::connectionNotify(bool connected) {
  const auto state = state_;
  state->connectionNotify(connected);
}

void CommunicationServer::State::connectionNotify(bool value) {
  std::lock_guard<std::mutex> lock(stateLock);
  const ThreadMark mark(this);
  // Stored also when a listener throws: clients that are there are to be served.
  struct Store {
    State& state;
    bool value;
    ~Store() {
      state.connected = value;
      state.broadcastThread.wake();
    }
  } const store{*this, value};
  if (const auto listener = connectionListener.load()) (*listener)(value);
}

void CommunicationServer::broadcastAutomaticFunc() {
  const auto state = state_;
  state->broadcastThread.runHere([&](StopSignal& run) { state->broadcastLoop(run); },
                                 [] { return false; });
}

void CommunicationServer::State::broadcastLoop(StopSignal& run) {
  const ThreadMark mark(this);
  while (!run.requested()) {
    run.pauseMs(broadcastRate);
    guarded("broadcast function exception: %s", [&] { broadcastOnce(run); });
    finishTransportWork();
  }
  BRIX_LOG_INFO("broadcastAutomaticFunc quit...");
}

void CommunicationServer::State::broadcastOnce(StopSignal& run) {
  std::unique_lock<std::mutex> lock(stateLock);
  if (!waitForAudience(run, lock)) return;
  const std::string text = broadcastFunc();
  if (connected || sentMsgObserver) sendMsg(text);
}

/// @return false on a stop
bool CommunicationServer::State::waitForAudience(StopSignal& run,
                                                 std::unique_lock<std::mutex>& lock) {
  run.await(lock, [this] { return connected || sentMsgObserver; });
  return !run.requested();
}

void CommunicationServer::State::finishTransportWork() {
  const auto handle = toTerminate.load();
  toTerminate = nullptr;
  if (handle) handle->terminateServer();
  toRelease.clear();
}

}  // namespace brix
