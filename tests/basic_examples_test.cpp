// The manual's numbered examples, each run with its peer.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sstream>

#include "program.h"

namespace {

using test::Program;

struct Row {
  const char* server;  // empty: the client needs none
  const char* client;  // PEER, PORT and TCPCOM stand for these
  int status;
  const char* says;  // on either stream
};

/// @param line  the program's name and its arguments, separated by blanks
std::vector<std::string> words(const std::string& line, int port) {
  std::vector<std::string> result;
  std::istringstream stream(line);
  for (std::string word; stream >> word;) {
    if (word == "PEER") word = "127.0.0.1:" + std::to_string(port);
    if (word == "PORT") word = std::to_string(port);
    if (word == "TCPCOM" || word == "tcpcom") word = TCPCOM_PROGRAM;
    if (word == "SCRIPT") word = EXAMPLES_FOLDER "/arm.json";
    if (result.empty() && word != TCPCOM_PROGRAM) word.insert(0, EXAMPLES_BIN "/");
    result.push_back(word);
  }
  return result;
}

TEST(BasicExamples, EachDoesWithItsPeerWhatItSays) {
  constexpr char kMock[] = "tcpcom serve 0 SCRIPT";
  const Row rows[] = {
      {"01_echo_server 0", "tcpcom request PEER hi {\"id\":7}", 0, R"({"command":"hi","id":7})"},
      {"01_echo_server 0", "02_echo_client 127.0.0.1 PORT", 0,
       R"(answer: {"command":"echo","text":"hello"})"},
      {"tcpcom serve 0 SCRIPT --family state", "02_echo_client 127.0.0.1 PORT", 0,
       R"("msg":"command recieved","text":"hello"})"},
      {"03_state_broadcast 0", "tcpcom watch PEER -C 3 --filter command=state", 0, "joints_deg"},
      {"04_command_server 0", "tcpcom request PEER move {\"joint_deg\":30}", 0, R"("code":1,)"},
      {"04_command_server 0", "tcpcom request PEER move {\"joint_deg\":121}", 0, "beyond"},
      {"04_command_server 0", "tcpcom request PEER move {\"joint_deg\":[]}", 6, "unknow"},
      {"04_command_server 0", "tcpcom watch PEER -C 2", 0,
       R"({"command":"state","joint_deg":0.0})"},
      {kMock, "05_request_and_reply 127.0.0.1 PORT get_state", 0, R"("state":"idle"})"},
      {kMock, "05_request_and_reply 127.0.0.1 PORT dance", 1, "cannot found command handle"},
      {kMock, "06_log_sink 127.0.0.1 PORT", 0, "connect successful"},
      {"", "06_log_sink 127.0.0.1 0", 1, "Cannot Connect the server!"},
      {"", "07_testing_with_the_mock TCPCOM SCRIPT", 0, "lost: passed"},
      {"", "07_testing_with_the_mock TCPCOM none", 1, "does not serve none"},
      {"", "01_echo_server 80x", 2, "\"80x\" is no port"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.client);
    const bool served = *row.server != '\0';
    std::unique_ptr<Program> server;
    if (served) server = std::make_unique<Program>(words(row.server, 0));
    Program client(words(row.client, served ? test::portOf(*server) : 0));
    EXPECT_EQ(client.status(), row.status) << client.err();
    EXPECT_NE((client.out() + client.err()).find(row.says), std::string::npos)
        << client.out() << client.err();
    if (!served) continue;
    server->signal(SIGTERM);
    EXPECT_EQ(server->status(), words(row.server, 0)[0] == TCPCOM_PROGRAM ? 130 : 0);
  }
}

}  // namespace
