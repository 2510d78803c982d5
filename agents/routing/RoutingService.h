#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "agents/routing/AgentService.h"
#include "agents/routing/KernelSync.h"
#include "agents/routing/RouteWatch.h"

namespace routing_agent {

// IP and MPLS routes, next-hop groups and redirects.
class RoutingService : public AgentService<Routing> {
 public:
  // Begins with what is in the tables. `kernel` is started with the server, and told of IP routes
  // and groups as they are taken from the backlog; null: there is none, and what is taken from the
  // backlog is programmed.
  RoutingService(const Workings& workings, KernelSync* kernel);
  // Ends what it has begun in the kernel, whose thread tells it of routes.
  ~RoutingService() override;

 private:
  void opened() override;
  void adopt(const PrefixKey& prefix);

  grpc::Status set(grpc::ServerContext& context, const ip_route_msg& route,
                   Backlog::Kind kind = Backlog::single);
  grpc::Status set(grpc::ServerContext& context, const nexthop_group_msg& group);
  grpc::Status set(grpc::ServerContext& context, const mpls_route_msg& route);
  grpc::Status set(grpc::ServerContext& context, const cbf_nexthop_group_redirect_msg& redirect);
  grpc::Status remove(grpc::ServerContext& context, const ip_prefix_msg& prefix);
  rpc::Task<> setAll(rpc::Reader<ip_route_msg>& routes, set_routes_reply_msg& reply);
  template <typename Take>
  rpc::Task<> takeParts(rpc::Reader<routes_msg>& parts, Take take);
  rpc::Task<> setParts(rpc::Reader<routes_msg>& parts, set_routes_reply_msg& reply);
  rpc::Task<> removeParts(rpc::Reader<routes_msg>& parts, delete_routes_reply_msg& reply);
  grpc::Status setPart(routes_msg& part, set_routes_reply_msg& reply);
  grpc::Status removePart(const routes_msg& part, delete_routes_reply_msg& reply);
  grpc::Status programPart(routes_msg part);
  bool isThere(const PrefixKey& prefix);
  grpc::Status unprogramPart(std::vector<ip_prefix_msg> part);
  grpc::Status ended(Election::Term term);
  grpc::Status endSync(grpc::ServerContext& context);
  grpc::Status announce(grpc::ServerContext& context, const announce_msg& request);

  // What became of something that is in its table.
  programming_msg stateOf(const PrefixKey& prefix) const;
  route_change_msg changeOf(const PrefixKey& prefix) const;
  rpc::Task<> watchRoutes(rpc::Writer<route_changes_msg>& changes);
  programming_msg stateOfGroup(const std::string& name) const;
  programming_msg stateOfMplsRoute(std::uint32_t label) const;
  programming_msg stateOfRedirect() const;  // which a kernel never takes
  static programming_msg stateWithoutKernel();
  std::optional<programming_msg> stateOf(const await_msg& what) const;

  rpc::Task<> await(rpc::Call& call, const await_msg& what, programming_msg& reply);
  rpc::Task<> awaitAll(rpc::Call& call, summary_msg& reply);
  // Until what is on the backlog now has been taken from it, or the call ends.
  rpc::Task<> taken(rpc::Call& call);
  std::size_t waiting() const;

  // What the backlog does, on its thread.
  void program(const ip_route_msg& route);
  void unprogram(const ip_prefix_msg& prefix);
  void program(const nexthop_group_msg& group);
  void program(const mpls_route_msg& route);
  void program(const cbf_nexthop_group_redirect_msg& redirect);
  bool usesUnknown(const std::string& before, const std::string& now);

  // A group as those who forward to it see it.
  struct Use {
    bool set = false;
    std::size_t users = 0;  // routes and MPLS routes
  };

  KernelSync* const kernel_;
  Wanted<PrefixKey, decltype(Tables::routes)> routes_{tables_.routes};
  Wanted<std::string, decltype(Tables::groups)> groups_{tables_.groups};
  Wanted<std::uint32_t, decltype(Tables::mplsRoutes)> mplsRoutes_{tables_.mplsRoutes};
  Wanted<std::string, decltype(Tables::redirects)> redirects_{tables_.redirects};
  RouteWatch watch_;                          // of any thread
  std::unordered_map<std::string, Use> use_;  // by name; of the backlog's thread
};

}  // namespace routing_agent
