#include "agents/routing/KernelSync.h"

#include <exception>

namespace routing_agent {

void KernelSync::routeSet(const ip_route_msg& route) {
  routes_.insert_or_assign(PrefixKey(route.prefix()),
                           std::pair(route.prefix(), route.nexthop_group()));
  const auto group = groups_.find(route.nexthop_group());
  program(route.prefix(), group == groups_.end() ? nullptr : &group->second);
}

void KernelSync::routeRemoved(const ip_prefix_msg& prefix) {
  routes_.erase(PrefixKey(prefix));
  program(prefix, nullptr);
}

void KernelSync::groupChanged(const nexthop_group_msg& group) {
  const Nexthops* nexthops = nullptr;
  if (group.request_delete()) {
    groups_.erase(group.name());
  } else {
    nexthops = &(groups_[group.name()] = Nexthops(group.nexthop().begin(), group.nexthop().end()));
  }
  for (const auto& [key, route] : routes_) {
    if (route.second == group.name()) program(route.first, nexthops);
  }
}

void KernelSync::program(const ip_prefix_msg& prefix, const Nexthops* nexthops) {
  try {
    if (nexthops && !nexthops->empty()) {
      kernel_.set(prefix, *nexthops, 0);
    } else {
      kernel_.remove(prefix);
    }
  } catch (const std::exception& error) {
    tracer_.trace0("%s", error.what());
  }
}

}  // namespace routing_agent
