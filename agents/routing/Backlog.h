#pragma once

#include <VornSdkRpc/RpcEvents.h>
#include <VornSdkRpc/StreamingToolkit.h>
#include <vorn/tracer.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace routing_agent {

// The agent's backlog: changes that have been accepted and are still to be programmed. Calls add to
// it and are answered at once; a scheduler on a thread of its own programs the changes in their
// order, in steps of at most 64.
class Backlog {
 public:
  // Programs one thing. What it throws is traced, and the next change goes on.
  using Change = std::function<void()>;

  // `stepTime` is slept after every step: what a step costs the hardware, where there is some.
  // `limit` is how many bytes may wait; a change more is not refused, but who adds asks full()
  // first.
  Backlog(std::chrono::milliseconds stepTime, std::size_t limit);

  // Stops, if that has not been done.
  ~Backlog();

  // Ends the programming after the step in progress, and drops what is still waiting: to be called
  // before what the changes refer to is gone.
  void stop();

  // `bytes` is about what the change takes in memory. Any thread.
  void add(Change change, std::size_t bytes);

  // Whether no more should be added until some is programmed. Any thread.
  bool full() const;

  // Set whenever a full backlog has room again.
  VornSdkRpc::rpc::Events room;

  // How many changes are not programmed yet. Any thread.
  std::size_t waiting() const;

 private:
  // The state machine's side: drains a step whenever its task runs.
  class Drain : public VornSdkRpc::BacklogImplBase {
   public:
    Drain(Backlog& backlog, const Velm::Ptr<Tarsk::TaskScheduler>& scheduler);
    void handleBacklog() override;

   private:
    Backlog& backlog_;
  };

  struct Waiting {
    Change change;
    std::size_t bytes;
  };

  // The next step's changes; they count as waiting until done() is called.
  std::vector<Waiting> next();
  // Answers whether more is waiting.
  bool done(const std::vector<Waiting>& changes);

  vorn::tracer tracer_{"Backlog"};
  const std::chrono::milliseconds stepTime_;
  const std::size_t limit_;
  mutable std::mutex mutex_;
  std::deque<Waiting> changes_;
  std::size_t waiting_ = 0;
  std::size_t bytes_ = 0;
  Velm::Ptr<Tarsk::TaskScheduler> scheduler_;
  Drain drain_;
  std::thread thread_;
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
