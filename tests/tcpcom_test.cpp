// The command-line tool, run as its users run it: exit statuses, what goes to which stream, faults.
#include <gtest/gtest.h>
#include <json/json.h>
#include <pty.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "program.h"
#include "raw_socket.h"
#include "tcpcom_run.h"

namespace {

using test::expectRuns;
using test::Mock;
using test::objectsIn;
using test::portOf;
using test::Program;
using test::RawListener;
using test::RawSocket;
using test::Row;
using test::tcpcom;
using test::TempFolder;

TEST(Tcpcom, SpeaksWithAServerOfEitherFamily) {
  for (const char* family : {"state", "command"}) {
    SCOPED_TRACE(family);
    Mock mock(std::string("--family ") + family);
    TempFolder folder;
    expectRuns(
        {
            {"ping PEER -C 3 -i 0.01", 0, "3 sent, 3 answered, 0.0 % lost"},
            {"ping PEER -C 1 --json", 0, R"({"sent":1,"answered":1,"minMs":)"},
            {"ping PEER -C 1 --raw", 0, R"("command":"heartbeat")"},
            {"-v request PEER get_state {\"id\":[7]}", 0, R"("id":[7],)", "answered after"},
            {"request PEER get_state - --raw", 0, R"("id":"a b")", nullptr,
             "{\n\"id\":\"a b\",\"n\":12345678901234567890123}\r\n"},
            {"request PEER get_state @FILE", 0, R"("id":1)"},
            {"request PEER get_state @FILE --json", 0, R"("message":{"code":1,)"},
            {"request PEER watch", 6, "cannot found command handle", "code -2"},
            {"request PEER watch --json", 6, R"("code":-2)", R"("status":6})"},
            {"send PEER {\"command\":\"from-send\"}", 0},
            {"send PEER - -v", 0, nullptr, "3 texts sent", "{\"command\":\"line-1\"}\n2\r\nlast"},
            {"watch PEER -C 2 --filter command=state", 0, R"( B  {"command":"state","count":)"},
            {"watch PEER -C 3 --json", 0, R"("message":{"command":"state")"},
            {"watch PEER -C 3 --plot count", 0, "\u2588"},
            {"watch PEER -C 1 --plot v --json --filter v=0.10", 0, R"("value":0.1})"},
            {"bench PEER -C 20", 0, "request         20"},
            {"bench PEER get_state -C 5 --json", 0, R"({"measured":"request","count":5,)"},
        },
        mock.port(), folder.file("members", R"({"id":1})"));
    for (const char* text :
         {"from-send", "line-1", R"(get_state", "id":"a b","n":12345678901234567890123})"}) {
      EXPECT_TRUE(mock.program().says(std::string("\"command\":\"") + text)) << text;
    }
  }
}

TEST(Tcpcom, ATimeForTheRunIsNoFailureIfAnythingCame) {
  Mock mock;
  expectRuns({{"watch PEER -W 3 --raw", 0, "{\"command\":\"state\",\"count\":"},
              {"watch PEER -W 3 --rate", 0, " messages/s"},
              {"bench PEER -C 0 -W 3", 0, "request          0"},
              {"watch PEER -W 1 --filter command=none", 4, nullptr, "no such message"},
              {"watch PEER -W 1 --plot command", 4, nullptr, "no such message"},
              {"watch PEER -W 1 -C 1000000 -q --raw", 4, "count", "fewer messages"}},
             mock.port());
}

TEST(Tcpcom, TheCodeOfTheScriptCountsInTheStateFamily) {
  Mock state("--family state"), command;
  expectRuns({{"request PEER refuse", 6, R"("code":-5)", "code -5: no"}}, state.port());
  expectRuns({{"request PEER refuse", 0, R"("code":1)"}}, command.port());
}

TEST(Tcpcom, RefusesWhatItCannotUse) {
  TempFolder folder;
  expectRuns(
      {
          {"", 2, nullptr, "A subcommand is required"},
          {"--raw ping PEER --json", 2, nullptr, R"("status":2})"},
          {"--json nonsense", 2, nullptr, R"("status":2})"},
          {"ping", 2, nullptr, "PEER is required"},
          {"ping somewhere", 2, nullptr, "is no HOST:PORT"},
          {"ping ::1:80", 2, nullptr, "is no HOST:PORT"},
          {"ping localhost:65536", 2, nullptr, "from 1 to 65535"},
          {"ping PEER -W nan", 2, nullptr, "is no number from 0 up"},
          {"ping PEER -C -1", 2, nullptr, "is no whole number"},
          {"request PEER x {bad", 2, nullptr, "is not JSON"},
          {"request PEER x {\"a\":01}", 2, nullptr, "a wrong number"},
          {"request PEER x --match id", 2, nullptr, "holds no \"id\""},
          {"request PEER x [1]", 2, nullptr, "is no JSON object"},
          {"request PEER x {\"command\":1}", 2, nullptr, "must not hold \"command\""},
          {"request PEER x @/tmp", 2, nullptr, "cannot read \"/tmp\""},
          {"watch PEER --filter =1", 2, nullptr, "is no KEY=VALUE"},
          {"watch PEER --rate --plot a", 2, nullptr, "excludes"},
          {"serve 0 FILE", 2, nullptr, "line 2: the script has an unknown member \"reply\""},
          {"serve 0 --fault slow", 2, nullptr, "there are silent, delay"},
          {"serve 0 --fault delay=5", 2, nullptr, "no time such as"},
          {"serve 0 --fault drop=101%", 2, nullptr, "needs a share"},
          {"serve 0 --family 1", 2, nullptr, "not in {state,command}"},
          {"replay 0 FILE", 2, nullptr, "no recording of this version"},
          {"doctor 0", 2, nullptr, "from 1 to 65535"},
      },
      1, folder.file("script", "{\n\"reply\":{}}"));
}

TEST(Tcpcom, TellsThatThereIsNoConnection) {
  const int port = RawListener::unusedPort();
  TempFolder folder;
  expectRuns(
      {
          {"ping PEER", 3, nullptr, "Connection refused"},
          {"request PEER x", 3, nullptr, "Connection refused"},
          {"send PEER x", 3, nullptr, "Connection refused"},
          {"watch PEER --json", 3, nullptr, R"("status":3})"},
          {"record PEER FILE -q", 3, nullptr, "Connection refused"},
          {"bench PEER", 3, nullptr, "Connection refused"},
          {"ping PEER --retry 1 -v", 3, nullptr, "trying again"},
          {"ping nowhere.invalid:80 --retry 1 -v", 3, nullptr, "; trying again"},
      },
      port, folder.path("record"));
  EXPECT_FALSE(std::filesystem::exists(folder.path("record")));
}

TEST(Tcpcom, ASilentPeerIsATimeOut) {
  RawListener silent;  // the kernel accepts, nobody answers
  TempFolder folder;
  const std::string pipe = folder.path("pipe");  // without another end
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  expectRuns(
      {
          {"ping PEER -C 2 -i 0 --reply-timeout 0.1", 4, "2 sent, 0 answered", "no reply"},
          {"request PEER x --reply-timeout 0.1", 4, nullptr, "did not answer \"x\" in time"},
          {"request PEER x -W 1 --json", 4, nullptr, R"("status":4})"},
          {"watch PEER -W 1", 4, nullptr, "no such message"},
          {"record PEER - -W 1 -q", 4, R"({"tcpcom":1)", "fewer messages"},
          {"bench PEER -C 1 --reply-timeout 0.1 -q", 4, "request          0", "no request"},
          {"send PEER x", 0},
          {"request PEER x @FILE -W 1", 4, nullptr, "does not end"},
          {"record PEER FILE -W 1", 4, nullptr, "is not read"},
      },
      silent.port(), pipe);
}

TEST(Tcpcom, AResetIsALostLinkForASenderToo) {
  RawListener listener;
  Program send(tcpcom("send PEER x --linger 60", listener.port()));
  RawSocket peer = listener.accept();
  EXPECT_EQ(peer.read(3), "x\r\n");
  peer.reset();
  EXPECT_EQ(send.status(), 5) << send.err();
}

TEST(Tcpcom, TakesTheReplyThatIsItsOwnAndShowsItAsJson) {
  const struct {
    const char *options, *replies, *out;
  } rows[] = {
      {" --match id",
       "{\"command\":\"x\",\"a\":0}\r\n{\"command\":\"x\",\"id\":8}\r\n"
       "{\"command\":\"x\",\"code\":-2}\r\n{\"command\":\"x\",\"id\":7,\"a\":\"\x1B\"}\r\n",
       R"("message":{"command":"x","id":7,"a":"\u001b"}})"},
      {"", "{\"command\":\"x\",\"a\":01}\r\n", R"("text":"{\"command\":\"x\",\"a\":01}")"},
      {"", "{\"command\":\"x\",\"a\":\"\xFF\"}\r\n", R"("hex":"7b)"},
  };
  for (const auto& [options, replies, out] : rows) {
    RawListener listener;
    Program run(tcpcom(std::string("request PEER x {\"id\":7} --json") + options, listener.port()));
    const RawSocket peer = listener.accept();
    EXPECT_EQ(peer.read(24), "{\"command\":\"x\",\"id\":7}\r\n");
    peer.send(replies);
    EXPECT_EQ(run.status(), 0) << run.err();
    EXPECT_NE(run.out().find(out), std::string::npos) << run.out();
  }
}

TEST(Tcpcom, TellsThatItCannotListen) {
  RawListener taken;
  TempFolder folder;
  const auto file = folder.file("record", "{\"tcpcom\":1}\n{\"t\":0,\"text\":\"a\"}\n");
  expectRuns({{"serve PORT", 7, nullptr, "Address already in use"},
              {"replay PORT FILE --json", 7, nullptr, R"("status":7})"}},
             taken.port(), file);
  expectRuns({{"serve 192.0.2.1:1", 7, nullptr, "cannot listen on 192.0.2.1:1"}}, 0);
}

TEST(Tcpcom, ShowsFaults) {
  const struct {
    const char* fault;
    Row row;
  } rows[] = {
      {"silent", {"request PEER get_state --reply-timeout 0.2", 4, nullptr, "in time"}},
      {"drop=100%", {"ping PEER -C 2 --reply-timeout 0.1 -i 0", 4, "0 answered", "no heartbeat"}},
      {"half-message", {"watch PEER", 5, nullptr, "bytes of an unfinished message"}},
      {"close@1s", {"watch PEER --raw", 5, "\"count\":", "the peer has closed it"}},
      {"half-message@1s", {"record PEER - -q", 5, "\"count", "unfinished message"}},
  };
  for (const auto& [fault, row] : rows) {
    SCOPED_TRACE(fault);
    Mock mock(std::string("--fault ") + fault);
    expectRuns({row}, mock.port());
  }
}

TEST(Tcpcom, DelaysAndDropsAsTold) {
  Mock late("--fault delay=200ms"), lossy("--fault drop=50%");
  Program ping(tcpcom("ping PEER -C 1 --json", late.port()));
  EXPECT_EQ(ping.status(), 0) << ping.err();
  EXPECT_GE(objectsIn(ping.out()).at(0)["ms"].asDouble(), 200);

  Program watch(tcpcom("watch PEER -C 100 --raw", lossy.port()));
  EXPECT_EQ(watch.status(), 0) << watch.err();
  const auto seen = objectsIn(watch.out());
  ASSERT_EQ(seen.size(), 100U);
  const int sent = seen.back()["count"].asInt() - seen.front()["count"].asInt() + 1;
  EXPECT_GT(sent, 130);  // 200 are expected, and chance is not that uneven
  EXPECT_LT(sent, 300);
}

TEST(Tcpcom, ASlowReaderHoldsItsClientUp) {
  const std::string much(8 * 1024 * 1024, 'x');
  Mock quick, slow("--fault slow-read=1000");
  Program gone(tcpcom("send PEER - --reply-timeout 20", quick.port()), much);
  EXPECT_EQ(gone.status(), 0) << gone.err();
  Program held(tcpcom("send PEER - --reply-timeout 0.5", slow.port()), much);
  EXPECT_EQ(held.status(), 4);
  EXPECT_NE(held.err().find("does not read"), std::string::npos) << held.err();
}

TEST(Tcpcom, PlaysBackWhatItRecorded) {
  const std::string first("first\r\n\xff\0 bytes\r\n", 17), last = "{\"a\":1}\r\n";
  RawListener listener;
  TempFolder folder;
  const std::string file = folder.path("record");
  Program record(tcpcom("record PEER FILE -C 3", listener.port(), file));
  {
    const RawSocket peer = listener.accept();
    peer.send(first);
    EXPECT_TRUE(
        test::eventually([&] { return test::contentOf(file).find("hex") != std::string::npos; }));
    peer.send(last);
    EXPECT_EQ(record.status(), 0) << record.err();
  }
  Program replay(tcpcom("replay 0 FILE --speed 2 -C 2", 0, file));
  const int port = portOf(replay);
  EXPECT_EQ(RawSocket::connectTo(port).read(1000), first + last);
  Program watch(tcpcom("watch PEER --json", port));
  EXPECT_EQ(watch.status(), 5);
  const auto seen = objectsIn(watch.out());
  ASSERT_EQ(seen.size(), 3U);
  EXPECT_EQ(seen[0]["text"], "first");
  EXPECT_EQ(seen[1]["hex"], "ff00206279746573");
  EXPECT_EQ(seen[2]["message"]["a"], 1);
  EXPECT_EQ(replay.status(), 0);
}

TEST(Tcpcom, EndsCleanlyWhenInterrupted) {
  Mock mock;
  RawListener silent;
  TempFolder folder;
  const auto file = folder.file("record", "{\"tcpcom\":1}\n{\"t\":0,\"text\":\"a\"}\n");
  const struct {
    const char* words;
    int port;
    const char* sign;  // that it is under way
    const char* last;  // what it says at its end
  } rows[] = {
      {"ping PEER -i 0.01", mock.port(), "seq=2", " answered, "},
      {"watch PEER", mock.port(), "count", ""},
      {"record PEER - -v", mock.port(), "count", "messages recorded"},
      {"serve 0", 0, "listening", ""},
      {"replay 0 FILE", 0, "listening", ""},
      {"request PEER x -v --reply-timeout 60", silent.port(), "connected", ""},
      {"bench PEER -v --reply-timeout 60", silent.port(), "connected", "request          0"},
  };
  for (const auto& row : rows) {
    for (const int signal : {SIGINT, SIGTERM}) {
      SCOPED_TRACE(row.words);
      Program run(tcpcom(row.words, row.port, file));
      EXPECT_TRUE(run.says(row.sign)) << run.err();
      run.signal(signal);
      EXPECT_EQ(run.status(), 130);
      EXPECT_TRUE(run.says(row.last)) << run.out();
    }
  }
}

TEST(Tcpcom, NohupKeepsItAlive) {
  Mock mock;
  std::signal(SIGHUP, SIG_IGN);
  Program run(tcpcom("ping PEER -C 100 -i 0.01", mock.port()));
  std::signal(SIGHUP, SIG_DFL);
  EXPECT_TRUE(run.says("seq=2")) << run.err();
  run.signal(SIGHUP);
  EXPECT_EQ(run.status(), 0) << run.out();
}

TEST(Tcpcom, AReaderThatLeavesIsNoFailureAndAFullDiskIsOne) {
  Mock mock;
  const RawSocket full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  for (const char* words : {"watch PEER", "--help"}) {
    Program kept(tcpcom(words, mock.port()), "", full.fd());
    EXPECT_EQ(kept.status(), 1);
    EXPECT_NE(kept.err().find("No space left"), std::string::npos) << kept.err();
  }
  RawListener silent;
  for (const int port : {mock.port(), silent.port()}) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    RawSocket ours(ends[0]), its(ends[1]);
    Program watch(tcpcom("watch PEER -v", port), "", its.fd());
    its.close();
    EXPECT_TRUE(watch.says("connected"));
    if (port == mock.port()) {
      char byte;
      EXPECT_EQ(read(ours.fd(), &byte, 1), 1);
    }
    ours.close();
    EXPECT_EQ(watch.status(), 0) << watch.err();
  }
}

/// @return what a run with such an output shows
std::string onTerminal(const std::string& words, int port) {
  int ours = -1, its = -1;
  test::check(openpty(&ours, &its, nullptr, nullptr, nullptr) == 0, "openpty");
  const RawSocket reader(ours), writer(its);
  Program run(tcpcom(words, port), "", its);
  EXPECT_EQ(run.status(), 0) << run.err();
  std::array<char, 4096> text{};
  const ssize_t got = read(ours, text.data(), text.size());
  return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
}

TEST(Tcpcom, ColoursOnlyATerminalThatWantsThem) {
  Mock mock;
  setenv("TERM", "xterm", 1);
  EXPECT_NE(onTerminal("watch PEER -C 1", mock.port()).find("\x1B[2m"), std::string::npos);
  EXPECT_NE(onTerminal("watch PEER -C 1 --plot count", mock.port()).find("\r\x1B[K"),
            std::string::npos);
  EXPECT_EQ(onTerminal("watch PEER -C 1 --json", mock.port()).find('\x1B'), std::string::npos);
  setenv("NO_COLOR", "1", 1);
  EXPECT_EQ(onTerminal("watch PEER -C 1", mock.port()).find('\x1B'), std::string::npos);
  unsetenv("NO_COLOR");
}

TEST(Tcpcom, DrawsABench) {
  Mock mock;
  TempFolder folder;
  const auto file = folder.path("svg");
  expectRuns({{"bench PEER get_state -C 10 --svg FILE", 0, "request"}}, mock.port(), file);
  const std::string svg = test::contentOf(file);
  EXPECT_EQ(svg.rfind("<svg ", 0), 0U) << svg;
  EXPECT_NE(svg.find("10 values"), std::string::npos) << svg;
  expectRuns({{"bench PEER --svg FILE", 1, nullptr, "cannot write"}}, mock.port(), "/nowhere/x");
}

TEST(Tcpcom, DoctorFindsWhoHoldsAPort) {
  const RawListener held;
  Program run(tcpcom("doctor PORT --json", held.port()));
  EXPECT_EQ(run.status(), 0) << run.err();
  const auto findings = objectsIn(run.out());
  ASSERT_EQ(findings.size(), 7U);
  EXPECT_NE(findings[0]["text"].asString().find("(pid " + std::to_string(getpid()) + ")"),
            std::string::npos)
      << findings[0];
  for (const auto& finding : findings) {
    EXPECT_EQ(finding["ok"].asBool(), !finding.isMember("advice")) << finding;
  }
  expectRuns({{"doctor PORT", 0, " is free"}}, RawListener::unusedPort());
}

TEST(Tcpcom, ItsManualKnowsEverySubcommand) {
  const std::string manual = test::contentOf(TCPCOM_MANUAL);
  for (const std::string name :
       {"ping", "request", "send", "watch", "record", "replay", "serve", "bench", "doctor"}) {
    const std::string help = name + " --help";
    expectRuns({{help.c_str(), 0, "130  interrupted"}}, 0);
    EXPECT_NE(manual.find(".SS " + name), std::string::npos);
    const std::string begin = name.substr(0, name.size() - 1);
    Program shell({"/bin/bash", "-c",
                   "source \"$0\"; COMP_WORDS=(tcpcom -q " + begin +
                       "); COMP_CWORD=2; _tcpcom; echo \"${COMPREPLY[*]}\"",
                   TCPCOM_COMPLETION});
    EXPECT_EQ(shell.status(), 0);
    EXPECT_EQ(shell.out(), name + "\n") << shell.err();
  }
}

}  // namespace
