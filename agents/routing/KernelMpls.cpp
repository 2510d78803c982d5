// KernelSync: MPLS routes.
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "agents/routing/KernelSync.h"

namespace routing_agent {

namespace {

constexpr std::size_t kMplsRoutesPerStep = 256;

// The labels of packets that leave by a next hop, whose incoming label was taken by the route.
std::vector<std::uint32_t> labelsOut(std::uint32_t label, const nexthop_msg& hop) {
  std::vector<std::uint32_t> labels{hop.labels().begin(), hop.labels().end()};
  if (hop.mpls_op() == nexthop_msg::MPLS_NONE || hop.mpls_op() == nexthop_msg::MPLS_PUSH)
    labels.push_back(label);
  return labels;
}

// Of one of a group, which has its own labels.
std::vector<std::uint32_t> labelsOfGroup(const nexthop_msg& hop) {
  return {hop.labels().begin(), hop.labels().end()};
}

bool needsLabel(const mpls_route_msg& route) {
  return route.has_nexthop_group() ? route.nexthop_group().mpls_op() ==
                                         mpls_route_msg_forward_nexthop_group_msg::MPLS_SWAP
                                   : route.nexthop().mpls_op() == nexthop_msg::MPLS_SWAP;
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// What is in the kernel

// By a request that can't be followed.
bool KernelSync::hasMpls() {
  rtmsg header{};
  header.rtm_family = AF_MPLS;
  std::vector<NetlinkRequest> requests;
  requests.emplace_back(RTM_DELROUTE, 0, header);
  const auto error = netlink_.run(requests).front().error;
  return error != EOPNOTSUPP && error != EAFNOSUPPORT;
}

// Gives the labels of ours. A kernel without MPLS would give all routes that it has.
void KernelSync::forEachMplsRoute(const std::function<void(std::uint32_t)>& take) {
  if (!hasMpls()) return;
  std::set<std::uint32_t> labels;
  netlink_.dump(
      allRoutes(AF_MPLS), [&] { labels.clear(); },
      [&](const nlmsghdr& message) {
        const auto route = mplsRouteOf(message);
        if (route && route->protocol == kKernelProtocol) labels.insert(route->label);
      });
  for (const auto label : labels)
    take(label);
}

void KernelSync::adoptMplsRoutes() {
  std::vector<std::uint32_t> labels;
  forEachMplsRoute([&](std::uint32_t label) { labels.push_back(label); });
  const vorn::lock_guard lock(mutex_);
  for (const auto label : labels)
    mplsRoutes_[label].ours = true;
}

void KernelSync::removeUnclaimedMplsRoutes() {
  for (auto& entry : mplsRoutes_) {
    if (!entry.second.set) markMplsRoute(entry);
  }
}

// Others' changes alone come here.
void KernelSync::mplsRouteNotified(const nlmsghdr& message) {
  const auto seen = mplsRouteOf(message);
  if (!seen) return;
  const vorn::lock_guard lock(mutex_);
  const auto found = mplsRoutes_.find(seen->label);
  if (found == mplsRoutes_.end()) return;
  MplsRoute& route = found->second;
  route.ours = message.nlmsg_type == RTM_NEWROUTE && seen->protocol == kKernelProtocol;
  route.present.clear();
  if (route.set) {
    markMplsRoute(*found);
  } else if (!route.ours && !route.pending) {
    mplsRoutes_.erase(found);
  }
}

// ------------------------------------------------------------------------------------------------
// Programming

// Does one step; returns whether there is more.
bool KernelSync::programMplsRoutes() {
  std::vector<MplsWrite> writes;
  {
    const vorn::lock_guard lock(mutex_);
    if (dirtyMplsRoutes_.empty()) return false;
    writes = takeMplsWrites();
    flying_ += writes.size();
  }
  perform(writes);
  const vorn::lock_guard lock(mutex_);
  return !dirtyMplsRoutes_.empty();
}

NetlinkRequest KernelSync::requestFor(const MplsWrite& write) {
  return write.hops.empty() ? deleteMplsRoute(write.label)
                            : newMplsRoute(write.label, write.hops, write.replaces);
}

// What has to be written for the next routes of the queue.
std::vector<KernelSync::MplsWrite> KernelSync::takeMplsWrites() {
  std::vector<MplsWrite> writes;
  for (auto left = std::min(dirtyMplsRoutes_.size(), kMplsRoutesPerStep); left != 0; --left) {
    const auto found = mplsRoutes_.find(dirtyMplsRoutes_.front());
    dirtyMplsRoutes_.pop_front();
    MplsRoute& route = found->second;
    route.pending.queued = false;
    if (route.set && (!route.resolved || (route.group && route.group->second.pending))) {
      markMplsRoute(*found);  // behind its next hops
      continue;
    }
    auto write = mplsWriteOf(found->first, route);
    if (write.hops.empty() ? route.ours : !route.ours || write.hops != route.present) {
      route.pending.flying = true;
      writes.push_back(std::move(write));
    } else if (!route.set) {
      mplsRoutes_.erase(found);
    } else {
      mplsTroubleIs(*found, std::move(write.trouble));
    }
  }
  return writes;
}

KernelSync::MplsWrite KernelSync::mplsWriteOf(std::uint32_t label, const MplsRoute& route) const {
  MplsWrite write{label, route.ours};
  if (!route.set) return write;
  if (route.group && !route.group->second.set) {
    write.trouble = {Programming::WAITING, "next-hop group " + route.group->first + " is not set"};
    return write;
  }
  const Hops& hops = route.group ? static_cast<const Hops&>(route.group->second) : route;
  addMplsHops(write, route, hops.primary, false);
  if (write.hops.empty()) addMplsHops(write, route, hops.backup, true);
  if (write.hops.size() > kMaxMplsHops) {
    write.trouble = {Programming::FAILED, "it has " + std::to_string(write.hops.size()) +
                                              " next hops; 255 are the most"};
    write.hops.clear();
  } else if (!write.hops.empty()) {
    write.trouble = {};
  } else if (!write.trouble) {
    write.trouble = {Programming::WAITING, "it has no next hop"};
  }
  return write;
}

void KernelSync::addMplsHops(MplsWrite& write, const MplsRoute& route,
                             const std::vector<WantedHop>& hops, bool firstOnly) const {
  for (const auto& hop : hops) {
    const auto& message = hop.message;
    const auto& address = message.nexthop_ip().addr();
    const KernelHop key{static_cast<std::uint8_t>(address.size() == 16 ? AF_INET6 : AF_INET),
                        address, hop.interface,
                        route.group ? labelsOfGroup(message) : labelsOut(write.label, message)};
    Trouble trouble = unreachable(hop);
    if (!trouble && needsLabel(route.wanted) && key.labels.empty())
      trouble = {Programming::FAILED, "a swap needs a label"};
    if (trouble) {
      if (!write.trouble) write.trouble = std::move(trouble);
      continue;
    }
    // One that counts several times stands there as often.
    write.hops.insert(write.hops.end(), std::max(message.replicate_count(), 1U), key);
    if (firstOnly) return;
  }
}

void KernelSync::written(const MplsWrite& write, const KernelAnswer& answer) {
  const auto found = mplsRoutes_.find(write.label);
  if (found == mplsRoutes_.end()) return;
  MplsRoute& route = found->second;
  route.pending.flying = false;
  const bool removed = write.hops.empty() && (answer.error == 0 || answer.error == ESRCH);
  if (removed || (!write.hops.empty() && answer.error == 0)) {
    route.ours = !removed;
    route.present = write.hops;
    mplsTroubleIs(*found, write.trouble);
    if (removed && !route.set && !route.pending) mplsRoutes_.erase(found);
    return;
  }
  mplsTroubleIs(*found, answer.error == EEXIST
                            ? Trouble{Programming::FAILED, "another owner's route has this label"}
                            : troubleOf(answer));
}

void KernelSync::mplsTroubleIs(MplsRoutes::value_type& entry, Trouble trouble) {
  MplsRoute& route = entry.second;
  if (route.since == 0 || trouble != route.trouble) route.since = now();
  if (trouble && trouble != route.trouble)
    warn("MPLS route " + std::to_string(entry.first), trouble);
  route.trouble = std::move(trouble);
}

void KernelSync::markMplsRoute(MplsRoutes::value_type& entry) {
  if (std::exchange(entry.second.pending.queued, true)) return;
  dirtyMplsRoutes_.push_back(entry.first);
}

void KernelSync::markMplsRoutesOf(const NamedGroup& group) {
  if (group.second.mplsRoutes == 0) return;
  for (auto& entry : mplsRoutes_) {
    if (entry.second.group == &group) markMplsRoute(entry);
  }
}

KernelSync::Programming KernelSync::stateOf(const MplsRoute& route) {
  Programming state;
  state.set_time(route.since);
  if (route.pending) return state;
  state.set_state(route.trouble.state);
  state.set_reason(route.trouble.reason);
  return state;
}

}  // namespace routing_agent
