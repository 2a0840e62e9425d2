/// @file
/// The socket layer of the command server.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "recieve_listener.h"
#include "safety_options.h"
#include "tcp_com_export.h"

namespace brix {

/// Listens on one port, accepts up to four clients at a time, and hands every message of every
/// client to every listener. Texts to the clients go through the process's TcpServerBroadcaster,
/// to all of them.
///
/// Deliberately odd:
/// - The count of connections rises by one for a client that comes and falls by two for one that
///   goes: the limit of four loosens with time.
/// - All clients' bytes go through one reassembly buffer: messages that two clients send in pieces
///   at the same time may mix. The receiving side takes a chunk only up to its first NUL.
/// - A chunk that is exactly "q" or "Q" ends its client; one that is exactly "exit" ends its
///   client, lets this server stop with the next client, and ends the process's sender for good.
/// - A stop leaves the clients connected: each ends after its next chunk.
///
/// Called from: any thread; attach listeners before clients connect. Calls back on
/// - one thread a client, without a lock, several at once: the listeners;
/// - the accept thread and the broadcaster's sender thread, under the broadcaster's listener lock:
///   the connection listener.
/// A callback may call every operation and may destroy the server: on the server's own threads a
/// stop is only asked for. What a listener throws is logged, and its client goes on.
class TCP_COM_API TcpServer {
 public:
  /// @param port  -1: opens nothing; otherwise as createSocket
  explicit TcpServer(int port);

  /// Waits for the accept thread, so on a server that was not told to quit() it blocks until
  /// another thread does, on purpose; only at the end of the process it quits by itself. Then waits
  /// for the listeners that run, apart from the one that calls this, at the end of the process for
  /// one second at most; on the server's own threads and inside the connection listener for
  /// nothing else. The clients stay connected until they send or leave; nothing of this server
  /// is called for them any more.
  ~TcpServer();

  TcpServer(const TcpServer&) = delete;
  TcpServer& operator=(const TcpServer&) = delete;

  /// Sets limits and checks; to be called before createSocket(). The limit of queued bytes is that
  /// of the process's broadcaster: the last one set holds.
  /// @return false, with a log line and nothing changed, after the start, for a negative number,
  ///   and if allowedPeers cannot be read
  bool setSafetyOptions(const ServerSafetyOptions& options);

  /// Starts the accept thread. Must not be called again before quit(), not even if the port could
  /// not be opened: it is refused with a log line. After quit() it opens the port and closes it
  /// again at once, on purpose.
  /// @param port  0 lets the kernel choose one. A port that cannot be opened shows in the log and
  ///   in waitUntilListening().
  void createSocket(int port);

  /// Appends a listener, which is not owned; null is skipped, a duplicate is called twice. There is
  /// no removal.
  void attachListener(iRecieveListener* listener);

  /// Makes the function the broadcaster's connection listener, in the place of any other of the
  /// process.
  void attachConnectionListener(std::function<void(bool)> listener);

  /// Queues a text, as it stands, for all clients of the process.
  /// @return false if no client is registered; the text is then dropped
  bool sendMsgs(const std::string& msg);

  /// Sends with one call; a partial send is not continued. A failure ends the connection and is
  /// logged. Blocks while the peer does not read; never raises SIGPIPE.
  void broadcastData(int socket, const std::string& data);

  /// Stops accepting and waits for the accept thread, at most about 100 ms plus what a running
  /// connection listener takes. Clients stay connected. May be called again.
  void quit();

  /// @return the port that the server listens on; 0 while it does not
  int listeningPort() const;

  /// Waits until the server listens.
  /// @return false when it cannot open its port, was stopped, or the time is over
  bool waitUntilListening(double timeoutMs) const;

  /// @name Bodies of the server's threads
  /// @{
  void waitForConnection(int port);
  /// Takes the connected descriptor over and closes it.
  void tcpCommunication(int socket);
  /// @}

 private:
  friend class TcpServerWrapper;
  void release(bool mayBlock);

  struct State;
  std::shared_ptr<State> state_;  // shared with the threads and the registered send functions
};

}  // namespace brix
