// JSON as texts: reading strictly, and building lines without changing what was received.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tcpcom {

/// @param error  gets the reason if it is not null
/// @return nothing if the text is not one JSON value
std::optional<Json::Value> parseJson(const std::string& text, std::string* error = nullptr);

/// @return the value as one line, numbers to their last digit
std::string compactJson(const Json::Value& value);

/// @param text  parsed well; the parser takes more than JSON is
/// @return it as one line, digit for digit; nothing if another parser would not take it
std::optional<std::string> exactLine(const std::string& text);

/// @param path  keys of nested objects, with a dot between two; a number is an array's index
/// @return null if there is no such member
const Json::Value* memberAt(const Json::Value& root, const std::string& path);

/// @return a string's content; any other value as compact text, a number without needless digits
std::string plainText(const Json::Value& value);

/// Replaces bytes that would steer a terminal by "\xNN".
std::string printable(const std::string& text);

/// Builds one object on one line; members stay in order.
class JsonLine {
 public:
  JsonLine& text(const char* key, const std::string& value);
  JsonLine& integer(const char* key, std::int64_t value);
  /// Writes 6 decimals; what is no finite number becomes null.
  JsonLine& number(const char* key, double value);
  JsonLine& boolean(const char* key, bool value);
  /// Takes a text that is JSON already.
  JsonLine& json(const char* key, const std::string& value);
  /// Takes any bytes: as "text", or as "hex" where a JSON string cannot hold them.
  JsonLine& bytes(const std::string& value);
  /// Takes a received message: as "message" if it is JSON, otherwise as bytes().
  JsonLine& message(const std::string& value);

  std::string str() const { return members_.empty() ? "{}" : members_ + '}'; }

 private:
  std::string members_;
};

/// Takes back what JsonLine::bytes() wrote.
/// @return nothing if the object has neither member, or a wrong one
std::optional<std::string> bytesOf(const Json::Value& object);

}  // namespace tcpcom
