#pragma once

#include <VornSdkRpc/StreamingToolkit.h>

#include <deque>
#include <mutex>

#include "examples/snippets/RouteService.h"

namespace snippets {

// Routes that wait to be put into a table, in steps of at most 64.
// [backlog]
class RouteBacklog : public VornSdkRpc::BacklogImplBase {
 public:
  RouteBacklog(const Velm::Ptr<Tarsk::TaskScheduler>& scheduler, RouteTable& table)
      : BacklogImplBase("RouteBacklog", scheduler), table_(table) {}

  void add(const ip_route_msg& route) {  // any thread
    {
      const std::lock_guard lock(mutex_);
      waiting_.push_back(route);
    }
    wake();
  }

 private:
  void handleBacklog() override {  // the scheduler's thread
    for (int i = 0; i < 64; ++i) {
      const std::lock_guard lock(mutex_);
      if (waiting_.empty()) return;
      table_.add(waiting_.front());
      waiting_.pop_front();
    }
    wake();  // there may be more: other tasks go first
  }

  RouteTable& table_;
  std::mutex mutex_;
  std::deque<ip_route_msg> waiting_;
};
// [backlog]

}  // namespace snippets
