#include "tcp_server_wrapper.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

#include "log_capture.h"
#include "raw_socket.h"

namespace {

using brix::TcpServerWrapper;
using test::eventually;
using test::RawSocket;

class TcpServerWrapperTest : public testing::Test {
 protected:
  void SetUp() override { server = std::make_unique<TcpServerWrapper>(-1); }
  void TearDown() override {
    if (server) server->quit();
  }
  int start() {
    server->init(0);
    EXPECT_TRUE(server->waitUntilListening(test::kDeadlineMs));
    return server->listeningPort();
  }
  RawSocket connected(int port) {
    const std::size_t before = log.infos("tcp sender attach listener");
    RawSocket client = RawSocket::connectTo(port);
    EXPECT_TRUE(eventually([&] { return log.infos("tcp sender attach listener") > before; }));
    return client;
  }
  void add(const std::string& name, const TcpServerWrapper::ObjectHandler& handler) {
    TcpServerWrapper::ObjectHandlerMap map{{name, handler}};
    server->setHandleMap(map);
  }

  test::LogCapture log;
  std::unique_ptr<TcpServerWrapper> server;
};

Json::Value object(const char* key, const Json::Value& value) {
  Json::Value result(Json::objectValue);
  result[key] = value;
  return result;
}

TEST_F(TcpServerWrapperTest, AnswersEachOutcomeByteForByte) {
  add("ok", [](const Json::Value& request) {
    Json::Value reply = object("msg", "ok");
    reply["value"] = request.get("v", 3);
    return reply;
  });
  add("heartbeat", [](const Json::Value&) { return object("mine", 1); });  // the default one stays
  add("throws", [](const Json::Value&) -> Json::Value { throw std::runtime_error("boom"); });
  add("throws 7", [](const Json::Value&) -> Json::Value { throw 7; });
  add("empty", nullptr);
  add("null", [](const Json::Value&) { return Json::Value(); });
  add("array", [](const Json::Value&) { return Json::Value(Json::arrayValue); });
  add("text", [](const Json::Value&) { return Json::Value("s"); });
  const std::string parseError = R"({"code":-2,"msg":"command parse error"})";
  const std::string unknown = R"({"code":-2,"command":"unknow","msg":"command parse error"})";
  const struct {
    std::string request, reply;
  } rows[] = {
      {"no json", parseError},
      {R"({"cmd":"x"})", parseError},
      {R"({"command":"move"})",
       R"({"code":-2,"command":"move","msg":"cannot found command handle"})"},
      {R"({"command":12})", R"({"code":-2,"command":"12","msg":"cannot found command handle"})"},
      {R"({"command":"ok"})", R"({"code":1,"msg":"command recieved","value":3})"},
      {R"({"command":"ok","v":0.123456789})",
       R"({"code":1,"msg":"command recieved","value":0.123457})"},
      {R"({"command":"heartbeat"})",
       R"({"code":1,"command":"heartbeat","msg":"command recieved"})"},
      {R"({"command":"null"})", R"({"code":1,"msg":"command recieved"})"},
      {R"({"command":"throws"})", unknown},
      {R"({"command":"throws 7"})", unknown},
      {R"({"command":"empty"})", unknown},
  };
  const RawSocket client = connected(start());
  for (const auto& row : rows) {
    client.send(row.request + "\r\n");
    EXPECT_EQ(client.read(row.reply.size() + 2), row.reply + "\r\n") << row.request.substr(0, 40);
  }
  for (const char* bad : {R"({"command":"array"})", R"({"command":"text"})"}) {
    EXPECT_THROW(server->commandHandle(bad), Json::Exception);
    client.send(bad + std::string("\r\n"));
  }
  client.send("null\r\n");  // nothing before it is answered, and the client is still served
  EXPECT_EQ(client.read(parseError.size() + 2), parseError + "\r\n");
  EXPECT_EQ(log.errors("onReceive exception"), 2U);
}

TEST_F(TcpServerWrapperTest, RefusesTextHandlers) {
  for (const bool empty : {true, false}) {
    TcpServerWrapper::TextHandlerMap map;
    if (!empty) map["x"] = [](const std::string&, std::string&) { return 1; };
    try {
      server->setHandleMap(map);
      FAIL() << "nothing thrown";
    } catch (const std::string& text) {
      EXPECT_EQ(text, "Don't use more than one command handle map type");
    }
  }
}

TEST_F(TcpServerWrapperTest, SendsLongRepliesWhole) {
  constexpr std::size_t kMebibyte = 1 << 20;
  const std::string frame = R"({"code":1,"msg":"command recieved","text":""})";
  add("long", [](const Json::Value& request) {
    return object("text", std::string(request["size"].asUInt(), 'x'));
  });
  const RawSocket client = connected(start());
  for (const std::size_t size : {kMebibyte - 1, kMebibyte, kMebibyte + 1, kMebibyte * 5 / 2}) {
    client.send(R"({"command":"long","size":)" + std::to_string(size - frame.size()) + "}\r\n");
    const std::string reply = client.read(size + 2);
    ASSERT_EQ(reply.size(), size + 2);
    EXPECT_EQ(reply.find("\r\n"), size);  // one delimiter, at the end
  }
}

TEST_F(TcpServerWrapperTest, BroadcastsOnlyWhileAClientIsConnected) {
  std::atomic<int> calls{0};
  const auto broadcast = [&]() -> Json::Value {
    if (++calls == 2) throw std::runtime_error("boom");
    return object("n", calls.load());
  };
  server->registerBroadcastFunc(broadcast, 1);
  const int port = start();
  EXPECT_FALSE(server->sendMsgs("lost\r\n"));
  EXPECT_FALSE(eventually([&] { return calls > 0; }, 50));
  {
    const RawSocket client = connected(port);
    EXPECT_EQ(client.read(18), "{\"n\":1}\r\n{\"n\":3}\r\n");
  }
  EXPECT_EQ(log.errors("broadcast function exception: boom"), 1U);
  EXPECT_TRUE(eventually([&] { return log.infos("tcp connection false") == 1; }));
  const int seen = calls;
  EXPECT_FALSE(eventually([&] { return calls > seen + 2; }, 50));
  server->setBroadcastRate(60000);
  const RawSocket client = connected(port);
  server->quit();
  EXPECT_LT(test::timedMs([&] { server.reset(); }), test::kStopBoundMs);  // not a minute
}

TEST_F(TcpServerWrapperTest, ABroadcastFunctionHoldsUpNoOtherServer) {
  TcpServerWrapper other(-1);
  other.init(0);
  ASSERT_TRUE(other.waitUntilListening(test::kDeadlineMs));
  SetUp();  // it has the connection listener of the process
  std::promise<void> inside, arrived, stopped;
  server->registerBroadcastFunc(
      [&, first = true]() mutable {
        if (std::exchange(first, false)) {
          inside.set_value();
          arrived.get_future().wait();
          other.quit();
          stopped.set_value();
        }
        return Json::Value();
      },
      1);
  const RawSocket client = connected(start());
  inside.get_future().wait();
  const RawSocket another = connected(other.listeningPort());
  arrived.set_value();
  EXPECT_TRUE(test::ready(stopped));
}

TEST_F(TcpServerWrapperTest, ADestructorInTheBroadcastFunctionEndsTheWaitForIt) {
  std::promise<void> called, destroyed;
  add("again", [&](const Json::Value&) {
    server->registerBroadcastFunc([] { return Json::Value(); }, 1);
    return Json::Value();
  });
  server->registerBroadcastFunc(
      [&, first = true]() mutable {
        if (!std::exchange(first, false)) return Json::Value();
        called.set_value();
        EXPECT_TRUE(eventually([&] { return log.infos("register tcp broadcast callback") == 2; }));
        server.reset();
        destroyed.set_value();
        return Json::Value();
      },
      1);
  const RawSocket client = connected(start());
  ASSERT_TRUE(test::ready(called));  // or the next function would take its place
  client.send("{\"command\":\"again\"}\r\n");
  EXPECT_TRUE(test::ready(destroyed));
}

TEST_F(TcpServerWrapperTest, StopsAlthoughAClientDoesNotRead) {
  const int port = start();
  const RawSocket stuck = connected(port);
  for (int i = 0; i < 16; ++i) server->sendMsgs(std::string(1 << 20, 'x'));
  const RawSocket waiting = RawSocket::connectTo(port);  // its registration waits for the sender
  EXPECT_TRUE(eventually([&] { return log.infos("current connection counts 2") == 1; }));
  EXPECT_LT(test::timedMs([&] { server->quit(); }), 1000 + test::kStopBoundMs);
  EXPECT_LT(test::timedMs([&] { server.reset(); }), test::kStopBoundMs);
}

}  // namespace
