#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <vorn/tracer.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agents/routing/KernelRoutes.h"
#include "agents/routing/Tables.h"

namespace routing_agent {

// Keeps the kernel's routes in step with the agent's: a route is in the kernel while there is a
// group of the name that it forwards to, with that group's primary next hops. The kernel's refusals
// are traced, one line for each; the route is tried again when it or its group changes. Used by the
// backlog's thread.
class KernelSync {
 public:
  explicit KernelSync(const std::string& netns) : kernel_(netns) {}

  void routeSet(const ip_route_msg& route);
  void routeRemoved(const ip_prefix_msg& prefix);
  // A group that was set, or deleted (request_delete).
  void groupChanged(const nexthop_group_msg& group);

 private:
  using Nexthops = std::vector<nexthop_msg>;

  void program(const ip_prefix_msg& prefix, const Nexthops* nexthops);

  vorn::tracer tracer_{"Kernel"};
  KernelRoutes kernel_;
  std::map<std::string, Nexthops> groups_;
  std::map<PrefixKey, std::pair<ip_prefix_msg, std::string>> routes_;  // with the group's name
};

}  // namespace routing_agent
