// The receiving threads of the command server.

#include <cstring>
#include <map>
#include <utility>

#include "broadcast_core.h"
#include "callback_guard.h"
#include "log_macros.h"
#include "message_framing.h"
#include "tcp_server_state.h"

namespace brix {
namespace {

constexpr std::size_t kReadBytes = 8192;
constexpr int kCountedPerLeave = 2;  // the limit of four loosens as clients come and go

/// The numbers that are reserved for clients of the process. Never destroyed, as their threads may
/// run until the process is gone.
struct ReservedNumbers {
  std::mutex lock;  // innermost
  std::map<int, std::weak_ptr<void>> clients;
};

ReservedNumbers& reservedNumbers() {
  static auto* const numbers = new ReservedNumbers;
  return *numbers;
}

}  // namespace

TcpServer::State::Reservation::Reservation(std::shared_ptr<Client> reserved)
    : client(std::move(reserved)),
      use(std::in_place, client->socket),
      removal{{client->socket.number(), nullptr}} {
  ReservedNumbers& numbers = reservedNumbers();
  std::lock_guard<std::mutex> guard(numbers.lock);
  numbers.clients[client->socket.number()] = client;
}

// The descriptor closes under the lock: who does not find the number here finds it closed.
TcpServer::State::Reservation::~Reservation() {
  ReservedNumbers& numbers = reservedNumbers();
  std::lock_guard<std::mutex> guard(numbers.lock);
  use.reset();
  numbers.clients.erase(client->socket.number());
}

std::shared_ptr<TcpServer::State::Client> TcpServer::State::findClient(int socket) {
  ReservedNumbers& numbers = reservedNumbers();
  std::lock_guard<std::mutex> guard(numbers.lock);
  const auto entry = numbers.clients.find(socket);
  if (entry == numbers.clients.end()) return nullptr;
  return std::static_pointer_cast<Client>(entry->second.lock());
}

void TcpServer::State::serve(std::shared_ptr<Reservation> reservation) {
  struct Leaver {  // a listener may end its thread with pthread_exit
    State& state;
    std::shared_ptr<Reservation> reservation;
    Ending ending = Ending::Quit;
    ~Leaver() { state.endClient(std::move(reservation), ending); }
  } leaver{*this, std::move(reservation)};
  Client& client = *leaver.reservation->client;
  BRIX_LOG_INFO("socket %d running...", client.socket.number());
  leaver.ending = receive(client);
}

TcpServer::State::Ending TcpServer::State::receive(Client& client) {
  // Replies reach registered clients only: a request that came earlier would stay without one.
  { std::lock_guard<std::mutex> registered(client.registering); }
  char chunk[kReadBytes + 1];
  while (!quit.requested()) {
    const ssize_t received = client.socket.recv(chunk, kReadBytes, 0);
    if (received < 0) return Ending::RecvError;
    if (received == 0) return Ending::PeerClosed;
    chunk[received] = '\0';
    const std::size_t size = std::strlen(chunk);  // what follows a NUL is ignored
    if (controlTexts) {
      if (std::strcmp(chunk, "q") == 0 || std::strcmp(chunk, "Q") == 0) return Ending::QuitCommand;
      if (std::strcmp(chunk, "exit") == 0) return Ending::Exit;
    }
    bool tooLong = false;
    guarded("recieve exception: %s", [&] { tooLong = takeChunk(client, chunk, size); });
    if (tooLong) return Ending::RecvError;
  }
  return Ending::Quit;
}

/// @return whether the unfinished message is too long
bool TcpServer::State::takeChunk(Client& client, const char* text, std::size_t size) {
  std::vector<std::string> msgs;
  const bool tooLong = cut(client, text, size, msgs);
  for (const std::string& msg : msgs) deliver(msg);
  return tooLong;
}

bool TcpServer::State::cut(Client& client, const char* text, std::size_t size,
                           std::vector<std::string>& msgs) {
  std::lock_guard<std::mutex> lock(bufferLock);
  MessageSplitter& buffer = perClientBuffer ? client.reassembly : reassembly;
  buffer.feed(text, size, msgs, kDelimiter);
  if (!exceeds(maxMessageBytes, buffer.buffer())) return false;
  buffer.clear();  // the others go on with an empty one
  return true;
}

void TcpServer::State::deliver(const std::string& msg) {
  const auto called = listeners.load();
  if (!called) return;
  for (iRecieveListener* const listener : *called) {
    if (listener == nullptr) continue;
    const DeliveryGate::Entry entry(gate);
    if (!entry) return;
    const ThreadMark mark(&gate);
    guarded("onReceive exception: %s", [&] { listener->onReceive(msg); });
  }
}

// The removal is asked for only after the accept thread is done with the registration, which it
// would otherwise undo.
void TcpServer::State::endClient(std::shared_ptr<Reservation> reservation, Ending ending) noexcept {
  const std::shared_ptr<Client> client = reservation->client;
  const int number = client->socket.number();
  if (ending == Ending::PeerClosed) {
    BRIX_LOG_INFO("Received warning,recv function return 0 0.");
  } else if (ending == Ending::QuitCommand) {
    BRIX_LOG_INFO("recieve quit command");
  }
  client->socket.end();
  { std::lock_guard<std::mutex> registered(client->registering); }
  BroadcastCore& broadcaster = BroadcastCore::started();
  std::list<BroadcastCore::Release> removal;
  removal.swap(reservation->removal);
  removal.front().reservation = std::move(reservation);
  broadcaster.detach(std::move(removal));
  if (ending == Ending::RecvError) {
    BRIX_LOG_INFO("recieve error");
  } else if (ending == Ending::Exit) {
    quit.request();
    broadcaster.requestQuit();
  }
  if (client->admitted) --clientCount;
  const int remaining = connectionCount -= kCountedPerLeave;
  BRIX_LOG_INFO("socket %d quit, remain connection counts %d\n", number, remaining);
}

}  // namespace brix
