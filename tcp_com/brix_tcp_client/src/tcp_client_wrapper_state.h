#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "callback_slot.h"
#include "connection_workers.h"
#include "data_queue.h"
#include "listener_list.h"
#include "message_splitter.h"
#include "stop_signal.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "thread_loop.h"
#include "thread_mark.h"

namespace brix {

/// One connection of the wrapper. It is over when its stop signal is set.
struct WrapperLink : ConnectionWorkers {
  WrapperLink(std::shared_ptr<TcpClient> transport, const ClientSafetyOptions& options)
      : client(std::move(transport)),
        maxMessageBytes(options.maxMessageBytes),
        givesUp(options.peerTimeoutMs > 0),
        dropTail(options.dropStaleOnReconnect) {}
  const std::shared_ptr<TcpClient> client;
  const std::size_t maxMessageBytes;
  const bool givesUp;  // a link that has ended is left at once, not when it has been silent
  bool dropTail;  // receive step only: the tail of the connection before is still to be dropped
};

/// What the wrapper shares with its threads: a listener on one of them may destroy the wrapper.
///
/// Lock order: connectLock, linkLock; then the innermost ones of queues, slots and signals. Inside
/// a listener connectLock is only tried, because its holder may be waiting for that very thread.
class TCP_COM_HIDDEN TcpClientWrapper::State
    : public std::enable_shared_from_this<TcpClientWrapper::State> {
 public:
  explicit State(std::shared_ptr<ThreadLoop> unitLoop) : loop(std::move(unitLoop)) {}

  int connect(ThreadUnit& unit, const std::string& ip, int port);
  void disconnect();
  void release();
  bool send(const std::string& msg);
  void attachListener(iRecieveListener* listener);

  void cycle();
  void broadcastLoop(WrapperLink& own);
  void heartbeatLoop(WrapperLink& own);
  void requestLoop(WrapperLink& own);

  bool connected() const { return handle != -1; }

  /// @return the last connection, or one that is over
  std::shared_ptr<WrapperLink> linkOrEnded() const;

  ValueSlot<ClientSafetyOptions> safety;

 private:
  int connectLocked(ThreadUnit& unit, const std::string& ip, int port);
  std::shared_ptr<WrapperLink> beginLink(std::shared_ptr<TcpClient> client,
                                         const ClientSafetyOptions& options, int result);
  void endLink(WrapperLink& ended);
  bool startThreads(ThreadUnit& unit, const std::shared_ptr<WrapperLink>& own);
  bool startWorker(const std::shared_ptr<WrapperLink>& own, std::thread& worker, const char* name,
                   void (State::*body)(WrapperLink&));
  void deliverRound();
  bool onOwnThread() const { return ThreadMark::standsFor(this); }

  const std::shared_ptr<ThreadLoop> loop;
  ValueSlot<std::shared_ptr<WrapperLink>> link;  // the client and its workers
  ListenerList listeners;
  DataQueue<std::string> requestQueue;
  DataQueue<std::string> recievedQueue;
  std::atomic<int> handle{-1};    // changed under linkLock, together with link
  MessageSplitter receiveBuffer;  // receive step only

  std::recursive_mutex connectLock;
  std::mutex linkLock;
  RetiredWorkers retired;
  StopSignal destroyed;
};

}  // namespace brix
