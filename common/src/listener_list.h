#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "callback_slot.h"
#include "recieve_listener.h"

namespace brix {

/// Listeners that may be appended while others are being called. Never changed, only replaced.
class ListenerList {
 public:
  using Listeners = std::vector<iRecieveListener*>;

  /// @return how many there are now
  int append(iRecieveListener* listener) {
    std::lock_guard<std::mutex> lock(appendLock_);
    const auto known = listeners_.load();
    auto next = known ? std::make_shared<Listeners>(*known) : std::make_shared<Listeners>();
    next->push_back(listener);
    const int count = static_cast<int>(next->size());
    listeners_ = std::shared_ptr<const Listeners>(std::move(next));
    return count;
  }

  /// @return null: none
  std::shared_ptr<const Listeners> load() const { return listeners_.load(); }

  /// Needs no memory.
  void clear() { listeners_ = nullptr; }

 private:
  std::mutex appendLock_;  // one append at a time
  ValueSlot<std::shared_ptr<const Listeners>> listeners_;
};

}  // namespace brix
