/// @file
/// The workloads that every library runs: what is measured stands here, how a library's user
/// writes server and clients stands in the peer.
#pragma once

#include <memory>

#include "bench.h"
#include "sockets.h"

namespace bench {

/// A server and its clients in one process. Texts come and go without delimiter.
class Peer {
 public:
  /// Gets a request; what it returns, unless empty, is the reply.
  using Answer = std::function<std::string(std::string_view)>;
  using OnText = std::function<void(std::string_view)>;

  Peer() = default;
  virtual ~Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  /// Starts the server.
  /// @return the port
  virtual int serve(Answer answer) = 0;
  /// Connects clients of this library's own; `onText` may be called on several threads.
  virtual void connect(int clients, OnText onText) = 0;
  /// Waits until the server has this many clients.
  virtual void awaitClients(int clients) { clients_.waitFor(clients); }
  /// From a client to the server.
  virtual void send(int client, const std::string& text) = 0;
  /// From the server to all clients, on a thread that is not the server's.
  virtual void publish(const std::string& text) = 0;
  /// Writes what `publish` has kept back.
  virtual void flush() {}
  /// Stops the server, which still has its clients.
  virtual void stop() {}

 protected:
  Arrivals clients_;
};

using MakePeer = std::function<std::unique_ptr<Peer>(const Options&)>;

constexpr std::size_t kRequestBytes = 64;
constexpr std::size_t kStateBytes = 200;
constexpr std::size_t kDelimiterBytes = 2;
// Texts on their way at a time: enough for batches, and below every library's default limits.
constexpr std::int64_t kWindow = 500;

/// Clients are either the library's own or plain sockets that cost next to nothing.
inline bool rawClients(const Options& options) {
  const std::string kind = options.word("clients_are", "raw");
  if (kind != "raw" && kind != "own") throw std::invalid_argument("clients_are: raw or own");
  return kind == "raw";
}

inline Json::Value requestReply(const MakePeer& makePeer, const Options& options) {
  ClosedLoop loop(options);
  const std::string request = stampedText(kRequestBytes);
  for (std::int64_t i = 0; i < loop.repeats(); ++i) {
    const auto peer = makePeer(options);
    peer->serve([](std::string_view text) { return std::string(text); });
    peer->connect(1, [&](std::string_view reply) {
      if (reply != request) throw std::runtime_error("a reply differs from its request");
      if (loop.replied()) peer->send(0, request);
    });
    peer->awaitClients(1);
    loop.begin();
    peer->send(0, request);
    loop.waitUntilDone();
  }
  return loop.figures();
}

/// Waits while more than a window of texts is on its way.
template <typename Flush>
void keepWindow(Arrivals& arrivals, std::int64_t sent, std::int64_t perText, const Flush& flush) {
  if (sent * perText - arrivals.count() < kWindow * perText) return;
  flush();
  arrivals.waitFor((sent - kWindow / 2) * perText);
}

/// Streams `each` texts from each plain socket, in sends of `batchBytes`; 0: one send a text.
inline void feedRaw(const std::vector<int>& sockets, std::int64_t each, std::size_t batchBytes) {
  const std::string line = stampedText(kRequestBytes) + "\r\n";
  const auto perSend =
      static_cast<std::int64_t>(std::max<std::size_t>(1, batchBytes / line.size()));
  std::string batch;
  for (std::int64_t i = 0; i < perSend; ++i) batch += line;
  for (std::int64_t sent = 0; sent < each; sent += perSend) {
    const auto texts = static_cast<std::size_t>(std::min(perSend, each - sent));
    for (const int fd : sockets)
      sendAll(fd, std::string_view(batch).substr(0, texts * line.size()));
  }
}

inline Json::Value ingest(const MakePeer& makePeer, const Options& options) {
  const auto clients = static_cast<int>(options.count("clients", 1));
  const auto batchBytes = static_cast<std::size_t>(options.count("batch_bytes", kChunkBytes));
  const bool raw = rawClients(options);
  Arrivals arrivals;
  const auto peer = makePeer(options);
  const int port = peer->serve([&](std::string_view text) {
    if (text.size() != kRequestBytes) throw std::runtime_error("a message is damaged");
    arrivals.add(1);
    return std::string();
  });
  std::vector<int> sockets;
  for (int i = 0; raw && i < clients; ++i) {
    sockets.push_back(connectTo(port));
    peer->awaitClients(i + 1);  // no server's backlog is put to the test
  }
  if (!raw) {
    peer->connect(clients, [](std::string_view) {});
    peer->awaitClients(clients);
  }

  const std::string text = stampedText(kRequestBytes);
  std::int64_t wanted = 0;
  const Json::Value figures = runLongEnough(options, clients, [&](std::int64_t each) {
    const std::int64_t before = wanted;
    wanted += each * clients;
    if (raw) feedRaw(sockets, each, batchBytes);
    for (std::int64_t sent = 1; !raw && sent <= each; ++sent) {
      for (int i = 0; i < clients; ++i) peer->send(i, text);
      keepWindow(arrivals, before / clients + sent, clients, [] {});
    }
    arrivals.waitFor(wanted);
  });
  for (const int fd : sockets) close(fd);
  return figures;
}

inline Json::Value fanOut(const MakePeer& makePeer, const Options& options) {
  const auto clients = static_cast<int>(options.count("clients", 1));
  const std::string text = stampedText(kStateBytes);
  const bool raw = rawClients(options);
  // Plain readers count bytes: finding lines would be a cost of the measurement.
  const std::int64_t perText =
      clients * (raw ? static_cast<std::int64_t>(text.size() + kDelimiterBytes) : 1);
  Arrivals arrivals;
  SocketLoop readers(
      [&](int, std::string_view chunk) { arrivals.add(static_cast<std::int64_t>(chunk.size())); });
  const auto peer = makePeer(options);
  const int port = peer->serve([](std::string_view) { return std::string(); });
  const ProcessState before = ProcessState::now();
  for (int i = 0; raw && i < clients; ++i) {
    readers.add(connectTo(port));
    peer->awaitClients(i + 1);
  }
  if (!raw) {
    peer->connect(clients, [&](std::string_view) { arrivals.add(1); });
    peer->awaitClients(clients);
  }
  holdIfAsked(options);
  const ProcessState connected = ProcessState::now();

  std::int64_t sent = 0;
  Json::Value figures = runLongEnough(options, clients, [&](std::int64_t texts) {
    for (const std::int64_t last = sent + texts; sent < last;) {
      peer->publish(text);
      keepWindow(arrivals, ++sent, perText, [&] { peer->flush(); });
    }
    peer->flush();
    arrivals.waitFor(sent * perText);
  });
  figures["threads"] = static_cast<Json::Int64>(connected.threads);
  figures["kib_per_client"] =
      static_cast<double>(connected.residentKib - before.residentKib) / clients;
  const Stopwatch stopping;
  peer->stop();
  figures["stop_ms"] = stopping.seconds() * 1e3;
  return figures;
}

/// One text a millisecond; how old it is when each client's listener has it.
inline Json::Value publish(const MakePeer& makePeer, const Options& options) {
  const auto clients = static_cast<int>(options.count("clients", 1));
  const auto texts = options.count("ms", 300);
  const auto warmUp = options.count("warmup_ms", 30);
  std::string text = stampedText(kStateBytes);
  std::mutex mutex;
  Samples samples;
  Arrivals arrivals;
  std::atomic<bool> warm{false};
  const auto peer = makePeer(options);
  peer->serve([](std::string_view) { return std::string(); });
  peer->connect(clients, [&](std::string_view state) {
    const std::int64_t age = ageNs(state);
    if (warm) {
      const std::lock_guard<std::mutex> lock(mutex);
      samples.add(age);
    }
    arrivals.add(1);
  });
  peer->awaitClients(clients);

  const std::int64_t start = nowNs();
  for (std::int64_t i = 1; i <= warmUp + texts; ++i) {
    sleepUntilNs(start + i * 1'000'000);
    warm = i > warmUp;
    stamp(text);
    peer->publish(text);
    peer->flush();
  }
  arrivals.waitFor((warmUp + texts) * clients);
  const std::lock_guard<std::mutex> lock(mutex);
  Json::Value figures;
  samples.report(figures);
  return figures;
}

inline Workloads peerWorkloads(const MakePeer& makePeer) {
  const auto bound = [&](auto body) {
    return [=](const Options& options) { return body(makePeer, options); };
  };
  return {{"request_reply", bound(requestReply)},
          {"ingest", bound(ingest)},
          {"fanout", bound(fanOut)},
          {"publish", bound(publish)}};
}

}  // namespace bench
