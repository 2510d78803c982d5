#include "agents/routing/RoutingService.h"

#include <memory>
#include <optional>

namespace routing_agent {

namespace {

constexpr std::size_t kItemsPerPart = 256;

// Each may hold one message beside the backlog while it waits for room there.
constexpr std::size_t kMaxSetRoutes = 1024;

// Sends a table in parts, each taken when the one before is out: a client that reads slowly costs
// one part of memory, whatever the table's size. `add` answers the place of a further item in a
// part.
template <typename Part, typename Key, typename Value, typename Add>
rpc::Task<> sendTable(rpc::Writer<Part>& writer, const Table<Key, Value>& table,
                      const Backlog& backlog, Add add) {
  std::optional<Key> last;
  for (;;) {
    auto items = table.part(last, kItemsPerPart);
    Part part;
    part.set_waiting(backlog.figures().items);
    for (auto& [key, value] : items)
      *add(part) = std::move(value);
    if (!co_await writer.write(part)) co_return grpc::Status::CANCELLED;
    if (items.size() < kItemsPerPart) co_return grpc::Status::OK;
    last = std::move(items.back().first);
  }
}

}  // namespace

RoutingService::RoutingService(Tables& tables, Backlog& backlog,
                               const std::vector<std::string>& listen, KernelSync* kernel)
    : AgentService("Routing", backlog, listen), tables_(tables), kernel_(kernel) {
  method(&Async::RequestSetRoute, [this](grpc::ServerContext& context, const ip_route_msg& route,
                                         rpc_status_msg&) { return set(context, route); });
  method(&Async::RequestSetRoutes,
         [this](rpc::Reader<ip_route_msg>& routes, set_routes_reply_msg& reply) {
           return setAll(routes, reply);
         },
         {.limit = kMaxSetRoutes});
  method(&Async::RequestDeleteRoute,
         [this](grpc::ServerContext& context, const ip_prefix_msg& prefix, rpc_status_msg&) {
           return remove(context, prefix);
         });
  method(&Async::RequestSetNexthopGroup,
         [this](grpc::ServerContext& context, const nexthop_group_msg& group, rpc_status_msg&) {
           return set(context, group);
         });
  method(&Async::RequestSetMplsRoute,
         [this](grpc::ServerContext& context, const mpls_route_msg& route, rpc_status_msg&) {
           return set(context, route);
         });
  method(&Async::RequestSetRedirect,
         [this](grpc::ServerContext& context, const cbf_nexthop_group_redirect_msg& redirect,
                rpc_status_msg&) { return set(context, redirect); });
  method(&Async::RequestGetRoutes, [this](rpc::Writer<routes_msg>& parts, const get_msg&) {
    return sendTable(parts, tables_.routes, backlog_,
                     [](routes_msg& part) { return part.add_route(); });
  });
  method(&Async::RequestGetNexthopGroups,
         [this](rpc::Writer<nexthop_groups_msg>& parts, const get_msg&) {
           return sendTable(parts, tables_.groups, backlog_,
                            [](nexthop_groups_msg& part) { return part.add_group(); });
         });
  method(&Async::RequestGetMplsRoutes, [this](rpc::Writer<mpls_routes_msg>& parts, const get_msg&) {
    return sendTable(parts, tables_.mplsRoutes, backlog_,
                     [](mpls_routes_msg& part) { return part.add_route(); });
  });
  method(&Async::RequestGetRedirects, [this](rpc::Writer<redirects_msg>& parts, const get_msg&) {
    return sendTable(parts, tables_.redirects, backlog_,
                     [](redirects_msg& part) { return part.add_redirect(); });
  });
}

grpc::Status RoutingService::set(grpc::ServerContext& context, const ip_route_msg& route,
                                 Backlog::Kind kind) {
  return change(
      context, route, routes_, PrefixKey(route.prefix()), false, "route of this prefix",
      [this, route] { program(route); }, kind);
}

grpc::Status RoutingService::remove(grpc::ServerContext& context, const ip_prefix_msg& prefix) {
  return change(context, prefix, routes_, PrefixKey(prefix), true, "route of this prefix",
                [this, prefix] { unprogram(prefix); });
}

rpc::Task<> RoutingService::setAll(rpc::Reader<ip_route_msg>& routes, set_routes_reply_msg& reply) {
  rpc::Event room;
  const rpc::Events::Subscription subscription(backlog_.room(), room);
  ip_route_msg route;
  while (co_await routes.read(route)) {
    // A client that sends faster than can be programmed is held up by what gRPC holds for it.
    while (!backlog_.hasRoom(Backlog::bulk)) {
      if (!co_await routes.wait(room)) co_return grpc::Status::CANCELLED;
    }
    try {
      if (auto status = set(routes.context(), route, Backlog::bulk); !status.ok()) co_return status;
    } catch (const vorn::invalid_argument_error& error) {
      throw vorn::invalid_argument_error(
          "route " + std::to_string(reply.accepted()) + ": " + error.what(), error.argument());
    }
    reply.set_accepted(reply.accepted() + 1);
  }
  if (routes.cancelled()) co_return grpc::Status::CANCELLED;
  co_return grpc::Status::OK;
}

grpc::Status RoutingService::set(grpc::ServerContext& context, const nexthop_group_msg& group) {
  return change(context, group, groups_, group.name(), group.request_delete(),
                "next-hop group of this name", [this, group] { program(group); });
}

grpc::Status RoutingService::set(grpc::ServerContext& context, const mpls_route_msg& route) {
  return change(context, route, mplsRoutes_, route.label(), route.request_delete(),
                "MPLS route of this label", [this, route] {
                  if (route.request_delete()) return tables_.mplsRoutes.remove(route.label());
                  tables_.mplsRoutes.set(route.label(), route);
                });
}

grpc::Status RoutingService::set(grpc::ServerContext& context,
                                 const cbf_nexthop_group_redirect_msg& redirect) {
  return change(context, redirect, redirects_, redirect.match_nexthop_group(),
                redirect.request_delete(), "redirect of this group", [this, redirect] {
                  const auto& key = redirect.match_nexthop_group();
                  if (redirect.request_delete()) return tables_.redirects.remove(key);
                  tables_.redirects.set(key, redirect);
                });
}

void RoutingService::program(const ip_route_msg& route) {
  tables_.routes.set(PrefixKey(route.prefix()), route);
  if (kernel_) kernel_->routeSet(route);
}

void RoutingService::unprogram(const ip_prefix_msg& prefix) {
  tables_.routes.remove(PrefixKey(prefix));
  if (kernel_) kernel_->routeRemoved(prefix);
}

void RoutingService::program(const nexthop_group_msg& group) {
  if (group.request_delete()) {
    tables_.groups.remove(group.name());
  } else {
    tables_.groups.set(group.name(), group);
  }
  if (kernel_) kernel_->groupChanged(group);
}

}  // namespace routing_agent
