#include "address.h"

#include <fcntl.h>
#include <netdb.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "status.h"

namespace tcpcom {
namespace {

constexpr int kLargestPort = 65535;
constexpr char kThisMachine[] = "127.0.0.1";

int parsePort(const std::string& text, int least, const std::string& whole) {
  const bool digits = !text.empty() && text.size() <= 5 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
  const int port = digits ? std::stoi(text) : -1;
  if (port < least || port > kLargestPort) {
    throw Failure(Status::Usage, "\"" + whole + "\": the port must be a number from " +
                                     std::to_string(least) + " to 65535");
  }
  return port;
}

Address parse(const std::string& text, int leastPort) {
  const auto colon = text.rfind(':');
  std::string host = text.substr(0, colon == std::string::npos ? 0 : colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    host.clear();  // it cannot be told where an unbracketed IPv6 address ends
  }
  if (host.empty()) throw Failure(Status::Usage, "\"" + text + "\" is no HOST:PORT");
  return {host, parsePort(text.substr(colon + 1), leastPort, text)};
}

struct LookUpResult {
  int error = 0;
  std::vector<SocketAddress> found;
};

/// What the looking-up thread shares with whoever waits for it, and may give up.
struct LookUp {
  Address address;
  std::promise<LookUpResult> result;
  Descriptor done;  // its closing, which can be polled for, tells that the result is there

  void run() {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const std::string port = std::to_string(address.port);
    LookUpResult made;
    made.error = getaddrinfo(address.host.c_str(), port.c_str(), &hints, &list);
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
      SocketAddress one;
      std::memcpy(&one.storage, entry->ai_addr, entry->ai_addrlen);
      one.size = entry->ai_addrlen;
      made.found.push_back(one);
    }
    if (list != nullptr) freeaddrinfo(list);
    result.set_value(std::move(made));
    done = Descriptor();
  }
};

}  // namespace

std::string Address::text() const {
  const bool v6 = host.find(':') != std::string::npos;
  return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Address parsePeer(const std::string& text) {
  return parse(text, 1);
}

Address parseListening(const std::string& text) {
  if (text.find(':') == std::string::npos) return {kThisMachine, parsePort(text, 0, text)};
  return parse(text, 0);
}

Wake resolve(const Waiter& waiter, const Address& address, TimePoint until,
             std::vector<SocketAddress>& found) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw Failure(Status::Other, std::string("pipe: ") + errorText(errno));
  }
  const Descriptor over(ends[0]);
  auto lookUp = std::make_shared<LookUp>();
  lookUp->address = address;
  lookUp->done = Descriptor(ends[1]);
  std::thread([lookUp] { lookUp->run(); }).detach();
  const Wake wake = waiter.waitFor(over.get(), POLLIN, until);
  if (wake != Wake::Ready) return wake;
  LookUpResult result = lookUp->result.get_future().get();
  if (result.found.empty()) {
    throw Failure(Status::NoConnection,
                  "cannot find \"" + address.host + "\": " + gai_strerror(result.error));
  }
  found = std::move(result.found);
  return wake;
}

}  // namespace tcpcom
