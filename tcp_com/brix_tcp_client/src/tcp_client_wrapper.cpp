#include "tcp_client_wrapper.h"

#include <utility>

#include "callback_guard.h"
#include "log_macros.h"
#include "process_end.h"
#include "tcp_client_wrapper_state.h"

namespace brix {
namespace {

constexpr char kUnitName[] = "tcp_com";
constexpr double kFirstPeriodMs = 50.0;
constexpr double kPeriodMs = 1.0;
constexpr double kReconnectPauseMs = 3000;
constexpr double kConnectTimeoutS = 2.0;
constexpr int kConnected = 1;
constexpr int kNotConnected = -1;

void logBanner() {
  BRIX_LOG_INFO("*****************************************");
  BRIX_LOG_INFO("*****************************************");
  BRIX_LOG_INFO("*************   Enjoy ^-^    ************");
  BRIX_LOG_INFO("*****************************************");
  BRIX_LOG_INFO("*****************************************");
  BRIX_LOG_INFO("");
  BRIX_LOG_INFO("");
}

}  // namespace

TcpClientWrapper::TcpClientWrapper()
    : ThreadUnit(kUnitName, kFirstPeriodMs), state_(std::make_shared<State>(loop())) {
  loop()->setCycleOf(state_);
  setPeriod(kPeriodMs);
  start();
}

TcpClientWrapper::~TcpClientWrapper() {
  state_->release();
}

void TcpClientWrapper::setSafetyOptions(const ClientSafetyOptions& options) {
  state_->safety = options;
}

int TcpClientWrapper::connectSocket(const std::string& ip, int port) {
  const auto state = state_;
  return state->connect(*this, ip, port);
}

bool TcpClientWrapper::send(const std::string& /*name*/, const std::string& msg,
                            double /*timeout*/) {
  return state_->send(msg);
}

void TcpClientWrapper::attachListener(iRecieveListener* l) {
  state_->attachListener(l);
}

bool TcpClientWrapper::isConnected() {
  return state_->connected();
}

void TcpClientWrapper::disConnected() {
  const auto state = state_;
  state->disconnect();
}

void TcpClientWrapper::threadCycle() {
  const auto state = state_;
  state->cycle();
}

void TcpClientWrapper::broadcastData() {
  const auto state = state_;
  state->broadcastLoop(*state->linkOrEnded());
}

void TcpClientWrapper::sendHeartbeatFunc() {
  const auto state = state_;
  state->heartbeatLoop(*state->linkOrEnded());
}

void TcpClientWrapper::sendRequestFunc() {
  const auto state = state_;
  state->requestLoop(*state->linkOrEnded());
}

void TcpClientWrapper::State::attachListener(iRecieveListener* listener) {
  const int count = listeners.append(listener);
  BRIX_LOG_INFO("TcpClientWrapper attach listener, current listener number %d", count);
}

int TcpClientWrapper::State::connect(ThreadUnit& unit, const std::string& ip, int port) {
  std::unique_lock<std::recursive_mutex> lock(connectLock, std::defer_lock);
  if (!onOwnThread()) {
    lock.lock();
  } else if (!lock.try_lock()) {
    BRIX_LOG_ERROR("another thread is connecting");
    return kNotConnected;
  }
  if (connected()) {
    disconnect();
    destroyed.pauseMs(kReconnectPauseMs);  // the server is given time to see the end
  }
  int result = kNotConnected;
  guarded("connectSocket exception: %s", [&] { result = connectLocked(unit, ip, port); });
  return result;
}

int TcpClientWrapper::State::connectLocked(ThreadUnit& unit, const std::string& ip, int port) {
  const ClientSafetyOptions options = safety.load();
  const auto client = std::make_shared<TcpClient>(ip, port);
  client->setSafetyOptions(options);
  const int result =
      destroyed.requested() ? kNotConnected : client->connectServer(kConnectTimeoutS);
  if (result != kConnected) {
    getLogInstance()->err(__FILE__, __LINE__, ERR_COMMUNICATION,
                          "TCP connected failed, ip %s, port %d", ip.c_str(), port);
    return kNotConnected;
  }
  if (options.dropStaleOnReconnect) requestQueue.clear();
  std::shared_ptr<WrapperLink> own;
  const bool begun =
      guarded("connectSocket exception: %s", [&] { own = beginLink(client, options, result); });
  if (!begun) {
    client->closeClient();
    return kNotConnected;
  }
  BRIX_LOG_INFO("Tcp connect socket [%s : %d] success, handle id %d", ip.c_str(), port, result);
  logBanner();
  bool started = false;
  guarded("connectSocket exception: %s", [&] { started = startThreads(unit, own); });
  if (started) return result;
  endLink(*own);
  return kNotConnected;
}

// The workers of the connection before ended with it, on its own signal: joining them is short.
bool TcpClientWrapper::State::startThreads(ThreadUnit& unit,
                                           const std::shared_ptr<WrapperLink>& own) {
  const bool receiving = loop->start(unit);
  retired.join(onOwnThread());
  return receiving &&
         startWorker(own, own->broadcastThread, "broadcast thread", &State::broadcastLoop) &&
         startWorker(own, own->heartbeatThread, "heartbeat thread", &State::heartbeatLoop) &&
         startWorker(own, own->sendThread, "request thread", &State::requestLoop);
}

bool TcpClientWrapper::State::startWorker(const std::shared_ptr<WrapperLink>& own,
                                          std::thread& worker, const char* name,
                                          void (State::*body)(WrapperLink&)) {
  const auto state = shared_from_this();
  return ConnectionWorkers::start(own, worker, name,
                                  [state, link = own.get(), body] { ((*state).*body)(*link); });
}

std::shared_ptr<WrapperLink> TcpClientWrapper::State::beginLink(std::shared_ptr<TcpClient> client,
                                                                const ClientSafetyOptions& options,
                                                                int result) {
  auto next = std::make_shared<WrapperLink>(std::move(client), options);
  std::lock_guard<std::mutex> lock(linkLock);
  retired.add(link.load());
  link = next;
  handle = result;
  if (destroyed.requested()) next->stop.request();
  return next;
}

// Another thread may have connected anew meanwhile: only the connection that ended falls.
void TcpClientWrapper::State::endLink(WrapperLink& ended) {
  std::lock_guard<std::mutex> lock(linkLock);
  ended.client->closeClient();
  ended.stop.request();
  if (link.load().get() == &ended) handle = kNotConnected;
}

std::shared_ptr<WrapperLink> TcpClientWrapper::State::linkOrEnded() const {
  if (auto current = link.load()) return current;
  auto ended = std::make_shared<WrapperLink>(nullptr, ClientSafetyOptions());
  ended->stop.request();
  return ended;
}

void TcpClientWrapper::State::disconnect() {
  if (!connected()) return;
  const auto current = link.load();
  endLink(*current);
}

// Stop sequence: 1. close the transport, which ends a blocked read or send, and the connection's
// stop signal, which ends the pauses; 2. join the workers; 3. stop the unit's thread. Inside a
// listener the workers are only asked; they end on this state.
void TcpClientWrapper::State::release() {
  noticeProcessEnd();
  destroyed.request();
  disconnect();
  const bool own = onOwnThread();
  std::unique_lock<std::recursive_mutex> lock;
  if (!own) lock = lockOrLeave(connectLock);  // a listener may be connecting
  disconnect();
  retired.add(link.load());
  retired.join(own && !processEnds());
  loop->stop();  // a cycle must not begin on a half-destroyed object
  listeners.clear();
}

bool TcpClientWrapper::State::send(const std::string& msg) {
  if (!connected()) return false;
  requestQueue.push(msg);
  return true;
}

}  // namespace brix
