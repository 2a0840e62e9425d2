/// @file
/// The operator's way to a controller.
#pragma once

#include <json/json.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "inbox.h"

namespace arm {

/// The two servers of a controller; both take the same requests.
enum class Family { State, Command };

/// No connection came about; the text says where.
class LinkError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A connection to a controller. Its destruction ends it.
///
/// Called from: any thread. It calls back nothing but the inbox that it was made with.
class Link {
 public:
  Link() = default;
  virtual ~Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  /// Queues a request. @return false if the connection has ended
  virtual bool send(const Json::Value& request) = 0;

  /// @return false when the connection has ended, also by silence
  virtual bool isConnected() = 0;
};

/// Connects; all that the controller sends goes to the inbox.
/// @param host  dotted IPv4 address
/// @param inbox  not owned; outlives the link
/// @param verbose  let the library log its progress
/// @throws LinkError  if no server accepts there
std::unique_ptr<Link> connectLink(Family family, const std::string& host, int port, Inbox& inbox,
                                  bool verbose);

}  // namespace arm
