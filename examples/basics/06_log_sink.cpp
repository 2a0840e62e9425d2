// The library's log lines as the system's journal wants them: a priority, and no time of their own.
// Usage: 06_log_sink [HOST [PORT]]. Exit status 1 if the library reported a failure.
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

#include "brix_log.h"
#include "communication_client.h"
#include "port.h"
#include "tcp_client.h"

namespace {

constexpr int kErrorPriority = 3, kInfoPriority = 6;  // of syslog(3)

/// @param line  "DATE TIME LEVEL FILE:LINE TEXT"
std::string withoutTimeAndLevel(const std::string& line) {
  std::size_t at = 0;
  for (int field = 0; field < 3; ++field) at = line.find(' ', at) + 1;
  return line.substr(at);
}

}  // namespace

int main(int argc, char** argv) {
  const char* host = argc > 1 ? argv[1] : "127.0.0.1";
  const int port = argc > 2 ? portOf(argv[2]) : 8055;
  std::atomic<int> failures{0};
  brix_log::setSink([&](brix::LogLevel level, const std::string& line) {
    const bool failure = level == brix::LogLevel::Error;
    if (failure) ++failures;
    std::fprintf(stderr, "<%d>%s\n", failure ? kErrorPriority : kInfoPriority,
                 withoutTimeAndLevel(line).c_str());
  });

  {
    brix::CommunicationClient client;
    client.setClientHandle(std::make_shared<brix::TcpClient>(host, port));
    client.setHeartbeatMode(false);  // the end of its thread would be a line at the error level
    client.setBroadcastMode(false);
    client.setSendMode(false);
    client.connect(host, port, 1.0);
  }
  brix_log::setSink({});  // the sink uses what ends with this function
  return failures == 0 ? 0 : 1;
}
