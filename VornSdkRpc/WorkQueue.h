#pragma once

#include <Tarsk/TaskScheduler.h>
#include <Velm/Ptr.h>
#include <VornSdkRpc/RpcEvents.h>
#include <vorn/export.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

// Work that a call hands over and that is done later, in its order, a step at a time: routes that
// are to be programmed, say. A call that changes one thing adds it and answers at once,
//
//   grpc::Status accept(const ip_route_msg& route) {
//     const bool taken = queue_.add([this, route] { table_.add(route); }, route.SpaceUsedLong());
//     return taken ? grpc::Status::OK : full();
//   }
//
// or waits for its change:
//
//   rpc::Task<> program(rpc::Call& call, const ip_route_msg& route) {
//     WorkQueue::Answer answer;
//     if (!queue_.add([this, route] { table_.add(route); }, route.SpaceUsedLong(), answer))
//       co_return full();
//     if (!co_await call.waitThroughDrain(answer.event())) co_return grpc::Status::CANCELLED;
//     answer.get();  // throws what the work has thrown
//     co_return grpc::Status::OK;
//   }
//
// One that brings many, an upload, waits for room, so that its client is held up by what gRPC holds
// for it:
//
//   rpc::Task<> load(rpc::Reader<ip_route_msg>& routes, count_msg& count) {
//     rpc::Event room;
//     const rpc::Events::Subscription subscription(queue_.room(), room);
//     ip_route_msg route;
//     while (co_await routes.read(route)) {
//       const auto work = [this, route] { table_.add(route); };
//       while (!queue_.add(work, route.SpaceUsedLong(), WorkQueue::bulk)) {
//         if (!co_await routes.waitThroughDrain(room)) co_return grpc::Status::CANCELLED;
//       }
//       count.set_count(count.count() + 1);
//     }
//     co_return routes.cancelled() ? grpc::Status::CANCELLED : grpc::Status::OK;
//   }
//
// The work runs in steps on a scheduler's thread, so that the scheduler's other tasks get their
// turn. How much a step may do is found out by time: it ends when its budget of time is used up,
// and the next may do as much as it has done; one that has done all it might within its budget lets
// the next do twice as much.
namespace VornSdkRpc {

struct WorkQueueOptions {
  // How much may wait. Full means that one of the two is reached, so the item that reaches it is
  // still taken, whatever its size. Zero: no limit.
  std::size_t maxBytes = 64 << 20;
  std::size_t maxItems = 0;

  // How much of both limits bulk work leaves to single changes, in percent, so that an upload that
  // fills the queue does not shut out everybody else. At most 100.
  unsigned singleShare = 10;

  // How long a step should take at most. One item always runs to its end.
  std::chrono::nanoseconds stepBudget = std::chrono::milliseconds(10);

  // The clock that steps and ages are measured with; for tests. Called on any thread.
  std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;

  // Told how long each step has taken, on the scheduler's thread. It must not throw.
  std::function<void(std::chrono::nanoseconds)> stepEnded{};
};

// The queue. Any thread may add; the scheduler's does the work.
class VORN_EXPORT WorkQueue {
 public:
  using Options = WorkQueueOptions;

  // One item. It may be copied. What it throws is answered to who waits for it, and traced as
  // "NAME/0" when nobody does; the next item goes on. It may add work, but not stop the queue when
  // that has a thread of its own.
  using Work = std::function<void()>;

  // Which limit an item obeys: single changes may use all of it, bulk work leaves them their share.
  enum Kind : std::uint8_t { single, bulk };

  // Thrown by Answer::get() for work that was dropped: the queue has been stopped.
  class VORN_EXPORT Dropped : public std::exception {
   public:
    const char* what() const noexcept override;
  };

  // Tells a call when what it has added is done. Of one call, and of one thread at a time; it may
  // go at any moment, with nobody told then and the work done all the same.
  class VORN_EXPORT Answer {
   public:
    Answer();
    ~Answer();
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

    // Set when everything that was added with this answer is done or dropped.
    rpc::Event& event() { return event_; }

    // How many items that were added with it are not done yet.
    std::size_t pending() const;

    // Throws the first exception of the items that are done: their own, or Dropped.
    void get() const;

   private:
    friend class WorkQueue;
    struct State;

    rpc::Event event_;
    std::shared_ptr<State> state_;
  };

  // How far behind the queue is, and how it gets on. What a step does is counted when it ends.
  struct Figures {
    std::size_t items = 0;  // that are not done yet, with those of the step in progress
    std::size_t bytes = 0;  // that these take
    std::chrono::nanoseconds oldest{0};  // for how long the first of them has waited
    std::uint64_t done = 0;              // items, since the beginning
    std::uint64_t failed = 0;            // of those, how many have thrown
    std::uint64_t refused = 0;           // items that there was no room for
    std::uint64_t runs = 0;              // steps, since the beginning
    std::size_t bestStep = 0;            // most items that one step has done
    std::size_t step = 1;                // items that the next step does at most
  };

  // A queue on a thread of its own. `name` is that of its task, its scheduler and its trace. Throws
  // std::system_error when there can be no thread.
  explicit WorkQueue(const char* name, Options options = {});

  // A queue on the agent's scheduler, with priority 3 beside other tasks. Constructed, stopped and
  // destroyed on the scheduler's thread, or while the scheduler does not run.
  WorkQueue(const char* name, const Velm::Ptr<Tarsk::TaskScheduler>& scheduler,
            Options options = {});

  // Stops.
  ~WorkQueue();

  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  // Appends an item, unless there is no room for its kind or the queue has been stopped: then it
  // takes nothing and returns false. `bytes` is about what the work takes in memory beside the
  // item itself. Passes on std::bad_alloc, with nothing taken. Any thread.
  [[nodiscard]] bool add(Work work, std::size_t bytes, Kind kind = single);

  // The same, with somebody who waits for it. One answer may be given several items.
  [[nodiscard]] bool add(Work work, std::size_t bytes, Answer& answer, Kind kind = single);

  // Whether an item of the kind would be taken now. Any thread.
  bool hasRoom(Kind kind = single) const;

  // Set whenever a queue without room for one of the kinds has some again. Subscribe first, then
  // try to add, then wait.
  rpc::Events& room();

  // Any thread.
  Figures figures() const;

  // Ends when the item in progress has; drops what still waits, and takes nothing any more. To be
  // called before what the work refers to is gone. Calling it again changes nothing.
  void stop();

 private:
  class VORN_NO_EXPORT Queue;

  std::unique_ptr<Queue> queue_;
};

}  // namespace VornSdkRpc
