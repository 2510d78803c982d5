#include "agents/routing/KernelMessages.h"

#include <arpa/inet.h>
#include <linux/if.h>
#include <linux/lwtunnel.h>
#include <linux/mpls_iptunnel.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace routing_agent {

namespace {

constexpr std::uint8_t kLabelBits = 20;
constexpr unsigned kLabelShift = 12;               // of the label in an entry of the stack
constexpr std::uint32_t kBottomOfStack = 1U << 8;  // the flag of its last entry

template <typename Value>
std::string_view bytesOf(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

template <typename Header>
Header headerOf(const nlmsghdr& message) {
  Header header{};
  if (nlmsg_valid_hdr(&message, sizeof header))
    std::memcpy(&header, nlmsg_data(&message), sizeof header);
  return header;
}

std::uint8_t familyOf(std::size_t addressBytes) { return addressBytes == 4 ? AF_INET : AF_INET6; }

std::string labelStack(const std::vector<std::uint32_t>& labels) {
  std::string stack;
  for (std::size_t i = 0; i < labels.size(); ++i) {
    const auto last = i + 1 == labels.size() ? kBottomOfStack : 0;
    const std::uint32_t entry = htonl((labels[i] << kLabelShift) | last);
    stack.append(bytesOf(entry));
  }
  return stack;
}

std::vector<std::uint32_t> labelsOf(std::string_view stack) {
  std::vector<std::uint32_t> labels;
  for (; stack.size() >= sizeof(std::uint32_t); stack.remove_prefix(sizeof(std::uint32_t))) {
    std::uint32_t entry = 0;
    std::memcpy(&entry, stack.data(), sizeof entry);
    labels.push_back(ntohl(entry) >> kLabelShift);
  }
  return labels;
}

// The attribute `inner` of a nested one.
std::string_view nested(std::string_view outer, int inner) {
  const auto* attribute = reinterpret_cast<const nlattr*>(outer.data());
  for (auto left = static_cast<int>(outer.size()); nla_ok(attribute, left);
       attribute = nla_next(attribute, &left)) {
    if (nla_type(attribute) == inner)
      return {static_cast<const char*>(nla_data(attribute)),
              static_cast<std::size_t>(nla_len(attribute))};
  }
  return {};
}

rtmsg mplsHeader() {
  rtmsg header{};
  header.rtm_family = AF_MPLS;
  header.rtm_dst_len = kLabelBits;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = kKernelProtocol;
  header.rtm_type = RTN_UNICAST;
  return header;
}

void putBytes(std::string& attributes, unsigned short type, std::string_view bytes) {
  const rtattr attribute{static_cast<unsigned short>(RTA_LENGTH(bytes.size())), type};
  attributes.append(bytesOf(attribute)).append(bytes);
  attributes.resize(RTA_ALIGN(attributes.size()));
}

// What says where a next hop is, beside its interface, and which labels its packets have.
std::string mplsHop(const KernelHop& hop) {
  std::string attributes;
  if (!hop.labels.empty()) putBytes(attributes, RTA_NEWDST, labelStack(hop.labels));
  if (!hop.gateway.empty()) {
    const auto family = static_cast<__kernel_sa_family_t>(hop.family);
    putBytes(attributes, RTA_VIA, std::string(bytesOf(family)).append(hop.gateway));
  }
  return attributes;
}

rtmsg routeHeader(const PrefixKey& prefix) {
  rtmsg header{};
  header.rtm_family = familyOf(prefix.bytes);
  header.rtm_dst_len = prefix.length;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = kKernelProtocol;
  return header;
}

void putKey(NetlinkRequest& request, const PrefixKey& prefix) {
  request.put(RTA_DST, {reinterpret_cast<const char*>(prefix.addr.data()), prefix.bytes});
  request.put(RTA_PRIORITY, kKernelMetric);
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// Requests

NetlinkRequest newHop(std::uint32_t id, const KernelHop& hop) {
  nhmsg header{};
  header.nh_family = hop.family;
  header.nh_protocol = kKernelProtocol;
  NetlinkRequest request(RTM_NEWNEXTHOP, NLM_F_CREATE | NLM_F_EXCL, header);
  request.put(NHA_ID, id);
  request.put(NHA_OIF, static_cast<std::uint32_t>(hop.interface));
  if (!hop.gateway.empty()) request.put(NHA_GATEWAY, hop.gateway);
  if (!hop.labels.empty()) {
    request.put(NHA_ENCAP_TYPE, bytesOf(static_cast<std::uint16_t>(LWTUNNEL_ENCAP_MPLS)));
    request.putNested(NHA_ENCAP, MPLS_IPTUNNEL_DST, labelStack(hop.labels));
  }
  return request;
}

NetlinkRequest newGroup(std::uint32_t id, const std::vector<KernelMember>& members, bool replaces) {
  nhmsg header{};
  header.nh_protocol = kKernelProtocol;
  NetlinkRequest request(RTM_NEWNEXTHOP, NLM_F_CREATE | (replaces ? NLM_F_REPLACE : NLM_F_EXCL),
                         header);
  request.put(NHA_ID, id);
  std::string all;
  for (const auto& member : members) {
    nexthop_grp entry{};
    entry.id = member.id;
    entry.weight = static_cast<std::uint8_t>(member.weight - 1);
    all.append(bytesOf(entry));
  }
  request.put(NHA_GROUP, all);
  return request;
}

NetlinkRequest deleteNexthop(std::uint32_t id) {
  NetlinkRequest request(RTM_DELNEXTHOP, 0, nhmsg{});
  request.put(NHA_ID, id);
  return request;
}

NetlinkRequest newRoute(const PrefixKey& prefix, std::uint32_t nexthop, bool replaces) {
  rtmsg header = routeHeader(prefix);
  header.rtm_type = RTN_UNICAST;
  NetlinkRequest request(RTM_NEWROUTE, NLM_F_CREATE | (replaces ? NLM_F_REPLACE : NLM_F_EXCL),
                         header);
  putKey(request, prefix);
  request.put(RTA_NH_ID, nexthop);
  return request;
}

// Without the kind and the next hops of the route, which the kernel takes as any.
NetlinkRequest deleteRoute(const PrefixKey& prefix) {
  rtmsg header = routeHeader(prefix);
  header.rtm_scope = RT_SCOPE_NOWHERE;
  NetlinkRequest request(RTM_DELROUTE, 0, header);
  putKey(request, prefix);
  return request;
}

// Always as several next hops, also one.
NetlinkRequest newMplsRoute(std::uint32_t label, const std::vector<KernelHop>& hops,
                            bool replaces) {
  NetlinkRequest request(RTM_NEWROUTE, NLM_F_CREATE | (replaces ? NLM_F_REPLACE : NLM_F_EXCL),
                         mplsHeader());
  request.put(RTA_DST, labelStack({label}));
  std::string all;
  for (const auto& hop : hops) {
    const auto attributes = mplsHop(hop);
    rtnexthop header{};
    header.rtnh_len = static_cast<unsigned short>(RTNH_LENGTH(attributes.size()));
    header.rtnh_ifindex = hop.interface;
    all.append(bytesOf(header)).append(attributes);
  }
  request.put(RTA_MULTIPATH, all);
  return request;
}

NetlinkRequest deleteMplsRoute(std::uint32_t label) {
  NetlinkRequest request(RTM_DELROUTE, 0, mplsHeader());
  request.put(RTA_DST, labelStack({label}));
  return request;
}

NetlinkRequest findRoute(const std::string& address, int interface) {
  rtmsg header{};
  header.rtm_family = familyOf(address.size());
  header.rtm_dst_len = static_cast<std::uint8_t>(address.size() * 8);
  // Which route there is: without it the kernel takes any address for a neighbour on an interface
  // that is named.
  header.rtm_flags = RTM_F_FIB_MATCH;
  NetlinkRequest request(RTM_GETROUTE, 0, header);
  request.put(RTA_DST, address);
  if (interface != 0) request.put(RTA_OIF, static_cast<std::uint32_t>(interface));
  return request;
}

NetlinkRequest allNexthops() { return {RTM_GETNEXTHOP, NLM_F_DUMP, nhmsg{}}; }

NetlinkRequest allLinks() { return {RTM_GETLINK, NLM_F_DUMP, ifinfomsg{}}; }

NetlinkRequest allRoutes(std::uint8_t family) {
  rtmsg header{};
  header.rtm_family = family;
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = kKernelProtocol;
  return {RTM_GETROUTE, NLM_F_DUMP, header};
}

// ------------------------------------------------------------------------------------------------
// What the kernel tells

SeenNexthop nexthopOf(const nlmsghdr& message) {
  const auto header = headerOf<nhmsg>(message);
  const NetlinkAttributes attributes(message, sizeof header, NHA_MAX);
  SeenNexthop seen{attributes.number(NHA_ID), header.nh_protocol, {}, {}};
  if (!attributes.has(NHA_GROUP)) {
    seen.hop = KernelHop{header.nh_family, std::string(attributes.bytes(NHA_GATEWAY)),
                         static_cast<int>(attributes.number(NHA_OIF)),
                         labelsOf(nested(attributes.bytes(NHA_ENCAP), MPLS_IPTUNNEL_DST))};
    return seen;
  }
  auto group = attributes.bytes(NHA_GROUP);
  for (nexthop_grp entry{}; group.size() >= sizeof entry; group.remove_prefix(sizeof entry)) {
    std::memcpy(&entry, group.data(), sizeof entry);
    seen.members.push_back({entry.id, entry.weight + 1U});
  }
  return seen;
}

std::optional<SeenRoute> routeOf(const nlmsghdr& message) {
  const auto header = headerOf<rtmsg>(message);
  if (header.rtm_family != AF_INET && header.rtm_family != AF_INET6) return std::nullopt;
  const NetlinkAttributes attributes(message, sizeof header, RTA_MAX);
  SeenRoute seen{};
  // The kernel leaves out a default route's address, and a metric of 0.
  seen.prefix.bytes = header.rtm_family == AF_INET ? 4 : 16;
  seen.prefix.length = header.rtm_dst_len;
  const auto destination = attributes.bytes(RTA_DST);
  std::copy_n(destination.begin(), std::min<std::size_t>(destination.size(), seen.prefix.bytes),
              seen.prefix.addr.begin());
  seen.metric = attributes.number(RTA_PRIORITY);
  seen.nexthop = attributes.number(RTA_NH_ID);
  seen.protocol = header.rtm_protocol;
  seen.mainTable = header.rtm_table == RT_TABLE_MAIN;
  seen.interface = static_cast<int>(attributes.number(RTA_OIF));
  seen.direct = header.rtm_type == RTN_UNICAST && !attributes.has(RTA_GATEWAY) &&
                !attributes.has(RTA_VIA) && !attributes.has(RTA_MULTIPATH);
  return seen;
}

std::optional<SeenMplsRoute> mplsRouteOf(const nlmsghdr& message) {
  const auto header = headerOf<rtmsg>(message);
  if (header.rtm_family != AF_MPLS) return std::nullopt;
  const NetlinkAttributes attributes(message, sizeof header, RTA_MAX);
  const auto labels = labelsOf(attributes.bytes(RTA_DST));
  if (labels.empty()) return std::nullopt;
  return SeenMplsRoute{labels.front(), header.rtm_protocol};
}

SeenLink linkOf(const nlmsghdr& message) {
  const auto header = headerOf<ifinfomsg>(message);
  const NetlinkAttributes attributes(message, sizeof header, IFLA_MAX);
  std::string name(attributes.bytes(IFLA_IFNAME));
  name.resize(std::strlen(name.c_str()));
  return {header.ifi_index, name, (header.ifi_flags & IFF_UP) != 0,
          (header.ifi_flags & IFF_LOWER_UP) != 0};
}

// ------------------------------------------------------------------------------------------------
// Texts

std::string addressText(const std::string& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(familyOf(address.size()), address.data(), text.data(), text.size());
  return text.data();
}

std::string prefixText(const PrefixKey& prefix) {
  const std::string address(reinterpret_cast<const char*>(prefix.addr.data()), prefix.bytes);
  return addressText(address) + "/" + std::to_string(prefix.length);
}

}  // namespace routing_agent
