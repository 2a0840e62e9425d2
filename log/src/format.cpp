#include "format.h"

#include <wchar.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace brix_log {
namespace {

constexpr int kPaletteColor = 256;       // what "%C" is given for the 256-colour palette
constexpr int kWidestField = 64 * 1024;  // a wider field or precision is a mistake, not a wish

/// One conversion of a printf format: "%", flags, width, precision, length, letter.
struct Conversion {
  std::string flags;
  int width = -1;      // -1: none
  int precision = -1;  // -1: none
  std::string length;
  char letter = 0;  // 0: none that we know
};

/// The text, cut at its limit.
class Text {
 public:
  explicit Text(std::size_t maxBytes) : maxBytes_(maxBytes) {}

  void append(const char* data, std::size_t size) {
    const std::size_t taken = std::min(size, maxBytes_ - text_.size());
    text_.append(data, taken);
    omitted_ += size - taken;
  }
  void append(const std::string& part) { append(part.data(), part.size()); }
  std::size_t room() const { return maxBytes_ - text_.size(); }
  void omit(std::size_t bytes) { omitted_ += bytes; }

  std::string take() {
    if (omitted_ > 0) text_ += "... (" + std::to_string(omitted_) + " bytes omitted)";
    return std::move(text_);
  }

 private:
  const std::size_t maxBytes_;
  std::string text_;
  std::size_t omitted_ = 0;
};

/// Walks a format and takes the arguments one by one, because the C library knows neither "%b" as a
/// bool nor the colour conversions.
class Formatter {
 public:
  // The list is taken by reference so that every conversion goes on where the last one ended.
  Formatter(const char* fmt, va_list& args, std::size_t maxBytes)
      : at_(fmt), args_(args), text_(maxBytes) {}

  Rendered run() {
    Rendered rendered;
    rendered.colorEscape = leadingColor();
    while (*at_ != '\0') step();
    rendered.text = text_.take();
    return rendered;
  }

 private:
  const char* leadingColor();
  void step();
  Conversion parse();
  int parseNumber();
  void convert(const Conversion& conversion, const char* begin);
  void convertInteger(const Conversion& conversion);
  void convertText(const Conversion& conversion);
  void convertWideText(const Conversion& conversion);
  template <typename T>
  void print(const Conversion& conversion, const char* length, T value);
  void appendPadded(const Conversion& conversion, const std::string& value);
  void appendEscaped(const Conversion& conversion, const char* data, std::size_t size);

  const char* at_;
  va_list& args_;
  Text text_;
};

const char* colorOf(const char* wordOrEscape) {
  if (wordOrEscape == nullptr) return nullptr;
  for (const auto& row : brix::detail::kColorRows) {
    if (std::strcmp(wordOrEscape, row.escape) == 0) return row.escape;
    if (row.word != nullptr && std::strcmp(wordOrEscape, row.word) == 0) return row.escape;
  }
  return nullptr;
}

const char* colorOf(int value) {
  const auto wanted =
      value == kPaletteColor ? brix::LogColor::Palette136 : static_cast<brix::LogColor>(value);
  for (const auto& row : brix::detail::kColorRows) {
    if (row.color == wanted) return row.escape;
  }
  return nullptr;
}

const char* Formatter::leadingColor() {
  if (std::strncmp(at_, "%c", 2) == 0) {
    at_ += 2;
    return colorOf(va_arg(args_, const char*));
  }
  if (std::strncmp(at_, "%C", 2) == 0) {
    at_ += 2;
    return colorOf(va_arg(args_, int));
  }
  return nullptr;
}

void Formatter::step() {
  const std::size_t plain = std::strcspn(at_, "%");
  if (plain > 0) {
    text_.append(at_, plain);
    at_ += plain;
    return;
  }
  const char* begin = at_++;
  if (*at_ == '%') {
    text_.append(at_++, 1);
    return;
  }
  const Conversion conversion = parse();
  convert(conversion, begin);
}

int Formatter::parseNumber() {
  if (*at_ == '*') {
    ++at_;
    return std::clamp(va_arg(args_, int), -kWidestField, kWidestField);
  }
  int number = 0;
  for (; *at_ >= '0' && *at_ <= '9'; ++at_)
    number = std::min(number * 10 + (*at_ - '0'), kWidestField);
  return number;
}

Conversion Formatter::parse() {
  Conversion conversion;
  for (; *at_ != '\0' && std::strchr("-+ #0'", *at_) != nullptr; ++at_) conversion.flags += *at_;
  if (*at_ == '*' || (*at_ >= '1' && *at_ <= '9')) {
    conversion.width = parseNumber();
    if (conversion.width < 0) {  // as printf reads a negative "*"
      conversion.flags += '-';
      conversion.width = -conversion.width;
    }
  }
  if (*at_ == '.') {
    ++at_;
    conversion.precision = std::max(parseNumber(), -1);
  }
  for (; *at_ != '\0' && std::strchr("hlLjzt", *at_) != nullptr; ++at_) conversion.length += *at_;
  if (*at_ != '\0' && std::strchr("diouxXcsbpneEfFgGaA", *at_) != nullptr)
    conversion.letter = *at_++;
  return conversion;
}

void Formatter::convert(const Conversion& conversion, const char* begin) {
  switch (conversion.letter) {
    case 0:  // unknown: its argument cannot be taken, so it is printed as it stands
      text_.append(begin, static_cast<std::size_t>(at_ - begin));
      break;
    case 'n':  // never writes through a pointer
      va_arg(args_, void*);
      text_.append(begin, static_cast<std::size_t>(at_ - begin));
      break;
    case 'b':
      appendPadded(conversion, va_arg(args_, int) != 0 ? "true" : "false");
      break;
    case 's':
      if (conversion.length == "l") {
        convertWideText(conversion);
      } else {
        convertText(conversion);
      }
      break;
    case 'c': {
      const char letter = static_cast<char>(va_arg(args_, int));
      appendEscaped(conversion, &letter, 1);
      break;
    }
    case 'p':
      print(conversion, "", va_arg(args_, void*));
      break;
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      convertInteger(conversion);
      break;
    default:
      if (conversion.length == "L") {
        print(conversion, "L", va_arg(args_, long double));
      } else {
        print(conversion, "", va_arg(args_, double));
      }
  }
}

void Formatter::convertInteger(const Conversion& conversion) {
  const std::string& length = conversion.length;
  if (length == "ll" || length == "L") {
    print(conversion, "ll", va_arg(args_, long long));
  } else if (length == "l") {
    print(conversion, "l", va_arg(args_, long));
  } else if (length == "j") {
    print(conversion, "j", va_arg(args_, std::intmax_t));
  } else if (length == "z") {
    print(conversion, "z", va_arg(args_, std::size_t));
  } else if (length == "t") {
    print(conversion, "t", va_arg(args_, std::ptrdiff_t));
  } else {
    print(conversion, length == "h" || length == "hh" ? length.c_str() : "", va_arg(args_, int));
  }
}

template <typename T>
void Formatter::print(const Conversion& conversion, const char* length, T value) {
  std::string format = "%" + conversion.flags;
  if (conversion.width >= 0) format += std::to_string(conversion.width);
  if (conversion.precision >= 0) format += "." + std::to_string(conversion.precision);
  format += length;
  format += conversion.letter;
  char printed[512];
  const int size = std::snprintf(printed, sizeof printed, format.c_str(), value);
  if (size < 0) return;
  const auto bytes = static_cast<std::size_t>(size);
  if (bytes < sizeof printed) {
    text_.append(printed, bytes);
    return;
  }
  std::vector<char> large(bytes + 1);
  std::snprintf(large.data(), large.size(), format.c_str(), value);
  text_.append(large.data(), bytes);
}

void Formatter::convertText(const Conversion& conversion) {
  const char* value = va_arg(args_, const char*);
  if (value == nullptr) value = "(null)";
  const std::size_t size = conversion.precision >= 0
                               ? strnlen(value, static_cast<std::size_t>(conversion.precision))
                               : std::strlen(value);
  appendEscaped(conversion, value, size);
}

void Formatter::convertWideText(const Conversion& conversion) {
  const wchar_t* value = va_arg(args_, const wchar_t*);
  if (value == nullptr) value = L"(null)";
  const std::size_t limit =
      conversion.precision >= 0 ? static_cast<std::size_t>(conversion.precision) : wcslen(value);
  std::string narrow;
  for (std::size_t i = 0; i < limit && value[i] != L'\0' && text_.room() > 0; ++i) {
    narrow += value[i] > 0 && value[i] < 128 ? static_cast<char>(value[i]) : '?';
  }
  appendEscaped(conversion, narrow.data(), narrow.size());
}

void Formatter::appendPadded(const Conversion& conversion, const std::string& value) {
  const auto width = static_cast<std::size_t>(std::max(conversion.width, 0));
  const std::string padding(width > value.size() ? width - value.size() : 0, ' ');
  const bool left = conversion.flags.find('-') != std::string::npos;
  text_.append(left ? value + padding : padding + value);
}

/// Whether the bytes at `data` would steer a terminal: a control byte, or the UTF-8 form of one.
std::size_t controlBytes(const char* data, std::size_t size) {
  const auto first = static_cast<unsigned char>(data[0]);
  if (first < 0x20 || first == 0x7F) return 1;
  if (first != 0xC2 || size < 2) return 0;
  const auto second = static_cast<unsigned char>(data[1]);
  return second >= 0x80 && second < 0xA0 ? 2 : 0;
}

std::string escaped(char byte) {
  if (byte == '\r') return "\\r";
  if (byte == '\n') return "\\n";
  if (byte == '\t') return "\\t";
  char code[8];
  std::snprintf(code, sizeof code, "\\x%02X",
                static_cast<unsigned>(static_cast<unsigned char>(byte)));
  return code;
}

// Texts come from the network too: one call stays one line, and nothing steers the terminal.
void Formatter::appendEscaped(const Conversion& conversion, const char* data, std::size_t size) {
  std::string value;
  std::size_t i = 0;
  const std::size_t room =
      std::max(text_.room(), std::size_t{kWidestField});  // more could only be cut again
  while (i < size && value.size() <= room) {
    const std::size_t control = controlBytes(data + i, size - i);
    if (control == 0) {
      value += data[i++];
      continue;
    }
    for (const std::size_t end = i + control; i < end; ++i) value += escaped(data[i]);
  }
  text_.omit(size - i);
  appendPadded(conversion, value);
}

}  // namespace

Rendered render(const char* fmt, va_list args, std::size_t maxBytes) {
  if (fmt == nullptr) return {"(null format)", nullptr};
  va_list walked;
  va_copy(walked, args);
  Rendered rendered = Formatter(fmt, walked, maxBytes).run();
  va_end(walked);
  return rendered;
}

const char* errorCodeName(brix::BrixErrorCode code) {
  for (const auto& row : brix::detail::kErrorCodeRows) {
    if (row.code == code) return row.name;
  }
  return nullptr;
}

}  // namespace brix_log
