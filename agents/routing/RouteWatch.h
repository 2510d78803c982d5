#pragma once

#include <VornSdkRpc/RpcEvent.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <set>
#include <vector>

#include "agents/routing/Tables.h"

namespace routing_agent {

// Those who watch the routes. Each is told which prefixes have changed since it asked last, once,
// and looks up what they are now: one that is slow has no more waiting than there are prefixes.
// Without watchers a change costs next to nothing.
class RouteWatch {
 public:
  // One watch, of the serving thread. `news` is set when a prefix waits; it must outlive the watch.
  class Watcher {
   public:
    Watcher(RouteWatch& watch, VornSdkRpc::rpc::Event& news) : watch_(watch), news_(news) {
      const vorn::lock_guard lock(watch_.mutex_);
      watch_.watchers_.push_back(this);
      watch_.count_ = watch_.watchers_.size();
    }
    ~Watcher() {
      const vorn::lock_guard lock(watch_.mutex_);
      std::erase(watch_.watchers_, this);
      watch_.count_ = watch_.watchers_.size();
    }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    // At most `most` of those that wait, in order.
    std::vector<PrefixKey> take(std::size_t most) {
      const vorn::lock_guard lock(watch_.mutex_);
      const auto count = static_cast<std::ptrdiff_t>(std::min(most, changed_.size()));
      const auto end = std::next(changed_.begin(), count);
      std::vector<PrefixKey> taken(changed_.begin(), end);
      changed_.erase(changed_.begin(), end);
      return taken;
    }

   private:
    friend class RouteWatch;

    RouteWatch& watch_;
    VornSdkRpc::rpc::Event& news_;
    std::set<PrefixKey> changed_;  // guarded by the mutex of watch_
  };

  // Any thread, as what follows.
  void changed(const PrefixKey& prefix) {
    if (!watched()) return;
    const vorn::lock_guard lock(mutex_);
    for (auto* const watcher : watchers_) {
      if (watcher->changed_.insert(prefix).second && watcher->changed_.size() == 1)
        watcher->news_.set();
    }
  }

  bool watched() const { return count_ != 0; }

 private:
  vorn::mutex mutex_;
  std::vector<Watcher*> watchers_ VORN_GUARDED_BY(mutex_);
  std::atomic<std::size_t> count_ = 0;
};

}  // namespace routing_agent
