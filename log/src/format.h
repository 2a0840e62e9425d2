#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

#include "log_facade.h"

namespace brix_log {

/// A log call's text and colour.
struct Rendered {
  std::string text;
  const char* colorEscape = nullptr;  // null: no colour
};

/// Formats by the facade's rules.
/// @param maxBytes  the text is cut there, and the number of omitted bytes is appended
Rendered render(const char* fmt, va_list args, std::size_t maxBytes);

/// @return the code's name, or null
const char* errorCodeName(brix::BrixErrorCode code);

}  // namespace brix_log
