// What stands between a mock controller and its clients, and shows faults.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fault.h"
#include "link.h"
#include "listener.h"
#include "message_splitter.h"
#include "waiter.h"

namespace tcpcom {

/// One client and its connection to the server behind.
class RelayedClient {
 public:
  using OnRequest = std::function<void(const std::string&)>;

  /// @param server  may still be connecting
  RelayedClient(Descriptor client, Descriptor server, const std::vector<Fault>& faults,
                std::uint32_t seed);

  static constexpr std::size_t kEntries = 2;

  /// Appends kEntries entries to wait for.
  void addEntries(std::vector<pollfd>& entries) const;

  /// @return when handle() is due although no descriptor is ready
  TimePoint due() const;

  /// Moves what can be moved.
  /// @return false when the connection is over
  bool handle(const pollfd* entries, const OnRequest& onRequest);

 private:
  struct Planned {
    TimePoint due;
    std::string text;
  };

  const Fault* active(FaultKind kind) const;
  bool mayReadClient() const;
  bool mayReadServer() const;
  void readClient(const OnRequest& onRequest);
  void readServer();
  void plan(std::string text);
  void deliver();
  void loseClient();

  const std::vector<Fault>& faults_;
  const TimePoint connected_ = Clock::now();
  std::minstd_rand random_;
  Link client_, server_;
  bool clientOpen_ = true;     // it is read and written
  bool clientEnding_ = false;  // nothing more is to be sent to it
  bool serverOpen_ = true;
  TimePoint nextRead_;  // of a client that is read slowly
  brix::MessageSplitter requests_, messages_;
  std::deque<Planned> planned_;
  std::size_t plannedBytes_ = 0;
};

/// Accepts clients and connects each to the server behind.
class Relay {
 public:
  Relay(const Listener& listener, int serverPort, std::vector<Fault> faults, std::uint32_t seed,
        RelayedClient::OnRequest onRequest);

  void addEntries(std::vector<pollfd>& entries) const;
  TimePoint due() const;
  /// @param entries  those of addEntries(), after the wait
  void handle(const pollfd* entries);

 private:
  void acceptOne();

  const Listener& listener_;
  const int serverPort_;
  const std::vector<Fault> faults_;
  std::minstd_rand seeds_;
  const RelayedClient::OnRequest onRequest_;
  std::vector<std::unique_ptr<RelayedClient>> clients_;
};

}  // namespace tcpcom
