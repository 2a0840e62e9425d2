// Connecting, disconnecting and the client's modes.

#include <utility>

#include "callback_guard.h"
#include "communication_client_state.h"
#include "log_macros.h"
#include "process_end.h"
#include "thread_end.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr int kConnected = 1;
constexpr int kFailed = -1;

/// Takes a lock; on the client's own threads it only tries.
std::unique_lock<std::recursive_mutex> lockUnlessOwn(std::recursive_mutex& mutex, bool ownThread) {
  if (ownThread) return std::unique_lock<std::recursive_mutex>(mutex, std::try_to_lock);
  return lockOrLeave(mutex);
}

}  // namespace

bool CommunicationClient::State::onOwnThread() const {
  return ThreadMark::standsFor(this);
}

BRIX_SEES_THREAD_END int CommunicationClient::State::connect(ThreadUnit& unit,
                                                             const std::string& ip, int port,
                                                             double timeout) {
  const auto handle = clientHandle.load();
  if (!handle) {
    BRIX_LOG_ERROR("you have set a client handle by setClientHandle before communication");
    return kFailed;
  }
  if (connected) {
    if (printFlag) BRIX_LOG_INFO("Already connect");
    return kConnected;
  }
  if (printFlag) BRIX_LOG_INFO("Try to connect ip %s, port %d", ip.c_str(), port);
  const auto lock = lockUnlessOwn(connectLock, onOwnThread());
  if (!lock || destroyed) {
    if (printFlag) BRIX_LOG_ERROR("another thread is connecting");
    return kFailed;
  }
  if (connected) {  // by the thread that held the lock
    if (printFlag) BRIX_LOG_INFO("Already connect");
    return kConnected;
  }
  try {
    return connectLocked(unit, handle, timeout);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {  // what was set or started stays as it was
    if (printFlag) BRIX_LOG_ERROR("catch exception");
    return kFailed;
  }
}

int CommunicationClient::State::connectLocked(ThreadUnit& unit,
                                              const std::shared_ptr<BasicClientInterface>& handle,
                                              double timeout) {
  loop->awaitEnding();  // a last cycle of the old connection must not read from the new one
  if (const auto options = safety.load()) handle->setSafetyOptions(*options);
  const int result = handle->connectServer(timeout);
  if (result != kConnected) return result;
  if (broadcastMode && !loop->start(unit)) {
    BRIX_LOG_ERROR("start thread failed");
    closeTransport(*handle);
    disConnect();
    return kFailed;
  }
  if (printFlag) BRIX_LOG_INFO("Connect server %s", "SUCCESSFUL");
  connected = false;
  retired.add(link.load());
  joinRetired();
  const auto own = announceLink(handle);
  if (!own) return kFailed;
  const bool started = startWorkers(own);
  if (link.load() != own) retired.add(own);  // the listener has connected anew meanwhile
  if (started) return kConnected;
  if (printFlag) BRIX_LOG_ERROR("catch exception");
  return kFailed;
}

// No disconnect comes between: the listener hears of the connection before it hears of its end.
/// @return null without memory, and if the client was destroyed while this thread was connecting;
///   whoever destroys it waits for this thread
std::shared_ptr<ClientLink> CommunicationClient::State::announceLink(
    const std::shared_ptr<BasicClientInterface>& handle) {
  const auto lock = lockUnlessOwn(connectMutex, onOwnThread());
  std::shared_ptr<ClientLink> own;
  if (!guarded("connect exception: %s", [&] { own = beginLink(handle); })) {
    closeTransport(*handle);
    return nullptr;
  }
  if (destroyed) {
    disConnect();
    return nullptr;
  }
  notify(true);
  return own;
}

// On an own thread or in a callback a worker that still runs may be waiting for this thread: a
// later call or the destructor joins it.
void CommunicationClient::State::joinRetired() {
  retired.join(onOwnThread());
}

// Silence counts from here, not from the last chunk of the connection before.
std::shared_ptr<ClientLink> CommunicationClient::State::beginLink(
    std::shared_ptr<BasicClientInterface> handle) {
  auto next = std::make_shared<ClientLink>(heartbeatMode, mode, std::move(handle),
                                           safety.load().value_or(ClientSafetyOptions()));
  log_time::timer_start(next->recvTimer);
  link = next;
  connected = true;
  return next;
}

bool CommunicationClient::State::startWorkers(const std::shared_ptr<ClientLink>& own) {
  return (!broadcastMode ||
          startWorker(own, own->broadcastThread, "broadcast thread", &State::broadcastLoop)) &&
         (!heartbeatMode ||
          startWorker(own, own->heartbeatThread, "heartbeat thread", &State::heartbeatLoop)) &&
         (!sendMode || startWorker(own, own->sendThread, "send thread", &State::sendLoop));
}

bool CommunicationClient::State::startWorker(const std::shared_ptr<ClientLink>& own,
                                             std::thread& worker, const char* name,
                                             void (State::*body)(ClientLink&)) {
  const auto state = shared_from_this();
  // The worker itself keeps its link alive.
  return ConnectionWorkers::start(own, worker, name,
                                  [state, link = own.get(), body] { ((*state).*body)(*link); });
}

void CommunicationClient::State::notify(bool value) {
  const ThreadMark insideCallback(this);
  connectionListener(value);
}

void CommunicationClient::State::closeTransport(BasicClientInterface& handle) {
  guarded("closeClient exception: %s", [&] { handle.closeClient(); });
}

// Stop sequence: 1. close the transport, which ends a blocked read or send; 2. end the receiving;
// 3. ask the workers to end, whose waits are interrupted; 4. connected false, from when on another
// thread may connect anew; 5. tell the listener; 6. drop what is queued. On the client's own
// threads 2 does not wait.
/// @return false if another thread is disconnecting, which this one must not wait for
bool CommunicationClient::State::disConnect() {
  const auto lock = lockUnlessOwn(connectMutex, onOwnThread());
  if (!lock) return false;
  const auto ended = link.load();
  if (connected) {
    closeTransport(*ended->handle);
    endReceiving();
    ended->stop.request();
    awaitSenders(*ended);
    connected = false;
    ended->quitFlag = false;
    guarded("connection listener exception: %s", [this] { notify(false); });
    if (printFlag) BRIX_LOG_INFO("CommunicationClient disconnected...");
  }
  if (ended) {
    ended->sendQueue.clear();
    ended->recvQueue.clear();
  }
  return true;
}

/// Disconnects, and waits for the workers where that may be. Needs no memory.
void CommunicationClient::State::endLink() {
  disConnect();
  const auto last = link.load();
  if (last) last->stop.request();
  if (onOwnThread() && !processEnds()) return;
  retired.join(false);
  if (last) last->joinAll();
}

// The client goes away. Inside a callback its threads cannot be waited for: they end by themselves
// on this state, and no listener is called any more. A callback on another thread may be connecting
// anew meanwhile, hence the second round.
void CommunicationClient::State::release() {
  noticeProcessEnd();
  destroyed = true;
  endLink();
  loop->stop();  // a cycle must not begin on a half-destroyed object
  endLink();
  changeListeners([this] {
    listeners.clear();
    msgListeners.clear();
  });
}

void CommunicationClient::State::setSendRate(double ms) {
  sendRate = ms;
  if (const auto own = link.load()) own->stop.wake();
}

void CommunicationClient::State::setRecvRate(double ms) {
  recvRate = ms;
  loop->setPeriod(ms);
  if (const auto own = link.load()) own->stop.wake();
}

void CommunicationClient::State::setSendMode(bool queued) {
  sendMode = queued;
  if (!queued) endWorker(&ClientLink::sendThread);
}

void CommunicationClient::State::setHeartbeatMode(bool beating) {
  heartbeatMode = beating;
  if (const auto own = link.load()) {  // the waits are as long as the watch allows
    own->stop.wake();
    own->handle->wakeReader();
  }
  if (!beating) endWorker(&ClientLink::heartbeatThread);
}

void CommunicationClient::State::setBroadcastMode(bool receiving) {
  broadcastMode = receiving;
  if (receiving) return;
  endWorker(&ClientLink::broadcastThread);
  endReceiving();
}

void CommunicationClient::State::endReceiving() {
  loop->requestStop();
  if (const auto own = link.load()) own->handle->wakeReader();
  if (!onOwnThread()) loop->stop();
}

// The worker's mode is off: it ends by itself as soon as it looks.
void CommunicationClient::State::endWorker(std::thread ClientLink::*worker) {
  const auto own = link.load();
  if (!own) return;
  own->stop.wake();
  if (!onOwnThread()) own->join((*own).*worker);
}

}  // namespace brix
