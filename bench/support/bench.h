/// @file
/// What the benchmark programs share: options, clocks, percentiles, waiting for arrivals, the line
/// of figures.
#pragma once

#include <json/json.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

constexpr double kNsPerUs = 1e3;
constexpr double kNsPerMs = 1e6;
constexpr double kNsPerS = 1e9;
constexpr std::chrono::seconds kGiveUp{60};

inline std::int64_t clockNs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

inline std::int64_t nowNs() {
  return clockNs(CLOCK_MONOTONIC);
}

inline void sleepUntilNs(std::int64_t instant) {
  const timespec until{instant / 1'000'000'000, instant % 1'000'000'000};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

/// Words of the form key=value after the workload's name.
class Options {
 public:
  Options(int count, char** words) {
    for (int i = 0; i < count; ++i) {
      const std::string word = words[i];
      const std::size_t equals = word.find('=');
      if (equals == std::string::npos) throw std::invalid_argument("not key=value: " + word);
      values_[word.substr(0, equals)] = word.substr(equals + 1);
    }
  }

  std::string word(const std::string& key, const std::string& fallback) const {
    known_.insert(key);
    const auto found = values_.find(key);
    return found == values_.end() ? fallback : found->second;
  }

  double number(const std::string& key, double fallback) const {
    const std::string text = word(key, "");
    if (text.empty()) return fallback;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (*end != '\0') throw std::invalid_argument(key + " is no number: " + text);
    return value;
  }

  std::int64_t count(const std::string& key, std::int64_t fallback) const {
    return static_cast<std::int64_t>(number(key, static_cast<double>(fallback)));
  }

  /// An option that no workload asked for would silently measure something else.
  void refuseUnknown() const {
    for (const auto& [key, value] : values_) {
      if (known_.count(key) == 0) throw std::invalid_argument("unknown option: " + key);
    }
  }

 private:
  std::map<std::string, std::string> values_;
  mutable std::set<std::string> known_;
};

/// Durations of one kind; filled by one thread.
class Samples {
 public:
  void add(std::int64_t ns) { ns_.push_back(ns); }

  /// Adds p50, p99 and max, in microseconds, to a line of figures.
  void report(Json::Value& figures) {
    if (ns_.empty()) throw std::runtime_error("nothing was measured");
    std::sort(ns_.begin(), ns_.end());
    figures["samples"] = static_cast<Json::Int64>(ns_.size());
    figures["p50_us"] = at(0.50);
    figures["p99_us"] = at(0.99);
    figures["max_us"] = at(1.0);
  }

  std::size_t size() const { return ns_.size(); }

 private:
  double at(double part) const {
    const auto last = static_cast<double>(ns_.size() - 1);
    return static_cast<double>(ns_[static_cast<std::size_t>(last * part)]) / kNsPerUs;
  }

  std::vector<std::int64_t> ns_;
};

/// Times between one event and the next; used on one thread.
class Periods {
 public:
  void tick() {
    const std::int64_t now = nowNs();
    if (lastNs_ != 0) samples_.add(now - lastNs_);
    lastNs_ = now;
  }
  Json::Value figures() {
    Json::Value result;
    samples_.report(result);
    return result;
  }

 private:
  std::int64_t lastNs_ = 0;
  Samples samples_;
};

/// Wall clock and processor time of the whole process since it was made.
class Stopwatch {
 public:
  double seconds() const { return static_cast<double>(nowNs() - startNs_) / kNsPerS; }
  double cpuUs() const {
    return static_cast<double>(clockNs(CLOCK_PROCESS_CPUTIME_ID) - startCpuNs_) / kNsPerUs;
  }

 private:
  std::int64_t startNs_ = nowNs();
  std::int64_t startCpuNs_ = clockNs(CLOCK_PROCESS_CPUTIME_ID);
};

/// Runs `body` with larger and larger counts until one run takes the wanted time: programs that
/// differ by a factor of 10,000 all get runs of that length. Only the last run is reported.
template <typename Body>
Json::Value runLongEnough(const Options& options, double perCount, const Body& body) {
  const double wantedS = options.number("ms", 300) / 1e3;
  std::int64_t count = options.count("first", 64);
  while (true) {
    const Stopwatch watch;
    body(count);
    const double seconds = watch.seconds();
    const double cpuUs = watch.cpuUs();
    if (seconds >= 0.7 * wantedS) {
      const double done = static_cast<double>(count) * perCount;
      Json::Value figures;
      figures["per_s"] = done / seconds;
      figures["cpu_us_each"] = cpuUs / done;
      return figures;
    }
    const double factor = std::clamp(wantedS / seconds, 1.5, 10.0);
    count = static_cast<std::int64_t>(static_cast<double>(count) * factor);
  }
}

/// Counts what arrives on any thread; others wait for it without using the processor.
class Arrivals {
 public:
  void add(std::int64_t count) {
    if ((count_ += count) < wakeAt_) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
  }

  std::int64_t count() const { return count_; }

  /// One waiter at a time.
  void waitFor(std::int64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    wakeAt_ = count;
    const bool came = changed_.wait_for(lock, kGiveUp, [&] { return count_ >= count; });
    wakeAt_ = kNever;
    if (came) return;
    throw std::runtime_error(std::to_string(count_) + " arrived of " + std::to_string(count));
  }

 private:
  static constexpr std::int64_t kNever = INT64_MAX;

  std::atomic<std::int64_t> count_{0};
  std::atomic<std::int64_t> wakeAt_{kNever};
  std::mutex mutex_;
  std::condition_variable changed_;
};

/// Requests that wait for their reply, one after the other, on whatever thread hears of the reply.
/// With repeats=N the time is spent on N connections: how threads that poll fall in step with each
/// other is chance, and stays so for a connection's life.
class ClosedLoop {
 public:
  explicit ClosedLoop(const Options& options)
      : repeats_(options.count("repeats", 1)),
        warmUpNs_(static_cast<std::int64_t>(options.number("warmup_ms", 30) * kNsPerMs)),
        lengthNs_(static_cast<std::int64_t>(options.number("ms", 250) * kNsPerMs) / repeats_),
        fewestSamples_(kFewestSamples / repeats_) {}

  std::int64_t repeats() const { return repeats_; }

  /// Call on a new connection, before its first request goes out.
  void begin() {
    measureFromNs_ = nowNs() + warmUpNs_;
    samplesHere_ = 0;
    sentNs_ = nowNs();
  }

  /// Notes a reply; the caller sends the next request at once if this is true.
  bool replied() {
    const std::int64_t now = nowNs();
    if (now < measureFromNs_) {
      usage_ = Stopwatch();
    } else {
      samples_.add(now - sentNs_);
      ++samplesHere_;
    }
    if (now >= measureFromNs_ + lengthNs_ && samplesHere_ >= fewestSamples_) {
      cpuUs_ += usage_.cpuUs();
      done_.add(1);
      return false;
    }
    sentNs_ = now;
    return true;
  }

  void waitUntilDone() { done_.waitFor(++waitedFor_); }

  Json::Value figures() {
    Json::Value figures;
    const auto requests = static_cast<double>(samples_.size());
    samples_.report(figures);
    figures["cpu_us_each"] = cpuUs_ / requests;
    return figures;
  }

 private:
  static constexpr std::int64_t kFewestSamples = 100;

  const std::int64_t repeats_;
  const std::int64_t warmUpNs_;
  const std::int64_t lengthNs_;
  const std::int64_t fewestSamples_;
  std::int64_t measureFromNs_ = 0;
  std::int64_t sentNs_ = 0;
  std::int64_t samplesHere_ = 0;
  std::int64_t waitedFor_ = 0;
  Samples samples_;
  Stopwatch usage_;
  double cpuUs_ = 0;
  Arrivals done_;
};

/// A JSON text of exactly `size` bytes that begins with an instant.
inline std::string stampedText(std::size_t size) {
  std::string text = R"({"t":)" + std::string(19, '0') + R"(,"state":")";
  text.resize(size - 2, 'x');
  return text + "\"}";
}

constexpr std::size_t kStampAt = 5;

inline void stamp(std::string& text) {
  std::int64_t now = nowNs();
  for (std::size_t i = kStampAt + 19; i-- > kStampAt; now /= 10) {
    text[i] = static_cast<char>('0' + now % 10);
  }
}

inline std::int64_t ageNs(std::string_view text) {
  std::int64_t then = 0;
  for (const char digit : text.substr(kStampAt, 19)) then = then * 10 + (digit - '0');
  return nowNs() - then;
}

/// What the kernel tells of this process, all threads that live now.
struct ProcessState {
  std::int64_t threads = 0;
  std::int64_t wakeUps = 0;  // voluntary context switches
  std::int64_t residentKib = 0;

  static ProcessState now() {
    ProcessState state;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      const std::int64_t wakeUps = field(task.path() / "status", "voluntary_ctxt_switches:");
      if (wakeUps == kGone) continue;
      ++state.threads;
      state.wakeUps += wakeUps;
    }
    state.residentKib = field("/proc/self/status", "VmRSS:");
    return state;
  }

 private:
  static constexpr std::int64_t kGone = -1;

  static std::int64_t field(const std::filesystem::path& file, const std::string& name) {
    std::ifstream status(file);
    for (std::string key; status >> key;) {
      std::int64_t value = 0;
      if (key == name && status >> value) return value;
    }
    return kGone;  // the thread ended in the meantime
  }
};

/// What a process costs that does nothing; `before` was taken before it had anything to do.
inline Json::Value idleFigures(const Options& options, const ProcessState& before) {
  const double ms = options.number("ms", 500);
  sleepUntilNs(nowNs() + static_cast<std::int64_t>(100 * kNsPerMs));  // what a start takes
  const ProcessState first = ProcessState::now();
  const Stopwatch watch;
  sleepUntilNs(nowNs() + static_cast<std::int64_t>(ms * kNsPerMs));
  const double seconds = watch.seconds();
  const double cpuUs = watch.cpuUs();
  const ProcessState last = ProcessState::now();
  Json::Value figures;
  figures["cpu_percent"] = cpuUs / seconds / 1e4;
  figures["wake_ups_per_s"] = static_cast<double>(last.wakeUps - first.wakeUps - 1) / seconds;
  figures["threads"] = static_cast<Json::Int64>(last.threads - before.threads);
  figures["resident_kib"] = static_cast<Json::Int64>(last.residentKib - before.residentKib);
  return figures;
}

/// Lets a driver start several programs together and measure one after the other.
inline void holdIfAsked(const Options& options) {
  if (options.count("hold", 0) == 0) return;
  std::cout << "ready" << std::endl;
  std::string line;
  if (!std::getline(std::cin, line)) throw std::runtime_error("the driver has gone");
}

using Workloads = std::map<std::string, std::function<Json::Value(const Options&)>>;

/// Runs the workload named by the first word; its figures are the last line of standard output.
inline int runProgram(int argc, char** argv, const Workloads& workloads) try {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  const auto chosen = argc > 1 ? workloads.find(argv[1]) : workloads.end();
  if (chosen == workloads.end()) {
    std::cerr << "usage: " << argv[0] << " WORKLOAD [KEY=VALUE...]; workloads:";
    for (const auto& [name, body] : workloads) std::cerr << ' ' << name;
    std::cerr << '\n';
    return 2;
  }
  const Options options(argc - 2, argv + 2);
  const Json::Value figures = chosen->second(options);
  options.refuseUnknown();
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  std::cout << Json::writeString(writer, figures) << std::endl;
  return 0;
} catch (const std::exception& error) {
  std::cerr << argv[0] << ": " << error.what() << '\n';
  return 1;
}

}  // namespace bench
