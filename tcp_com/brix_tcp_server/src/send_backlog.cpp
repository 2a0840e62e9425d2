#include "send_backlog.h"

#include <sys/socket.h>

#include <utility>

namespace brix {
namespace {

constexpr std::size_t kChunkBytes = 65536;

}  // namespace

void SendBacklog::configure(std::size_t limitBytes, int timeoutMs) {
  limitBytes_ = limitBytes;
  timeoutMs_ = timeoutMs;
}

void SendBacklog::add(std::shared_ptr<const std::string> text, std::size_t sent,
                      DropReport& dropped) {
  const std::size_t bytes = text->size();
  texts_.push_back(std::move(text));
  if (texts_.size() == 1) {
    sentOfFirst_ = sent;
    lastProgress_ = Clock::now();
  }
  bytes_ += bytes;
  if (limitBytes_ == 0 || bytes_ <= limitBytes_) return;
  const auto oldest = [this] { return texts_.begin() + (sentOfFirst_ > 0 ? 1 : 0); };
  while (bytes_ > limitBytes_ && texts_.end() - oldest() > 1) {
    bytes_ -= (*oldest())->size();
    texts_.erase(oldest());
    dropped.count();
  }
  dropped.tell();
}

bool SendBacklog::flush(SocketOwner& socket) {
  bool progress = false;
  while (!texts_.empty()) {
    const std::string_view chunk = nextChunk();
    const ssize_t sent = socket.send(chunk.data(), chunk.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && !wouldBlock()) {  // a lost client shows on the receiving side
      clear();
      return true;
    }
    if (sent <= 0) break;
    progress = true;
    consume(static_cast<std::size_t>(sent));
  }
  const Clock::time_point now = Clock::now();
  if (progress) {
    lastProgress_ = now;
  } else if (timeoutMs_ > 0 && now - lastProgress_ > std::chrono::milliseconds(timeoutMs_)) {
    socket.end();
    clear();
  }
  return progress;
}

// Small texts leave together.
std::string_view SendBacklog::nextChunk() {
  const std::string_view first = std::string_view(*texts_.front()).substr(sentOfFirst_);
  if (texts_.size() == 1 || first.size() >= kChunkBytes) return first;
  chunk_ = first;
  for (std::size_t i = 1; i < texts_.size() && chunk_.size() < kChunkBytes; ++i) {
    chunk_ += *texts_[i];
  }
  return chunk_;
}

void SendBacklog::consume(std::size_t bytes) {
  sentOfFirst_ += bytes;
  while (!texts_.empty() && sentOfFirst_ >= texts_.front()->size()) {
    sentOfFirst_ -= texts_.front()->size();
    bytes_ -= texts_.front()->size();
    texts_.pop_front();
  }
}

void SendBacklog::clear() {
  texts_.clear();
  sentOfFirst_ = 0;
  bytes_ = 0;
}

}  // namespace brix
