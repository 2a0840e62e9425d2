#include "brix_json.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

const auto written = [](const Json::Value& value) {
  return brix_json::toStrWithoutIndentation(value, brix_json::kPrecision);
};

TEST(BrixJson, WritesOneCompactLineWithoutComments) {
  Json::Value value;
  EXPECT_EQ(written(value), "null");
  value["command"] = "heartbeat";
  EXPECT_EQ(written(value), R"({"command":"heartbeat"})");
  value["b"].append(Json::Value(Json::objectValue));
  value["b"].append("x\r\n\"y");
  EXPECT_EQ(written(value), R"({"b":[{},"x\r\n\"y"],"command":"heartbeat"})");
  EXPECT_EQ(written(0.123456789), "0.123457");
  EXPECT_EQ(brix_json::toStrWithoutIndentation(0.123456789, 3), "0.123");

  const std::string text = "// 1\n{\"a\":1, // swallows\r\n\"b\":[2,[3 /* deep */]]}\n// 2\n";
  std::istringstream(text) >> value;
  const std::string commented = value.toStyledString();
  EXPECT_EQ(written(value), R"({"a":1,"b":[2,[3]]})");
  EXPECT_EQ(written(value["b"]), "[2,[3]]");
  EXPECT_EQ(value.toStyledString(), commented) << "the caller's value was changed";
  EXPECT_EQ(brix_json::parseStr(text).toStyledString().find('/'), std::string::npos);
}

TEST(BrixJson, ReadsUpToTheFirstNulAndRefusesWhatIsNotJson) {
  EXPECT_EQ(written(brix_json::parseStr(std::string("{\"a\":[]}\0}{", 11))), R"({"a":[]})");
  EXPECT_TRUE(brix_json::parseStr(std::string("\"a\0b\"", 5)).isNull());
  for (const char* bad : {"", " \r\n", "garbage", "{\"a\":1", "\xFF\xFE"}) {
    EXPECT_TRUE(brix_json::parseStr(bad).isNull()) << bad;
  }
  std::string deep;
  while (deep.size() < 500000) deep += "{\"a\":";
  EXPECT_THROW(brix_json::parseStr(deep), Json::Exception);
  EXPECT_THROW(brix_json::parseStr(std::string(1100, '[')), Json::Exception);
}

}  // namespace
