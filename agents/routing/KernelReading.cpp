// KernelSync: what is in the kernel, and what others change there.
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "agents/routing/KernelSync.h"

namespace routing_agent {

namespace {

// Stands for the object of a route of ours that has its next hops itself. No object has this
// number, since those of the agent are larger and others' are not ours to name.
constexpr std::uint32_t kNoObject = 1;

constexpr std::size_t kRemovedTogether = 256;

}  // namespace

// ------------------------------------------------------------------------------------------------
// Notifications

void KernelSync::readNotifications() {
  if (!netlink_.readNotifications([this](const nlmsghdr& message) { notified(message); }))
    readAll_ = true;
}

void KernelSync::notified(const nlmsghdr& message) {
  switch (message.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return linkNotified(message);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      resolve_ = true;
      return;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return routeNotified(message);
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      readNexthops_ = true;
      return;
    default:
      return;
  }
}

// A link that is down or has no carrier loses its next-hop objects, and they their groups, without
// a notification of those.
void KernelSync::linkNotified(const nlmsghdr& message) {
  const SeenLink link = linkOf(message);
  resolve_ = true;
  if (message.nlmsg_type == RTM_DELLINK) {
    links_.erase(link.index);
    readNexthops_ = true;
    return;
  }
  links_.insert_or_assign(link.index, link);
  if (!link.up || !link.carrier) readNexthops_ = true;
}

void KernelSync::routeNotified(const nlmsghdr& message) {
  const auto route = routeOf(message);
  if (!route) return mplsRouteNotified(message);
  if (!route->mainTable) return;
  if (route->protocol != kKernelProtocol) resolve_ = true;
  if (route->metric != kKernelMetric) return;
  const vorn::lock_guard lock(mutex_);
  const auto found = routes_.find(route->prefix);
  if (found == routes_.end()) return;
  Route& ours = found->second;
  const bool isOurs = route->protocol == kKernelProtocol;
  if (message.nlmsg_type == RTM_NEWROUTE) {
    if (isOurs && route->nexthop == ours.object) return;
    ours.object = isOurs ? std::max(route->nexthop, kNoObject) : 0;
    ours.epoch = 0;
  } else if (isOurs) {
    if (!inKernel(ours)) return;
    ours.object = 0;
  } else {
    if (!ours.foreign) return;
    ours.foreign = false;
  }
  markRoute(*found);
}

// ------------------------------------------------------------------------------------------------
// Links and next-hop objects

void KernelSync::readLinks() {
  std::map<int, SeenLink> links;
  netlink_.dump(
      allLinks(), [&] { links.clear(); },
      [&](const nlmsghdr& message) {
        SeenLink link = linkOf(message);
        links.insert_or_assign(link.index, std::move(link));
      });
  links_ = std::move(links);
}

void KernelSync::readNexthops() {
  Seen seen;
  netlink_.dump(
      allNexthops(), [&] { seen.clear(); },
      [&](const nlmsghdr& message) {
        SeenNexthop nexthop = nexthopOf(message);
        seen.insert_or_assign(nexthop.id, std::move(nexthop));
      });
  const vorn::lock_guard lock(mutex_);
  ids_.clear();
  strays_.clear();
  for (const auto& [id, nexthop] : seen)
    ids_.insert(id);
  for (const auto& [id, object] : objects_)
    ids_.insert(id);
  const bool hopsChanged = compareHops(seen);
  const bool objectsChanged = compareObjects(seen);
  if (hopsChanged || objectsChanged) markAllGroups();
}

// Answers whether one of ours is no longer there.
bool KernelSync::compareHops(const Seen& seen) {
  bool changed = false;
  for (auto& [hop, object] : hops_) {
    const auto found = seen.find(object.id);
    const bool present = found != seen.end() && found->second.protocol == kKernelProtocol &&
                         found->second.hop == hop;
    changed = changed || (object.present && !present);
    object.present = present;
    if (!present) object.id = 0;
  }
  for (const auto& [id, nexthop] : seen) {
    if (nexthop.protocol != kKernelProtocol || !nexthop.hop) continue;
    HopObject& object = hops_[*nexthop.hop];
    if (!object.present) object = {id, true};
    if (object.id != id) strays_.insert(id);
  }
  return changed;
}

// Answers whether one of ours is not as it was.
bool KernelSync::compareObjects(const Seen& seen) {
  bool changed = false;
  for (auto& [id, object] : objects_) {
    const auto found = seen.find(id);
    auto members = found == seen.end() || found->second.protocol != kKernelProtocol
                       ? std::vector<KernelMember>()
                       : found->second.members;
    if (members == object.members) continue;
    changed = true;
    objectIs(id, std::move(members));
  }
  for (const auto& [id, nexthop] : seen) {
    if (nexthop.protocol != kKernelProtocol || nexthop.hop || objects_.contains(id)) continue;
    objects_[id];
    objectIs(id, nexthop.members);
  }
  return changed;
}

// ------------------------------------------------------------------------------------------------
// Routes

// Ours, each with its object.
std::vector<std::pair<PrefixKey, std::uint32_t>> KernelSync::dumpRoutes() {
  std::vector<std::pair<PrefixKey, std::uint32_t>> routes;
  for (const std::uint8_t family : {AF_INET, AF_INET6}) {
    const auto begin = routes.size();
    netlink_.dump(
        allRoutes(family), [&] { routes.resize(begin); },
        [&](const nlmsghdr& message) {
          const auto route = routeOf(message);
          if (!route || !route->mainTable || route->protocol != kKernelProtocol ||
              route->metric != kKernelMetric)
            return;
          routes.emplace_back(route->prefix, std::max(route->nexthop, kNoObject));
        });
  }
  std::ranges::sort(routes);
  return routes;
}

void KernelSync::readRoutes() {
  const auto seen = dumpRoutes();
  const vorn::lock_guard lock(mutex_);
  auto next = seen.begin();
  for (auto& entry : routes_) {
    while (next != seen.end() && next->first < entry.first)
      ++next;
    const bool there = next != seen.end() && next->first == entry.first;
    routeSeen(entry, there ? next->second : 0);
  }
}

void KernelSync::routeSeen(Routes::value_type& entry, std::uint32_t object) {
  Route& route = entry.second;
  if (object != 0) route.foreign = false;
  if ((inKernel(route) ? route.object : 0) == object) return;
  const auto found = objects_.find(object);
  route.object = object;
  route.epoch = found == objects_.end() ? 0 : found->second.epoch;
  markRoute(entry);
}

std::vector<PrefixKey> KernelSync::adoptRoutes() {
  const auto seen = dumpRoutes();
  std::vector<PrefixKey> adopted;
  const vorn::lock_guard lock(mutex_);
  for (const auto& [prefix, object] : seen) {
    const auto found = objects_.find(object);
    Route& route = routes_[prefix];
    route.object = object;
    route.epoch = found == objects_.end() ? 0 : found->second.epoch;
    adopted.push_back(prefix);
  }
  return adopted;
}

// With a group go all of its routes in one step; what is left are routes without one.
void KernelSync::removeAll() {
  std::vector<std::uint32_t> groups, hops;
  const auto begin = [&] {
    groups.clear();
    hops.clear();
  };
  netlink_.dump(allNexthops(), begin, [&](const nlmsghdr& message) {
    const SeenNexthop nexthop = nexthopOf(message);
    if (nexthop.protocol == kKernelProtocol) (nexthop.hop ? hops : groups).push_back(nexthop.id);
  });
  std::vector<NetlinkRequest> requests;
  forEachMplsRoute([&](std::uint32_t label) { requests.push_back(deleteMplsRoute(label)); });
  const auto send = [&](std::size_t limit) {
    if (requests.size() < limit) return;
    netlink_.run(requests);
    requests.clear();
  };
  send(0);
  for (const auto* ids : {&groups, &hops}) {
    for (const auto id : *ids) {
      requests.push_back(deleteNexthop(id));
      send(kRemovedTogether);
    }
  }
  send(0);
  for (const auto& [prefix, object] : dumpRoutes()) {
    requests.push_back(deleteRoute(prefix));
    send(kRemovedTogether);
  }
  send(0);
}

}  // namespace routing_agent
