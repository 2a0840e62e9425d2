#include "brix_json.h"

#include <memory>
#include <sstream>

namespace brix_json {
namespace {

constexpr Json::CommentPlacement kPlacements[] = {Json::commentBefore, Json::commentAfterOnSameLine,
                                                  Json::commentAfter};

bool hasComments(const Json::Value& value) {
  for (const auto placement : kPlacements) {
    if (value.hasComment(placement)) return true;
  }
  for (const Json::Value& child : value) {
    if (hasComments(child)) return true;
  }
  return false;
}

Json::Value withoutComments(const Json::Value& value) {
  Json::Value bare(value.type());
  if (value.isObject()) {
    for (auto member = value.begin(); member != value.end(); ++member) {
      bare[member.name()] = withoutComments(*member);
    }
  } else if (value.isArray()) {
    for (const Json::Value& element : value) bare.append(withoutComments(element));
  } else {
    bare.copyPayload(value);  // all but the comments
  }
  return bare;
}

std::string write(const Json::Value& root, int precision) {
  Json::StreamWriterBuilder builder;
  builder["precision"] = precision;
  builder["indentation"] = "";
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  std::ostringstream text;
  writer->write(root, &text);
  return text.str();
}

}  // namespace

std::string toStrWithoutIndentation(const Json::Value& root, int precision) {
  return write(hasComments(root) ? withoutComments(root) : root, precision);
}

Json::Value parseStr(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  const char* begin = text.c_str();
  if (!reader->parse(begin, begin + std::char_traits<char>::length(begin), &value, nullptr)) {
    return Json::Value();
  }
  return value;
}

}  // namespace brix_json
