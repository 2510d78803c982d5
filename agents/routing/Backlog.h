#pragma once

#include <VornSdkRpc/WorkQueue.h>

#include <chrono>
#include <cstddef>
#include <thread>
#include <utility>

namespace routing_agent {

// The agent's backlog: changes that have been accepted and are still to be programmed. Calls add to
// it and are answered at once; a thread of its own programs the changes in their order.
class Backlog : public VornSdkRpc::WorkQueue {
 public:
  using Change = Work;

  // `stepTime` is slept after every 64 changes: what they cost the hardware, where there is some.
  // `limit` is how many bytes may wait.
  Backlog(std::chrono::milliseconds stepTime, std::size_t limit)
      : WorkQueue("Backlog", {.maxBytes = limit}), stepTime_(stepTime) {}

  // Before what the thread uses is gone.
  ~Backlog() { stop(); }

  // As WorkQueue's.
  [[nodiscard]] bool add(Change change, std::size_t bytes, Kind kind = single) {
    auto programmed = [this, change = std::move(change)] {
      change();
      if (++programmed_ % 64 == 0) std::this_thread::sleep_for(stepTime_);
    };
    return WorkQueue::add(std::move(programmed), bytes, kind);
  }

  // Has `reached` told when everything that is on the backlog now is done. Answers false when there
  // is no room.
  [[nodiscard]] bool mark(Answer& reached) {
    return WorkQueue::add([] {}, 0, reached);
  }

 private:
  const std::chrono::milliseconds stepTime_;
  std::size_t programmed_ = 0;  // of the backlog's thread
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
