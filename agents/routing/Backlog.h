#pragma once

#include <VornSdkRpc/WorkQueue.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <thread>
#include <utility>

namespace routing_agent {

// The agent's backlog: changes that have been accepted and are still to be programmed. Calls add to
// it and are answered at once; a thread of its own programs the changes in their order.
class Backlog : public VornSdkRpc::WorkQueue {
 public:
  using Change = Work;

  // `stepTime` is slept after every 64 changes: what they cost the hardware, where there is some.
  // `limit` is how many bytes may wait. `stepEnded` is as WorkQueue's.
  Backlog(std::chrono::milliseconds stepTime, std::size_t limit,
          std::function<void(std::chrono::nanoseconds)> stepEnded = {})
      : WorkQueue("Backlog", {.maxBytes = limit, .stepEnded = std::move(stepEnded)}),
        stepTime_(stepTime) {}

  // Before what the thread uses is gone.
  ~Backlog() { stop(); }

  // As WorkQueue's. `count` is of how many changes the item stands for.
  [[nodiscard]] bool add(Change change, std::size_t bytes, Kind kind = single,
                         std::size_t count = 1) {
    auto programmed = [this, count, change = std::move(change)] {
      change();
      further_ -= count - 1;
      const auto before = std::exchange(programmed_, programmed_ + count);
      std::this_thread::sleep_for(stepTime_ * (programmed_ / 64 - before / 64));
    };
    further_ += count - 1;
    const bool added = WorkQueue::add(std::move(programmed), bytes, kind);
    if (!added) further_ -= count - 1;
    return added;
  }

  // How many changes wait. Any thread.
  std::size_t waiting() const { return figures().items + further_; }

  // Has `reached` told when everything that is on the backlog now is done, and `look` was called.
  // Answers false when there is no room.
  [[nodiscard]] bool mark(Answer& reached, Change look) {
    return WorkQueue::add(std::move(look), 0, reached);
  }

 private:
  const std::chrono::milliseconds stepTime_;
  std::size_t programmed_ = 0;  // of the backlog's thread
  std::atomic<std::size_t> further_ =
      0;  // changes of items that stand for several, beside the first
};

// Stops a backlog at the end of a scope.
class StopBacklog {
 public:
  explicit StopBacklog(Backlog& backlog) : backlog_(backlog) {}
  ~StopBacklog() { backlog_.stop(); }
  StopBacklog(const StopBacklog&) = delete;
  StopBacklog& operator=(const StopBacklog&) = delete;

 private:
  Backlog& backlog_;
};

}  // namespace routing_agent
