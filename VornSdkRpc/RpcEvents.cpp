#include <VornSdkRpc/RpcEvents.h>

#include <cassert>

namespace VornSdkRpc::rpc {

Events::Subscription::Subscription(Events& hub, Event& event) : hub_(hub) {
  const vorn::lock_guard lock(hub_.mutex_);
  place_ = hub_.events_.insert(hub_.events_.end(), &event);
}

Events::Subscription::~Subscription() {
  const vorn::lock_guard lock(hub_.mutex_);
  hub_.events_.erase(place_);
}

Events::Events() = default;

Events::~Events() { assert(events_.empty() && "a subscription outlives its hub"); }

void Events::set() {
  const vorn::lock_guard lock(mutex_);
  for (Event* event : events_)
    event->set();
}

std::size_t Events::subscriptions() const {
  const vorn::lock_guard lock(mutex_);
  return events_.size();
}

}  // namespace VornSdkRpc::rpc
