// What messages cost before anybody waits for them: cutting the stream, and each class that does.

#include <benchmark/benchmark.h>

#include "brix_tcp_server.h"
#include "communication_client.h"
#include "message_splitter.h"
#include "peer.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "tcp_server.h"

namespace {

constexpr std::size_t kMiB = 1 << 20;
constexpr std::size_t kLargeChunk = 16 << 10;
constexpr std::size_t kStreamBytes = 2 * kMiB;
constexpr int kReads = 4000;
constexpr char kDelimiter[] = "\r\n";

/// A stream of whole messages of `size` bytes, up to kStreamBytes.
std::string streamOf(std::size_t size) {
  const std::string line = std::string(size, 'a') + kDelimiter;
  std::string stream;
  while (stream.size() + line.size() <= kStreamBytes) stream += line;
  return stream;
}

void report(benchmark::State& state, std::size_t bytes, std::size_t messages) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages));
}

void cutSmall(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::string stream = streamOf(size);
  brix::MessageSplitter splitter;
  std::vector<std::string> messages;
  for (auto _ : state) {
    messages.clear();
    splitter.feed(stream.data(), stream.size(), messages, kDelimiter);
    benchmark::DoNotOptimize(messages.data());
  }
  report(state, stream.size(), stream.size() / (size + 2));
}
BENCHMARK(cutSmall)->Arg(64)->Arg(1);

/// The limit: every byte searched once and copied once, into memory that is there.
void limitSmall(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::string stream = streamOf(size);
  std::vector<char> copy(stream.size());
  for (auto _ : state) {
    char* to = copy.data();
    const char* from = stream.data();
    const char* const end = from + stream.size();
    while (const void* found = std::memchr(from, '\r', static_cast<std::size_t>(end - from))) {
      const auto length = static_cast<std::size_t>(static_cast<const char*>(found) - from);
      std::memcpy(to, from, length);
      to += length;
      from += length + 2;
      if (from == end) break;
    }
    benchmark::ClobberMemory();
  }
  report(state, stream.size(), stream.size() / (size + 2));
}
BENCHMARK(limitSmall)->Arg(64)->Arg(1);

template <typename OnChunk>
void inChunks(const std::string& bytes, const OnChunk& onChunk) {
  for (std::size_t at = 0; at < bytes.size(); at += kLargeChunk) {
    onChunk(bytes.data() + at, std::min(kLargeChunk, bytes.size() - at));
  }
}

std::string largeMessage(benchmark::State& state) {
  return std::string(static_cast<std::size_t>(state.range(0)) * kMiB, 'a') + kDelimiter;
}

void cutLarge(benchmark::State& state) {
  const std::string message = largeMessage(state);
  brix::MessageSplitter splitter;
  std::vector<std::string> messages;
  for (auto _ : state) {
    messages.clear();
    inChunks(message, [&](const char* data, std::size_t size) {
      splitter.feed(data, size, messages, kDelimiter);
    });
    if (messages.size() != 1) state.SkipWithError("not one message");
  }
  report(state, message.size(), 1);
}
BENCHMARK(cutLarge)->Arg(16)->Arg(64);

void limitLarge(benchmark::State& state) {
  const std::string message = largeMessage(state);
  std::vector<char> copy(message.size());
  for (auto _ : state) {
    char* to = copy.data();
    inChunks(message, [&](const char* data, std::size_t size) {
      benchmark::DoNotOptimize(std::memchr(data, '\r', size));
      std::memcpy(to, data, size);
      to += size;
    });
    benchmark::ClobberMemory();
  }
  report(state, message.size(), 1);
}
BENCHMARK(limitLarge)->Arg(16)->Arg(64);

/// Sends a stream to one of the receiving classes; the time until its listener has all of it.
void feedReceiver(benchmark::State& state, int fd, bench::Arrivals& arrivals) {
  const bool large = state.range(0) > 1;
  const std::string stream = large ? largeMessage(state) : streamOf(1);
  const std::size_t messages = large ? 1 : stream.size() / 3;
  std::int64_t wanted = 0;
  for (auto _ : state) {
    const bench::Stopwatch watch;
    inChunks(stream, [fd](const char* data, std::size_t size) {
      bench::sendAll(fd, {data, size});
    });
    wanted += static_cast<std::int64_t>(messages);
    arrivals.waitFor(wanted);
    state.SetIterationTime(watch.seconds());
  }
  report(state, stream.size(), messages);
}

class CountingListener : public brix::iRecieveListener {
 public:
  void onReceive(const std::string& msg) override {
    if (!msg.empty()) arrivals.add(1);
  }
  bench::Arrivals arrivals;
};

/// The argument is 1 for 2 MiB of messages of one byte, otherwise the MiB of one message.
void handlerReceives(benchmark::State& state) {
  CountingListener listener;
  const std::pair<int, int> ends = bench::connectedPair();
  {
    brix::TcpServerHandler handler(ends.second, 1, 0, brix::HandlerStart::Held);
    handler.delimiter = kDelimiter;
    handler.msgCallback = [&](const std::string& msg) { listener.onReceive(msg); };
    handler.release();
    feedReceiver(state, ends.first, listener.arrivals);
  }
  close(ends.first);
}
BENCHMARK(handlerReceives)->Arg(1)->Arg(64)->Iterations(1)->UseManualTime();

void clientReceives(benchmark::State& state) {
  CountingListener listener;
  const int listening = bench::listenAnywhere();
  brix::CommunicationClient client;
  const auto transport = std::make_shared<brix::TcpClient>("127.0.0.1", bench::portOf(listening));
  client.setClientHandle(transport);
  client.setPrintFlag(false);
  client.setHeartbeatMode(false);
  client.attachListener(&listener);
  if (client.connect("127.0.0.1", 0, 1.0) != 1) return state.SkipWithError("cannot connect");
  const int fd = bench::acceptOne(listening);
  feedReceiver(state, fd, listener.arrivals);
  client.disConnect();
  close(fd);
  close(listening);
}
BENCHMARK(clientReceives)->Arg(1)->Arg(64)->Iterations(1)->UseManualTime();

void commandServerReceives(benchmark::State& state) {
  CountingListener listener;
  brix::TcpServer server(-1);
  server.attachListener(&listener);
  server.createSocket(0);
  if (!server.waitUntilListening(2000)) return state.SkipWithError("cannot listen");
  const int fd = bench::connectTo(server.listeningPort());
  feedReceiver(state, fd, listener.arrivals);
  close(fd);
  server.quit();
}
BENCHMARK(commandServerReceives)->Arg(1)->Arg(64)->Iterations(1)->UseManualTime();

/// One message a millisecond reaches its listener, so it gets large ones only; not the largest,
/// because after 1.5 s without a whole message it takes the link for dead.
void commandClientReceives(benchmark::State& state) {
  CountingListener listener;
  const int listening = bench::listenAnywhere();
  {
    brix::TcpClientWrapper client;
    client.attachListener(&listener);
    if (client.connectSocket("127.0.0.1", bench::portOf(listening)) != 1) {
      return state.SkipWithError("cannot connect");
    }
    const int fd = bench::acceptOne(listening);
    feedReceiver(state, fd, listener.arrivals);
    client.disConnected();
    close(fd);
  }
  close(listening);
}
BENCHMARK(commandClientReceives)->Arg(16)->Iterations(1)->UseManualTime();

/// Bytes that are there already, read by `receive`. The median, since the difference that counts is
/// small.
template <typename Receive>
void readWaiting(benchmark::State& state, int from, const Receive& receive) {
  const std::string bytes(static_cast<std::size_t>(state.range(0)), 'a');
  bench::Samples samples;
  for (auto _ : state) {
    bench::sendAll(from, bytes);
    const std::int64_t start = bench::nowNs();
    const std::size_t got = receive();
    samples.add(bench::nowNs() - start);
    if (got != bytes.size()) return state.SkipWithError("cut short");
  }
  Json::Value figures;
  samples.report(figures);
  state.counters["p50_us"] = figures["p50_us"].asDouble();
}

void recieveMsg(benchmark::State& state) {
  const int listening = bench::listenAnywhere();
  brix::TcpClient client("127.0.0.1", bench::portOf(listening));
  client.logFlag = false;
  if (client.connectServer(1.0) != 1) return state.SkipWithError("cannot connect");
  const int fd = bench::acceptOne(listening);
  readWaiting(state, fd, [&] { return client.recieveMsg().size(); });
  client.closeClient();
  close(fd);
  close(listening);
}
BENCHMARK(recieveMsg)->Arg(64)->Arg(16384)->Iterations(kReads);

void plainRecv(benchmark::State& state) {
  const std::pair<int, int> ends = bench::connectedPair();
  std::vector<char> buffer(kStreamBytes);
  readWaiting(state, ends.first, [&] {
    return static_cast<std::size_t>(recv(ends.second, buffer.data(), buffer.size(), 0));
  });
  close(ends.first);
  close(ends.second);
}
BENCHMARK(plainRecv)->Arg(64)->Arg(16384)->Iterations(kReads);

}  // namespace

BENCHMARK_MAIN();
