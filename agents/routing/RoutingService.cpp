#include "agents/routing/RoutingService.h"

#include <Kiv/Log.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <utility>

namespace routing_agent {

namespace {

// Each may hold one message beside the backlog while it waits for room there.
constexpr std::size_t kMaxSetRoutes = 1024;

Kiv::LogDescriptor unknownDescriptor = {
    "ROUTING_AGENT_GROUP_UNKNOWN", "next-hop group %s is not set, and %s forwards to it",
    "Traffic of the route is not forwarded by it until the group is set. Set the group, or correct "
    "the route. Others of the same group may follow without a line for a minute.",
    "\x01", 4};
Kiv::LogDescriptor inUseDescriptor = {
    "ROUTING_AGENT_GROUP_IN_USE", "next-hop group %s is deleted, and %s routes forward to it",
    "The routes wait until the group is set again. Set it, or delete the routes.", "\x01", 4};
Kiv::LogDescriptor redirectDescriptor = {"ROUTING_AGENT_REDIRECT_UNUSED",
                                         "the redirect of next-hop group %s: %s",
                                         "The redirect is kept, and traffic goes on as if it were "
                                         "not there. Delete it, or run the agent "
                                         "where the hardware redirects.",
                                         "\x01", 4};
Kiv::LogHandle unknownHandle(&unknownDescriptor, std::chrono::minutes(1), 1.0, 1, 0);
Kiv::LogHandle inUseHandle(&inUseDescriptor, std::chrono::minutes(1), 1.0, 1, 0);
Kiv::LogHandle redirectHandle(&redirectDescriptor, std::chrono::minutes(1), 1.0, 1, 0);

constexpr const char* kUnsupported = "not supported by this kernel";

// Each holds a call while it waits.
constexpr std::size_t kMaxAwaits = 1024;

// Each holds the prefixes that have changed, until its client takes them.
constexpr std::size_t kMaxWatches = 64;

// The end of a call that has waited in vain: it is over, or the server is about to stop.
grpc::Status untold() {
  return {grpc::StatusCode::UNAVAILABLE, "the agent stops before it is known"};
}

bool settled(const programming_msg& state, bool orWaiting) {
  switch (state.state()) {
    case programming_msg::PROGRAMMED:
    case programming_msg::FAILED:
      return true;
    default:
      return orWaiting && !state.reason().empty();
  }
}

// The group that an MPLS route forwards to; empty: none.
const std::string& groupOf(const mpls_route_msg& route) {
  return route.nexthop_group().nexthop_group();
}
const std::string& groupOf(const ip_route_msg& route) { return route.nexthop_group(); }

template <typename Message>
std::string groupOf(const std::optional<Message>& message) {
  return message ? groupOf(*message) : std::string();
}

bool isProgrammed(const programming_msg& state) {
  return state.state() == programming_msg::PROGRAMMED || state.state() == programming_msg::ADOPTED;
}

// What is awaited, as records of calls have it.
std::string objectOf(const await_msg& what) {
  switch (what.what_case()) {
    case await_msg::kRoute:
      return toString(what.route());
    case await_msg::kGroup:
      return what.group();
    case await_msg::kMplsLabel:
      return std::to_string(what.mpls_label());
    case await_msg::kRedirect:
      return what.redirect();
    case await_msg::WHAT_NOT_SET:
      break;
  }
  return "";
}

// Sends a table in parts, each taken when the one before is out: a client that reads slowly costs
// one part of memory, whatever the table's size. `add` returns the place of a further item in a
// part, `stateOf` what became of it.
template <typename Part, typename Key, typename Value, typename Form, typename Add,
          typename StateOf, typename Waiting>
rpc::Task<> sendTable(rpc::Writer<Part>& writer, const get_msg& request, std::string_view name,
                      const Table<Key, Value, Form>& table, Waiting waiting, Add add,
                      StateOf stateOf) {
  std::optional<Key> last;
  for (std::size_t sent = 0;;) {
    auto items = table.part(last);
    Part part;
    part.set_waiting(waiting());
    for (auto& [key, value] : items) {
      auto state = stateOf(key);
      if (request.failed() && isProgrammed(state)) continue;
      *add(part) = std::move(value);
      *part.add_programming() = std::move(state);
    }
    if (!co_await writer.write(part)) co_return grpc::Status::CANCELLED;
    sent += static_cast<std::size_t>(part.programming_size());
    VornSdkRpc::noteOperation(writer.context(), "get", name, sent);
    if (items.empty()) co_return grpc::Status::OK;
    last = std::move(items.back().first);
  }
}

// Notes what an upload has done, however it ends.
template <typename Count>
class NoteRoutes {
 public:
  NoteRoutes(const grpc::ServerContext& call, const char* operation, Count count)
      : call_(call), operation_(operation), count_(std::move(count)) {}
  ~NoteRoutes() {
    try {
      VornSdkRpc::noteOperation(call_, operation_, "routes", count_());
    } catch (const std::bad_alloc&) {  // the record says nothing of it then
    }
  }
  NoteRoutes(const NoteRoutes&) = delete;
  NoteRoutes& operator=(const NoteRoutes&) = delete;

 private:
  const grpc::ServerContext& call_;
  const char* const operation_;
  const Count count_;
};

// The first of a part that can't be used, by its place among all that the call has brought.
struct Wrong {
  int place = -1;  // in the part
  std::optional<vorn::invalid_argument_error> error;
};

template <typename Check>
Wrong firstWrong(const routes_msg& part, std::uint64_t before, Check checkOne) {
  int place = 0;
  try {
    for (; place < part.route_size(); ++place)
      checkOne(part.route(place));
    return {place, std::nullopt};
  } catch (const vorn::invalid_argument_error& error) {
    const auto overall = before + static_cast<std::uint64_t>(place);
    return {place, vorn::invalid_argument_error(
                       "route " + std::to_string(overall) + ": " + error.what(), error.argument())};
  }
}

}  // namespace

RoutingService::RoutingService(const Workings& workings, KernelSync* kernel)
    : AgentService("Routing", workings), kernel_(kernel) {
  tables_.groups.forEach(
      [this](const std::string& name, const nexthop_group_msg&) { use_[name].set = true; });
  const auto countUses = [this](const auto&, const auto& route) {
    usesUnknown({}, groupOf(route));
  };
  tables_.routes.forEach(countUses);
  tables_.mplsRoutes.forEach(countUses);
  method(&Async::RequestSetRoute,
         [this](grpc::ServerContext& context, const ip_route_msg& route, rpc_status_msg&) {
           VornSdkRpc::noteOperation(context, "set", toString(route.prefix()));
           return set(context, route);
         });
  method(&Async::RequestSetRoutes,
         [this](rpc::Reader<ip_route_msg>& routes, set_routes_reply_msg& reply) {
           return setAll(routes, reply);
         },
         {.limit = kMaxSetRoutes});
  method(&Async::RequestSetRouteParts,
         [this](rpc::Reader<routes_msg>& parts, set_routes_reply_msg& reply) {
           return setParts(parts, reply);
         },
         {.limit = kMaxSetRoutes});
  method(&Async::RequestDeleteRouteParts,
         [this](rpc::Reader<routes_msg>& parts, delete_routes_reply_msg& reply) {
           return removeParts(parts, reply);
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
  const auto waits = [this] { return waiting(); };
  method(&Async::RequestGetRoutes,
         [this, waits](rpc::Writer<routes_msg>& parts, const get_msg& request) {
           return sendTable(
               parts, request, "routes", tables_.routes, waits,
               [](routes_msg& part) { return part.add_route(); },
               [this](const PrefixKey& prefix) { return stateOf(prefix); });
         });
  method(&Async::RequestGetNexthopGroups,
         [this, waits](rpc::Writer<nexthop_groups_msg>& parts, const get_msg& request) {
           return sendTable(
               parts, request, "groups", tables_.groups, waits,
               [](nexthop_groups_msg& part) { return part.add_group(); },
               [this](const std::string& name) { return stateOfGroup(name); });
         });
  method(&Async::RequestGetMplsRoutes,
         [this, waits](rpc::Writer<mpls_routes_msg>& parts, const get_msg& request) {
           return sendTable(
               parts, request, "MPLS routes", tables_.mplsRoutes, waits,
               [](mpls_routes_msg& part) { return part.add_route(); },
               [this](std::uint32_t label) { return stateOfMplsRoute(label); });
         });
  method(&Async::RequestGetRedirects,
         [this, waits](rpc::Writer<redirects_msg>& parts, const get_msg& request) {
           return sendTable(
               parts, request, "redirects", tables_.redirects, waits,
               [](redirects_msg& part) { return part.add_redirect(); },
               [this](const std::string&) { return stateOfRedirect(); });
         });
  method(&Async::RequestWatchRoutes,
         [this](rpc::Writer<route_changes_msg>& changes, const watch_routes_msg&) {
           return watchRoutes(changes);
         },
         {.limit = kMaxWatches});
  method(&Async::RequestAwait,
         [this](rpc::Call& call, const await_msg& what, programming_msg& reply) {
           return await(call, what, reply);
         },
         {.limit = kMaxAwaits});
  method(&Async::RequestAwaitAll,
         [this](rpc::Call& call, const await_all_msg&, summary_msg& reply) {
           return awaitAll(call, reply);
         },
         {.limit = kMaxAwaits});
  method(&Async::RequestEndSync, [this](grpc::ServerContext& context, const end_sync_msg&,
                                        rpc_status_msg&) { return endSync(context); });
  method(&Async::RequestAnnounce, [this](grpc::ServerContext& context, const announce_msg& request,
                                         rpc_status_msg&) { return announce(context, request); });
}

RoutingService::~RoutingService() {
  if (kernel_) kernel_->stop();
}

// The server has its addresses: from here on the kernel is this agent's.
void RoutingService::opened() {
  if (!kernel_) return;
  for (const auto& prefix : kernel_->adopt())
    adopt(prefix);
  tables_.groups.forEach(
      [this](const std::string&, const nexthop_group_msg& group) { kernel_->groupChanged(group); });
  tables_.routes.forEach([this](const PrefixKey&, const ip_route_msg& route) {
    if (!route.nexthop_group().empty()) kernel_->routeSet(route);
  });
  tables_.mplsRoutes.forEach(
      [this](std::uint32_t, const mpls_route_msg& route) { kernel_->mplsRouteChanged(route); });
  const auto swept = [this](const PrefixKey& prefix) {
    tables_.routes.removeIf(
        prefix, [](const ip_route_msg& route) { return route.nexthop_group().empty(); });
    watch_.changed(prefix);
  };
  kernel_->start(swept, &watch_);
}

// A route of the kernel that nobody has set.
void RoutingService::adopt(const PrefixKey& prefix) {
  if (routes_.contains(prefix)) return;
  ip_route_msg route;
  *route.mutable_prefix() = prefix.message();
  tables_.routes.set(prefix, std::move(route));
}

grpc::Status RoutingService::set(grpc::ServerContext& context, const ip_route_msg& route,
                                 Backlog::Kind kind) {
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  return change(
      context, route, routes_, PrefixKey(route.prefix()), false, "route of this prefix",
      [this, route] { program(route); }, kind);
}

grpc::Status RoutingService::remove(grpc::ServerContext& context, const ip_prefix_msg& prefix) {
  VornSdkRpc::noteOperation(context, "delete", toString(prefix));
  const PrefixKey key(prefix);
  isThere(key);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  return change(context, prefix, routes_, key, true, "route of this prefix",
                [this, prefix] { unprogram(prefix); });
}

rpc::Task<> RoutingService::setAll(rpc::Reader<ip_route_msg>& routes, set_routes_reply_msg& reply) {
  rpc::Event room;
  const rpc::Events::Subscription subscription(backlog_.room(), room);
  ip_route_msg route;
  Election::Term term = 0;
  const NoteRoutes note(routes.context(), "set", [&] { return reply.accepted(); });
  while (co_await routes.read(route)) {
    // A client that sends faster than can be programmed is held up by what gRPC holds for it.
    while (!backlog_.hasRoom(Backlog::bulk)) {
      if (!co_await routes.waitThroughDrain(room)) co_return grpc::Status::CANCELLED;
    }
    try {
      if (auto status = set(routes.context(), route, Backlog::bulk); !status.ok()) co_return status;
    } catch (const vorn::invalid_argument_error& error) {
      throw vorn::invalid_argument_error(
          "route " + std::to_string(reply.accepted()) + ": " + error.what(), error.argument());
    }
    term = election_.term();
    reply.set_accepted(reply.accepted() + 1);
  }
  if (routes.cancelled()) co_return grpc::Status::CANCELLED;
  co_return ended(term);
}

// The end of an upload of which some was taken in `term`.
grpc::Status RoutingService::ended(Election::Term term) {
  return election_.isOver(term) ? election_.over() : keepAll();
}

// Gives `take` the parts of a call, while there is room.
template <typename Take>
rpc::Task<> RoutingService::takeParts(rpc::Reader<routes_msg>& parts, Take take) {
  rpc::Event room;
  const rpc::Events::Subscription subscription(backlog_.room(), room);
  routes_msg part;
  Election::Term term = 0;
  while (co_await parts.read(part)) {
    while (!backlog_.hasRoom(Backlog::bulk)) {
      if (!co_await parts.wait(room)) co_return grpc::Status::CANCELLED;
    }
    if (auto status = mayChangeNow(parts.context()); !status.ok()) co_return status;
    term = election_.term();
    if (auto status = take(part); !status.ok()) co_return status;
  }
  if (parts.cancelled()) co_return grpc::Status::CANCELLED;
  co_return ended(term);
}

rpc::Task<> RoutingService::setParts(rpc::Reader<routes_msg>& parts, set_routes_reply_msg& reply) {
  const NoteRoutes note(parts.context(), "set", [&] { return reply.accepted(); });
  co_return co_await takeParts(parts, [&](routes_msg& part) { return setPart(part, reply); });
}

rpc::Task<> RoutingService::removeParts(rpc::Reader<routes_msg>& parts,
                                        delete_routes_reply_msg& reply) {
  const NoteRoutes note(parts.context(), "delete", [&] { return reply.deleted(); });
  co_return co_await takeParts(parts, [&](routes_msg& part) { return removePart(part, reply); });
}

// Takes the routes of a part up to the first that can't be used.
grpc::Status RoutingService::setPart(routes_msg& part, set_routes_reply_msg& reply) {
  const auto isNew = [this](const ip_route_msg& route) {
    return !routes_.contains(PrefixKey(route.prefix()));
  };
  if (full() && std::ranges::any_of(part.route(), isNew)) return tablesFull();
  const auto [good, wrong] = firstWrong(part, reply.accepted(), [this](const ip_route_msg& route) {
    traceArrival(route);
    check(route);
  });
  part.mutable_route()->DeleteSubrange(good, part.route_size() - good);
  if (good != 0) {
    if (auto status = programPart(std::move(part)); !status.ok()) return status;
    reply.set_accepted(reply.accepted() + static_cast<std::uint64_t>(good));
  }
  if (wrong) throw vorn::invalid_argument_error(*wrong);
  return ok();
}

grpc::Status RoutingService::programPart(routes_msg part) {
  const auto shared = std::make_shared<routes_msg>(std::move(part));
  const auto programAll = [this, shared] {
    for (const auto& route : shared->route())
      program(route);
  };
  const auto dropped = [this, shared] {
    for (const auto& route : shared->route())
      routes_.settle(PrefixKey(route.prefix()));
  };
  auto status = keepAndProgramAll(shared->route(), shared->SpaceUsedLong(), programAll, dropped);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  if (!status.ok()) return status;
  for (const auto& route : shared->route())
    routes_.insert(PrefixKey(route.prefix()));
  return ok();
}

// The same of what is removed.
grpc::Status RoutingService::removePart(const routes_msg& part, delete_routes_reply_msg& reply) {
  const auto before = reply.deleted() + reply.missing();
  const auto [good, wrong] = firstWrong(part, before, [this](const ip_route_msg& route) {
    traceArrival(route.prefix());
    check(route.prefix());
  });
  std::vector<ip_prefix_msg> there;
  std::set<PrefixKey> keys;  // one may stand there twice
  for (int i = 0; i < good; ++i) {
    const auto& prefix = part.route(i).prefix();
    if (isThere(PrefixKey(prefix)) && keys.insert(PrefixKey(prefix)).second)
      there.push_back(prefix);
  }
  const auto deleted = there.size();
  if (auto status = unprogramPart(std::move(there)); !status.ok()) return status;
  reply.set_deleted(reply.deleted() + deleted);
  reply.set_missing(before + static_cast<std::uint64_t>(good) - reply.deleted());
  if (wrong) throw vorn::invalid_argument_error(*wrong);
  return ok();
}

grpc::Status RoutingService::unprogramPart(std::vector<ip_prefix_msg> part) {
  if (part.empty()) return ok();
  const auto shared = std::make_shared<std::vector<ip_prefix_msg>>(std::move(part));
  const auto bytes = shared->size() * (sizeof(ip_prefix_msg) + sizeof(PrefixKey));
  const auto unprogramAll = [this, shared] {
    for (const auto& prefix : *shared)
      unprogram(prefix);
  };
  const auto dropped = [this, shared] {
    for (const auto& prefix : *shared)
      routes_.settle(PrefixKey(prefix));
  };
  auto status = keepAndProgramAll(*shared, bytes, unprogramAll, dropped);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  if (!status.ok()) return status;
  for (const auto& prefix : *shared)
    routes_.erase(PrefixKey(prefix));
  return ok();
}

// Whether there is a route to be removed: one that was set, or that is adopted.
bool RoutingService::isThere(const PrefixKey& prefix) {
  if (routes_.contains(prefix)) return true;
  const auto route = tables_.routes.find(prefix);
  const bool adopted = route && route->nexthop_group().empty();
  if (adopted) routes_.insert(prefix);
  return adopted;
}

grpc::Status RoutingService::set(grpc::ServerContext& context, const nexthop_group_msg& group) {
  VornSdkRpc::noteOperation(context, operationOf(group), group.name());
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  return change(context, group, groups_, group.name(), group.request_delete(),
                "next-hop group of this name", [this, group] { program(group); });
}

grpc::Status RoutingService::set(grpc::ServerContext& context, const mpls_route_msg& route) {
  VornSdkRpc::noteOperation(context, operationOf(route), std::to_string(route.label()));
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  return change(context, route, mplsRoutes_, route.label(), route.request_delete(),
                "MPLS route of this label", [this, route] { program(route); });
}

grpc::Status RoutingService::set(grpc::ServerContext& context,
                                 const cbf_nexthop_group_redirect_msg& redirect) {
  VornSdkRpc::noteOperation(context, operationOf(redirect), redirect.match_nexthop_group());
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): std::function frees it
  return change(context, redirect, redirects_, redirect.match_nexthop_group(),
                redirect.request_delete(), "redirect of this group",
                [this, redirect] { program(redirect); });
}

grpc::Status RoutingService::endSync(grpc::ServerContext& context) {
  VornSdkRpc::noteOperation(context, "end sync", "routes");
  if (auto status = mayChangeNow(context); !status.ok()) return status;
  if (!kernel_) return ok();
  auto sweep = election_.guarded([this] { kernel_->sweep(); }, [] {}, 1);
  return backlog_.add(std::move(sweep), 0) ? ok() : tooMuchWaits();
}

grpc::Status RoutingService::announce(grpc::ServerContext& context, const announce_msg& request) {
  const ElectionId id{request.election_id().high(), request.election_id().low()};
  VornSdkRpc::noteOperation(context, "announce", toString(id));
  if (!mayChange(context, listen_)) return mayNot();
  if (id == ElectionId()) throw vorn::invalid_argument_error("election_id is zero", "election_id");
  if (auto status = election_.admit(id); !status.ok()) return status;
  return forgetDropped();
}

// ------------------------------------------------------------------------------------------------
// What became of a change

programming_msg RoutingService::stateOf(const PrefixKey& prefix) const {
  return kernel_ ? kernel_->routeState(prefix) : stateWithoutKernel();
}

programming_msg RoutingService::stateOfGroup(const std::string& name) const {
  return kernel_ ? kernel_->groupState(name) : stateWithoutKernel();
}

programming_msg RoutingService::stateOfMplsRoute(std::uint32_t label) const {
  return kernel_ ? kernel_->mplsRouteState(label) : stateWithoutKernel();
}

programming_msg RoutingService::stateOfRedirect() const {
  if (!kernel_) return stateWithoutKernel();
  programming_msg state;
  state.set_state(programming_msg::FAILED);
  state.set_reason(kUnsupported);
  return state;
}

programming_msg RoutingService::stateWithoutKernel() {
  programming_msg state;
  state.set_state(programming_msg::PROGRAMMED);
  return state;
}

std::optional<programming_msg> RoutingService::stateOf(const await_msg& what) const {
  const auto in = [](const auto& table, const auto& key, auto state) {
    return table.find(key) ? std::optional(state()) : std::nullopt;
  };
  switch (what.what_case()) {
    case await_msg::kRoute: {
      check(what.route());
      const PrefixKey prefix(what.route());
      return in(tables_.routes, prefix, [&] { return stateOf(prefix); });
    }
    case await_msg::kGroup:
      return in(tables_.groups, what.group(), [&] { return stateOfGroup(what.group()); });
    case await_msg::kMplsLabel:
      return in(tables_.mplsRoutes, what.mpls_label(),
                [&] { return stateOfMplsRoute(what.mpls_label()); });
    case await_msg::kRedirect:
      return in(tables_.redirects, what.redirect(), [&] { return stateOfRedirect(); });
    case await_msg::WHAT_NOT_SET:
      break;
  }
  throw vorn::invalid_argument_error("what is not set", "what");
}

rpc::Task<> RoutingService::watchRoutes(rpc::Writer<route_changes_msg>& changes) {
  VornSdkRpc::noteOperation(changes.context(), "watch", "routes");
  rpc::Event news;
  RouteWatch::Watcher watcher(watch_, news);
  std::optional<PrefixKey> last;
  for (bool more = true; more;) {
    auto items = tables_.routes.part(last);
    more = !items.empty();
    route_changes_msg part;
    for (auto& [prefix, route] : items) {
      auto& change = *part.add_change();
      *change.mutable_route() = std::move(route);
      *change.mutable_programming() = stateOf(prefix);
    }
    part.set_synced(!more);
    if (!co_await changes.write(part)) co_return grpc::Status::CANCELLED;
    if (more) last = items.back().first;
  }
  do {
    for (auto prefixes = watcher.take(kItemsPerPart); !prefixes.empty();
         prefixes = watcher.take(kItemsPerPart)) {
      route_changes_msg part;
      for (const auto& prefix : prefixes)
        *part.add_change() = changeOf(prefix);
      if (!co_await changes.write(part)) co_return grpc::Status::CANCELLED;
    }
  } while (co_await changes.wait(news));
  co_return changes.endStatus();
}

route_change_msg RoutingService::changeOf(const PrefixKey& prefix) const {
  route_change_msg change;
  if (auto route = tables_.routes.find(prefix)) {
    *change.mutable_route() = std::move(*route);
    *change.mutable_programming() = stateOf(prefix);
  } else {
    *change.mutable_route()->mutable_prefix() = prefix.message();
    change.set_removed(true);
  }
  return change;
}

rpc::Task<> RoutingService::await(rpc::Call& call, const await_msg& what, programming_msg& reply) {
  VornSdkRpc::noteOperation(call.context(), "await", objectOf(what));
  rpc::Event event;
  std::optional<rpc::Events::Subscription> tried;
  if (kernel_) tried.emplace(kernel_->tried(), event);
  if (auto status = co_await taken(call); !status.ok()) co_return status;
  for (;;) {
    auto state = stateOf(what);
    if (!state) co_return notFound("such thing");
    if (settled(*state, what.or_waiting())) {
      reply = std::move(*state);
      co_return grpc::Status::OK;
    }
    if (!co_await call.waitThroughDrain(event)) co_return untold();
  }
}

rpc::Task<> RoutingService::awaitAll(rpc::Call& call, summary_msg& reply) {
  VornSdkRpc::noteOperation(call.context(), "await", "everything", waiting());
  rpc::Event event;
  std::optional<rpc::Events::Subscription> tried;
  if (kernel_) tried.emplace(kernel_->tried(), event);
  if (auto status = co_await taken(call); !status.ok()) co_return status;
  while (kernel_ && kernel_->waiting() != 0) {
    if (!co_await call.waitThroughDrain(event)) co_return untold();
  }
  if (kernel_) {
    kernel_->count(reply);
    reply.set_failed(reply.failed() + tables_.redirects.size());
  } else {
    reply.set_programmed(tables_.routes.size() + tables_.groups.size() + tables_.mplsRoutes.size() +
                         tables_.redirects.size());
  }
  co_return grpc::Status::OK;
}

rpc::Task<> RoutingService::taken(rpc::Call& call) {
  rpc::Event room;
  const rpc::Events::Subscription subscription(backlog_.room(), room);
  Backlog::Answer mark;
  // What stands before the mark was programmed if its primary still was one at the mark.
  const auto over = std::make_shared<bool>(false);
  const auto look = [this, over, term = election_.termOf(call.context())] {
    *over = election_.isOver(term);
  };
  while (!backlog_.mark(mark, look)) {
    if (!co_await call.waitThroughDrain(room)) co_return untold();
  }
  const rpc::Woke woke = co_await call.waitThroughDrain(mark.event());
  if (!woke) co_return untold();
  co_return *over ? election_.over() : grpc::Status::OK;
}

std::size_t RoutingService::waiting() const {
  return backlog_.waiting() + (kernel_ ? kernel_->waiting() : 0);
}

// ------------------------------------------------------------------------------------------------
// What the backlog does

void RoutingService::program(const ip_route_msg& route) {
  const auto before = tables_.routes.set(PrefixKey(route.prefix()), route);
  if (usesUnknown(groupOf(before), groupOf(route)))
    Kiv::log(unknownHandle, groupOf(route), "route " + toString(route.prefix()));
  if (kernel_) kernel_->routeSet(route);
  watch_.changed(PrefixKey(route.prefix()));
}

void RoutingService::unprogram(const ip_prefix_msg& prefix) {
  usesUnknown(groupOf(tables_.routes.remove(PrefixKey(prefix))), {});
  if (kernel_) kernel_->routeRemoved(PrefixKey(prefix));
  watch_.changed(PrefixKey(prefix));
}

void RoutingService::program(const nexthop_group_msg& group) {
  if (group.request_delete()) {
    tables_.groups.remove(group.name());
  } else {
    tables_.groups.set(group.name(), group);
  }
  Use& use = use_[group.name()];
  use.set = !group.request_delete();
  if (!use.set && use.users != 0) Kiv::log(inUseHandle, group.name(), std::to_string(use.users));
  if (!use.set && use.users == 0) use_.erase(group.name());
  if (kernel_) kernel_->groupChanged(group);
}

void RoutingService::program(const mpls_route_msg& route) {
  const auto label = route.label();
  const bool deletes = route.request_delete();
  const auto before =
      deletes ? tables_.mplsRoutes.remove(label) : tables_.mplsRoutes.set(label, route);
  if (usesUnknown(groupOf(before), deletes ? std::string() : groupOf(route)))
    Kiv::log(unknownHandle, groupOf(route), "MPLS route " + std::to_string(label));
  if (kernel_) kernel_->mplsRouteChanged(route);
}

void RoutingService::program(const cbf_nexthop_group_redirect_msg& redirect) {
  const auto& key = redirect.match_nexthop_group();
  if (redirect.request_delete()) {
    tables_.redirects.remove(key);
    return;
  }
  tables_.redirects.set(key, redirect);
  if (kernel_) Kiv::log(redirectHandle, key, std::string(kUnsupported));
}

// Counts who forwards to a group when one does now, and did to another one before (empty: none).
// Returns whether that is a group that is not set.
bool RoutingService::usesUnknown(const std::string& before, const std::string& now) {
  if (before == now) return false;
  if (const auto former = use_.find(before); former != use_.end()) {
    --former->second.users;
    if (former->second.users == 0 && !former->second.set) use_.erase(former);
  }
  if (now.empty()) return false;
  Use& use = use_[now];
  ++use.users;
  return !use.set;
}

}  // namespace routing_agent
