#include "process_end.h"

#include <dlfcn.h>
#include <unwind.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "stop_signal.h"

namespace brix {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMostHooks = 64;  // they are never given back; static objects are made early
constexpr std::chrono::milliseconds kLastWait{1000};

std::atomic<bool> ending{false};
std::atomic<Clock::rep> lastWaitEnds{0};
std::atomic<int> hooks{0};

struct Search {
  void* function;
  bool found;
};

_Unwind_Reason_Code compareFrame(_Unwind_Context* frame, void* wanted) {
  auto* const search = static_cast<Search*>(wanted);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a code address comes as a number
  void* const at = reinterpret_cast<void*>(_Unwind_GetIP(frame));
  search->found = _Unwind_FindEnclosingFunction(at) == search->function;
  return search->found ? _URC_END_OF_STACK : _URC_NO_REASON;
}

}  // namespace

// What is registered last runs first, before the destructors of objects that exist already.
void watchProcessEnd() noexcept {
  if (hooks++ < kMostHooks) std::atexit(announceProcessEnd);  // without memory: not noticed
}

// No order of registration tells a static object for sure why it is destroyed; its callers do.
void noticeProcessEnd() noexcept {
  if (ending) return;
  Search search{dlsym(RTLD_NEXT, "exit"), false};
  if (search.function != nullptr) _Unwind_Backtrace(compareFrame, &search);
  if (search.found) announceProcessEnd();
}

void announceProcessEnd() noexcept {
  Clock::rep none = 0;
  lastWaitEnds.compare_exchange_strong(none, (Clock::now() + kLastWait).time_since_epoch().count());
  ending = true;
}

bool processEnds() noexcept {
  return ending;
}

bool lastWaitOver() noexcept {
  return Clock::now().time_since_epoch().count() >= lastWaitEnds;
}

void pauseInLastWait() noexcept {
  StopSignal().pauseMs(1);
}

void joinOrLeave(pthread_t thread) noexcept {
  if (!processEnds()) {
    pthread_join(thread, nullptr);
    return;
  }
  while (pthread_tryjoin_np(thread, nullptr) != 0) {
    if (lastWaitOver()) {
      pthread_detach(thread);
      return;
    }
    pauseInLastWait();
  }
}

void joinIfJoinable(std::thread& handle) noexcept {
  if (!handle.joinable()) return;
  if (handle.get_id() == std::this_thread::get_id()) {
    handle.detach();
    return;
  }
  joinOrLeave(handle.native_handle());
  new (&handle) std::thread;  // the thread is not its own any more, and it has no way to say so
}

}  // namespace brix
