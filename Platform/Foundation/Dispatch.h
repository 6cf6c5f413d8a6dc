// Once-only initialisation and serial queues.
//
// A DispatchQueue runs the blocks given to it one at a time, in the order in which they were
// submitted, whether they were submitted with sync or async. sync runs its block on the calling
// thread once every earlier block has finished, and returns after it (an exception thrown by the
// block reaches the caller); async hands the block to the queue's one worker thread, started on
// first use and joined when the queue is destroyed (after the remaining blocks have run). As on
// the platform, calling sync on a queue from a block running on that same queue deadlocks.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

// dispatch_once: run a block exactly once per flag, however many threads race to it; the
// others wait until it has finished.
using dispatch_once_t = std::once_flag;
template <class F>
void dispatch_once(dispatch_once_t& flag, F&& block) {
  std::call_once(flag, std::forward<F>(block));
}

// The same as a small object: `static QVOnce once; once([] { ... });`.
class QVOnce {
 public:
  template <class F>
  void operator()(F&& block) {
    std::call_once(flag_, std::forward<F>(block));
  }

 private:
  std::once_flag flag_;
};

class DispatchQueue {
 public:
  explicit DispatchQueue(std::string label);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  const std::string& label() const { return label_; }
  void sync(const std::function<void()>& block);
  void async(std::function<void()> block);

 private:
  struct State;
  const std::string label_;
  std::shared_ptr<State> state_;  // shared with the worker thread, which may outlive the queue
};

using dispatch_queue_t = std::shared_ptr<DispatchQueue>;

dispatch_queue_t dispatch_queue_create(const std::string& label);
void dispatch_sync(const dispatch_queue_t& queue, const std::function<void()>& block);
void dispatch_async(const dispatch_queue_t& queue, std::function<void()> block);
