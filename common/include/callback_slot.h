/// @file
/// Values and callbacks that one thread replaces while another uses them.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace brix {

/// A value under a lock of its own; every use works on a copy. No lock is held while the old value
/// is destroyed.
template <typename T>
class ValueSlot {
 public:
  ValueSlot() = default;
  explicit ValueSlot(T value) : value_(std::move(value)) {}
  ValueSlot(const ValueSlot&) = delete;
  ValueSlot& operator=(const ValueSlot&) = delete;

  ValueSlot& operator=(T value) {
    store(std::move(value));
    return *this;
  }

  void store(T value) {
    store(std::move(value), [] {});
  }

  /// As above; calls `also` under the same lock.
  template <typename Also>
  void store(T value, Also also) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::swap(value_, value);
    also();
  }

  T load() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

template <typename Signature>
class CallbackSlot;

/// A callback that may be replaced at any time, also from inside itself: a running call goes on
/// with the function that it started with. No lock is held while the function runs.
template <typename Result, typename... Args>
class CallbackSlot<Result(Args...)> {
 public:
  using Function = std::function<Result(Args...)>;

  CallbackSlot() = default;

  /// The new function may destroy what holds this slot as soon as it can be called: nothing of the
  /// slot is touched after the lock.
  CallbackSlot& operator=(Function function) {
    auto next = function ? std::make_shared<const Function>(std::move(function)) : nullptr;
    function_.store(std::move(next), [this] { ++changes_; });
    return *this;
  }

  /// Calls the function many times: it is fetched again only when it was replaced.
  class Caller {
   public:
    explicit Caller(const CallbackSlot& slot) : slot_(slot) {}

    /// As the slot's own call.
    template <typename... CallArgs>
    Result operator()(CallArgs&&... args) {
      if (const unsigned now = slot_.changes_; now != seen_) {
        function_ = slot_.load();
        seen_ = now;
      }
      return function_ ? (*function_)(std::forward<CallArgs>(args)...) : Result();
    }

   private:
    const CallbackSlot& slot_;
    std::shared_ptr<const Function> function_;
    unsigned seen_ = 0;
  };

  /// @return the function, or null; what its captures hold lives as long as the result
  std::shared_ptr<const Function> load() const { return function_.load(); }

  /// @return whether a function is set
  explicit operator bool() const { return function_.load() != nullptr; }

  /// Calls the function; if none is set, returns an empty result. What it throws passes through.
  template <typename... CallArgs>
  Result operator()(CallArgs&&... args) const {
    const auto function = function_.load();
    return function ? (*function)(std::forward<CallArgs>(args)...) : Result();
  }

 private:
  ValueSlot<std::shared_ptr<const Function>> function_;
  std::atomic<unsigned> changes_{0};
};

}  // namespace brix
