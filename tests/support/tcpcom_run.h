// tcpcom, run as its users run it, and the mock controller that it is.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <string>
#include <vector>

#include "program.h"

namespace test {

using Words = std::vector<std::string>;

inline constexpr char kScript[] =
    R"({"replies": {"get_state": {"state": "idle"}, "refuse": {"code": -5, "msg": "no"}},
        "broadcasts": [{"periodMs": 5, "text": {"command": "state", "count": "$count", "v": 0.1}}],
        "echo": ["id"]})";

/// @param words  separated by blanks; PEER, PORT and FILE stand for these
inline Words tcpcom(const std::string& words, int port = 0, const std::string& file = {}) {
  Words result{TCPCOM_PROGRAM};
  std::istringstream stream(words);
  for (std::string word; stream >> word;) {
    if (word == "PEER") word = "127.0.0.1:" + std::to_string(port);
    if (word == "PORT") word = std::to_string(port);
    if (word == "FILE" || word == "@FILE") word.replace(word.size() - 4, 4, file);
    result.push_back(word);
  }
  return result;
}

/// A mock controller that plays kScript.
class Mock {
 public:
  explicit Mock(const std::string& options = {})
      : program_(tcpcom("serve 0 FILE " + options, 0, folder_.file("script", kScript))),
        port_(portOf(program_)) {}

  int port() const { return port_; }
  Program& program() { return program_; }

 private:
  TempFolder folder_;
  Program program_;
  const int port_;
};

inline std::vector<Json::Value> objectsIn(const std::string& text) {
  std::vector<Json::Value> objects;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream one(line);
    objects.emplace_back();
    EXPECT_NO_THROW(one >> objects.back()) << line;
    EXPECT_TRUE(objects.back().isObject()) << line;
  }
  return objects;
}

struct Row {
  const char* words;
  int status;
  const char* out = nullptr;  // part of standard output; null: it is empty
  const char* err = nullptr;  // the same of standard error
  const char* input = "";
};

/// Runs each row; `port` is what PEER and PORT stand for.
inline void expectRuns(const std::vector<Row>& rows, int port, const std::string& file = {}) {
  const auto holds = [](const std::string& text, const char* part) {
    return part == nullptr ? text.empty() : text.find(part) != std::string::npos;
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.words);
    Program run(tcpcom(row.words, port, file), row.input);
    EXPECT_EQ(run.status(), row.status);
    EXPECT_TRUE(holds(run.out(), row.out)) << run.out();
    EXPECT_TRUE(holds(run.err(), row.err)) << run.err();
  }
}

}  // namespace test
