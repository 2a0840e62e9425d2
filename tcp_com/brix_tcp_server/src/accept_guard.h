#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "log_facade.h"
#include "safety_options.h"

namespace brix {

/// Decides whether an accepted client may stay.
class AcceptGuard {
 public:
  /// @return false, with a log line and nothing changed, if a number is negative, or an entry of
  ///   allowedPeers is neither an address nor a block
  bool configure(const ServerSafetyOptions& options);

  /// @param clients  that are connected without this one
  /// @return false, with a log line at most once a peer and minute, if it is to be closed
  bool admits(const sockaddr_in& peer, int clients);

 private:
  /// Addresses that agree with `network` in the bits of `mask`; host byte order.
  struct Block {
    std::uint32_t network;
    std::uint32_t mask;
  };

  static bool parse(const std::string& text, Block& block);
  bool allowed(std::uint32_t address) const;
  void report(const char* fmt, const sockaddr_in& peer);

  std::mutex mutex_;  // innermost
  std::vector<Block> allowedPeers_;
  int maxClients_ = 0;
  std::map<std::uint32_t, log_time::TimerUnit> reported_;
};

}  // namespace brix
