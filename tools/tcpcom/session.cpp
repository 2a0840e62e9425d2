#include "session.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "message_framing.h"

namespace tcpcom {
namespace {

constexpr double kRetryPauseS = 0.5;
constexpr double kAcknowledgePollS = 0.002;
constexpr std::size_t kLongestBytes = std::size_t{256} * 1024 * 1024;
constexpr std::size_t kMostAtOnce = std::size_t{1024} * 1024;

/// A connect to a port of this machine that nobody listens on can meet itself.
bool isSelfConnected(int fd) {
  SocketAddress own, other;
  own.size = other.size = sizeof own.storage;
  return getsockname(fd, own.raw(), &own.size) == 0 &&
         getpeername(fd, other.raw(), &other.size) == 0 && own.size == other.size &&
         std::memcmp(&own.storage, &other.storage, own.size) == 0;
}

}  // namespace

Session::Session(const Run& run, const Address& peer) : run_(run), name_(peer.text()) {
  connect(peer);
  run_.out.detail("connected to " + name_);
}

void Session::connect(const Address& peer) {
  for (int left = run_.settings.retries;; --left) {
    const auto error = tryConnect(peer);
    if (!error) return;
    const std::string text = "cannot connect to " + name_ + ": " + *error;
    if (left <= 0) throw Failure(Status::NoConnection, text);
    run_.out.detail(text + "; trying again");
    const Wake wake = run_.waiter.pause(after(kRetryPauseS));
    if (wake != Wake::TimedOut) failAwaiting(wake, text);
  }
}

/// @return why not; nothing when connected
std::optional<std::string> Session::tryConnect(const Address& peer) {
  const TimePoint until = after(run_.settings.connectTimeoutS);
  std::vector<SocketAddress> addresses;
  Wake wake = Wake::Ready;
  try {
    wake = resolve(run_.waiter, peer, until, addresses);
  } catch (const Failure& failure) {
    if (failure.status() != Status::NoConnection) throw;
    return failure.what();
  }
  if (wake == Wake::TimedOut) return "looking the host up takes too long";
  if (wake != Wake::Ready) failAwaiting(wake, "no connection to " + name_ + " in time");
  std::string error;
  for (const SocketAddress& address : addresses) {
    if (Descriptor socket = connectTo(address, until, error); socket) {
      link_.emplace(std::move(socket));
      return std::nullopt;
    }
  }
  return error;
}

Descriptor Session::connectTo(const SocketAddress& address, TimePoint until,
                              std::string& error) const {
  Descriptor socket(
      ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  int code = 0;
  if (!socket || (::connect(socket.get(), address.raw(), address.size) != 0)) code = errno;
  if (code == EINPROGRESS) {
    const Wake wake = run_.waiter.waitFor(socket.get(), POLLOUT, until);
    if (wake == Wake::TimedOut) {
      code = ETIMEDOUT;
    } else if (wake != Wake::Ready) {
      failAwaiting(wake, "no connection to " + name_ + " in time");
    } else {
      socklen_t size = sizeof code;
      if (getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &code, &size) != 0) code = errno;
    }
  }
  if (code == 0 && isSelfConnected(socket.get())) code = ECONNREFUSED;
  if (code == 0) return socket;
  error = errorText(code);
  return Descriptor();
}

void Session::send(const std::string& text) {
  checkLink();
  const TimePoint until = after(run_.settings.replyTimeoutS);
  open_ = link_->send(text + brix::kDelimiter) && open_;
  while (open_ && link_->waiting() > 0) {
    std::vector<pollfd> entries{{link_->fd(), link_->wants(), 0}};
    const Wake wake = run_.waiter.wait(entries, until);
    if (wake != Wake::Ready) failAwaiting(wake, name_ + " does not read");
    pump(entries[0].revents);
  }
  checkLink();
}

Wake Session::next(Message& message, TimePoint until) {
  while (inbox_.empty()) {
    checkLink();
    bool readable = false;
    const Wake wake = awaitOr(-1, readable, until);
    if (wake != Wake::Ready) return wake;
  }
  message = std::move(inbox_.front());
  inbox_.pop_front();
  return Wake::Ready;
}

Wake Session::awaitOr(int fd, bool& readable, TimePoint until) {
  // poll(2) ignores negative descriptors.
  std::vector<pollfd> entries{{fd, POLLIN, 0}, {open_ ? link_->fd() : -1, link_->wants(), 0}};
  const Wake wake = run_.waiter.wait(entries, until);
  if (wake == Wake::Ready) {
    readable = entries[0].revents != 0;
    if (entries[1].revents != 0) pump(entries[1].revents);
  }
  return wake;
}

void Session::pump(short revents) {
  if ((revents & POLLOUT) != 0) open_ = link_->flush() && open_;
  if ((revents & ~POLLOUT) == 0) return;
  std::string bytes;
  open_ = link_->read(bytes, kMostAtOnce) && open_;
  const TimePoint now = Clock::now();
  std::vector<std::string> texts;
  splitter_.feed(bytes.data(), bytes.size(), texts, brix::kDelimiter);
  for (std::string& text : texts) inbox_.push_back({std::move(text), now});
  if (splitter_.buffer().size() > kLongestBytes) {
    throw Failure(Status::Other, name_ + " sends a message that does not end");
  }
}

void Session::checkLink() const {
  if (!open_) failLost();
}

void Session::failLost() const {
  std::string text = "link to " + name_ + " lost: " + link_->endReason();
  if (const std::size_t rest = splitter_.buffer().size(); rest > 0) {
    text += ", with " + std::to_string(rest) + " bytes of an unfinished message";
  }
  throw Failure(Status::LinkLost, text);
}

void Session::linger(TimePoint until) {
  Wake wake = Wake::Ready;
  while (open_ && wake == Wake::Ready) {
    bool unused = false;
    wake = awaitOr(-1, unused, until);
    dropReceived();
  }
  if (wake == Wake::Interrupted) failAwaiting(wake, "");
}

void Session::finishSending(double lingerS) {
  linger(after(lingerS));
  if (open_) link_->endSending();
  const TimePoint until = after(run_.settings.replyTimeoutS);
  while (link_->unacknowledged() > 0) {
    checkLink();
    bool unused = false;
    // No event tells of acknowledgements.
    const Wake wake = awaitOr(-1, unused, std::min(until, after(kAcknowledgePollS)));
    dropReceived();
    const bool late = wake == Wake::TimedOut && Clock::now() >= until;
    if (late || (wake != Wake::Ready && wake != Wake::TimedOut)) {
      failAwaiting(wake, name_ + " does not acknowledge what was sent");
    }
  }
  if (link_->broken()) failLost();  // then nothing tells how much of it has arrived
}

}  // namespace tcpcom
