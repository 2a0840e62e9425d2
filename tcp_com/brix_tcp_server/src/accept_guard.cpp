#include "accept_guard.h"

#include <arpa/inet.h>

#include <charconv>
#include <utility>

#include "log_macros.h"
#include "tcp_address.h"

namespace brix {
namespace {

constexpr int kAddressBits = 32;
constexpr double kReportMs = 60000;
constexpr std::size_t kMostReported = 1024;  // peers that are remembered between two lines

}  // namespace

bool AcceptGuard::configure(const ServerSafetyOptions& options) {
  if (options.maxClients < 0 || options.peerTimeoutMs < 0) {
    BRIX_LOG_ERROR("negative safety option, maxClients %d, peerTimeoutMs %d", options.maxClients,
                   options.peerTimeoutMs);
    return false;
  }
  std::vector<Block> blocks;
  for (const std::string& text : options.allowedPeers) {
    Block block{};
    if (!parse(text, block)) {
      BRIX_LOG_ERROR("allowed peer \"%s\" is neither an IPv4 address nor a block", text.c_str());
      return false;
    }
    blocks.push_back(block);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  allowedPeers_ = std::move(blocks);
  maxClients_ = options.maxClients;
  return true;
}

bool AcceptGuard::parse(const std::string& text, Block& block) {
  const std::size_t slash = text.find('/');
  in_addr address{};
  if (!parseAddress(text.substr(0, slash), address)) return false;
  int bits = kAddressBits;
  if (slash != std::string::npos) {
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data() + slash + 1, end, bits);
    if (error != std::errc() || stopped != end || bits < 0 || bits > kAddressBits) return false;
  }
  block.mask = bits == 0 ? 0 : ~std::uint32_t{0} << (kAddressBits - bits);
  block.network = ntohl(address.s_addr) & block.mask;
  return true;
}

bool AcceptGuard::admits(const sockaddr_in& peer, int clients) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!allowed(ntohl(peer.sin_addr.s_addr))) {
    report("client %s is not allowed, connection closed", peer);
    return false;
  }
  if (maxClients_ > 0 && clients >= maxClients_) {
    report("too many clients, connection of %s closed", peer);
    return false;
  }
  return true;
}

bool AcceptGuard::allowed(std::uint32_t address) const {
  if (allowedPeers_.empty()) return true;
  for (const Block& block : allowedPeers_) {
    if ((address & block.mask) == block.network) return true;
  }
  return false;
}

void AcceptGuard::report(const char* fmt, const sockaddr_in& peer) {
  if (reported_.size() >= kMostReported) reported_.clear();
  const auto [entry, first] = reported_.try_emplace(peer.sin_addr.s_addr);
  log_time::TimerUnit& sinceLast = entry->second;
  log_time::timer_end(sinceLast);
  if (!first && sinceLast.elapsed < kReportMs) return;
  log_time::timer_start(sinceLast);
  char address[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
  BRIX_LOG_ERROR(fmt, address);
}

}  // namespace brix
