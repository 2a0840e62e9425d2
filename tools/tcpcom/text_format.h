// Numbers and times as people read them.
#pragma once

#include <string>

#include "waiter.h"

namespace tcpcom {

/// @return the number with so many decimals
std::string fixed(double value, int decimals);

/// @return seconds since 1970 of a moment in the near past
double wallTimeS(TimePoint at);

/// @return such a time as local "HH:MM:SS.mmm"
std::string timeOfDay(double wallS);

/// @return the text with blanks before it
std::string padded(const std::string& text, std::size_t width);

}  // namespace tcpcom
