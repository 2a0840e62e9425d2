#include "relay.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "message_framing.h"

namespace tcpcom {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} * 1024;
// What waits for a client that does not read; then the server behind has to wait, as it would
// without a relay.
constexpr std::size_t kMostWaitingBytes = std::size_t{256} * 1024;
constexpr double kSlowReadsPerS = 20;

/// Begins to connect to a port of this machine.
Descriptor connectInside(int port) {
  Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (!socket ||
      (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
       errno != EINPROGRESS)) {
    throw Failure(Status::Other, std::string("no connection to the mock: ") + errorText(errno));
  }
  return socket;
}

}  // namespace

RelayedClient::RelayedClient(Descriptor client, Descriptor server, const std::vector<Fault>& faults,
                             std::uint32_t seed)
    : faults_(faults), random_(seed), client_(std::move(client)), server_(std::move(server)) {}

const Fault* RelayedClient::active(FaultKind kind) const {
  return activeFault(faults_, kind, secondsBetween(connected_, Clock::now()));
}

bool RelayedClient::mayReadClient() const {
  return server_.waiting() == 0 && Clock::now() >= nextRead_;
}

bool RelayedClient::mayReadServer() const {
  return plannedBytes_ + client_.waiting() < kMostWaitingBytes || !clientOpen_;
}

// Without events an entry is left out, because poll would still tell of errors, over and over.
void RelayedClient::addEntries(std::vector<pollfd>& entries) const {
  const auto entry = [](const Link& link, bool open, bool mayRead) {
    const int events = (mayRead ? POLLIN : 0) | (link.waiting() > 0 ? POLLOUT : 0);
    return pollfd{open && events != 0 ? link.fd() : -1, static_cast<short>(events), 0};
  };
  entries.push_back(entry(client_, clientOpen_, mayReadClient()));
  entries.push_back(entry(server_, serverOpen_, mayReadServer()));
}

TimePoint RelayedClient::due() const {
  TimePoint due = kNever;
  if (!planned_.empty()) due = planned_.front().due;
  if (clientOpen_ && nextRead_ > Clock::now()) due = std::min(due, nextRead_);
  for (const Fault& fault : faults_) {
    if (fault.kind == FaultKind::Close && clientOpen_) {
      due = std::min(due, after(fault.fromS, connected_));
    }
  }
  return due;
}

bool RelayedClient::handle(const pollfd* entries, const OnRequest& onRequest) {
  if (clientOpen_ && active(FaultKind::Close) != nullptr) return false;
  if ((entries[0].revents & POLLOUT) != 0 && !client_.flush()) loseClient();
  if ((entries[1].revents & POLLOUT) != 0 && !server_.flush()) serverOpen_ = false;
  if (clientOpen_ && (entries[0].revents & ~POLLOUT) != 0) readClient(onRequest);
  if (serverOpen_ && (entries[1].revents & ~POLLOUT) != 0) readServer();
  deliver();
  if (!clientOpen_) {
    // The server behind is left in order, with all that the client has sent.
    if (serverOpen_ && server_.waiting() == 0) server_.endSending();
    return serverOpen_;
  }
  const bool nothingLeft = planned_.empty() && client_.waiting() == 0;
  return !((clientEnding_ && client_.waiting() == 0) || (!serverOpen_ && nothingLeft));
}

void RelayedClient::readClient(const OnRequest& onRequest) {
  std::size_t most = kReadBytes;
  if (const Fault* slow = active(FaultKind::SlowRead); slow != nullptr) {
    most = static_cast<std::size_t>(std::clamp(slow->value / kSlowReadsPerS, 1.0, 1e6));
    nextRead_ = after(static_cast<double>(most) / slow->value);
  }
  std::string bytes;
  const bool open = client_.read(bytes, most);
  std::vector<std::string> texts;
  requests_.feed(bytes.data(), bytes.size(), texts, brix::kDelimiter);
  for (const std::string& text : texts) onRequest(text);
  if (!bytes.empty() && serverOpen_ && !server_.send(bytes)) serverOpen_ = false;
  if (!open) loseClient();
}

void RelayedClient::loseClient() {
  clientOpen_ = false;
  planned_.clear();
  plannedBytes_ = 0;
}

void RelayedClient::readServer() {
  std::string bytes;
  serverOpen_ = server_.read(bytes, kReadBytes);
  std::vector<std::string> texts;
  messages_.feed(bytes.data(), bytes.size(), texts, brix::kDelimiter);
  for (std::string& text : texts) plan(std::move(text));
}

void RelayedClient::plan(std::string text) {
  if (!clientOpen_ || clientEnding_) return;
  const Fault* drop = active(FaultKind::Drop);
  if (drop != nullptr && std::uniform_real_distribution<>()(random_) < drop->value) return;
  const Fault* delay = active(FaultKind::Delay);
  // A delay that has just begun must not let a later message overtake an earlier one.
  TimePoint due = after(delay != nullptr ? delay->value : 0);
  if (!planned_.empty()) due = std::max(due, planned_.back().due);
  plannedBytes_ += text.size();
  planned_.push_back({due, std::move(text)});
}

void RelayedClient::deliver() {
  while (!planned_.empty() && planned_.front().due <= Clock::now()) {
    const std::string text = std::move(planned_.front().text);
    planned_.pop_front();
    plannedBytes_ -= text.size();
    if (clientEnding_ || active(FaultKind::Silent) != nullptr) continue;
    clientEnding_ = active(FaultKind::HalfMessage) != nullptr;
    if (!client_.send(clientEnding_ ? text.substr(0, (text.size() + 1) / 2)
                                    : text + brix::kDelimiter)) {
      return loseClient();
    }
  }
}

Relay::Relay(const Listener& listener, int serverPort, std::vector<Fault> faults,
             std::uint32_t seed, RelayedClient::OnRequest onRequest)
    : listener_(listener),
      serverPort_(serverPort),
      faults_(std::move(faults)),
      seeds_(seed),
      onRequest_(std::move(onRequest)) {}

void Relay::addEntries(std::vector<pollfd>& entries) const {
  entries.push_back({listener_.fd(), POLLIN, 0});
  for (const auto& client : clients_) client->addEntries(entries);
}

TimePoint Relay::due() const {
  TimePoint due = kNever;
  for (const auto& client : clients_) due = std::min(due, client->due());
  return due;
}

void Relay::handle(const pollfd* entries) {
  const bool more = entries[0].revents != 0;
  ++entries;
  for (auto& client : clients_) {
    if (!client->handle(entries, onRequest_)) client.reset();
    entries += RelayedClient::kEntries;
  }
  clients_.erase(std::remove(clients_.begin(), clients_.end(), nullptr), clients_.end());
  if (more) acceptOne();
}

void Relay::acceptOne() {
  if (Descriptor socket = listener_.accept(); socket) {
    clients_.push_back(std::make_unique<RelayedClient>(std::move(socket),
                                                       connectInside(serverPort_), faults_,
                                                       static_cast<std::uint32_t>(seeds_())));
  }
}

}  // namespace tcpcom
