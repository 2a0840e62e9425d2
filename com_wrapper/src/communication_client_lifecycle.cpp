// Connecting, disconnecting and the client's modes.

#include <cxxabi.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "callback_guard.h"
#include "communication_client_state.h"
#include "log_macros.h"
#include "thread_mark.h"
#include "worker_thread.h"

namespace brix {
namespace {

constexpr int kConnected = 1;
constexpr int kFailed = -1;

/// Takes a lock; on the client's own threads it only tries.
std::unique_lock<std::recursive_mutex> lockUnlessOwn(std::recursive_mutex& mutex, bool ownThread) {
  if (ownThread) return std::unique_lock<std::recursive_mutex>(mutex, std::try_to_lock);
  return std::unique_lock<std::recursive_mutex>(mutex);
}

}  // namespace

ClientLink::~ClientLink() {
  // The last holder is either done with joining or the last of these threads itself.
  detachWorkers();
}

void ClientLink::joinWorkers() {
  joinWorker(broadcastThread);
  joinWorker(heartbeatThread);
  joinWorker(sendThread);
}

void ClientLink::joinWorker(std::thread& worker) {
  std::thread taken;
  {
    std::lock_guard<std::mutex> lock(workersLock);
    if (isOwnThread(worker)) return;
    taken.swap(worker);
  }
  joinIfJoinable(taken);
}

void ClientLink::detachWorkers() {
  std::lock_guard<std::mutex> lock(workersLock);
  for (std::thread* worker : {&broadcastThread, &heartbeatThread, &sendThread}) {
    detachIfJoinable(*worker);
  }
}

bool CommunicationClient::State::onOwnThread() const {
  return ThreadMark::standsFor(this);
}

int CommunicationClient::State::connect(ThreadUnit& unit, const std::string& ip, int port,
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
  const int result = handle->connectServer(timeout);
  if (result != kConnected) return result;
  if (broadcastMode && !loop->start(unit)) {
    BRIX_LOG_ERROR("start thread failed");
    closeTransport(handle);
    disConnect();
    return kFailed;
  }
  if (printFlag) BRIX_LOG_INFO("Connect server %s", "SUCCESSFUL");
  connected = false;
  retire(link.load());
  joinRetired();
  const auto own = announceLink(handle);
  if (!own) return kFailed;
  const bool started = startWorkers(own);
  if (link.load() != own) retire(own);  // the listener has connected anew meanwhile
  if (started) return kConnected;
  if (printFlag) BRIX_LOG_ERROR("catch exception");
  return kFailed;
}

// No disconnect comes between: the listener hears of the connection before it hears of its end.
/// @return null if the client was destroyed while this thread was connecting; whoever destroys it
///   waits for this thread
std::shared_ptr<ClientLink> CommunicationClient::State::announceLink(
    const std::shared_ptr<BasicClientInterface>& handle) {
  const auto lock = lockUnlessOwn(connectMutex, onOwnThread());
  auto own = beginLink(handle);
  if (destroyed) {
    disConnect();
    return nullptr;
  }
  notify(true);
  return own;
}

// The workers of a connection that is over have ended on its own signal, or are about to.
void CommunicationClient::State::retire(const std::shared_ptr<ClientLink>& old) {
  if (!old) return;
  old->stop.request();
  std::lock_guard<std::mutex> lock(retiredLock);
  retired.push_back(old);
}

// On an own thread or in a callback only links that have ended are joined: a worker that still runs
// may be waiting for this thread, and a later call or the destructor joins it.
void CommunicationClient::State::joinRetired() {
  std::vector<std::shared_ptr<ClientLink>> ended;
  {
    std::lock_guard<std::mutex> lock(retiredLock);
    ended.swap(retired);
    if (onOwnThread()) {
      const auto running = [](const auto& old) { return old->running != 0; };
      std::copy_if(ended.begin(), ended.end(), std::back_inserter(retired), running);
      ended.erase(std::remove_if(ended.begin(), ended.end(), running), ended.end());
    }
  }
  for (const auto& old : ended) old->joinWorkers();
}

// Silence counts from here, not from the last chunk of the connection before.
std::shared_ptr<ClientLink> CommunicationClient::State::beginLink(
    std::shared_ptr<BasicClientInterface> handle) {
  auto next = std::make_shared<ClientLink>(heartbeatMode, std::move(handle));
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
  struct Running {  // counts the worker until it has ended, however it ends
    explicit Running(std::shared_ptr<ClientLink> counted) : link(std::move(counted)) {
      ++link->running;
    }
    ~Running() { --link->running; }
    const std::shared_ptr<ClientLink> link;
  };
  const auto running = std::make_shared<Running>(own);
  std::thread started;
  const auto run = [state, running, body] { ((*state).*body)(*running->link); };
  if (!startThread(started, name, run)) return false;
  std::lock_guard<std::mutex> lock(own->workersLock);
  worker = std::move(started);
  return true;
}

void CommunicationClient::State::notify(bool value) {
  const ThreadMark insideCallback(this);
  connectionListener(value);
}

void CommunicationClient::State::closeTransport(
    const std::shared_ptr<BasicClientInterface>& handle) {
  if (handle) {
    guarded("closeClient exception: %s", [&] { handle->closeClient(); });
  }
}

// Stop sequence: 1. close the transport, which ends a blocked read or send; 2. end the receiving;
// 3. connected false, which ends the workers, whose pauses are interrupted; 4. tell the listener;
// 5. drop what is queued. On the client's own threads 2 does not wait.
/// @return false if another thread is disconnecting, which this one must not wait for
bool CommunicationClient::State::disConnect() {
  const bool own = onOwnThread();
  const auto lock = lockUnlessOwn(connectMutex, own);
  if (!lock) return false;
  const auto ended = link.load();
  if (connected) {
    closeTransport(ended->handle);
    if (own) {
      loop->requestStop();
    } else {
      loop->stop();
    }
    connected = false;
    ended->quitFlag = false;
    ended->stop.request();
    guarded("connection listener exception: %s", [this] { notify(false); });
    if (printFlag) BRIX_LOG_INFO("CommunicationClient disconnected...");
  }
  if (ended) {
    ended->sendQueue.takeAll();
    ended->recvQueue.takeAll();
  }
  return true;
}

/// Disconnects, and waits for the workers where that may be. Needs no memory.
void CommunicationClient::State::endLink() {
  disConnect();
  const auto last = link.load();
  if (last) last->stop.request();
  if (onOwnThread()) return;
  joinRetired();
  if (last) last->joinWorkers();
}

// The client goes away. Inside a callback its threads cannot be waited for: they end by themselves
// on this state, and no listener is called any more. A callback on another thread may be connecting
// anew meanwhile, hence the second round.
void CommunicationClient::State::release() {
  destroyed = true;
  endLink();
  loop->stop();  // a cycle must not begin on a half-destroyed object
  endLink();
  changeListeners([this] {
    listeners.clear();
    msgListeners.clear();
  });
}

void CommunicationClient::State::setSendMode(bool queued) {
  sendMode = queued;
  if (!queued) endWorker(&ClientLink::sendThread);
}

void CommunicationClient::State::setHeartbeatMode(bool beating) {
  heartbeatMode = beating;
  if (!beating) endWorker(&ClientLink::heartbeatThread);
}

void CommunicationClient::State::setBroadcastMode(bool receiving) {
  broadcastMode = receiving;
  if (receiving) return;
  endWorker(&ClientLink::broadcastThread);
  if (onOwnThread()) {
    loop->requestStop();
  } else {
    loop->stop();
  }
}

// The worker's mode is off: it ends by itself as soon as it looks.
void CommunicationClient::State::endWorker(std::thread ClientLink::*worker) {
  const auto own = link.load();
  if (!own) return;
  own->stop.wake();
  if (!onOwnThread()) own->joinWorker((*own).*worker);
}

}  // namespace brix
