#pragma once

// How another thread wakes a call: it sets an event that the call waits for. (RpcEvents.h shows one
// in use.)
//
// Rules. An event stays set until a wait has seen it, so that one which comes between a look and
// the wait is not lost; several before one wait count once. set() may come from any thread. One
// call waits for an event at a time, on its server's thread; a second one is an assertion.
//
// Fine print. What was written before set() is seen behind the wait that it ends, without further
// synchronisation. Whoever calls set() must have stopped doing so when the event is destroyed.

#include <vorn/export.h>
#include <vorn/mutex.h>

namespace VornSdkRpc::rpc {

namespace detail {
class Exchange;
class Sleeper;
}  // namespace detail

// Wakes the one call that waits for it.
class VORN_EXPORT Event {
 public:
  Event() = default;
  ~Event();  // asserts that nobody waits
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // Sets the event, and wakes who waits. Costs little on the server's thread, where the call goes
  // on as soon as the step in progress has ended, and a wake-up of that thread on any other. Throws
  // nothing. Any thread.
  void set() noexcept;

 private:
  friend class detail::Exchange;

  // Returns whether the event was set, and clears it.
  VORN_NO_EXPORT bool take();

  // set() wakes this sleeper from now on, at once when the event is set already; null: none.
  VORN_NO_EXPORT void wakes(detail::Sleeper* sleeper);

  vorn::mutex mutex_;
  bool set_ VORN_GUARDED_BY(mutex_) = false;
  detail::Sleeper* waiting_ VORN_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace VornSdkRpc::rpc
