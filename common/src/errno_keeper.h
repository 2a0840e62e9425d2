#pragma once

#include <cerrno>

namespace brix {

/// Leaves errno as it was, so that a caller may log first and report errno afterwards.
class ErrnoKeeper {
 public:
  ErrnoKeeper() noexcept : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int saved_;
};

}  // namespace brix
