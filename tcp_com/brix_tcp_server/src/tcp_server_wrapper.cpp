#include "tcp_server_wrapper.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "brix_json.h"
#include "broadcast_core.h"
#include "broadcast_thread.h"
#include "callback_guard.h"
#include "callback_slot.h"
#include "command_envelope.h"
#include "log_macros.h"
#include "message_framing.h"
#include "process_end.h"
#include "stop_signal.h"
#include "tcp_server.h"
#include "thread_end.h"
#include "thread_mark.h"

namespace brix {
namespace {

constexpr int kNoPort = -1;
constexpr int kDefaultBroadcastMs = 20;
constexpr int kObjectMode = 0;
constexpr int kTextMode = 2;
constexpr double kQuitPauseMs = 1000;
constexpr std::size_t kPieceBytes = std::size_t{1024} * 1024;
constexpr char kOneMapType[] = "Don't use more than one command handle map type";

/// Never changed, only replaced: receiving threads look into it without a lock.
template <typename Map>
using MapSlot = ValueSlot<std::shared_ptr<const Map>>;

/// Adds the entries whose names are new.
template <typename Map>
void addNew(MapSlot<Map>& slot, const Map& handlers) {
  auto next = std::make_shared<Map>(*slot.load());
  next->insert(handlers.begin(), handlers.end());
  slot = std::shared_ptr<const Map>(std::move(next));
}

std::string compact(const Json::Value& value) {
  return brix_json::toStrWithoutIndentation(value, brix_json::kPrecision);
}

std::string rejected(Json::Value& reply, const char* msg) {
  envelope::markRejected(reply, msg);
  return compact(reply);
}

/// A text nested too deep for the parser is none either.
Json::Value parseDocument(const std::string& text) {
  try {
    return brix_json::parseStr(text);
  } catch (const Json::Exception&) {
    return Json::Value();
  }
}

Json::Value answerHeartbeat(const Json::Value& request) {
  Json::Value reply(Json::objectValue);
  reply[envelope::kCommandKey] = request[envelope::kCommandKey].asString();
  reply[envelope::kMsgKey] = envelope::kMsgHeartbeat;
  return reply;
}

}  // namespace

/// What the wrapper shares with its broadcast thread, with the server's receiving threads while
/// they are inside it, and with the broadcaster's connection listener.
///
/// Lock order: stateLock, then whatever the broadcast function takes; the maps' writer lock alone.
struct TCP_COM_HIDDEN TcpServerWrapper::State : std::enable_shared_from_this<State> {
  void registerBroadcastFunc(std::function<Json::Value()> func, int rateMs);
  template <typename Map, typename Other>
  void addHandlers(MapSlot<Map>& slot, const Map& handlers, const MapSlot<Other>& others, int mode);
  void quitAll();
  void release();
  void awaitQuit();

  void answer(const std::string& msg);
  std::string handle(const std::string& msg);
  std::string dispatch(const std::string& command, const Json::Value& document,
                       const std::string& msg, Json::Value& reply);
  void connectionNotify(bool value);
  void broadcastLoop(StopSignal& run);
  void broadcastOnce(StopSignal& run);

  MapSlot<ObjectHandlerMap> objectHandlers{std::make_shared<const ObjectHandlerMap>(
      ObjectHandlerMap{{envelope::kHeartbeatCommand, answerHeartbeat}})};
  MapSlot<TextHandlerMap> textHandlers{std::make_shared<const TextHandlerMap>()};
  std::mutex writerLock;  // one change of the maps at a time
  std::atomic<int> handlerMode{kObjectMode};
  std::atomic<int> broadcastRate{kDefaultBroadcastMs};
  CallbackSlot<Json::Value()> broadcastFunc;
  const std::shared_ptr<TcpServer> server = std::make_shared<TcpServer>(kNoPort);
  BroadcastThread broadcastThread;
  std::mutex stateLock;  // held while the broadcast function runs
  std::atomic<bool> connected{false};
  StopSignal quit;  // the quit flag
};

TcpServerWrapper::TcpServerWrapper(int port) : state_(std::make_shared<State>()) {
  TcpServer& server = *state_->server;
  server.attachListener(this);
  const std::weak_ptr<State> weak = state_;  // the broadcaster outlives this object
  server.attachConnectionListener([weak](bool connected) {
    if (const auto state = weak.lock()) state->connectionNotify(connected);
  });
  if (port != kNoPort) server.createSocket(port);
}

TcpServerWrapper::~TcpServerWrapper() {
  const auto state = state_;
  state->release();
}

bool TcpServerWrapper::setSafetyOptions(const ServerSafetyOptions& options) {
  return state_->server->setSafetyOptions(options);
}

void TcpServerWrapper::init(int port) {
  state_->quit.reset();
  state_->server->createSocket(port);
}

void TcpServerWrapper::setHandleMap(ObjectHandlerMap& handlers) {
  state_->addHandlers(state_->objectHandlers, handlers, state_->textHandlers, kObjectMode);
}

void TcpServerWrapper::setHandleMap(TextHandlerMap& handlers) {
  state_->addHandlers(state_->textHandlers, handlers, state_->objectHandlers, kTextMode);
}

template <typename Map, typename Other>
void TcpServerWrapper::State::addHandlers(MapSlot<Map>& slot, const Map& handlers,
                                          const MapSlot<Other>& others, int mode) {
  std::lock_guard<std::mutex> lock(writerLock);
  if (!others.load()->empty()) throw std::string(kOneMapType);
  addNew(slot, handlers);
  handlerMode = mode;
}

void TcpServerWrapper::registerBroadcastFunc(std::function<Json::Value()> func, int rateMs) {
  watchProcessEnd();
  const auto state = state_;
  state->registerBroadcastFunc(std::move(func), rateMs);
}

void TcpServerWrapper::State::registerBroadcastFunc(std::function<Json::Value()> func, int rateMs) {
  broadcastFunc = std::move(func);
  broadcastRate = rateMs;
  BRIX_LOG_INFO("register tcp broadcast callback, broadcast rate %d ms", rateMs);
  broadcastThread.start(
      [state = shared_from_this()](StopSignal& run) { state->broadcastLoop(run); },
      [this] { return quit.requested(); });
}

void TcpServerWrapper::setBroadcastRate(int rateMs) {
  state_->broadcastRate = rateMs;
}

bool TcpServerWrapper::sendMsgs(const std::string& msg) {
  return state_->server->sendMsgs(msg);
}

void TcpServerWrapper::quit() {
  const auto state = state_;
  state->quitAll();
  StopSignal().pauseMs(kQuitPauseMs);
}

// Stop sequence: 1. quit flag, from when on the connection listener changes nothing; 2. wake the
// broadcast thread; 3. stop the accepting.
void TcpServerWrapper::State::quitAll() {
  connected = false;
  quit.request();
  broadcastThread.requestStop();
  server->quit();
}

// The wrapper goes away. Inside one of its callbacks nobody is waited for who may wait for that
// one.
void TcpServerWrapper::State::release() {
  noticeProcessEnd();
  const bool inside = ThreadMark::standsFor(this) || BroadcastCore::insideCallback();
  if (!inside) awaitQuit();
  connected = false;
  quit.request();
  broadcastThread.close(!inside || processEnds());
  server->release(!inside);
}

// Without a quit() the thread runs on, and the destructor waits for it; only at the end of the
// process nobody is left to call it.
void TcpServerWrapper::State::awaitQuit() {
  const auto run = broadcastThread.run();
  while (run && !run->requested() && !processEnds()) {
    run->pauseMs(kRetestMs, [] { return processEnds(); });
  }
}

int TcpServerWrapper::listeningPort() const {
  return state_->server->listeningPort();
}

bool TcpServerWrapper::waitUntilListening(double timeoutMs) const {
  const auto state = state_;
  return state->server->waitUntilListening(timeoutMs);
}

void TcpServerWrapper::onReceive(const std::string& msg) {
  const auto state = state_;  // a handler may destroy this object
  state->answer(msg);
}

void TcpServerWrapper::State::answer(const std::string& msg) {
  const ThreadMark mark(this);
  std::string rest = handle(msg);
  if (rest.empty()) return;
  rest += kDelimiter;
  const std::size_t size = rest.size() - (sizeof kDelimiter - 1);
  BroadcastCore& broadcaster = BroadcastCore::started();
  std::size_t begin = 0;
  for (; size - begin > kPieceBytes; begin += kPieceBytes) {
    broadcaster.push(rest.substr(begin, kPieceBytes));
  }
  broadcaster.push(rest.substr(begin));
}

std::string TcpServerWrapper::commandHandle(const std::string& msg) {
  const auto state = state_;
  return state->handle(msg);
}

BRIX_SEES_THREAD_END std::string TcpServerWrapper::State::handle(const std::string& msg) {
  Json::Value reply;
  const Json::Value document = parseDocument(msg);
  if (document.isNull()) return rejected(reply, envelope::kMsgParseError);
  try {
    if (!document.isMember(envelope::kCommandKey)) {
      return rejected(reply, envelope::kMsgParseError);
    }
    const std::string command = document[envelope::kCommandKey].asString();
    reply[envelope::kCommandKey] = command;
    return dispatch(command, document, msg, reply);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    reply[envelope::kCommandKey] = envelope::kUnknownCommand;
    return rejected(reply, envelope::kMsgParseError);
  }
}

std::string TcpServerWrapper::State::dispatch(const std::string& command,
                                              const Json::Value& document, const std::string& msg,
                                              Json::Value& reply) {
  if (handlerMode == kTextMode) {
    const auto handlers = textHandlers.load();
    const auto entry = handlers->find(command);
    if (entry == handlers->end()) return rejected(reply, envelope::kMsgNoHandler);
    std::string text;
    entry->second(msg, text);
    return text;
  }
  const auto handlers = objectHandlers.load();
  const auto entry = handlers->find(command);
  if (entry == handlers->end()) return rejected(reply, envelope::kMsgNoHandler);
  reply = entry->second(document);
  envelope::markHandled(reply);
  return compact(reply);
}

void TcpServerWrapper::tcpConnectionNotify(bool connected) {
  const auto state = state_;
  state->connectionNotify(connected);
}

// Not under the state lock: this thread holds up all servers of the process, and the broadcast
// function that runs under that lock may be stopping one of them.
void TcpServerWrapper::State::connectionNotify(bool value) {
  BRIX_LOG_INFO("tcp connection %b", value);
  if (quit.requested()) return;
  connected = value;
  broadcastThread.wake();
}

void TcpServerWrapper::broadcastAutomaticThreadFunc() {
  const auto state = state_;
  state->broadcastThread.runHere([&](StopSignal& run) { state->broadcastLoop(run); },
                                 [&] { return state->quit.requested(); });
}

void TcpServerWrapper::State::broadcastLoop(StopSignal& run) {
  const ThreadMark mark(this);
  while (!run.requested()) {
    run.pauseMs(broadcastRate);
    guarded("broadcast function exception: %s", [&] { broadcastOnce(run); });
  }
  BRIX_LOG_INFO("tcp quit...");
}

void TcpServerWrapper::State::broadcastOnce(StopSignal& run) {
  std::unique_lock<std::mutex> lock(stateLock);
  run.await(lock, [this] { return connected.load(); });
  const auto func = broadcastFunc.load();
  if (run.requested() || !func) return;
  BroadcastCore::started().push(compact((*func)()) + kDelimiter);
}

}  // namespace brix
