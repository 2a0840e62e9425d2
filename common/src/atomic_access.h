#pragma once

namespace brix {

/// Atomic access to plain public fields that the application reads and sets by name while threads
/// of this library use them.
template <typename T>
T atomicLoad(const T& field) {
  T value;
  __atomic_load(&field, &value, __ATOMIC_RELAXED);
  return value;
}

template <typename T>
void atomicStore(T& field, T value) {
  __atomic_store(&field, &value, __ATOMIC_RELAXED);
}

}  // namespace brix
