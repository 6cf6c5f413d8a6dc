// The cost cache: lookups, limits, least-recently-used eviction, the process-wide eviction hook
// and concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/NSCache.h"

TEST(NSCache, StoresAndFindsObjects) {
  NSCache<std::string> cache;
  EXPECT_EQ(cache.objectForKey("{512, 512}"), std::nullopt);
  cache.setObject("image", "{512, 512}", 512 * 512);
  EXPECT_EQ(cache.objectForKey("{512, 512}"), "image");
  EXPECT_EQ(cache.objectForKey("{512, 513}"), std::nullopt);
  EXPECT_EQ(cache.count(), 1u);
  EXPECT_EQ(cache.totalCost(), 512u * 512u);
}

TEST(NSCache, ReplacingAnEntryReplacesItsCost) {
  NSCache<int> cache;
  cache.setObject(1, "k", 10);
  cache.setObject(2, "k", 3);
  EXPECT_EQ(cache.objectForKey("k"), 2);
  EXPECT_EQ(cache.count(), 1u);
  EXPECT_EQ(cache.totalCost(), 3u);
}

TEST(NSCache, RemoveObjects) {
  NSCache<int> cache;
  cache.setObject(1, "a", 5);
  cache.setObject(2, "b", 7);
  cache.removeObjectForKey("a");
  cache.removeObjectForKey("absent");
  EXPECT_EQ(cache.objectForKey("a"), std::nullopt);
  EXPECT_EQ(cache.objectForKey("b"), 2);
  EXPECT_EQ(cache.totalCost(), 7u);
  cache.removeAllObjects();
  EXPECT_EQ(cache.count(), 0u);
  EXPECT_EQ(cache.totalCost(), 0u);
  EXPECT_EQ(cache.objectForKey("b"), std::nullopt);
}

TEST(NSCache, NoLimitsByDefault) {
  NSCache<int> cache;
  EXPECT_EQ(cache.countLimit(), 0u);
  EXPECT_EQ(cache.totalCostLimit(), 0u);
  for (int i = 0; i < 1000; ++i) cache.setObject(i, std::to_string(i), 1'000'000);
  EXPECT_EQ(cache.count(), 1000u);
  EXPECT_EQ(cache.totalCost(), 1000u * 1'000'000u);
}

TEST(NSCache, CountLimitEvictsTheLeastRecentlyUsed) {
  NSCache<int> cache;
  cache.setCountLimit(3);
  cache.setObject(1, "a");
  cache.setObject(2, "b");
  cache.setObject(3, "c");
  EXPECT_EQ(cache.objectForKey("a"), 1);  // "a" is now the most recently used; "b" the least
  cache.setObject(4, "d");
  EXPECT_EQ(cache.count(), 3u);
  EXPECT_EQ(cache.objectForKey("b"), std::nullopt);
  EXPECT_EQ(cache.objectForKey("a"), 1);
  EXPECT_EQ(cache.objectForKey("c"), 3);
  EXPECT_EQ(cache.objectForKey("d"), 4);
}

TEST(NSCache, CostLimitEvictsUntilWithinTheLimit) {
  NSCache<int> cache;
  cache.setTotalCostLimit(100);
  cache.setObject(1, "a", 40);
  cache.setObject(2, "b", 40);
  cache.setObject(3, "c", 10);
  EXPECT_EQ(cache.totalCost(), 90u);
  cache.setObject(4, "d", 70);  // needs 60 more: "a" and "b" go, in that order
  EXPECT_EQ(cache.objectForKey("a"), std::nullopt);
  EXPECT_EQ(cache.objectForKey("b"), std::nullopt);
  EXPECT_EQ(cache.objectForKey("c"), 3);
  EXPECT_EQ(cache.objectForKey("d"), 4);
  EXPECT_EQ(cache.totalCost(), 80u);
}

TEST(NSCache, AnObjectCostlierThanTheLimitIsNotKept) {
  NSCache<int> cache;
  cache.setTotalCostLimit(100);
  cache.setObject(1, "small", 10);
  cache.setObject(2, "huge", 500);
  EXPECT_EQ(cache.objectForKey("huge"), std::nullopt);
  EXPECT_EQ(cache.objectForKey("small"), std::nullopt);
  EXPECT_EQ(cache.totalCost(), 0u);
}

TEST(NSCache, LoweringALimitEvictsAtOnce) {
  NSCache<int> cache;
  for (int i = 0; i < 10; ++i) cache.setObject(i, std::to_string(i), 10);
  cache.setTotalCostLimit(35);
  EXPECT_EQ(cache.count(), 3u);
  EXPECT_EQ(cache.objectForKey("9"), 9);
  EXPECT_EQ(cache.objectForKey("6"), std::nullopt);
  cache.setCountLimit(1);
  EXPECT_EQ(cache.count(), 1u);
  EXPECT_EQ(cache.objectForKey("9"), 9);
}

TEST(NSCache, EvictedObjectsAreReleased) {
  NSCache<std::shared_ptr<int>> cache;
  cache.setCountLimit(1);
  auto first = std::make_shared<int>(1);
  std::weak_ptr<int> watch = first;
  cache.setObject(std::move(first), "a");
  EXPECT_FALSE(watch.expired());
  cache.setObject(std::make_shared<int>(2), "b");
  EXPECT_TRUE(watch.expired());
}

TEST(NSCache, MemoryPressureEmptiesEveryLiveCache) {
  NSCache<int> one;
  NSCache<std::string> two;
  one.setObject(1, "a", 10);
  two.setObject("x", "b", 20);
  const std::size_t live = NSCacheLiveCount();
  EXPECT_GE(live, 2u);
  {
    NSCache<int> gone;
    gone.setObject(3, "c");
    EXPECT_EQ(NSCacheLiveCount(), live + 1);
  }
  EXPECT_EQ(NSCacheLiveCount(), live);  // a destroyed cache drops out of the registry
  NSCacheEvictAllUnderMemoryPressure();
  EXPECT_EQ(one.count(), 0u);
  EXPECT_EQ(two.count(), 0u);
  EXPECT_EQ(one.totalCost(), 0u);
  EXPECT_EQ(one.objectForKey("a"), std::nullopt);
  // The caches go on working afterwards.
  one.setObject(5, "a", 1);
  EXPECT_EQ(one.objectForKey("a"), 5);
}

TEST(NSCache, EvictionMayDestroyObjectsThatOwnCaches) {
  // Emptying caches destroys their objects outside every lock, so an object that owns a cache
  // of its own can go away during a process-wide eviction.
  NSCache<std::shared_ptr<NSCache<int>>> outer;
  auto inner = std::make_shared<NSCache<int>>();
  inner->setObject(1, "x");
  outer.setObject(std::move(inner), "inner");
  NSCacheEvictAllUnderMemoryPressure();
  EXPECT_EQ(outer.count(), 0u);
}

TEST(NSCache, MemoryPressureSignal) {
  ASSERT_TRUE(NSCacheInstallMemoryPressureSignal(SIGUSR2));
  NSCache<int> cache;
  cache.setObject(1, "a", 1);
  std::raise(SIGUSR2);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (cache.count() != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(cache.count(), 0u);
  std::signal(SIGUSR2, SIG_DFL);
}

TEST(NSCache, EightThreadsAtOnce) {
  NSCache<std::shared_ptr<const std::vector<int>>> cache;
  cache.setTotalCostLimit(64 * 100);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        const int k = (i * 7 + t) % 97;
        const std::string key = "{" + std::to_string(k) + ", " + std::to_string(k) + "}";
        if (auto hit = cache.objectForKey(key)) {
          if ((**hit)[0] != k) ++wrong;
        } else {
          cache.setObject(std::make_shared<const std::vector<int>>(64, k), key, 100);
        }
        if (i % 500 == 0 && t == 0) NSCacheEvictAllUnderMemoryPressure();
        if (i % 97 == 0) cache.removeObjectForKey(key);
        (void)cache.count();
        (void)cache.totalCost();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_LE(cache.totalCost(), 64u * 100u);
  EXPECT_LE(cache.count(), 64u);
  EXPECT_EQ(cache.totalCost(), cache.count() * 100u);
}

TEST(NSCache, Name) {
  NSCache<int> cache;
  cache.setName("x-qvfilter-texture://bundle/stone");
  EXPECT_EQ(cache.name(), "x-qvfilter-texture://bundle/stone");
}
