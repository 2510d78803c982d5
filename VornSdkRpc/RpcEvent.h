#pragma once

// How another thread wakes a call.

#include <grpcpp/alarm.h>

#include <mutex>
#include <utility>

namespace VornSdkRpc::rpc {

class Call;

// Wakes the one call that waits for it. An event stays set until a wait has seen it, so one that
// comes between a look and the wait is not lost; several before one wait count once. set() may come
// from any thread; whoever calls it must have stopped doing so when the event is destroyed.
class Event {
 public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void set() {
    const std::lock_guard lock(mutex_);
    set_ = true;
    if (waiting_) waiting_->Cancel();
  }

 private:
  friend class Call;

  // Whether it was set; it no longer is.
  bool take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(set_, false);
  }

  // From now on set() ends this alarm; null: none.
  void wakes(grpc::Alarm* alarm) {
    const std::lock_guard lock(mutex_);
    waiting_ = alarm;
    if (waiting_ && set_) waiting_->Cancel();
  }

  std::mutex mutex_;
  bool set_ = false;
  grpc::Alarm* waiting_ = nullptr;
};

}  // namespace VornSdkRpc::rpc
