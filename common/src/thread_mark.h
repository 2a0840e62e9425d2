#pragma once

namespace brix {

/// Remembers, while it lives, that its thread works for `owner`: runs one of its loops or
/// callbacks. A stop that finds such a mark only asks, because waiting would mean waiting for
/// itself.
class ThreadMark {
 public:
  explicit ThreadMark(const void* owner) noexcept;
  ~ThreadMark();
  ThreadMark(const ThreadMark&) = delete;
  ThreadMark& operator=(const ThreadMark&) = delete;

  /// @return whether the calling thread bears a mark of `owner`
  static bool standsFor(const void* owner) noexcept;

 private:
  const void* owner_;
  const ThreadMark* outer_;
};

}  // namespace brix
