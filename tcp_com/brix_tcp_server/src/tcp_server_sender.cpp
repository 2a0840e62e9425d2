#include "tcp_server_sender.h"

#include <utility>

#include "broadcast_core.h"
#include "callback_guard.h"
#include "lock_in_steps.h"
#include "log_macros.h"
#include "process_end.h"
#include "thread_mark.h"
#include "worker_thread.h"

using brix::BroadcastCore;

TcpServerBroadcaster& TcpServerBroadcaster::getInstance() {
  static TcpServerBroadcaster b;
  return b;
}

TcpServerBroadcaster::TcpServerBroadcaster() {
  BroadcastCore::instance().start();
}

TcpServerBroadcaster::~TcpServerBroadcaster() {
  BroadcastCore::instance().shutDown();
}

// Nothing below touches the object: it may be used after its destruction.

std::string TcpServerBroadcaster::attachListener(std::function<void(int, const std::string&)> fn,
                                                 int socket) {
  return BroadcastCore::instance().attach(std::move(fn), socket);
}

void TcpServerBroadcaster::detachListener(int socket) {
  BroadcastCore::instance().detach({{socket, nullptr}});
}

int TcpServerBroadcaster::pushMsg(const std::string& msg) {
  return BroadcastCore::instance().push(msg);
}

void TcpServerBroadcaster::setConnectionListener(std::function<void(bool)> listener) {
  BroadcastCore::instance().setConnectionListener(std::move(listener));
}

std::size_t TcpServerBroadcaster::listenerCount() {
  return BroadcastCore::instance().count();
}

void TcpServerBroadcaster::threadFunc() {
  BroadcastCore::instance().run();
}

namespace brix {
namespace {

constexpr double kCycleMs = 1.0;
constexpr int kQueued = 1;
constexpr int kNobodyRegistered = 0;

}  // namespace

BroadcastCore& BroadcastCore::instance() {
  static BroadcastCore* const core = new BroadcastCore;
  return *core;
}

BroadcastCore& BroadcastCore::started() {
  TcpServerBroadcaster::getInstance();
  BroadcastCore& core = instance();
  if (!core.senderStarted_) core.start();
  return core;
}

bool BroadcastCore::insideCallback() {
  const BroadcastCore& core = instance();
  return ThreadMark::standsFor(&core) || ThreadMark::standsFor(&core.connectionListener_);
}

void BroadcastCore::start() {
  std::lock_guard<std::mutex> lock(startLock_);
  if (senderStarted_ || processEnd_.requested()) return;
  senderStarted_ = startThread(senderThread_, "sender thread", [this] { run(); });
}

// The process ends. Stop sequence: 1. quit flag, which also ends the waiting for the listener lock;
// 2. let no send begin, and end the connection that the sender may be stuck in; 3. join. A listener
// that ends the process does so on one of the threads that hold the lock, or on the sender itself.
void BroadcastCore::shutDown() {
  announceProcessEnd();
  quit_.request();
  {
    std::lock_guard<std::mutex> lock(stuckLock_);
    processEnd_.request();
    if (sendsTo_ != nullptr) sendsTo_->end();
  }
  std::thread sender;
  {
    std::lock_guard<std::mutex> lock(startLock_);
    sender.swap(senderThread_);
  }
  if (ThreadMark::standsFor(this)) {
    detachIfJoinable(sender);
    return;
  }
  joinIfJoinable(sender);
  if (!listenerLock_.try_lock()) return;
  listenerMap_.clear();
  count_ = 0;
  listenerLock_.unlock();
}

std::string BroadcastCore::attach(SendFunc fn, int socket) {
  std::lock_guard<LogMutex> lock(listenerLock_);
  return insert(std::move(fn), socket);
}

void BroadcastCore::attachUnless(StopSignal& stop, SendFunc fn, int socket) {
  if (!lockInSteps(listenerLock_, stop)) return;
  std::lock_guard<LogMutex> lock(listenerLock_, std::adopt_lock);
  insert(std::move(fn), socket);
}

std::string BroadcastCore::insert(SendFunc fn, int socket) {
  std::string name = "tcp_" + std::to_string(socket) + "_" + std::to_string(attachCount_++);
  listenerMap_[socket] = std::move(fn);
  count_ = listenerMap_.size();
  BRIX_LOG_INFO("tcp sender attach listener, socket[%d], total count %d", socket,
                static_cast<int>(listenerMap_.size()));
  notify();
  return name;
}

void BroadcastCore::notify() {
  const ThreadMark mark(&connectionListener_);
  guarded("connection listener exception: %s",
          [this] { connectionListener_(!listenerMap_.empty()); });
}

void BroadcastCore::detach(std::list<Release> request) noexcept {
  std::lock_guard<LogMutex> lock(listenerLock_);
  if (senderEnded_) return;  // nobody removes it any more, and nobody sends to it
  releaseList_.splice(releaseList_.end(), request);
}

int BroadcastCore::push(const std::string& msg) {
  if (count_ == 0) return kNobodyRegistered;
  if (sending_) msgQueue_.push(msg);  // once the sender has ended a text could only pile up
  return kQueued;
}

void BroadcastCore::setConnectionListener(std::function<void(bool)> listener) {
  connectionListener_ = std::move(listener);
}

void BroadcastCore::run() {
  struct Leaver {  // a listener may end its thread with pthread_exit
    BroadcastCore& core;
    ~Leaver() { core.quit_.requested() ? core.ended() : core.lost(); }
  } const leaver{*this};
  const ThreadMark mark(this);
  BRIX_LOG_INFO("sender thread on...");
  while (!quit_.requested()) {
    quit_.pauseMs(kCycleMs);
    cycle();
  }
  BRIX_LOG_INFO("seneder quit...");
}

// What is removed is destroyed when the lock is free: it may hold whatever the application put into
// its functions.
void BroadcastCore::cycle() {
  std::list<Release> released;
  std::vector<SendFunc> removed;
  if (!lockInSteps(listenerLock_, quit_)) return;
  std::lock_guard<LogMutex> lock(listenerLock_, std::adopt_lock);
  removeReleased(released, removed);
  msgQueue_.report();
  if (!msgQueue_.empty()) sendOne();
}

void BroadcastCore::removeReleased(std::list<Release>& released, std::vector<SendFunc>& removed) {
  released.swap(releaseList_);
  for (const Release& release : released) {
    const auto entry = listenerMap_.find(release.socket);
    if (entry != listenerMap_.end()) {
      guarded("sender thread exception: %s", [&] { removed.push_back(std::move(entry->second)); });
      listenerMap_.erase(entry);
      count_ = listenerMap_.size();
      BRIX_LOG_INFO("pop robot state listener %d", release.socket);
    }
    BRIX_LOG_INFO("socket[%d]quit, remain listener count %d", release.socket,
                  static_cast<int>(listenerMap_.size()));
    notify();
  }
}

void BroadcastCore::sendOne() {
  const std::string msg = msgQueue_.pop();
  for (const auto& [socket, registered] : listenerMap_) {
    guarded("send function exception: %s", [&, number = socket, &send = registered] {
      const SendFunc fn = send;
      fn(number, msg);
    });
  }
}

// The sender was ended by a callback: who needs it next starts another one.
void BroadcastCore::lost() {
  std::lock_guard<std::mutex> lock(startLock_);
  if (!isOwnThread(senderThread_)) return;
  senderThread_.detach();
  senderStarted_ = false;
}

// Numbers that wait for their removal are given back: no text can reach them any more.
void BroadcastCore::ended() {
  std::list<Release> released;
  sending_ = false;
  if (!lockInSteps(listenerLock_, processEnd_)) return;
  std::lock_guard<LogMutex> lock(listenerLock_, std::adopt_lock);
  senderEnded_ = true;
  released.swap(releaseList_);
  msgQueue_.clear();
}

bool BroadcastCore::enterSend(SocketOwner& socket) {
  std::lock_guard<std::mutex> lock(stuckLock_);
  if (processEnd_.requested()) return false;
  sendsTo_ = &socket;
  return true;
}

void BroadcastCore::leaveSend() {
  std::lock_guard<std::mutex> lock(stuckLock_);
  sendsTo_ = nullptr;
}

BroadcastCore::Sending::Sending(SocketOwner& socket)
    : onSender_(ThreadMark::standsFor(&instance())),
      allowed_(!onSender_ || instance().enterSend(socket)) {}

BroadcastCore::Sending::~Sending() {
  if (onSender_ && allowed_) instance().leaveSend();
}

}  // namespace brix
