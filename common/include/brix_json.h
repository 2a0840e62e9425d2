/// @file
/// JSON values as the texts that go on the wire, and back.
#pragma once

#include <json/json.h>

#include <string>

#include "tcp_com_export.h"

namespace brix_json {

/// Writes a value as compact text: one line, never a raw CR or LF.
///
/// @param root  the value
/// @param precision  significant digits of floating-point numbers; every message uses kPrecision
/// @throws what JsonCpp throws
///
/// Comments that a value kept from its parser are left out: they would break the framing.
/// May be called from any thread.
TCP_COM_API std::string toStrWithoutIndentation(const Json::Value& root, int precision);

/// The precision of every number in a message: 6 significant digits, on purpose fewer than
/// JsonCpp's default.
inline constexpr int kPrecision = 6;

/// Reads a text up to its first NUL.
///
/// @return the parsed value, or null if the text is not JSON
/// @throws Json::Exception  for texts nested deeper than JsonCpp's limit
///
/// May be called from any thread.
TCP_COM_API Json::Value parseStr(const std::string& text);

}  // namespace brix_json
