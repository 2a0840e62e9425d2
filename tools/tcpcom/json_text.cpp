#include "json_text.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <sstream>

#include "brix_json.h"

namespace tcpcom {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

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

std::string oneLine(const std::string& text, const Json::Value& value) {
  return text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos ? text
                                                                           : compactJson(value);
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
  return value.isString() ? value.asString() : compactJson(value);
}

std::string printable(const std::string& text) {
  std::string shown;
  for (const char byte : text) {
    const auto code = static_cast<unsigned char>(byte);
    if ((code < 0x20 && byte != '\t') || code == 0x7F) {
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
  // The writer replaces what is not UTF-8.
  const auto back = parseJson(quoted);
  if (back && back->asString() == value) return json("text", quoted);
  return text("hex", hexOf(value));
}

JsonLine& JsonLine::message(const std::string& value) {
  const auto parsed = parseJson(value);
  return parsed ? json("message", oneLine(value, *parsed)) : bytes(value);
}

std::optional<std::string> bytesOf(const Json::Value& object) {
  if (const Json::Value& text = object["text"]; text.isString()) return text.asString();
  if (const Json::Value& hex = object["hex"]; hex.isString()) return bytesOfHex(hex.asString());
  return std::nullopt;
}

}  // namespace tcpcom
