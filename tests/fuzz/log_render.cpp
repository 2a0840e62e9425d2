// The log renderer against the C library, on formats made of the input; and that no argument breaks
// a line or steers a terminal.

#include <cstdarg>

#include "format.h"
#include "fuzz.h"

namespace {

std::string render(std::size_t maxBytes, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const std::string text = brix_log::render(fmt, args, maxBytes).text;
  va_end(args);
  return text;
}

std::string print(const char* fmt, ...) {
  std::string text(65536, '\0');
  va_list args;
  va_start(args, fmt);
  const int size = std::vsnprintf(text.data(), text.size(), fmt, args);
  va_end(args);
  fuzz::require(size >= 0 && static_cast<std::size_t>(size) < text.size(), "size of a print");
  text.resize(static_cast<std::size_t>(size));
  return text;
}

std::string cut(const std::string& text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  return text.substr(0, maxBytes) + "... (" + std::to_string(text.size() - maxBytes) +
         " bytes omitted)";
}

/// Takes values from the input; zeros at its end.
struct Source {
  const std::uint8_t* data;
  std::size_t size;

  template <typename T>
  T take() {
    T value{};
    for (std::size_t i = 0; i < sizeof value && size > 0; ++i, --size) {
      reinterpret_cast<std::uint8_t*>(&value)[i] = *data++;
    }
    return value;
  }
  std::string text(std::size_t most) {
    const std::size_t length = std::min<std::size_t>(take<std::uint8_t>() % (most + 1), size);
    const std::string taken(reinterpret_cast<const char*>(data), length);
    data += length;
    size -= length;
    return taken;
  }
  /// @return a conversion with some of the flags, perhaps a width and a precision, and a letter
  std::string conversion(const std::string& flags, const char* length, const std::string& letters) {
    std::string result = "%";
    const auto choice = take<std::uint8_t>();
    for (std::size_t i = 0; i < flags.size(); ++i) {
      if ((choice & (1u << i)) != 0) result += flags[i];
    }
    if ((choice & 64) != 0) result += std::to_string(take<std::uint16_t>() % 600 + 1);
    if ((choice & 128) != 0) result += "." + std::to_string(take<std::uint16_t>() % 600);
    return result + length + letters[take<std::uint8_t>() % letters.size()];
  }
};

bool isControl(const std::string& text, std::size_t at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  const auto next = static_cast<unsigned char>(at + 1 < text.size() ? text[at + 1] : 0);
  return byte < 0x20 || byte == 0x7F || (byte == 0xC2 && next >= 0x80 && next < 0xA0);
}

void numbersAreAsTheLibraryPrintsThem(Source& source) {
  const std::string flags = "-+ #0'", integers = "diouxX", reals = "eEfFgGaA";
  std::string fmt = source.conversion(flags, "", integers);
  fmt += "|" + source.conversion(flags, "hh", integers) + source.conversion(flags, "l", integers);
  fmt += source.conversion(flags, "ll", integers) + "%%" + source.conversion(flags, "", reals);
  fmt += source.conversion(flags, "L", reals) + " " + source.conversion("-", "", "p") + "%*.*d";
  const int first = source.take<int>(), width = source.take<std::int8_t>();
  const int precision = source.take<std::int8_t>();
  const auto second = source.take<long>();
  const auto third = source.take<long long>();
  const auto real = source.take<double>();
  const auto maxBytes = std::size_t{1} + source.take<std::uint16_t>() % 6000;
  void* const address = reinterpret_cast<void*>(static_cast<std::uintptr_t>(second));
  const auto call = [&](auto function, auto... before) {
    return function(before..., fmt.c_str(), first, first, second, third, real,
                    static_cast<long double>(real), address, width, precision, first);
  };
  fuzz::require(call(render, maxBytes) == cut(call(print), maxBytes), "numbers");
}

void textsStayInTheirLine(Source& source) {
  const std::string fmt = "%c" + source.conversion("-", "", "s") + "|" +
                          source.conversion("-", "", "c") + "|" + source.conversion("-", "l", "s") +
                          "|%b|%.*s";
  const std::string color = source.text(12), text = source.text(200), last = source.text(200);
  const char letter = source.take<char>();
  wchar_t wide[8]{};
  for (std::size_t i = 0; i < 7; ++i) wide[i] = static_cast<wchar_t>(source.take<std::int16_t>());
  const auto maxBytes = std::size_t{1} + source.take<std::uint16_t>() % 2000;
  const int precision = source.take<std::int8_t>();
  const std::string result = render(maxBytes, fmt.c_str(), color.c_str(), text.c_str(), letter,
                                    wide, letter & 1, precision, last.c_str());
  for (std::size_t i = 0; i < result.size(); ++i) {
    fuzz::require(!isControl(result, i), "a control byte in a line");
  }
  fuzz::require(result.size() <= maxBytes + 64, "length of a line");
}

/// What is no conversion is printed as it stands, apart from "%%".
void unknownConversionsStand(Source& source) {
  std::string fmt = source.text(255), expected;
  for (char& byte : fmt) {
    if (byte == '\0' || std::string("diouxXcCsbpneEfFgGaA*").find(byte) != std::string::npos) {
      byte = 'q';  // these take an argument
    }
  }
  for (std::size_t i = 0; i < fmt.size(); ++i) {
    expected += fmt[i];
    if (fmt.compare(i, 2, "%%") == 0) ++i;
  }
  fuzz::require(render(65536, fmt.c_str()) == expected, "format without a conversion");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Source source{data, size};
  unknownConversionsStand(source);
  textsStayInTheirLine(source);
  numbersAreAsTheLibraryPrintsThem(source);
  return 0;
}
