#include <gtest/gtest.h>

#include <cstdlib>

#include "brix_tcp_server.h"
#include "communication_client.h"
#include "communication_server.h"
#include "tcp_client.h"
#include "tcp_client_wrapper.h"
#include "tcp_server_wrapper.h"
#include "texts.h"

namespace {

using namespace test;

const std::string kState = "{}", kRequest = "{\"command\":\"echo\",\"n\":",
                  kReply = "{\"code\":1,\"command\":\"echo\",\"msg\":\"command recieved\",\"n\":";

struct Inbox : brix::iRecieveListener, Texts {
  void onReceive(const std::string& msg) override { add(msg); }
};

struct InteroperationTest : testing::Test {
  InteroperationTest() {
    brix::TcpServerWrapper::ObjectHandlerMap handlers{{"echo", [](auto& msg) { return msg; }}};
    commands.setHandleMap(handlers);
    commands.init(0);
    states.setServerHandle(transport);
    states.registerRawDataBroadcastFunc([this](auto& msg) { return commands.commandHandle(msg); });
    states.initialize(0);
    EXPECT_TRUE(commands.waitUntilListening(kDeadlineMs));
    EXPECT_TRUE(transport->waitUntilListening(kDeadlineMs));
  }
  ~InteroperationTest() override { states.terminate(), commands.quit(); }
  brix::TcpServerWrapper commands{-1};
  std::shared_ptr<brix::BrixTcpServer> transport = std::make_shared<brix::BrixTcpServer>();
  brix::CommunicationServer states;
};

TEST_F(InteroperationTest, EveryClientUnderstandsEveryServer) {
  states.registerBroadcastFunc([] { return kState; }, 20);
  commands.registerBroadcastFunc([] { return Json::Value(Json::objectValue); }, 20);
  for (const int port : {commands.listeningPort(), transport->listeningPort()}) {
    EXPECT_EQ(std::system(("python3 " PEER_SCRIPT " " + std::to_string(port)).c_str()), 0);
    Inbox inboxes[2];
    brix::TcpClientWrapper wrapper;
    brix::CommunicationClient client;
    wrapper.attachListener(&inboxes[0]);
    client.attachListener(&inboxes[1]);
    client.setClientHandle(std::make_shared<brix::TcpClient>("127.0.0.1", port));
    EXPECT_EQ(wrapper.connectSocket("127.0.0.1", port) + client.connect("127.0.0.1", port, 1), 2);
    EXPECT_TRUE(inboxes[0].gets(kState) && inboxes[1].gets(kState));
    EXPECT_TRUE(wrapper.send("", kRequest + "1}", 0) && client.sendMsg(kRequest + "2}") == 1);
    for (const auto& text : {kReply + "1}", kReply + "2}"})
      EXPECT_TRUE(inboxes[0].gets(text) && inboxes[1].gets(text)) << text;
  }
}

TEST_F(InteroperationTest, HeartbeatsKeepALinkUp) {
  Inbox inbox;
  brix::TcpClientWrapper a, b;
  for (auto* client : {&a, &b}) client->attachListener(&inbox);
  EXPECT_EQ(a.connectSocket("127.0.0.1", commands.listeningPort()), 1);
  EXPECT_EQ(b.connectSocket("127.0.0.1", transport->listeningPort()), 1);
  EXPECT_FALSE(eventually([&] { return !a.isConnected() || !b.isConnected(); }, 2000));
}

}  // namespace
