#pragma once

#include <vorn/mutex.h>

#include <cassert>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <utility>

// An unbounded first-in-first-out queue from any number of producers to one consumer, which takes
// everything that is queued in one step. A producer waits for nothing but the mutex, and that is
// held for one append or one exchange of two deques; a consumer that falls behind costs memory.
template <typename T>
class SynchronizedQueue {
 public:
  SynchronizedQueue() = default;

  // Closes the queue and drops what is still in it. The consumer must be done with it.
  ~SynchronizedQueue() { close(); }

  SynchronizedQueue(const SynchronizedQueue&) = delete;
  SynchronizedQueue& operator=(const SynchronizedQueue&) = delete;

  // Appends a copy of the item and wakes the consumer. Any thread. Throws what copying throws, and
  // the queue is then as before.
  void push(const T& item) { append(item); }

  // The same without a copy.
  void push(T&& item) { append(std::move(item)); }

  // Takes every queued item, oldest first, into `q`, which must be empty (asserted). Waits while
  // nothing is queued and the queue is open; a spurious wake-up may end the wait with nothing
  // taken. Returns false, with `q` empty, once the queue is closed and nothing is left. Consumer.
  bool swap(std::deque<T>& q) {
    assert(q.empty());
    vorn::unique_lock lock(mutex_);
    if (items_.empty()) {
      if (closed_) return false;
      cond_.wait(lock);
    }
    std::swap(items_, q);
    return !(q.empty() && closed_);
  }

  // Waits for a time, whatever is pushed meanwhile, or until the queue is closed. Consumer.
  void rest(std::chrono::milliseconds time) {
    vorn::unique_lock lock(mutex_);
    closing_.wait_for(lock, time, [this]() VORN_REQUIRES(mutex_) { return closed_; });
  }

  // Whether close() has been called. Any thread.
  bool isClosed() {
    const vorn::lock_guard lock(mutex_);
    return closed_;
  }

  // Lets the consumer take what is queued and then end. Calling it again changes nothing. Any
  // thread.
  void close() {
    const vorn::lock_guard lock(mutex_);
    closed_ = true;
    cond_.notify_one();
    closing_.notify_one();
  }

 private:
  template <typename Item>
  void append(Item&& item) {
    const vorn::lock_guard lock(mutex_);
    items_.push_back(std::forward<Item>(item));
    cond_.notify_one();
  }

  vorn::mutex mutex_;
  bool closed_ VORN_GUARDED_BY(mutex_) = false;
  std::deque<T> items_ VORN_GUARDED_BY(mutex_);
  std::condition_variable cond_;
  std::condition_variable closing_;
};
