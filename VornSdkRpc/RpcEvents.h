#pragma once

// A hub of events: whoever changes something sets the hub once, and every call that has subscribed
// wakes.
//
//   rpc::Task<> watch(rpc::Writer<ip_route_msg>& watcher, RouteTable& table) {
//     rpc::Event news;
//     const rpc::Events::Subscription subscription(table.changed, news);
//     std::uint32_t written = 0;
//     do {
//       for (auto& route : table.after(written)) {
//         if (!co_await watcher.write(route)) break;
//         ++written;
//       }
//     } while (co_await watcher.wait(news));
//     co_return watcher.endStatus();
//   }
//
// Whoever has changed the table calls `table.changed.set()`, on any thread.
//
// Subscribe first, then look, then wait: what changes after the look has set the event by the time
// of the wait. One event may be subscribed to several hubs, so that a call waits for whichever
// speaks first.

#include <VornSdkRpc/RpcEvent.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <cstddef>
#include <list>

namespace VornSdkRpc::rpc {

// Sets the events of all who have subscribed. Any thread may call any operation.
//
// What a thread has done before set() is seen by every call that this wakes, without a lock or an
// atomic of its own; and what a subscriber does after its subscription has ended is not disturbed:
// no set() touches the event any more. set() runs the subscribers' Event::set() one after the other
// under the hub's lock and calls nothing else, so it may be called with a lock held, and in a
// function of the serving thread.
class VORN_EXPORT Events {
 public:
  // Has an event set whenever the hub's set() is called, for its own lifetime. Refers to both, so
  // it has to end before either; declared behind the event, it does. It may end on any thread, as
  // it does where a stop destroys the coroutine that it stands in.
  class VORN_EXPORT Subscription {
   public:
    Subscription(Events& hub, Event& event);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    Events& hub_;
    std::list<Event*>::iterator place_;
  };

  Events();
  // Asserts that no subscription is left.
  ~Events();
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  // Wakes all who have subscribed. Several before a subscriber's wait count once for it.
  void set();

  // The number of subscriptions.
  std::size_t subscriptions() const;

 private:
  mutable vorn::mutex mutex_;
  std::list<Event*> events_ VORN_GUARDED_BY(mutex_);
};

}  // namespace VornSdkRpc::rpc
