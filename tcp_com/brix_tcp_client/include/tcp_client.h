/// @file
/// The client socket.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "basic_client_interface.h"

struct sockaddr_in;

namespace brix {

class SocketOwner;

/// One blocking IPv4 TCP connection. It adds no framing: bytes go out and come in as they are.
///
/// Called from: one thread may read while others send; `closeClient()` may be called at any time
/// and wakes a blocked reader or sender. It calls nothing back. No operation throws, apart from
/// memory exhaustion. Log lines are written only while `logFlag` is true, except those that say so.
class TCP_COM_API TcpClient : public BasicClientInterface {
 public:
  /// Opens nothing.
  /// @param ip  dotted IPv4 address. It is not checked: an address that does not parse stands for
  ///   0.0.0.0, this machine.
  /// @param port  1 to 65535; with another one connecting fails
  TcpClient(const std::string& ip, int port);

  /// Leaves a socket that is still open to the process, on purpose: the owner closes it first.
  ~TcpClient() override;

  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;

  /// Connects, waiting one second at most.
  ///
  /// A second call opens a second connection and leaves the first one's descriptor open, on
  /// purpose.
  /// @param timeout  accepted and ignored
  /// @return 1 when connected; -1 if the socket could not be made, the server did not accept in
  ///   time, the port is none, or the socket was connected to itself
  int connectServer(double timeout) override;

  /// Sends with one call; a partial send is not continued. A failure is logged and leaves the
  /// object without a socket, its descriptor abandoned, on purpose: the owner's reconnect sees it.
  void sendMsg(const std::string& msg) override;

  /// Sends with one call, its result ignored. A null pointer or a negative length sends nothing.
  void sendMsg(const char* data, int len) override;

  /// Shuts the connection down and closes it. The number stays in the object, on purpose.
  void closeClient() override;

  /// Blocks until bytes arrive; reads 2 MiB at most.
  /// @return the bytes, NUL bytes among them; empty at the stream's end, on an error, without
  /// socket
  std::string recieveMsg() override;

  /// Blocks until bytes arrive.
  /// @return bytes read, 0 at the stream's end or without socket, -1 on an error, a null pointer or
  ///   a negative length
  int recieveMsg(char* buf, int len) override;

  /// @return false if nothing could be read within `ms` milliseconds; true otherwise, also at the
  ///   stream's end and without socket, where reads return at once
  bool waitReadable(double ms) override;

  /// Waits 50 ms at least. Holds a descriptor for wakeReader() once `ms` has been more than that.
  bool recieveMsgWithin(double ms, std::string& chunk) override;

  void wakeReader() override;

  /// Bytes that a broken connection did not take are done with as well.
  std::size_t sendAtOnce(const char* data, std::size_t size) override;

  bool joinsTexts() const override;

  /// strictAddress, reclaimDescriptors and peerTimeoutMs are this class's. With the last one a send
  /// that is cut short has failed.
  void setSafetyOptions(const ClientSafetyOptions& options) override;

 private:
  int openSocket();
  bool connectSocket(int fd) const;
  bool logging() const;
  std::shared_ptr<SocketOwner> owner() const;
  void adopt(int fd);
  void lose(const std::shared_ptr<SocketOwner>& failed);
  void giveUp(SocketOwner& left);
  int sendFlags() const;
  bool cutShort(ssize_t sent, std::size_t size) const;
  bool readAddress(sockaddr_in& address) const;
  ssize_t recvLong(SocketOwner& socket, char* buffer, double ms);
  bool openWakeUp();

  std::string serverAddress_;
  int serverPort_;
  std::atomic<int> socket_{-1};  // -1: none. Keeps its number after closeClient().
  std::atomic<bool> strictAddress_{false};
  std::atomic<bool> reclaimDescriptors_{false};
  std::atomic<int> peerTimeoutMs_{0};
  std::atomic<int> wakeUp_{-1};  // an eventfd, opened by the first long wait
  std::atomic<bool> wakeAsked_{false};
  std::deque<std::string> receivedTexts_;
  std::string spareText_;

  mutable std::mutex ownerLock_;  // innermost
  std::shared_ptr<SocketOwner> owner_;
};

}  // namespace brix
