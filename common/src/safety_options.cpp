#include "safety_options.h"

namespace brix {
namespace {

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
constexpr std::size_t kMaxMessageBytes = 16 * kMebibyte;
constexpr std::size_t kMaxQueuedBytes = 64 * kMebibyte;
constexpr int kPeerTimeoutMs = 5000;
constexpr int kMaxClients = 16;

}  // namespace

ServerSafetyOptions ServerSafetyOptions::hardened() {
  ServerSafetyOptions options;
  options.maxClients = kMaxClients;
  options.maxMessageBytes = kMaxMessageBytes;
  options.maxQueuedBytes = kMaxQueuedBytes;
  options.peerTimeoutMs = kPeerTimeoutMs;
  options.controlTexts = false;
  options.perClientBuffer = true;
  return options;
}

ClientSafetyOptions ClientSafetyOptions::hardened() {
  ClientSafetyOptions options;
  options.strictAddress = true;
  options.reclaimDescriptors = true;
  options.dropStaleOnReconnect = true;
  options.maxMessageBytes = kMaxMessageBytes;
  options.peerTimeoutMs = kPeerTimeoutMs;
  return options;
}

}  // namespace brix
