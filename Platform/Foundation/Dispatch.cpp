#include "Foundation/Dispatch.h"

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <thread>

// Every block gets a ticket when it is submitted; a block runs only when the queue is serving
// its ticket, and the ticket count moves on when it finishes. Sync blocks wait on the calling
// thread for their turn; async blocks wait in the worker.
struct DispatchQueue::State {
  std::string label;
  std::mutex mutex;
  std::condition_variable turnChanged;
  std::condition_variable workAvailable;
  std::uint64_t nextTicket = 0;
  std::uint64_t nowServing = 0;
  std::deque<std::pair<std::uint64_t, std::function<void()>>> pending;
  std::thread worker;
  bool stopping = false;

  void finishTurn() {
    {
      std::lock_guard lock(mutex);
      ++nowServing;
    }
    turnChanged.notify_all();
  }

  static void workerLoop(const std::shared_ptr<State>& self) {
    std::unique_lock lock(self->mutex);
    for (;;) {
      self->workAvailable.wait(lock, [&] { return self->stopping || !self->pending.empty(); });
      if (self->pending.empty()) return;  // stopping, and every submitted block has run
      std::uint64_t ticket = self->pending.front().first;
      std::function<void()> block = std::move(self->pending.front().second);
      self->pending.pop_front();
      self->turnChanged.wait(lock, [&] { return self->nowServing == ticket; });
      lock.unlock();
      try {
        if (block) block();
      } catch (const std::exception& e) {
        std::fprintf(stderr, "qvfilter: uncaught exception in a block on queue %s: %s\n", self->label.c_str(),
                     e.what());
      } catch (...) {
        std::fprintf(stderr, "qvfilter: uncaught exception in a block on queue %s\n", self->label.c_str());
      }
      block = nullptr;  // release what the block captured before the next block runs
      lock.lock();
      ++self->nowServing;
      self->turnChanged.notify_all();
    }
  }
};

DispatchQueue::DispatchQueue(std::string label) : label_(std::move(label)), state_(std::make_shared<State>()) {
  state_->label = label_;
}

DispatchQueue::~DispatchQueue() {
  std::thread worker;
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    worker = std::move(state_->worker);
  }
  state_->workAvailable.notify_all();
  if (worker.joinable()) {
    // A queue released by a block running on its own worker cannot join that thread; the
    // worker owns the shared state and finishes the remaining blocks on its own.
    if (worker.get_id() == std::this_thread::get_id()) {
      worker.detach();
    } else {
      worker.join();
    }
  }
}

void DispatchQueue::sync(const std::function<void()>& block) {
  State& s = *state_;
  {
    std::unique_lock lock(s.mutex);
    const std::uint64_t ticket = s.nextTicket++;
    s.turnChanged.wait(lock, [&] { return s.nowServing == ticket; });
  }
  struct FinishTurn {
    State& state;
    ~FinishTurn() { state.finishTurn(); }
  } finishOnExit{s};
  if (block) block();
}

void DispatchQueue::async(std::function<void()> block) {
  {
    std::lock_guard lock(state_->mutex);
    state_->pending.emplace_back(state_->nextTicket++, std::move(block));
    if (!state_->worker.joinable() && !state_->stopping) {
      state_->worker = std::thread([self = state_] { State::workerLoop(self); });
    }
  }
  state_->workAvailable.notify_one();
}

dispatch_queue_t dispatch_queue_create(const std::string& label) { return std::make_shared<DispatchQueue>(label); }

void dispatch_sync(const dispatch_queue_t& queue, const std::function<void()>& block) {
  if (queue) queue->sync(block);
}

void dispatch_async(const dispatch_queue_t& queue, std::function<void()> block) {
  if (queue) queue->async(std::move(block));
}
