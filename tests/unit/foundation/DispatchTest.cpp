// Once-only initialisation and serial queues.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Foundation/Dispatch.h"

TEST(DispatchOnce, RunsOnceAcrossThreads) {
  dispatch_once_t flag;
  std::atomic<int> runs{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 100; ++k) dispatch_once(flag, [&] { ++runs; });
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(runs.load(), 1);
}

TEST(DispatchOnce, QVOnceObject) {
  QVOnce once;
  int runs = 0;
  once([&] { ++runs; });
  once([&] { ++runs; });
  EXPECT_EQ(runs, 1);
}

TEST(DispatchQueue, KeepsItsLabel) {
  auto q = dispatch_queue_create("com.example.filters.imageunits.texture-store.queue");
  EXPECT_EQ(q->label(), "com.example.filters.imageunits.texture-store.queue");
}

TEST(DispatchQueue, SyncRunsBeforeReturning) {
  DispatchQueue q("q");
  int value = 0;
  q.sync([&] { value = 42; });
  EXPECT_EQ(value, 42);
  dispatch_sync(std::make_shared<DispatchQueue>("q2"), [&] { value = 7; });
  EXPECT_EQ(value, 7);
}

TEST(DispatchQueue, AsyncBlocksRunInSubmissionOrder) {
  std::vector<int> order;
  {
    DispatchQueue q("q");
    for (int i = 0; i < 200; ++i) q.async([&order, i] { order.push_back(i); });
  }  // destruction waits for the remaining blocks
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST(DispatchQueue, SyncWaitsForEarlierAsyncBlocks) {
  DispatchQueue q("q");
  std::vector<int> order;
  std::atomic<bool> release{false};
  q.async([&] {
    while (!release.load()) std::this_thread::yield();
    order.push_back(1);
  });
  q.async([&] { order.push_back(2); });
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release = true;
  });
  q.sync([&] { order.push_back(3); });
  releaser.join();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(DispatchQueue, AsyncAfterSyncRunsAfterIt) {
  DispatchQueue q("q");
  std::vector<int> order;
  q.sync([&] { order.push_back(1); });
  q.async([&] { order.push_back(2); });
  q.sync([&] { order.push_back(3); });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(DispatchQueue, BlocksFromManyThreadsNeverOverlap) {
  auto q = dispatch_queue_create("q");
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  int counter = 0;  // deliberately unsynchronised: the queue is the only lock
  auto block = [&] {
    if (inside.fetch_add(1) != 0) ++overlaps;
    ++counter;
    inside.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        if ((i + t) % 3 == 0) {
          dispatch_async(q, block);
        } else {
          dispatch_sync(q, block);
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  dispatch_sync(q, [] {});  // everything submitted before has run
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(counter, 8 * 500);
}

TEST(DispatchQueue, ExceptionInSyncReachesTheCallerAndFreesTheQueue) {
  DispatchQueue q("q");
  EXPECT_THROW(q.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
  int value = 0;
  q.sync([&] { value = 1; });
  EXPECT_EQ(value, 1);
}

TEST(DispatchQueue, QueueReleasedByItsOwnBlock) {
  auto q = std::make_shared<DispatchQueue>("q");
  std::atomic<bool> done{false};
  std::shared_ptr<DispatchQueue>* holder = new std::shared_ptr<DispatchQueue>(q);
  q->async([holder, &done] {
    delete holder;  // the last reference goes away while this block runs
    done = true;
  });
  q.reset();
  while (!done.load()) std::this_thread::yield();
  SUCCEED();
}
