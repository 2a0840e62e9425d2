#include "thread_mark.h"

namespace brix {
namespace {

thread_local const ThreadMark* innermost = nullptr;

}  // namespace

ThreadMark::ThreadMark(const void* owner) noexcept : owner_(owner), outer_(innermost) {
  innermost = this;
}

ThreadMark::~ThreadMark() {
  innermost = outer_;
}

bool ThreadMark::standsFor(const void* owner) noexcept {
  for (const ThreadMark* mark = innermost; mark != nullptr; mark = mark->outer_) {
    if (mark->owner_ == owner) return true;
  }
  return false;
}

}  // namespace brix
