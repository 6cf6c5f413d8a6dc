// RenderCache: a store that lives for exactly one CIContext render and is shared by every tile
// and thread of it. Nodes use it for work that must happen once per render rather than once per
// tile, such as asking an image provider for its whole image.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

class RenderCache {
 public:
  // The entry stored under (owner, index), created by `make` on first request. Concurrent
  // callers for the same entry wait for the one that creates it; `make` runs once per entry.
  template <class T>
  std::shared_ptr<const T> getOrCreate(const void* owner, long long index, const std::function<std::shared_ptr<const T>()>& make) {
    std::shared_ptr<Slot> slot;
    {
      std::lock_guard lock(mutex_);
      auto& s = slots_[{owner, index}];
      if (!s) s = std::make_shared<Slot>();
      slot = s;
    }
    std::call_once(slot->once, [&] { slot->value = make(); });
    return std::static_pointer_cast<const T>(slot->value);
  }

 private:
  struct Slot {
    std::once_flag once;
    std::shared_ptr<const void> value;
  };
  std::mutex mutex_;
  std::map<std::pair<const void*, long long>, std::shared_ptr<Slot>> slots_;
};
