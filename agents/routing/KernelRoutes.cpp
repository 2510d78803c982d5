#include "agents/routing/KernelRoutes.h"

#include <VornSdkRpc/ScopedNamespace.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <functional>
#include <new>
#include <system_error>
#include <utility>

namespace routing_agent {

using VornSdkRpc::pb::ip_prefix_msg;
using VornSdkRpc::pb::nexthop_msg;

namespace {

using Prefix = KernelRoutes::Prefix;

// How what libnl gives out is given back.
struct Release {
  void operator()(nl_addr* address) const { nl_addr_put(address); }
  void operator()(nl_cb* callbacks) const { nl_cb_put(callbacks); }
  void operator()(rtnl_link* link) const { rtnl_link_put(link); }
  void operator()(rtnl_route* route) const { rtnl_route_put(route); }
};
template <typename T>
using Owned = std::unique_ptr<T, Release>;

template <typename T>
T* made(T* object) {
  if (!object) throw std::bad_alloc();
  return object;
}

// Next hops as the kernel tells them apart, by address (empty: none) and interface (0: none), and
// how often each counts.
using Hop = std::pair<std::string, int>;
using Hops = std::map<Hop, std::uint64_t>;

constexpr std::uint64_t kMaxWeight = 256;  // the kernel keeps a weight, less one, in a byte

[[noreturn]] void refuse(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

bool isAddress(const std::string& bytes) { return bytes.size() == 4 || bytes.size() == 16; }

std::uint8_t familyOf(const std::string& address) {
  return address.size() == 4 ? AF_INET : AF_INET6;
}

Owned<nl_addr> addressOf(const std::string& bytes) {
  return Owned<nl_addr>(made(nl_addr_build(familyOf(bytes), bytes.data(), bytes.size())));
}

std::string textOf(const Prefix& prefix) {
  std::array<char, 64> address{};
  nl_addr2str(addressOf(prefix.address).get(), address.data(), address.size());
  return std::string(address.data()) + "/" + std::to_string(prefix.length);
}

std::string textOf(const KernelRoutes::Route& route) {
  return "route " + textOf(route.prefix) + " with metric " + std::to_string(route.metric);
}

Prefix prefixOf(const ip_prefix_msg& message) {
  const Prefix prefix{message.addr(), message.mask_length()};
  if (!isAddress(prefix.address))
    refuse(EINVAL, "a prefix of " + std::to_string(prefix.address.size()) + " bytes");
  if (prefix.length > prefix.address.size() * 8)  // which the kernel would see cut off
    refuse(EINVAL, "prefix " + textOf(prefix) + " is longer than its address");
  return prefix;
}

void checkHop(const nexthop_msg& nexthop, const std::string& what) {
  const std::string& address = nexthop.nexthop_ip().addr();
  const std::string& interface = nexthop.nexthop_interface();
  if (nexthop.mpls_op() != nexthop_msg::MPLS_NONE || nexthop.labels_size() != 0)
    refuse(EOPNOTSUPP, what + ": a next hop has labels");
  if (address.empty() && interface.empty())
    refuse(EINVAL, what + ": a next hop has neither address nor interface");
  if (interface.size() >= IFNAMSIZ || interface.find('\0') != std::string::npos)
    refuse(EINVAL, what + ": a next hop's interface has a name that none can have");
  if (!address.empty() && !isAddress(address))
    refuse(EINVAL,
           what + ": a next hop's address has " + std::to_string(address.size()) + " bytes");
}

Hops hopsOf(const std::vector<nexthop_msg>& nexthops, const std::string& what,
            const std::function<int(const std::string&)>& interfaceIndex) {
  Hops hops;
  for (const auto& nexthop : nexthops) {
    checkHop(nexthop, what);
    const std::string& name = nexthop.nexthop_interface();
    auto& weight = hops[{nexthop.nexthop_ip().addr(), name.empty() ? 0 : interfaceIndex(name)}];
    weight += std::max(nexthop.replicate_count(), 1U);
    if (weight > kMaxWeight)
      refuse(ERANGE, what + ": a next hop counts " + std::to_string(weight) + " times");
  }
  if (hops.empty()) refuse(EINVAL, what + ": it has no next hop");
  return hops;
}

void addHop(rtnl_route* route, const Hop& hop, std::uint64_t weight) {
  const auto& [address, interface] = hop;
  rtnl_nexthop* const nexthop = made(rtnl_route_nh_alloc());
  rtnl_route_add_nexthop(route, nexthop);  // which owns it from here on
  rtnl_route_nh_set_weight(nexthop, static_cast<std::uint8_t>(weight - 1));
  if (interface) rtnl_route_nh_set_ifindex(nexthop, interface);
  if (address.empty()) return;
  // libnl would take a route for one to a link when its next hop is of the other family.
  rtnl_route_set_scope(route, RT_SCOPE_UNIVERSE);
  if (familyOf(address) == rtnl_route_get_family(route)) {
    rtnl_route_nh_set_gateway(nexthop, addressOf(address).get());
  } else {
    rtnl_route_nh_set_via(nexthop, addressOf(address).get());
  }
}

Owned<rtnl_route> kernelRoute(const KernelRoutes::Route& from, const Hops& hops) {
  Owned<rtnl_route> route(made(rtnl_route_alloc()));
  const auto destination = addressOf(from.prefix.address);
  nl_addr_set_prefixlen(destination.get(), static_cast<int>(from.prefix.length));
  rtnl_route_set_dst(route.get(), destination.get());  // and with it the family
  rtnl_route_set_table(route.get(), RT_TABLE_MAIN);
  rtnl_route_set_protocol(route.get(), KernelRoutes::kProtocol);
  rtnl_route_set_priority(route.get(), from.metric);
  for (const auto& [hop, weight] : hops)
    addHop(route.get(), hop, weight);
  return route;
}

// Takes one route of a dump, where it is ours. An older kernel sends all of them.
int collect(nl_msg* message, void* routes) {
  nlmsghdr* const header = nlmsg_hdr(message);
  const auto* const route = static_cast<const rtmsg*>(nlmsg_data(header));
  std::array<nlattr*, RTA_MAX + 1> attributes{};
  if (nlmsg_parse(header, sizeof(rtmsg), attributes.data(), RTA_MAX, nullptr) < 0 ||
      route->rtm_protocol != KernelRoutes::kProtocol || route->rtm_table != RT_TABLE_MAIN) {
    return NL_SKIP;
  }
  // The kernel leaves out a default route's address, and a metric of 0.
  std::string address(route->rtm_family == AF_INET ? 4 : 16, '\0');
  if (const nlattr* const to = attributes[RTA_DST])
    address.assign(static_cast<const char*>(nla_data(to)), static_cast<std::size_t>(nla_len(to)));
  const nlattr* const metric = attributes[RTA_PRIORITY];
  static_cast<std::vector<KernelRoutes::Route>*>(routes)->push_back(
      {{address, route->rtm_dst_len}, metric ? nla_get_u32(metric) : 0});
  return NL_OK;
}

}  // namespace

void KernelRoutes::CloseSocket::operator()(nl_sock* socket) const { nl_socket_free(socket); }

KernelRoutes::KernelRoutes(const std::string& netns) {
  open(netns);
  removeAll();
}

KernelRoutes::~KernelRoutes() {
  try {
    removeAll();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "routes are left in the kernel: %s\n", error.what());
  }
}

void KernelRoutes::set(const ip_prefix_msg& prefix, const std::vector<nexthop_msg>& nexthops,
                       std::uint32_t metric_or_0) {
  const Route route{prefixOf(prefix), metric_or_0 ? metric_or_0 : kMetric};
  const std::string what = "cannot set " + textOf(route);
  const auto hops = hopsOf(nexthops, what, [&](auto& name) { return interfaceIndex(name, what); });

  const auto former = metrics_.find(route.prefix);
  const bool replaces = former != metrics_.end() && former->second == route.metric;
  const int status = rtnl_route_add(socket_.get(), kernelRoute(route, hops).get(),
                                    replaces ? NLM_F_REPLACE : NLM_F_EXCL);
  if (refusal_ == EEXIST) refusalText_ = "another owner's route has this metric";
  check(status, what);
  if (former == metrics_.end()) {
    metrics_.emplace(route.prefix, route.metric);
  } else if (!replaces) {
    erase({route.prefix, std::exchange(former->second, route.metric)});
  }
}

void KernelRoutes::remove(const ip_prefix_msg& prefix) {
  const auto found = metrics_.find(prefixOf(prefix));
  if (found == metrics_.end()) return;
  erase({found->first, found->second});
  metrics_.erase(found);
}

void KernelRoutes::open(const std::string& netns) {
  const VornSdkRpc::ScopedNamespace inside(netns);
  socket_.reset(made(nl_socket_alloc()));
  nl_socket_modify_err_cb(socket_.get(), NL_CB_CUSTOM, keepRefusal, this);
  check(nl_connect(socket_.get(), NETLINK_ROUTE), "cannot open a netlink socket");
  // Refusals with words and without the request that they repeat, and dumps of no more than what is
  // asked for. An older kernel that lacks one serves as well.
  for (const int option : {NETLINK_EXT_ACK, NETLINK_CAP_ACK, NETLINK_GET_STRICT_CHK}) {
    const int on = 1;
    setsockopt(nl_socket_get_fd(socket_.get()), SOL_NETLINK, option, &on, sizeof on);
  }
}

// libnl's own error numbers don't tell an unreachable next hop from an interface that is down, and
// the kernel's words are not among what it hands on.
int KernelRoutes::keepRefusal(sockaddr_nl*, nlmsgerr* message, void* self) {
  auto& routes = *static_cast<KernelRoutes*>(self);
  routes.refusal_ = -message->error;
  routes.refusalText_.clear();
  auto* const header = reinterpret_cast<nlmsghdr*>(reinterpret_cast<char*>(message) - NLMSG_HDRLEN);
  if ((header->nlmsg_flags & NLM_F_ACK_TLVS) && (header->nlmsg_flags & NLM_F_CAPPED)) {
    nlattr* const text = nlmsg_find_attr(header, sizeof(nlmsgerr), NLMSGERR_ATTR_MSG);
    if (text) routes.refusalText_ = nla_get_string(text);
  }
  return -NLE_FAILURE;
}

void KernelRoutes::check(int status, const std::string& what, int allowed) {
  const int refusal = std::exchange(refusal_, 0);
  if (status >= 0 || (refusal != 0 && refusal == allowed)) return;
  if (refusal == 0) refuse(EIO, what + ": " + nl_geterror(status));
  refuse(refusal, refusalText_.empty() ? what : what + ": " + refusalText_);
}

int KernelRoutes::interfaceIndex(const std::string& name, const std::string& what) {
  rtnl_link* found = nullptr;
  const int status = rtnl_link_get_kernel(socket_.get(), 0, name.c_str(), &found);
  const Owned<rtnl_link> link(found);
  if (status == -NLE_NODEV || status == -NLE_OBJ_NOTFOUND)
    refuse(ENODEV, what + ": there is no interface " + name);
  check(status, what + ": interface " + name);
  return rtnl_link_get_ifindex(found);
}

std::vector<KernelRoutes::Route> KernelRoutes::read(std::uint8_t family) {
  std::vector<Route> routes;
  const Owned<nl_cb> callbacks(made(nl_cb_alloc(NL_CB_DEFAULT)));
  nl_cb_err(callbacks.get(), NL_CB_CUSTOM, keepRefusal, this);
  nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, collect, &routes);
  rtmsg wanted{};
  wanted.rtm_family = family;
  wanted.rtm_protocol = kProtocol;
  const std::string what = "cannot read the kernel's routes";
  int status = 0;
  int tries = 0;
  do {  // again when others changed the table meanwhile, since one of ours may have been passed
        // over
    routes.clear();
    check(nl_send_simple(socket_.get(), RTM_GETROUTE, NLM_F_DUMP, &wanted, sizeof wanted), what);
    status = nl_recvmsgs(socket_.get(), callbacks.get());
  } while (status == -NLE_DUMP_INTR && ++tries < 100);
  check(status, what);
  return routes;
}

// Without the kind and the next hops of the route, which the kernel takes as any; another owner's
// route is no match.
void KernelRoutes::erase(const Route& route) {
  rtmsg header{};
  header.rtm_family = familyOf(route.prefix.address);
  header.rtm_dst_len = static_cast<std::uint8_t>(route.prefix.length);
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = kProtocol;
  header.rtm_scope = RT_SCOPE_NOWHERE;
  nl_msg* const message = made(nlmsg_alloc_simple(RTM_DELROUTE, 0));
  nlmsg_append(message, &header, sizeof header, NLMSG_ALIGNTO);
  nla_put(message, RTA_DST, static_cast<int>(route.prefix.address.size()),
          route.prefix.address.data());
  nla_put_u32(message, RTA_PRIORITY, route.metric);
  // nl_send_sync releases the message; ESRCH: the kernel has dropped the route.
  check(nl_send_sync(socket_.get(), message), "cannot remove " + textOf(route), ESRCH);
}

void KernelRoutes::removeAll() {
  for (const std::uint8_t family : {AF_INET, AF_INET6}) {
    for (const Route& route : read(family))
      erase(route);
  }
  metrics_.clear();
}

}  // namespace routing_agent
