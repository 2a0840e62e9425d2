/// @file
/// Limits and checks that are off unless a deployment turns them on.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tcp_com_export.h"

namespace brix {

/// What a server does not put up with. The defaults put up with everything.
struct TCP_COM_API ServerSafetyOptions {
  /// The one local IPv4 address to listen on, dotted; empty: all. Another text is a failed bind.
  std::string bindAddress;

  /// Who may connect: IPv4 addresses or blocks such as "10.0.4.0/24"; empty: all. Others are closed
  /// at their accept, with one log line a peer and minute.
  std::vector<std::string> allowedPeers;

  /// Most clients at a time, counted as they are; one more is closed at its accept. 0: the server's
  /// own rule.
  int maxClients = 0;

  /// Longest unfinished message in bytes; a longer one ends its connection as a failed read would.
  /// Where clients share a buffer it ends the connection that sent last. 0: none.
  std::size_t maxMessageBytes = 0;

  /// Most bytes that wait to be sent. Above, the oldest broadcast or reply is dropped and counted,
  /// with one log line a second; a reply that leaves in pieces arrives broken if it loses one. As
  /// many received bytes make the reading wait, which loses nothing. 0: none.
  std::size_t maxQueuedBytes = 0;

  /// Milliseconds after which a peer that is gone, or has not taken a text, is cut off. 0: the
  /// system's own, a quarter of an hour or more after a text to a peer that is gone; never without
  /// a text, nor for a peer that does not read.
  int peerTimeoutMs = 0;

  /// Whether the command server obeys "q", "Q" and "exit".
  bool controlTexts = true;

  /// Whether the command server cuts each client's bytes in a buffer of its own.
  bool perClientBuffer = false;

  /// @return the recommended values; bindAddress and allowedPeers are the deployer's to name
  static ServerSafetyOptions hardened();
};

/// What a client does not put up with. The defaults put up with everything.
struct TCP_COM_API ClientSafetyOptions {
  /// An address that does not parse is a failed connect, and not this machine.
  bool strictAddress = false;

  /// Closes the descriptors that a failed send, a second connect and the destructor leave open.
  bool reclaimDescriptors = false;

  /// A connection begins without the unfinished message and the unsent requests of the one before.
  bool dropStaleOnReconnect = false;

  /// Longest unfinished message in bytes; a longer one ends the connection. 0: none.
  std::size_t maxMessageBytes = 0;

  /// Milliseconds after which a server that is gone, or has not taken a text, is given up; a
  /// connection of CommunicationClient that has ended then falls at once, also without heartbeats.
  /// 0: none.
  int peerTimeoutMs = 0;

  /// @return all of it
  static ClientSafetyOptions hardened();
};

}  // namespace brix
