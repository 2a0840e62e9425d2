/// @file
/// The polled queue between the threads of one object.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>

#include "log_facade.h"

/// A FIFO without a size limit that never blocks its reader.
///
/// Any threads push; one consumer polls `empty()` and pops. Every operation may be called from any
/// thread.
template <typename T, typename Container = std::deque<T>>
class DataQueue {
 public:
  /// Appends a copy of `value`.
  void push(const T& value) { push(T(value)); }

  /// Appends `value`.
  void push(T&& value) {
    std::lock_guard<brix::LogMutex> lock(mutex_);
    queue_.push_back(std::move(value));
    hasData_.store(true, std::memory_order_release);
  }

  /// Appends the elements of [first, last) by moving them, under one lock.
  template <typename Iterator>
  void pushAll(Iterator first, Iterator last) {
    std::lock_guard<brix::LogMutex> lock(mutex_);
    for (; first != last; ++first) queue_.push_back(std::move(*first));
    hasData_.store(!queue_.empty(), std::memory_order_release);
  }

  /// Takes the oldest elements, under one lock, as long as `take` accepts them. It gets each as an
  /// rvalue and must leave what it refuses.
  template <typename Take>
  void popWhile(Take take) {
    if (empty()) return;
    std::lock_guard<brix::LogMutex> lock(mutex_);
    while (!queue_.empty() && take(std::move(queue_.front()))) queue_.pop_front();
    hasData_.store(!queue_.empty(), std::memory_order_release);
  }

  /// @return the oldest element, or an empty T if there is none
  T pop() {
    T value{};
    tryPop(value);
    return value;
  }

  /// Takes the oldest element.
  /// @return false if there is none; `value` is then left as it is
  bool tryPop(T& value) {
    if (empty()) return false;
    std::lock_guard<brix::LogMutex> lock(mutex_);
    if (queue_.empty()) return false;
    value = std::move(queue_.front());
    queue_.pop_front();
    hasData_.store(!queue_.empty(), std::memory_order_release);
    return true;
  }

  /// Tells without taking the lock: consumers poll and must not disturb the producers.
  bool empty() const { return !hasData_.load(std::memory_order_acquire); }

  /// @return number of elements waiting
  std::size_t size() const {
    std::lock_guard<brix::LogMutex> lock(mutex_);
    return queue_.size();
  }

  /// Drops all elements and gives their storage back.
  void clear() {
    Container dropped;
    std::lock_guard<brix::LogMutex> lock(mutex_);
    queue_.swap(dropped);
    hasData_.store(false, std::memory_order_release);
  }

 private:
  Container queue_;
  mutable brix::LogMutex mutex_;
  T spare_{};
  std::atomic<bool> hasData_{false};
};
