#include <VornSdkRpc/RpcEvent.h>

#include <VornSdkRpc/RpcWakeups.h>

#include <cassert>
#include <utility>

namespace VornSdkRpc::rpc {

Event::~Event() { assert(!waiting_ && "an event is destroyed while a call waits for it"); }

void Event::set() noexcept {
  const vorn::lock_guard lock(mutex_);
  set_ = true;
  if (waiting_) waiting_->ready();
}

bool Event::take() {
  const vorn::lock_guard lock(mutex_);
  return std::exchange(set_, false);
}

void Event::wakes(detail::Sleeper* sleeper) {
  const vorn::lock_guard lock(mutex_);
  assert((!sleeper || !waiting_) && "two calls wait for one event");
  waiting_ = sleeper;
  if (waiting_ && set_) waiting_->ready();
}

}  // namespace VornSdkRpc::rpc
