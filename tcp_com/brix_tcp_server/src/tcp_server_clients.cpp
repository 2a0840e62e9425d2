// The receiving threads of the command server.

#include <cstring>
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

}  // namespace

void TcpServer::State::serve(std::shared_ptr<Reservation> reservation) {
  Client& client = *reservation->client;
  BRIX_LOG_INFO("socket %d running...", client.socket.number());
  const Ending ending = receive(client);
  endClient(std::move(reservation), ending);
}

TcpServer::State::Ending TcpServer::State::receive(Client& client) {
  char chunk[kReadBytes + 1];
  while (!quit.requested()) {
    const ssize_t received = client.socket.recv(chunk, kReadBytes, 0);
    if (received < 0) return Ending::RecvError;
    if (received == 0) return Ending::PeerClosed;
    chunk[received] = '\0';
    const std::size_t size = std::strlen(chunk);  // what follows a NUL is ignored
    if (std::strcmp(chunk, "q") == 0 || std::strcmp(chunk, "Q") == 0) return Ending::QuitCommand;
    if (std::strcmp(chunk, "exit") == 0) return Ending::Exit;
    guarded("recieve exception: %s", [&] { takeChunk(chunk, size); });
  }
  return Ending::Quit;
}

void TcpServer::State::takeChunk(const char* text, std::size_t size) {
  std::vector<std::string> msgs;
  {
    std::lock_guard<std::mutex> lock(bufferLock);
    reassembly.feed(text, size, msgs, kDelimiter);
  }
  for (const std::string& msg : msgs) deliver(msg);
}

void TcpServer::State::deliver(const std::string& msg) {
  const auto called = listeners.load();
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
void TcpServer::State::endClient(std::shared_ptr<Reservation> reservation, Ending ending) {
  const std::shared_ptr<Client> client = reservation->client;
  const int number = client->socket.number();
  if (ending == Ending::PeerClosed) {
    BRIX_LOG_INFO("Received warning,recv function return 0 0.");
  } else if (ending == Ending::QuitCommand) {
    BRIX_LOG_INFO("recieve quit command");
  }
  client->socket.end();
  { std::lock_guard<std::mutex> registered(client->registering); }
  {
    std::lock_guard<std::mutex> lock(clientsLock);
    clients.erase(number);
  }
  BroadcastCore& broadcaster = BroadcastCore::started();
  broadcaster.detach(number, std::move(reservation));
  if (ending == Ending::RecvError) {
    BRIX_LOG_INFO("recieve error");
  } else if (ending == Ending::Exit) {
    quit.request();
    broadcaster.requestQuit();
  }
  const int remaining = connectionCount -= kCountedPerLeave;
  BRIX_LOG_INFO("socket %d quit, remain connection counts %d\n", number, remaining);
}

}  // namespace brix
