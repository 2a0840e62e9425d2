#include "process_end.h"

#include <atomic>
#include <cstdlib>

namespace brix {
namespace {

std::atomic<bool> ending{false};

}  // namespace

// What is registered last runs first, before the destructors of objects that exist already.
void watchProcessEnd() noexcept {
  std::atexit([] { ending = true; });  // without memory for it, the end is not noticed
}

bool processEnds() noexcept {
  return ending;
}

}  // namespace brix
