// The manual's pages against the code: the mock commands of the failure table show what their rows
// say, and the log texts are those of the sources.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <sstream>

#include "brix_json.h"
#include "communication_client.h"
#include "log_capture.h"
#include "program.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"

namespace {

using test::Clock;
using test::elapsedMs;
using test::eventually;
using test::LogCapture;
using test::Program;
using Texts = std::vector<std::string>;

const std::filesystem::path kRoot = SOURCE_FOLDER;

/// @return what the pattern's group finds, one after the other
Texts found(const std::string& text, const char* pattern) {
  const std::regex regex(pattern);
  Texts result;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    result.push_back((*match)[1]);
  }
  return result;
}

/// @return the table rows of a page, cut into their cells
std::vector<Texts> rowsOf(const char* page) {
  std::vector<Texts> rows;
  std::istringstream lines(test::contentOf(kRoot / "docs/manual" / page));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("| ", 0) == 0) rows.push_back(found(line, R"(\| ([^|]*) (?=\|))"));
  }
  return rows;
}

Texts codesIn(const std::string& cell) {
  return found(cell, "`([^`]*)`");
}

/// @param hole  what stands in the place of each "<...>"
std::regex asPattern(const std::string& text, const char* hole) {
  const std::string plain = std::regex_replace(text, std::regex(R"([.*+?^${}()|[\]\\])"), R"(\$&)");
  return std::regex(std::regex_replace(plain, std::regex("<[a-z]+>"), hole));
}

/// What a client of one row sees.
struct Seen {
  std::atomic<int> messages{0}, missing{0}, lastCount{-1};
  std::atomic<Clock::time_point> lastMessage{Clock::now()};

  void take(const std::string& text) {
    ++messages;
    lastMessage = Clock::now();
    const Json::Value message = brix_json::parseStr(text);
    if (!message.isMember("count")) return;  // a heartbeat's reply
    const int count = message["count"].asInt();
    if (lastCount >= 0) missing += count - lastCount - 1;
    lastCount = count;
  }
};

class StateClient {
 public:
  StateClient(Seen& seen, int port, int peerTimeoutMs) {
    brix::ClientSafetyOptions options;
    options.peerTimeoutMs = peerTimeoutMs;
    client.setSafetyOptions(options);
    client.setClientHandle(std::make_shared<brix::TcpClient>("127.0.0.1", port));
    client.registerMsgListener([&](const std::string& msg) { seen.take(msg); });
    connected = client.connect("127.0.0.1", port, 1) == 1;
  }

  brix::CommunicationClient client;
  bool connected;
};

class CommandClient : private brix::iRecieveListener {
 public:
  CommandClient(Seen& seen, int port, int peerTimeoutMs) : seen_(seen) {
    brix::ClientSafetyOptions options;
    options.peerTimeoutMs = peerTimeoutMs;
    client.setSafetyOptions(options);
    client.attachListener(this);
    connected = client.connectSocket("127.0.0.1", port) == 1;
  }

 private:
  void onReceive(const std::string& msg) override { seen_.take(msg); }
  Seen& seen_;

 public:
  brix::TcpClientWrapper client;  // last: it calls this object until it is gone
  bool connected;
};

/// @return milliseconds from the last message to the fall of the link
template <typename Client>
double silenceMs(int port, int peerTimeoutMs) {
  Seen seen;
  Client link(seen, port, peerTimeoutMs);
  EXPECT_TRUE(link.connected && eventually([&] { return !link.client.isConnected(); }));
  EXPECT_GT(seen.messages, 0);
  EXPECT_EQ(seen.missing, 0);
  return elapsedMs(seen.lastMessage);
}

/// Half will do to tell it from a fall at once: the machine may stand still while a message is
/// taken.
template <typename Client>
void fallsAfter(double silenceLimitMs, int port) {
  EXPECT_GE(silenceMs<Client>(port, 0), silenceLimitMs / 2);
}

/// Before the silence can be the reason; again, if the machine stood still meanwhile.
template <typename Client>
void fallsBefore(double mostMs, int port) {
  constexpr int kTries = 3, kPeerTimeoutMs = 20000;
  double ms = mostMs;
  for (int i = 0; i < kTries && ms >= mostMs; ++i) ms = silenceMs<Client>(port, kPeerTimeoutMs);
  EXPECT_LT(ms, mostMs);
}

void answersLate(int port) {
  Seen seen;
  const auto start = Clock::now();
  CommandClient link(seen, port, 0);
  ASSERT_TRUE(link.connected);
  EXPECT_TRUE(eventually([&] { return seen.messages > 10; }));
  EXPECT_GE(elapsedMs(start), 200);
  EXPECT_TRUE(link.client.isConnected());
}

void leavesOut(int port) {
  Seen seen;
  StateClient link(seen, port, 0);
  EXPECT_TRUE(eventually([&] { return seen.missing > 0; }));
  EXPECT_TRUE(link.client.isConnected());
}

void doesNotRead(int port) {
  Seen seen;
  StateClient link(seen, port, 1000);
  ASSERT_TRUE(link.connected);
  const std::string text(1 << 20, 'x');
  const auto start = Clock::now();
  for (int i = 0; i < 16; ++i) link.client.sendMsg(text);  // more than the sockets' buffers hold
  EXPECT_TRUE(eventually([&] { return !link.client.isConnected(); }));
  EXPECT_GE(elapsedMs(start), 1000);
}

/// What shows the row, by family and fault.
const std::map<std::string, std::function<void(int port)>> kShows = {
    {"state silent", [](int port) { fallsAfter<StateClient>(3000, port); }},
    {"command silent", [](int port) { fallsAfter<CommandClient>(1500, port); }},
    {"state close",
     [](int port) {
       fallsAfter<StateClient>(3000, port);
       fallsBefore<StateClient>(3000, port);
     }},
    {"command close",
     [](int port) {
       fallsAfter<CommandClient>(1500, port);
       fallsBefore<CommandClient>(1500, port);
     }},
    {"state half-message", [](int port) { fallsAfter<StateClient>(3000, port); }},
    {"command delay", answersLate},
    {"state drop", leavesOut},
    {"state slow-read", doesNotRead},
};

TEST(Manual, EachMockCommandOfTheFailureTableShowsItsRow) {
  std::filesystem::current_path(kRoot / "examples/basics");
  std::size_t shown = 0;
  for (const Texts& row : rowsOf("failures.md")) {
    if (row.size() < 4 || row[3].find("`tcpcom ") == std::string::npos) continue;
    const std::string command = codesIn(row[3]).at(0);
    SCOPED_TRACE(command);
    const bool state = command.find("--family state") != std::string::npos;
    const Texts fault = found(command, "--fault ([a-z-]+)");
    const auto show = kShows.find((state ? "state " : "command ") + fault.at(0));
    ASSERT_NE(show, kShows.end()) << "no client shows this row";
    ++shown;

    Program mock({"/bin/sh", "-c", "PATH=" TOOLS_BIN ":$PATH; exec " + command});
    const LogCapture log;
    show->second(test::portOf(mock));
    std::string said;
    for (const std::string& text : log.texts()) said += text + '\n';
    for (const std::string& text : codesIn(row[2])) {
      EXPECT_TRUE(std::regex_search(said, asPattern(text, ".*"))) << text << " not in\n" << said;
    }
    if (row[2] == "nothing") {
      EXPECT_EQ(log.errors("still recv nothing") + log.errors("heartbeat stop"), 0U) << said;
    }
  }
  EXPECT_EQ(shown, kShows.size());
}

/// @return all sources of the library, string literals whole and without escaped quotes
std::string sources() {
  std::string text;
  for (const char* folder : {"common", "tcp_com", "com_wrapper"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(kRoot / folder)) {
      if (entry.is_regular_file()) text += test::contentOf(entry.path());
    }
  }
  text = std::regex_replace(text, std::regex(R"("\s*\n\s*")"), "");
  return std::regex_replace(text, std::regex(R"(\\")"), "\"");
}

TEST(Manual, TroubleshootingHasTheLogTextsOfTheSources) {
  const std::string code = sources();
  Texts onPage;
  for (const Texts& row : rowsOf("troubleshooting.md")) {
    if (row.size() == 3) {
      for (const std::string& text : codesIn(row[0])) onPage.push_back(text);
    }
  }
  EXPECT_GT(onPage.size(), 40U);
  for (const std::string& text : onPage) {
    EXPECT_TRUE(std::regex_search(code, asPattern('"' + text + '"', "%[a-z]+"))) << text;
  }
  for (const std::string& text :
       found(code,
             R"-((?:BRIX_LOG_ERROR\(|ERR_COMMUNICATION,|guarded\(|handOver\()\s*"(.*?)"[,)])-")) {
    const bool told = std::any_of(onPage.begin(), onPage.end(), [&](const std::string& shown) {
      return std::regex_match(text, asPattern(shown, "%[a-z]+"));
    });
    EXPECT_TRUE(told) << "not on the page: " << text;
  }
}

}  // namespace
