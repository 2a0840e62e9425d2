#include "process_end.h"

#include <atomic>
#include <cstdlib>

namespace brix {
namespace {

constexpr int kMostHooks = 64;  // they are never given back; static objects are made early

std::atomic<bool> ending{false};
std::atomic<int> hooks{0};
thread_local bool localsGone = false;

// exit() destroys the objects of its own thread before all static ones.
struct Sentinel {
  ~Sentinel() { localsGone = true; }
  bool awake = false;
};
thread_local Sentinel sentinel;

[[maybe_unused]] const bool loaderWatched = (watchEndByThisThread(), true);

}  // namespace

// What is registered last runs first, before the destructors of objects that exist already.
void watchProcessEnd() noexcept {
  watchEndByThisThread();
  if (hooks++ < kMostHooks) std::atexit(announceProcessEnd);  // without memory: not noticed
}

void watchEndByThisThread() noexcept {
  if (!localsGone) sentinel.awake = true;
}

void announceProcessEnd() noexcept {
  ending = true;
}

bool processEnds() noexcept {
  return ending || localsGone;
}

}  // namespace brix
