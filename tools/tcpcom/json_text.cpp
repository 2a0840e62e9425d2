#include "json_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>

#include "brix_json.h"

namespace tcpcom {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

std::string hexOf(const std::string& bytes) {
  std::string hex;
  for (const char each : bytes) {
    const auto byte = static_cast<unsigned char>(each);
    hex += kHexDigits[byte / 16];
    hex += kHexDigits[byte % 16];
  }
  return hex;
}

std::optional<std::string> bytesOfHex(const std::string& hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    unsigned value = 0;
    int used = 0;
    if (std::sscanf(hex.c_str() + i, "%2x%n", &value, &used) != 1 || used != 2) return std::nullopt;
    bytes += static_cast<char>(value);
  }
  return bytes;
}

/// The parser's reason as one line.
std::string tidied(const std::string& reason) {
  std::istringstream words(reason);
  std::string text;
  for (std::string word; words >> word;) {
    if (word != "*") text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

bool isNumber(const std::string& text) {
  std::size_t at = text.front() == '-' ? 1 : 0;
  const auto is = [&](const char* set) {
    return at < text.size() && std::strchr(set, text[at]) != nullptr;
  };
  const auto digits = [&] {
    const std::size_t from = at;
    at = std::min(text.find_first_not_of("0123456789", at), text.size());
    return at - from;
  };
  const bool zero = is("0");
  if (const std::size_t whole = digits(); whole == 0 || (zero && whole > 1)) return false;
  if (is(".") && (++at, digits() == 0)) return false;
  if (!is("eE")) return at == text.size();
  ++at;
  if (is("+-")) ++at;
  return digits() > 0 && at == text.size();
}

/// The writer replaces what is not UTF-8.
bool survivesAs(const std::string& text, const std::string& quoted) {
  const auto back = parseJson(quoted);
  return back && back->asString() == text;
}

bool isIndex(const std::string& key) {
  return !key.empty() && key.size() <= 9 &&
         key.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::optional<Json::Value> parseJson(const std::string& text, std::string* error) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["allowComments"] = false;
  builder["allowTrailingCommas"] = false;
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string reason;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &reason)) return value;
  } catch (const Json::Exception& exception) {  // nested too deep
    reason = exception.what();
  }
  if (error != nullptr) *error = tidied(reason);
  return std::nullopt;
}

std::string compactJson(const Json::Value& value) {
  return brix_json::toStrWithoutIndentation(value, std::numeric_limits<double>::max_digits10);
}

std::optional<std::string> exactLine(const std::string& text) {
  if (!survivesAs(text, compactJson(Json::Value(text)))) return std::nullopt;
  std::string line;
  bool inString = false;
  char before = '\0';  // apart from blanks
  for (std::size_t i = text.rfind(kByteOrderMark, 0) == 0 ? 3 : 0; i < text.size(); ++i) {
    const char byte = text[i];
    if (byte == '"') inString = !inString;
    if (!inString && byte == '}' && before == ',') return std::nullopt;
    if (std::strchr(" \t\r\n", byte) == nullptr) before = byte;
    if (static_cast<unsigned char>(byte) < 0x20) {
      if (byte == '\0' && !inString) return std::nullopt;  // the parser stops at it
      line += inString ? "\\u00" + hexOf({byte}) : " ";
    } else if (inString && byte == '\\' && i + 1 < text.size()) {
      line += {byte, text[++i]};
    } else if (!inString && std::strchr("+-.0123456789", byte) != nullptr) {
      const auto end = std::min(text.find_first_not_of("+-.0123456789eE", i), text.size());
      const std::string number = text.substr(i, end - i);
      if (!isNumber(number)) return std::nullopt;
      line += number;
      i = end - 1;
    } else {
      line += byte;
    }
  }
  return line;
}

const Json::Value* memberAt(const Json::Value& root, const std::string& path) {
  const Json::Value* value = &root;
  std::istringstream keys(path);
  for (std::string key; std::getline(keys, key, '.');) {
    if (value->isObject() && value->isMember(key)) {
      value = &(*value)[key];
    } else if (value->isArray() && isIndex(key) &&
               value->isValidIndex(static_cast<Json::ArrayIndex>(std::stoul(key)))) {
      value = &(*value)[static_cast<Json::ArrayIndex>(std::stoul(key))];
    } else {
      return nullptr;
    }
  }
  return value;
}

std::string plainText(const Json::Value& value) {
  if (value.isString()) return value.asString();
  if (value.type() != Json::realValue) return compactJson(value);
  std::array<char, 40> text{};
  const auto made = std::to_chars(text.data(), text.data() + text.size(), value.asDouble());
  return {text.data(), made.ptr};
}

std::string printable(const std::string& text) {
  std::string shown;
  unsigned char before = 0;
  for (const char byte : text) {
    const auto code = static_cast<unsigned char>(byte);
    // The second half of U+0080 to U+009F steers as well; the first half alone does nothing.
    const bool steers = before == 0xC2 && code >= 0x80 && code < 0xA0;
    before = code;
    if ((code < 0x20 && byte != '\t') || code == 0x7F || steers) {
      shown += "\\x" + hexOf(std::string(1, byte));
    } else {
      shown += byte;
    }
  }
  return shown;
}

JsonLine& JsonLine::json(const char* key, const std::string& value) {
  members_ += members_.empty() ? '{' : ',';
  members_ += Json::valueToQuotedString(key) + ':' + value;
  return *this;
}

JsonLine& JsonLine::text(const char* key, const std::string& value) {
  return json(key, compactJson(Json::Value(value)));
}

JsonLine& JsonLine::integer(const char* key, std::int64_t value) {
  return json(key, std::to_string(value));
}

JsonLine& JsonLine::number(const char* key, double value) {
  if (!std::isfinite(value)) return json(key, "null");
  std::array<char, 400> text{};  // the largest double has 309 digits before the point
  std::snprintf(text.data(), text.size(), "%.6f", value);
  return json(key, text.data());
}

JsonLine& JsonLine::boolean(const char* key, bool value) {
  return json(key, value ? "true" : "false");
}

JsonLine& JsonLine::bytes(const std::string& value) {
  const std::string quoted = compactJson(Json::Value(value));
  if (survivesAs(value, quoted)) return json("text", quoted);
  return text("hex", hexOf(value));
}

JsonLine& JsonLine::message(const std::string& value) {
  const auto line = parseJson(value) ? exactLine(value) : std::nullopt;
  return line ? json("message", *line) : bytes(value);
}

std::optional<std::string> bytesOf(const Json::Value& object) {
  if (const Json::Value& text = object["text"]; text.isString()) return text.asString();
  if (const Json::Value& hex = object["hex"]; hex.isString()) return bytesOfHex(hex.asString());
  return std::nullopt;
}

}  // namespace tcpcom
