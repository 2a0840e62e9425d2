#include "communication_client.h"

#include <algorithm>
#include <utility>

#include "atomic_access.h"
#include "communication_client_state.h"
#include "log_macros.h"

namespace brix {
namespace {

constexpr char kUnitName[] = "com_client";
constexpr double kFirstPeriodMs = 50.0;  // replaced by the receive rate before anything starts
constexpr int kPaletteColor = 256;

}  // namespace

CommunicationClient::CommunicationClient()
    : ThreadUnit(kUnitName, kFirstPeriodMs), state_(std::make_shared<State>(loop())) {
  loop()->setCycleOf(state_);
  setPeriod(state_->recvRate);
}

CommunicationClient::~CommunicationClient() {
  const auto state = state_;
  if (state->printFlag) BRIX_LOG_INFO("CommunicationClient destory.");
  state->release();
}

void CommunicationClient::setClientHandle(std::shared_ptr<BasicClientInterface> handle) {
  state_->clientHandle = std::move(handle);
}

void CommunicationClient::setSafetyOptions(const ClientSafetyOptions& options) {
  state_->safety = options;
}

void CommunicationClient::setDeliveryMode(DeliveryMode mode) {
  state_->mode = mode;
}

void CommunicationClient::setPrintFlag(bool print) {
  state_->printFlag = print;
  if (const auto handle = state_->clientHandle.load()) atomicStore(handle->logFlag, print);
}

void CommunicationClient::setSendRate(double rate) {
  BRIX_LOG_INFO("%Cset send rate %f", kPaletteColor, rate);
  state_->setSendRate(rate);
}

void CommunicationClient::setRecvRate(double rate) {
  BRIX_LOG_INFO("%Cset recv rate %f", kPaletteColor, rate);
  state_->setRecvRate(rate);
}

void CommunicationClient::setSendMode(bool queued) {
  state_->setSendMode(queued);
}

void CommunicationClient::setBroadcastMode(bool receiving) {
  const auto state = state_;
  state->setBroadcastMode(receiving);
}

void CommunicationClient::setHeartbeatMode(bool beating) {
  state_->setHeartbeatMode(beating);
}

void CommunicationClient::attachListener(iRecieveListener* listener) {
  const auto state = state_;
  state->changeListeners([&] { state->listeners.push_back(listener); });
}

void CommunicationClient::releaseListener(iRecieveListener* listener) {
  const auto state = state_;
  state->changeListeners([&] {
    auto& listeners = state->listeners;
    const auto found = std::find(listeners.begin(), listeners.end(), listener);
    if (found != listeners.end()) listeners.erase(found);
  });
}

void CommunicationClient::registerMsgListener(std::function<void(const std::string&)> listener) {
  const auto state = state_;
  using Function = std::function<void(const std::string&)>;
  auto function = std::make_shared<const Function>(std::move(listener));
  state->changeListeners([&] { state->msgListeners.push_back(std::move(function)); });
}

void CommunicationClient::registerConnectionListener(std::function<void(bool)> listener) {
  state_->connectionListener = std::move(listener);
}

int CommunicationClient::connect(const std::string& ip, int port, double timeout) {
  const auto state = state_;
  return state->connect(*this, ip, port, timeout);
}

bool CommunicationClient::isConnected() {
  return state_->connected;
}

void CommunicationClient::disConnect() {
  const auto state = state_;
  state->disConnect();
}

int CommunicationClient::sendMsg(const std::string& msg) {
  return state_->send(msg);
}

int CommunicationClient::sendMsg(const char* data, int len) {
  return state_->sendBytes(data, len);
}

int CommunicationClient::sendRequest(const Json::Value& request) {
  return state_->sendRequest(request);
}

// A cycle may destroy this object: the state goes on.
void CommunicationClient::threadCycle() {
  const auto state = state_;
  state->cycle();
}

void CommunicationClient::broadcastDataFunc() {
  const auto state = state_;
  if (const auto link = state->currentLink()) state->broadcastLoop(*link);
}

void CommunicationClient::sendRequestFunc() {
  const auto state = state_;
  if (const auto link = state->currentLink()) state->sendLoop(*link);
}

void CommunicationClient::sendHeartbeatFunc() {
  const auto state = state_;
  if (const auto link = state->currentLink()) state->heartbeatLoop(*link);
}

}  // namespace brix
