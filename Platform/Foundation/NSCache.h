// NSCache: a thread-safe key-object cache with optional count and total-cost limits.
//
// Objects are stored by string key with a cost (any non-negative number; the texture store uses
// the pixel count). When an insertion takes the cache past a limit, the least recently used
// entries are evicted until it is within its limits again (possibly the new entry itself, when
// its cost alone exceeds the cost limit). A limit of 0 means no limit.
//
// Every live cache is known to a process-wide registry, so that the process can empty all of
// them at once under memory pressure with NSCacheEvictAllUnderMemoryPressure(); as on the
// platform, a cache's entries may therefore vanish at any time, and clients must be ready to
// recreate them.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// The part of a cache the registry sees.
class NSCacheStorageBase {
 public:
  virtual ~NSCacheStorageBase() = default;
  virtual void removeAllObjects() = 0;
};

// Registers a cache's storage; the registry keeps only a weak reference, so a cache that is
// destroyed simply drops out.
void NSCacheRegister(const std::shared_ptr<NSCacheStorageBase>& storage);
// Empties every live cache of the process. Safe to call from any thread at any time (not from a
// signal handler: see NSCacheInstallMemoryPressureSignal).
void NSCacheEvictAllUnderMemoryPressure();
// Makes the given signal (SIGUSR2, say) empty every cache: the handler only wakes a watcher
// thread, which does the eviction. Returns false when the handler cannot be installed.
bool NSCacheInstallMemoryPressureSignal(int signalNumber);
// The number of caches alive (for tests and diagnostics).
std::size_t NSCacheLiveCount();

template <class T>
class NSCache {
 public:
  NSCache() : storage_(std::make_shared<Storage>()) { NSCacheRegister(storage_); }
  NSCache(const NSCache&) = delete;
  NSCache& operator=(const NSCache&) = delete;

  // The object stored under key, or nullopt; a hit makes the entry the most recently used.
  std::optional<T> objectForKey(const std::string& key) const { return storage_->get(key); }
  void setObject(T object, const std::string& key, std::size_t cost = 0) {
    storage_->set(std::move(object), key, cost);
  }
  void removeObjectForKey(const std::string& key) { storage_->remove(key); }
  void removeAllObjects() { storage_->removeAllObjects(); }

  std::size_t totalCostLimit() const { return storage_->limit(&Storage::totalCostLimit); }
  void setTotalCostLimit(std::size_t limit) { storage_->setLimit(&Storage::totalCostLimit, limit); }
  std::size_t countLimit() const { return storage_->limit(&Storage::countLimit); }
  void setCountLimit(std::size_t limit) { storage_->setLimit(&Storage::countLimit, limit); }

  std::string name() const {
    std::lock_guard lock(storage_->mutex);
    return storage_->name;
  }
  void setName(std::string name) {
    std::lock_guard lock(storage_->mutex);
    storage_->name = std::move(name);
  }

  std::size_t totalCost() const {
    std::lock_guard lock(storage_->mutex);
    return storage_->totalCost;
  }
  std::size_t count() const {
    std::lock_guard lock(storage_->mutex);
    return storage_->map.size();
  }

 private:
  struct Storage final : NSCacheStorageBase {
    struct Entry {
      std::string key;
      T object;
      std::size_t cost;
    };
    mutable std::mutex mutex;
    std::list<Entry> lru;  // most recently used first
    std::unordered_map<std::string, typename std::list<Entry>::iterator> map;
    std::size_t totalCost = 0;
    std::size_t totalCostLimit = 0;
    std::size_t countLimit = 0;
    std::string name;

    std::optional<T> get(const std::string& key) {
      std::lock_guard lock(mutex);
      auto it = map.find(key);
      if (it == map.end()) return std::nullopt;
      lru.splice(lru.begin(), lru, it->second);
      return it->second->object;
    }

    void set(T object, const std::string& key, std::size_t cost) {
      std::list<Entry> evicted;  // destroyed after the lock is released
      {
        std::lock_guard lock(mutex);
        if (auto it = map.find(key); it != map.end()) {
          totalCost -= it->second->cost;
          evicted.splice(evicted.end(), lru, it->second);
          map.erase(it);
        }
        lru.push_front(Entry{key, std::move(object), cost});
        map.emplace(key, lru.begin());
        totalCost += cost;
        trim(evicted);
      }
    }

    void remove(const std::string& key) {
      std::list<Entry> evicted;
      {
        std::lock_guard lock(mutex);
        auto it = map.find(key);
        if (it == map.end()) return;
        totalCost -= it->second->cost;
        evicted.splice(evicted.end(), lru, it->second);
        map.erase(it);
      }
    }

    void removeAllObjects() override {
      std::list<Entry> evicted;
      {
        std::lock_guard lock(mutex);
        evicted.swap(lru);
        map.clear();
        totalCost = 0;
      }
    }

    std::size_t limit(std::size_t Storage::*which) const {
      std::lock_guard lock(mutex);
      return this->*which;
    }
    void setLimit(std::size_t Storage::*which, std::size_t value) {
      std::list<Entry> evicted;
      {
        std::lock_guard lock(mutex);
        this->*which = value;
        trim(evicted);
      }
    }

    // Moves least recently used entries to `evicted` until the cache is within its limits.
    void trim(std::list<Entry>& evicted) {
      while (!lru.empty() && ((countLimit > 0 && map.size() > countLimit) ||
                              (totalCostLimit > 0 && totalCost > totalCostLimit))) {
        auto last = std::prev(lru.end());
        totalCost -= last->cost;
        map.erase(last->key);
        evicted.splice(evicted.end(), lru, last);
      }
    }
  };

  std::shared_ptr<Storage> storage_;
};
