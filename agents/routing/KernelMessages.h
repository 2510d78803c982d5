#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agents/routing/Netlink.h"
#include "agents/routing/Tables.h"

// What the agent tells the kernel's rtnetlink, and reads from it: routes, next-hop objects, links.
namespace routing_agent {

// The rtnetlink protocol number (RTPROT_...) of what is ours: `ip route show proto 201` and `ip
// nexthop show proto 201` list it. The kernel leaves the numbers from 5 on to user space, and no
// common routing daemon has this one.
constexpr std::uint8_t kKernelProtocol = 201;

// The metric of our routes, which tells the kernel's routes of one prefix apart; as rare as the
// protocol, to meet nobody else's. The kernel forwards by the lower metric: ours gives way to an
// IPv4 route that was added without one (0), and goes before such an IPv6 route (1024).
constexpr std::uint32_t kKernelMetric = 201;

// A next hop as a kernel object of its own, or of an MPLS route.
struct KernelHop {
  std::uint8_t family;  // AF_INET or AF_INET6
  std::string gateway;  // 4 or 16 bytes; empty: the interface alone says where to
  int interface;        // its index
  std::vector<std::uint32_t>
      labels;  // pushed onto the packets, or put in the incoming label's place
  auto operator<=>(const KernelHop&) const = default;
};

// A member of a group of next hops.
struct KernelMember {
  std::uint32_t id;      // of a next-hop object
  std::uint32_t weight;  // 1 to 256
  bool operator==(const KernelMember&) const = default;
};
constexpr std::uint64_t kMaxKernelWeight = 256;  // the kernel keeps a weight, less one, in a byte

// Of a group: its attribute holds at most 64 KiB, and others have to read it.
constexpr std::size_t kMaxKernelMembers = 1024;

// Next hops of an MPLS route, each as often as it counts: as many as the kernel numbers.
constexpr std::size_t kMaxMplsHops = 255;

NetlinkRequest newHop(std::uint32_t id, const KernelHop& hop);
// `replaces`: the object is there, and is changed in one step under the routes that use it.
NetlinkRequest newGroup(std::uint32_t id, const std::vector<KernelMember>& members, bool replaces);
// With a group go the routes that use it, with a hop it goes from the groups that have it.
NetlinkRequest deleteNexthop(std::uint32_t id);
NetlinkRequest newRoute(const PrefixKey& prefix, std::uint32_t nexthop, bool replaces);
// Matches a route of ours only.
NetlinkRequest deleteRoute(const PrefixKey& prefix);
// An MPLS route, which has its next hops itself: the kernel knows no next-hop objects for them, and
// no weights. `replaces`: one of ours is there.
NetlinkRequest newMplsRoute(std::uint32_t label, const std::vector<KernelHop>& hops, bool replaces);
// Of whoever it is: the kernel does not ask.
NetlinkRequest deleteMplsRoute(std::uint32_t label);
// Asks which way an address is reached, by an interface (0: any).
NetlinkRequest findRoute(const std::string& address, int interface);

NetlinkRequest allNexthops();
NetlinkRequest allLinks();
// Ours of one family, AF_MPLS for MPLS routes; an older kernel sends all of them.
NetlinkRequest allRoutes(std::uint8_t family);

struct SeenNexthop {
  std::uint32_t id;
  std::uint8_t protocol;
  std::optional<KernelHop> hop;       // of one that is no group
  std::vector<KernelMember> members;  // of a group
};
// Of RTM_NEWNEXTHOP and RTM_DELNEXTHOP.
SeenNexthop nexthopOf(const nlmsghdr& message);

struct SeenRoute {
  PrefixKey prefix;
  std::uint32_t metric;
  std::uint32_t nexthop;  // the object's id; 0: the route has its next hops itself
  std::uint8_t protocol;
  bool mainTable;
  bool direct;    // it reaches its destination without a gateway
  int interface;  // 0: none, or several
};
// Of RTM_NEWROUTE and RTM_DELROUTE; none for what is neither IPv4 nor IPv6.
std::optional<SeenRoute> routeOf(const nlmsghdr& message);

struct SeenMplsRoute {
  std::uint32_t label;
  std::uint8_t protocol;
};
// Of RTM_NEWROUTE and RTM_DELROUTE; none for what is no MPLS route.
std::optional<SeenMplsRoute> mplsRouteOf(const nlmsghdr& message);

struct SeenLink {
  int index;
  std::string name;
  bool up;
  bool carrier;
};
// Of RTM_NEWLINK and RTM_DELLINK.
SeenLink linkOf(const nlmsghdr& message);

// Texts for people: 192.0.2.1 and 192.0.2.0/24.
std::string addressText(const std::string& address);
std::string prefixText(const PrefixKey& prefix);

}  // namespace routing_agent
