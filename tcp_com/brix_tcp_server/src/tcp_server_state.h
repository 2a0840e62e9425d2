#pragma once

#include <netinet/in.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "broadcast_core.h"
#include "callback_slot.h"
#include "delivery_gate.h"
#include "listen_socket.h"
#include "listener_list.h"
#include "message_splitter.h"
#include "socket_owner.h"
#include "stop_signal.h"
#include "tcp_server.h"
#include "thread_mark.h"

namespace brix {

/// What the server shares with its threads. The receiving threads are detached and outlive it.
///
/// Lock order: lifecycleLock; optionsLock; a client's registering; the broadcaster's listener lock;
/// then the innermost ones: bufferLock, the own locks of gate, slots, sockets and signals.
struct TCP_COM_HIDDEN TcpServer::State : std::enable_shared_from_this<State> {
  ~State();

  /// One connected client.
  struct Client {
    explicit Client(int fd) : socket(fd) {}
    SocketOwner socket;
    MessageSplitter reassembly;      // receiving thread only; where each client has its own
    std::atomic<bool> whole{false};  // whether a send that was cut short has failed
    bool admitted = false;           // registering; whether it is counted
    std::mutex registering;          // held by the accept thread until the client is registered
  };

  /// Keeps a client's number from being given out again, also after its end.
  struct Reservation {
    explicit Reservation(std::shared_ptr<Client> reserved);
    ~Reservation();
    const std::shared_ptr<Client> client;
    std::optional<SocketOwner::Use> use;
    std::list<BroadcastCore::Release> removal;  // made early: asking for it must not fail
  };

  /// @return the client of any server of the process whose number this is; null if it is none's
  static std::shared_ptr<Client> findClient(int socket);

  enum class Ending { RecvError, PeerClosed, QuitCommand, Exit, Quit };

  struct Accepting;

  void createSocket(int port);
  void stop();
  void release(bool mayBlock);
  void broadcastData(int socket, const std::string& data);

  void acceptLoop(int port);
  void acceptOne(int port);
  void admit(const std::shared_ptr<Reservation>& reservation, const sockaddr_in& peer);

  static std::shared_ptr<Reservation> adopt(int socket);
  void serve(std::shared_ptr<Reservation> reservation);
  Ending receive(Client& client);
  bool takeChunk(Client& client, const char* text, std::size_t size);
  bool cut(Client& client, const char* text, std::size_t size, std::vector<std::string>& msgs);
  void deliver(const std::string& msg);
  void endClient(std::shared_ptr<Reservation> reservation, Ending ending) noexcept;

  void applyOptions(const ServerSafetyOptions& options);

  bool onAcceptThread() const { return ThreadMark::standsFor(&acceptThread); }
  bool insideListener() const { return ThreadMark::standsFor(&gate); }

  StopSignal quit;
  ListenSocket listening{quit};
  std::atomic<int> connectionCount{0};
  MessageSplitter reassembly;  // bufferLock; one for all clients
  std::mutex bufferLock;
  std::thread acceptThread;  // lifecycleLock
  ListenerList listeners;

  std::atomic<int> clientCount{0};  // as it is
  std::atomic<int> maxClients{0};   // safety options, as the following
  std::atomic<std::size_t> maxMessageBytes{0};
  std::atomic<bool> cutStalled{false};
  std::atomic<bool> controlTexts{true};
  std::atomic<bool> perClientBuffer{false};

  std::mutex lifecycleLock;
  std::mutex optionsLock;              // held for moments only
  bool started = false;                // optionsLock; whether the options are fixed
  std::atomic<bool> accepting{false};  // until the accept thread has ended
  DeliveryGate gate;
};

}  // namespace brix
