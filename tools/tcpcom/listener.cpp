#include "listener.h"

#include <netinet/in.h>

#include <cerrno>
#include <vector>

#include "json_text.h"

namespace tcpcom {
namespace {

constexpr int kBacklog = 64;

int portOf(int fd) {
  SocketAddress own;
  own.size = sizeof own.storage;
  getsockname(fd, own.raw(), &own.size);
  // Both families keep the port at the same place.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&own.storage)->sin_port);
}

}  // namespace

Listener::Listener(const Run& run, const Address& address, int receiveBufferBytes)
    : name_(address.text()) {
  std::vector<SocketAddress> found;
  try {
    const Wake wake = resolve(run.waiter, address, after(run.settings.connectTimeoutS), found);
    if (wake != Wake::Ready) failAwaiting(wake, "looking up " + address.host + " takes too long");
  } catch (const Failure& failure) {
    if (failure.status() != Status::NoConnection) throw;
    throw Failure(Status::CannotListen, failure.what());
  }
  socket_ = open(found.front(), receiveBufferBytes);
  const Address bound{address.host, portOf(socket_.get())};
  run.out.note("listening on " + bound.text(),
               JsonLine().text("listening", bound.host).integer("port", bound.port).str());
}

Descriptor Listener::open(const SocketAddress& address, int receiveBufferBytes) const {
  Descriptor socket(
      ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (socket) setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (socket && receiveBufferBytes > 0) {  // accepted sockets inherit it
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes);
  }
  if (!socket || bind(socket.get(), address.raw(), address.size) != 0 ||
      listen(socket.get(), kBacklog) != 0) {
    throw Failure(Status::CannotListen, "cannot listen on " + name_ + ": " + errorText(errno));
  }
  return socket;
}

Descriptor Listener::accept() const {
  Descriptor socket(accept4(fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (socket || errno == EAGAIN || errno == ECONNABORTED || errno == EINTR) return socket;
  throw Failure(Status::Other, std::string("cannot accept: ") + errorText(errno));
}

}  // namespace tcpcom
