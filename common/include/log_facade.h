/// @file
/// The facade of the kit's logging library: the only way by which this library logs.
///
/// The functions declared here are defined by the library `brix_log`; a host may link its own
/// logging library with the same symbols in its place. Every function may be called from any
/// thread, throws nothing and leaves `errno` as it was.
#pragma once

#include <pthread.h>

#include <chrono>
#include <iostream>
#include <iterator>
#include <map>
#include <string>

#define BRIX_LOG_API __attribute__((visibility("default")))

namespace brix {

/// Level of a log line.
enum class LogLevel {
  Info = 0,   ///< progress and state
  Error = 1,  ///< failures and caught exceptions
};

// One row a code, so that numbers and names cannot part. The gaps and the out-of-order values are
// on purpose: other processes of the kit see the numbers.
#define BRIX_ERROR_CODES(X)                \
  X(ERR_NONE, 0)                           \
  X(ERR_ENCRYPTION, 1)                     \
  X(ERR_PROGRAM_CODE, 2)                   \
  X(ERR_SYSTEM_CONFIG, 3)                  \
  X(ERR_SYSTEM_EXECUTION, 4)               \
  X(ERR_COMMUNICATION, 5)                  \
  X(ERR_EXTRA_ARM_COMMUNICATION, 200)      \
  X(ERR_FORCE_SENSOR_OPERATION, 20)        \
  X(ERR_EMERGENCY_STOP, 6)                 \
  X(ERR_MODE_REQUEST, 7)                   \
  X(ERR_MOTION_SPEED_EXCEED, 8)            \
  X(ERR_JOINT_LIMIT_EXCEED, 9)             \
  X(ERR_CMD_UNMATCH, 10)                   \
  X(ERR_BRIX_REMOTE_REQUEST, 11)           \
  X(ERR_BRIX_TASK_BROADCAST, 12)           \
  X(ERR_COMPENSATOR_EXECUTION, 14)         \
  X(ERR_INTERPOLATOR_PLAN, 15)             \
  X(ERR_INTERPOLATOR_EXECUTION, 16)        \
  X(ERR_KINEMATICS_ERROR, 17)              \
  X(ERR_DYNAMICS_ERROR, 18)                \
  X(ERR_EXTRA_ARM_OPERATION, 201)          \
  X(ERR_EXTRA_ARM_STATE, 202)              \
  X(ERR_EXTRA_ARM_COLLISION, 206)          \
  X(ERR_FORCE_SENSOR_THRESHOLD_EXCEED, 21) \
  X(ERR_AUTO_PLAN_FAILED, 3201)            \
  X(ERR_COMPUTE_JACOBIAN, 3202)            \
  X(ERR_PLAN_SCENCE_ERROR, 3203)           \
  X(ERR_CHOMP_ERROR, 3204)                 \
  X(ERR_OMPL_ERROR, 3205)                  \
  X(ERR_COLLISION_DETECT, 3206)            \
  X(ERR_DISTANCE_FIELD, 3207)              \
  X(ERR_ROBOT_MODEL_CONFIG_ERROR, 3208)    \
  X(ERR_ROBOT_MODEL, 3209)                 \
  X(ERR_ROBOT_STATE, 3210)                 \
  X(ERR_TRANSFORMS, 3211)                  \
  X(ERR_MOTION_PLANNING_CONTEXT, 3212)     \
  X(ERR_KINEMATIC_CONSTRAINTS, 3213)       \
  X(ERR_TASK_JSON_FILE, 3501)              \
  X(ERR_DATA_JSON_FILE, 3502)              \
  X(ERR_DATA_MATCH, 3503)                  \
  X(ERR_TASK_PLAN, 3504)                   \
  X(ERR_REMOTE_REQUEST, 3505)              \
  X(ERR_TASK_BROADCAST, 3506)              \
  X(ERR_TASK_EXECUTION, 13)                \
  X(ERR_MATCH_ONLINE, 3507)                \
  X(ERR_CM_UPDATE_ENV, 3508)               \
  X(WARN_MESSAGE, 3001)

/// Error codes of the kit.
enum BrixErrorCode {
#define BRIX_ENUMERATOR(name, value) name = value,
  BRIX_ERROR_CODES(BRIX_ENUMERATOR)
#undef BRIX_ENUMERATOR
};

/// Colours of a log line on a terminal.
enum class LogColor {
  None = 0,
  Bold,
  Black,
  Red,
  Green,
  Yellow,
  Blue,
  Purple,
  Cyan,
  White,
  BlackBackground,
  RedBackground,
  GreenBackground,
  YellowBackground,
  BlueBackground,
  PurpleBackground,
  CyanBackground,
  WhiteBackground,
  Palette136,  ///< entry 136 of the 256-colour palette; has no colour word
};

namespace detail {

struct ErrorCodeRow {
  BrixErrorCode code;
  const char* name;
};

struct ColorRow {
  LogColor color;
  const char* escape;
  const char* word;  // null: the colour has none
};

// Constant tables: unlike the maps below they need no constructor and outlive every static object,
// so the logger may use them at any time.
inline constexpr ErrorCodeRow kErrorCodeRows[] = {
#define BRIX_ROW(name, value) {name, #name},
    BRIX_ERROR_CODES(BRIX_ROW)
#undef BRIX_ROW
};
#undef BRIX_ERROR_CODES

inline constexpr ColorRow kColorRows[] = {
    {LogColor::None, "\x1B[0m", "none"},
    {LogColor::Bold, "\x1B[1m", "bold"},
    {LogColor::Black, "\x1B[30m", "black"},
    {LogColor::Red, "\x1B[31m", "red"},
    {LogColor::Green, "\x1B[32m", "green"},
    {LogColor::Yellow, "\x1B[33m", "yellow"},
    {LogColor::Blue, "\x1B[34m", "blue"},
    {LogColor::Purple, "\x1B[35m", "purple"},
    {LogColor::Cyan, "\x1B[36m", "cyan"},
    {LogColor::White, "\x1B[37m", "white"},
    {LogColor::BlackBackground, "\x1B[40m", "black_background"},
    {LogColor::RedBackground, "\x1B[41m", "red_background"},
    {LogColor::GreenBackground, "\x1B[42m", "green_background"},
    {LogColor::YellowBackground, "\x1B[43m", "yellow_background"},
    {LogColor::BlueBackground, "\x1B[44m", "blue_background"},
    {LogColor::PurpleBackground, "\x1B[45m", "purple_background"},
    {LogColor::CyanBackground, "\x1B[46m", "cyan_background"},
    {LogColor::WhiteBackground, "\x1B[47m", "white_background"},
    {LogColor::Palette136, "\x1B[38;5;136m", nullptr},
};

inline std::map<BrixErrorCode, std::string> makeErrorCodeMap() {
  std::map<BrixErrorCode, std::string> names;
  for (const ErrorCodeRow& row : kErrorCodeRows) names.emplace(row.code, row.name);
  return names;
}

inline std::map<LogColor, std::string> makeEnumColorMap() {
  std::map<LogColor, std::string> escapes;
  for (const ColorRow& row : kColorRows) escapes.emplace(row.color, row.escape);
  return escapes;
}

inline std::map<std::string, std::string> makeColorStrMap() {
  const ColorRow& none = kColorRows[0];
  const ColorRow& bold = kColorRows[1];
  std::map<std::string, std::string> pairs{
      {none.word, none.escape}, {bold.word, bold.escape}, {none.escape, none.word}};
  for (auto row = std::next(std::begin(kColorRows), 2); row != std::end(kColorRows); ++row) {
    if (row->word != nullptr) pairs.emplace(row->escape, row->word);
  }
  return pairs;
}

}  // namespace detail

/// Name of each error code; each source file has its own copy.
[[maybe_unused]] static const std::map<BrixErrorCode, std::string> brix_err_code_map =
    detail::makeErrorCodeMap();

/// Terminal escape sequence of each colour; each source file has its own copy.
[[maybe_unused]] static const std::map<LogColor, std::string> enum_color_map =
    detail::makeEnumColorMap();

/// Colour words and escape sequences; each source file has its own copy. The direction is mixed on
/// purpose: the words "none" and "bold" lead to their escapes, and every colour's escape, the reset
/// among them, leads to its word.
[[maybe_unused]] static const std::map<std::string, std::string> color_str_map =
    detail::makeColorStrMap();

/// The process-wide logger.
class BRIX_LOG_API LogManager {
 public:
  /// Writes one line.
  ///
  /// @param file, line  place of the call
  /// @param level  of the line
  /// @param fmt  printf format with three extras: "%b" takes a bool and prints true or false; a
  ///   leading "%c" takes a colour word or escape (`const char*`) for the line; a leading "%C"
  ///   takes an int, a LogColor value or 256 for the palette colour. The kit's macro passes the
  ///   format and its arguments twice in a row; the second set is not read. "%n" and positional
  ///   arguments are printed as they stand.
  void log(const char* file, int line, LogLevel level, const char* fmt, ...);

  /// Writes one line at the error level that shows the name of `code`.
  void err(const char* file, int line, BrixErrorCode code, const char* fmt, ...);
};

/// @return the process-wide logger; never null, and alive until the process is gone
BRIX_LOG_API LogManager* getLogInstance();

/// True while the controller is in an error state. Owned by the logging library's host, which
/// writes it with an atomic store; this library only reads it, with an atomic load.
extern BRIX_LOG_API bool brix_controller_error;

/// Mutex of the kit's classes. It reports its own failures on standard output and carries on.
class LogMutex {
 public:
  LogMutex() : mutex_{}, usable_(true) {
    if (pthread_mutex_init(&mutex_, nullptr) != 0) {
      std::cout << "mutex init failed, mutex not safe." << std::endl;
    }
  }
  ~LogMutex() {
    if (usable_ && pthread_mutex_destroy(&mutex_) != 0) report("destory");
  }
  LogMutex(const LogMutex&) = delete;
  LogMutex& operator=(const LogMutex&) = delete;

  void lock() {
    if (usable_ && pthread_mutex_lock(&mutex_) != 0) report("lock");
  }
  /// @return false if another thread holds it
  bool try_lock() { return !usable_ || pthread_mutex_trylock(&mutex_) == 0; }
  void unlock() {
    if (usable_ && pthread_mutex_unlock(&mutex_) != 0) report("unlock");
  }

 protected:
  pthread_mutex_t mutex_;
  bool usable_;

 private:
  static void report(const char* operation) {
    std::cout << "mutex " << operation << " failed, mutex maybe not safe." << std::endl;
  }
};

}  // namespace brix

/// Reports a failed system call at the error level: errno value, its text, file, function and line.
BRIX_LOG_API void printErr(int errnum, const char* file, const char* func, int line);

namespace log_time {

/// A measured duration, on the monotonic clock.
struct BRIX_LOG_API TimerUnit {
  TimerUnit();

  std::chrono::steady_clock::time_point start;
  std::chrono::steady_clock::time_point end;
  double elapsed;  ///< milliseconds between start and end, set by timer_end
};

/// Records the start instant.
BRIX_LOG_API void timer_start(TimerUnit& unit);

/// Records the end instant and stores the elapsed milliseconds. The start instant stays, so a timer
/// may be read any number of times. A timer that was never started counts from the clock's zero.
BRIX_LOG_API void timer_end(TimerUnit& unit);

}  // namespace log_time

/// The process-wide timer.
inline BRIX_LOG_API log_time::TimerUnit timer;
