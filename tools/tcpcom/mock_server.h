// The library's own servers, playing a script.
#pragma once

#include <memory>
#include <string>

#include "mock_script.h"

namespace tcpcom {

class MockServer {
 public:
  virtual ~MockServer() = default;

  /// @return the port on 127.0.0.1 that it listens on
  virtual int port() const = 0;

  /// Sends a text to all clients.
  virtual void broadcast(const std::string& text) = 0;
};

enum class Family { State, Command };

/// @throws Failure  if it cannot listen
std::unique_ptr<MockServer> startMockServer(Family family, const MockScript& script);

}  // namespace tcpcom
