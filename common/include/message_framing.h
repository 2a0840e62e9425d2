/// @file
/// Framing of messages in a byte stream.
#pragma once

#include <string>
#include <vector>

#include "tcp_com_export.h"

namespace brix {

/// The delimiter that ends every message on the wire.
inline constexpr char kDelimiter[] = "\r\n";

/// Cuts the complete messages off the front of a receive buffer.
///
/// @param buffer  in: the bytes received and not yet delivered; out: the unfinished tail
/// @param msgs  complete messages are appended in stream order, without their delimiter; empty ones
///   (two delimiters in a row) are dropped
/// @param delimiter  the terminator. Only two bytes are fully supported: with any other length the
///   last message of the buffer is held back even if it is complete, on purpose. With an empty one
///   the whole buffer is one message.
/// @return 0 if the buffer held fewer than 2 bytes (nothing was done), otherwise 1
///
/// Time is linear in the buffer. A buffer that never receives a delimiter grows without limit. The
/// function has no state: it may be called from any thread.
TCP_COM_API int decodeMsgs(std::string& buffer, std::vector<std::string>& msgs,
                           const std::string& delimiter);

}  // namespace brix
