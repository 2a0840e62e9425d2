// Every network workload of the library.

#include "brix.h"

#include "tcp_client_wrapper.h"
#include "tcp_server_wrapper.h"

namespace {

using bench::Mode;
using bench::Options;

constexpr double kBroadcastMs = 10.0;

class CommandClient final : public brix::TcpClientWrapper {};

Json::Value idleServer(const Options& options, int clients) {
  bench::Arrivals connected;
  const bench::ProcessState before = bench::ProcessState::now();
  bench::Server server(Mode::of(options));
  const int port = server.start(connected);
  std::vector<int> sockets;
  for (int i = 0; i < clients; ++i) {
    sockets.push_back(bench::connectTo(port));
    connected.waitFor(i + 1);
  }
  Json::Value figures = bench::idleFigures(options, before);
  for (const int fd : sockets) close(fd);
  return figures;
}

Json::Value idleClients(const Options& options, int clients) {
  const int listening = bench::listenAnywhere();
  const bench::ProcessState before = bench::ProcessState::now();
  std::vector<std::unique_ptr<bench::Client>> connections;
  for (int i = 0; i < clients; ++i) {
    connections.push_back(bench::connectedClient(Mode::of(options), bench::portOf(listening),
                                                 [](std::string_view) {}));
  }
  Json::Value figures = bench::idleFigures(options, before);
  close(listening);
  return figures;
}

Json::Value idleCommandServer(const Options& options, int clients) {
  const bench::ProcessState before = bench::ProcessState::now();
  brix::TcpServerWrapper server(-1);
  server.init(0);
  if (!server.waitUntilListening(2000)) throw std::runtime_error("cannot listen");
  std::vector<int> sockets;
  for (int i = 0; i < clients; ++i) sockets.push_back(bench::connectTo(server.listeningPort()));
  Json::Value figures = bench::idleFigures(options, before);
  for (const int fd : sockets) close(fd);
  server.quit();
  return figures;
}

Json::Value idleCommandClients(const Options& options, int clients) {
  const int listening = bench::listenAnywhere();
  const bench::ProcessState before = bench::ProcessState::now();
  std::vector<std::unique_ptr<CommandClient>> connections;
  for (int i = 0; i < clients; ++i) {
    connections.push_back(std::make_unique<CommandClient>());
    if (connections.back()->connectSocket("127.0.0.1", bench::portOf(listening)) != 1) {
      throw std::runtime_error("cannot connect");
    }
  }
  Json::Value figures = bench::idleFigures(options, before);
  close(listening);
  return figures;
}

/// One side only: what is connected to it is a plain socket that says nothing.
Json::Value idle(const Options& options) {
  const std::map<std::string, Json::Value (*)(const Options&, int)> objects = {
      {"server", idleServer},
      {"client", idleClients},
      {"command_server", idleCommandServer},
      {"command_client", idleCommandClients}};
  const auto object = objects.find(options.word("object", "server"));
  if (object == objects.end()) throw std::invalid_argument("no such object");
  return object->second(options, static_cast<int>(options.count("clients", 1)));
}

/// The time between one call of the broadcast function and the next.
Json::Value paceOfBroadcast(const Options& options) {
  bench::Arrivals clients;
  bench::Arrivals calls;
  bench::Periods periods;
  const std::string state = bench::stampedText(bench::kStateBytes);
  const auto wanted = static_cast<std::int64_t>(options.number("ms", 1000) / kBroadcastMs) + 1;
  bench::SocketLoop reader([](int, std::string_view) {});
  bench::Server server(Mode::of(options));
  reader.add(bench::connectTo(server.start(clients)));
  clients.waitFor(1);
  const auto broadcast = [&] {
    if (calls.count() < wanted) periods.tick();
    calls.add(1);
    return state;
  };
  server->registerBroadcastFunc(broadcast, kBroadcastMs);
  calls.waitFor(wanted);
  return periods.figures();
}

/// The time between two messages of a backlog at the server's listener.
Json::Value paceOfReceiving(const Options& options) {
  bench::Arrivals clients;
  bench::Arrivals messages;
  bench::Periods periods;
  const Mode mode = Mode::of(options);
  const auto wanted = static_cast<std::int64_t>(options.number("ms", 500) / mode.rateMs);
  bench::Server server(mode);
  server->registerRawDataBroadcastFunc([&](const std::string&) {
    periods.tick();
    messages.add(1);
    return std::string();
  });
  const int fd = bench::connectTo(server.start(clients));
  clients.waitFor(1);
  bench::feedRaw({fd}, wanted, bench::kChunkBytes);
  messages.waitFor(wanted);
  close(fd);
  return periods.figures();
}

/// The time between two texts of a backlog at a client's socket.
Json::Value paceOfSending(const Options& options) {
  bench::Arrivals clients;
  bench::Arrivals bytes;
  bench::Periods periods;
  const std::string text = bench::stampedText(bench::kStateBytes);
  const Mode mode = Mode::of(options);
  const auto wanted = static_cast<std::int64_t>(options.number("ms", 500) / mode.rateMs);
  bench::SocketLoop reader([&](int, std::string_view chunk) {
    periods.tick();
    bytes.add(static_cast<std::int64_t>(chunk.size()));
  });
  bench::Server server(mode);
  reader.add(bench::connectTo(server.start(clients)));
  clients.waitFor(1);
  for (std::int64_t i = 0; i < wanted; ++i) server.publish(text);
  bytes.waitFor(wanted * static_cast<std::int64_t>(text.size() + bench::kDelimiterBytes));
  return periods.figures();
}

}  // namespace

int main(int argc, char** argv) {
  bench::Workloads workloads = bench::peerWorkloads(
      [](const Options& options) { return std::make_unique<bench::BrixPeer>(options); });
  workloads["idle"] = idle;
  workloads["pace_broadcast"] = paceOfBroadcast;
  workloads["pace_receive"] = paceOfReceiving;
  workloads["pace_send"] = paceOfSending;
  return bench::runProgram(argc, argv, workloads);
}
