/// @file
/// How a link hands messages from one thread to the next.
#pragma once

namespace brix {

/// When a thread looks for messages, and which thread calls a listener. The bytes on the wire are
/// the same in every mode.
///
/// Message listeners are called by
/// - Polled, WakeOnData: the server's receive thread, the client's broadcast thread;
/// - Direct at rate 0: the server's thread that reads that client, the client's unit thread
///   "com_client"; their usual thread only if messages were waiting when the rate became 0. A
///   server's thread that reads a client has a stack of 1 MiB.
enum class DeliveryMode {
  /// A thread looks for messages once a period. At a rate of exactly 0 it waits for them.
  Polled,

  /// A thread that finds nothing after its pause waits for a message instead of pausing again: at
  /// most one message a period on a server and one batch on a client, the first one after silence
  /// at once, and an idle link costs nothing.
  WakeOnData,

  /// For rate 0; at any other rate as WakeOnData. A received message goes to the listener on the
  /// thread that read it, one at a time and in order for each connection. A text is written by its
  /// sender if nothing waits before it and the connection takes it without blocking; otherwise it,
  /// or the rest of it, waits for the send thread. Sending a queued text never blocks, also inside
  /// a listener; what goes past the client's queue waits for a send that is under way.
  Direct,
};

}  // namespace brix
