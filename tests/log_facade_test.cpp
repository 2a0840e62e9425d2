#include "log_facade.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>

#include <climits>
#include <sstream>

#include "log_capture.h"
#include "log_macros.h"

// ThreadSanitizer would report the mutex that a test misuses.
extern "C" const char* __tsan_default_suppressions() {
  return "mutex:brix::LogMutex";
}

namespace {

using brix::LogLevel;

template <typename... Args>
void say(const char* fmt, Args... args) {
  brix::logTwice("a", 7, LogLevel::Info, fmt, args...);
}

/// @return the text that this call logs
template <typename... Args>
std::string said(const char* fmt, Args... args) {
  const test::LogCapture log;
  say(fmt, args...);
  return log.lines().size() == 1 ? log.texts().front() : "not one line";
}

template <typename... Args>
void expectLikePrintf(const char* fmt, Args... args) {
  char expected[2048];
  std::snprintf(expected, sizeof expected, fmt, args...);
  EXPECT_EQ(said(fmt, args...), expected) << fmt;
}

int readsDone = 0;

/// @return what the other end of standard error gets while the body runs, without time and place
template <typename Body>
std::string shown(bool onTerminal, Body body) {
  int ends[2];
  const int failed = onTerminal ? openpty(ends, ends + 1, nullptr, nullptr, nullptr)
                                : pipe2(ends, O_DIRECT);  // which keeps two writes apart
  EXPECT_EQ(failed, 0);
  std::string bytes;
  std::thread reader([&bytes, from = ends[0]] {
    char block[8192];
    ssize_t got;
    for (readsDone = 0; (got = read(from, block, sizeof block)) > 0; ++readsDone) {
      bytes.append(block, static_cast<std::size_t>(got));
    }
  });
  const int before = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  body();
  dup2(before, STDERR_FILENO);
  reader.join();
  for (const int end : {before, ends[0]}) close(end);
  for (std::size_t at; (at = bytes.find(" INFO a:7 ")) != std::string::npos;) {
    bytes.erase(at - 26, 36);
  }
  return bytes;
}

struct LastWord {
  bool armed = false;
  ~LastWord() { armed ? say("last word") : void(); }
} lastWord;  // destroyed late, because it was there before the first line was logged

struct MisusedMutex : brix::LogMutex {
  MisusedMutex() { mutex_ = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP; }
};

TEST(LogFacade, KnowsCodesAndColors) {
  const test::LogCapture log;
  for (const int code : {13, 19, 3203}) {
    brix::getLogInstance()->err("a", 7, static_cast<brix::BrixErrorCode>(code), "%caxis", "red");
  }
  for (const char* name : {"ERR_TASK_EXECUTION", "19", "ERR_PLAN_SCENCE_ERROR"}) {
    EXPECT_EQ(log.errors(std::string(" ERROR a:7 [") + name + "] axis"), 1u);
  }
  EXPECT_EQ(brix::brix_err_code_map.size(), 47u);
  int sum = 0;
  for (const auto& [code, name] : brix::brix_err_code_map) sum += code;
  EXPECT_EQ(sum, 73749) << "a number is wrong";
  EXPECT_EQ(brix::enum_color_map.size() + brix::color_str_map.size(), 19u + 19u);
  EXPECT_EQ(brix::enum_color_map.at(brix::LogColor{18}), "\x1B[38;5;136m");
  EXPECT_EQ(brix::color_str_map.at("none") + brix::color_str_map.at("bold"), "\x1B[0m\x1B[1m");
  EXPECT_EQ(brix::color_str_map.at("\x1B[0m"), "none");
  EXPECT_EQ(brix::color_str_map.at("\x1B[47m"), "white_background");
}

TEST(LogFacade, FormatsAsPrintfDoes) {
  expectLikePrintf("%d|%5d|%-5d|%05d|%+d|% d|%i|%.3d", INT_MIN, 1, 2, 3, 4, 5, 6, 7);
  expectLikePrintf("%u|%o|%x|%#X|%hhd|%hu", UINT_MAX, 8, 255, 255, 300, 70000);
  expectLikePrintf("%ld|%lld|%zu|%jd|%d", LONG_MIN, LLONG_MAX, SIZE_MAX, INTMAX_MIN, 9);
  expectLikePrintf("%f|%.2f|%10.1e|%G|%a|%Lg|%d", 1.5, 2.345, 1e-9, 1e20, 0.1, 3.25L, 9);
  expectLikePrintf("%*d|%*d|%.*f|%-*.*s|%d", 6, 42, -6, 42, 1, 2.55, 5, 2, "text", 9);
  expectLikePrintf("%s|%8s|%-8s|%.2s|%.0s|%.*s|%d", "a", "b", "c", "def", "g", -1, "all", 9);
  expectLikePrintf("x%c|%3c|%%|%p|%ls|%d", 'y', 'z', static_cast<void*>(&lastWord), L"w", 9);
  expectLikePrintf("%.900f|%700d|%d", 1e300, 1, 9);  // longer than any small buffer
}

TEST(LogFacade, ServesItsOwnConversionsAndOddFormats) {
  const char unterminated[] = {'a', 'b', 'c'};
  const char* null = nullptr;
  int counter = 5;
  EXPECT_EQ(said("%b|%b|%-6b|%d", false, true, true, 7), "false|true|true  |7");
  EXPECT_EQ(said("%csocket %d", "red", 3), "socket 3");
  EXPECT_EQ(said("%Crate %d", 256, 3), "rate 3");
  EXPECT_EQ(said("%c%s", null, null), "(null)");
  EXPECT_EQ(said(null), "(null format)");
  EXPECT_EQ(said("%.3s|%d", unterminated, 7), "abc|7");
  EXPECT_EQ(said("%y %1$d %5"), "%y %1$d %5");
  EXPECT_EQ(said("%n|%s", &counter, "in step"), "%n|in step");
  EXPECT_EQ(said("%s|%c", "\x1B[2J\r\n\t\x7F\xC2\x9B \xC3\xBC", '\n'),
            "\\x1B[2J\\r\\n\\t\\x7F\\xC2\\x9B \xC3\xBC|\\n");
  const test::LogCapture log;
  BRIX_LOG_INFO("evaluated once %d", ++counter);
  EXPECT_EQ(log.infos("_test.cpp:" + std::to_string(__LINE__ - 1) + " evaluated once 6"), 1u);
  printErr(ENOENT, "tcp.cpp", "connectServer", 12);
  EXPECT_EQ(log.errors("tcp.cpp:12 connectServer: No such file or directory (errno 2)"), 1u);
}

TEST(LogFacade, CutsLongTextsAndCountsWhatIsMissing) {
  const std::string big(1024 * 1024, 'x');
  const std::string cut = big.substr(0, 64 * 1024) + "... (983040 bytes omitted)";
  EXPECT_EQ(said("%s", big.c_str()), cut);
  EXPECT_EQ(said(big.c_str()), cut);
  EXPECT_EQ(said("head %s|%s|%d", big.c_str(), big.c_str(), 7),
            "head " + big.substr(0, 64 * 1024 - 5) + "... (2031624 bytes omitted)");
  EXPECT_EQ(said("%99999999999d", 1).size(), 64u * 1024);  // no wider field
  EXPECT_EQ(said("%*d", INT_MIN, 1).size(), 64u * 1024);
}

TEST(LogFacade, KeepsErrnoAndOutlivesTheReaderOfStandardError) {
  signal(SIGPIPE, SIG_DFL);
  shown(false, [] {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    dup2(ends[1], STDERR_FILENO);
    for (const int end : ends) close(end);
    for (const bool toSink : {false, true}) {
      if (toSink) brix_log::setSink([](LogLevel, const std::string&) { errno = 77; });
      errno = 42;
      say("text");
      printErr(-1, "a", nullptr, 7);
      EXPECT_EQ(errno, 42);
    }
    brix_log::setSink(nullptr);
  });
}

TEST(LogFacade, ColorsALineOnATerminalOnlyAndWritesItAtOnce) {
  EXPECT_EQ(shown(true, [] { say("%ctext", "red"); }), "\x1B[31mtext\x1B[0m\r\n");
  EXPECT_EQ(shown(true, [] { say("%ctext", "\x1B[46m"); }), "\x1B[46mtext\x1B[0m\r\n");
  EXPECT_EQ(shown(true, [] { say("%Ctext", 256); }), "\x1B[38;5;136mtext\x1B[0m\r\n");
  EXPECT_EQ(shown(true, [] { say("%ctext", "mauve"); }), "text\r\n");
  EXPECT_EQ(shown(false, [] { say("%ctext", "red"); }), "text\n");
  EXPECT_EQ(readsDone, 1);
}

TEST(LogFacade, TearsNoLineOfManyThreads) {
  const std::string filler(9000, 'f');  // a pipe takes it in parts
  const auto write = [&filler](int writer) {
    for (int i = 0; i < 40; ++i) say("%d %d %s", writer, i, filler.c_str());
  };
  std::istringstream lines(shown(false, [&write] {
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 8; ++writer) writers.emplace_back(write, writer);
    for (std::thread& writer : writers) writer.join();
  }));
  std::map<int, int> next;
  std::string text;
  int writer, i, whole = 0;
  while (lines >> writer >> i >> text && text == filler && i == next[writer]++) ++whole;
  EXPECT_EQ(whole, 8 * 40);
}

TEST(LogFacade, ServesSinksThatThrowLogAndReplaceThemselves) {
  const auto log = [] {
    std::shared_ptr<void> held(nullptr, [](void*) { say("fifth"); });
    brix_log::setSink([held, calls = std::make_shared<int>(0)](LogLevel, auto&) {
      if (++*calls == 1) throw 7;
      if (*calls == 2) throw std::runtime_error("disk full");
      if (*calls == 3) say("third");
      if (*calls == 4) brix_log::setSink(nullptr);
    });
    held = nullptr;
    for (const char* text : {"first", "second", "taken", "taken", "sixth"}) say(text);
  };
  EXPECT_EQ(shown(false, log), "first\nsecond\nthird\nfifth\nsixth\n");
}

TEST(LogFacadeDeathTest, ServesStaticDestructors) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto leave = [prefix = std::string(100, '>')] {
    brix_log::setSink([prefix](LogLevel, const std::string& line) { std::cerr << prefix << line; });
    lastWord.armed = true;
    std::exit(0);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(0), ">{100}.* a:7 last word");
}

TEST(TimerUnit, MeasuresMillisecondsOnAClockThatNobodySets) {
  static_assert(decltype(timer.start)::clock::is_steady);
  const auto before = test::Clock::now();
  log_time::timer_start(timer);
  const auto started = test::Clock::now();
  test::eventually([&] { return test::elapsedMs(started) > 5; });
  log_time::timer_end(timer);
  EXPECT_GT(timer.elapsed, 5);
  EXPECT_LE(timer.elapsed, test::elapsedMs(before));
}

TEST(LogMutex, ReportsItsFailuresAndGoesOn) {
  testing::internal::CaptureStdout();
  {
    MisusedMutex mutex;
    mutex.unlock();
    mutex.lock();
    mutex.lock();
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "mutex unlock failed, mutex maybe not safe.\n"
            "mutex lock failed, mutex maybe not safe.\n"
            "mutex destory failed, mutex maybe not safe.\n");
}

}  // namespace
