#include "agents/routing/SbfdEcho.h"

#include <VornSdkRpc/ScopedNamespace.h>
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace routing_agent {

namespace {

constexpr std::uint16_t kEchoPort = 3785;
constexpr std::uint16_t kFirstSourcePort = 49152;  // one of a session: all its packets go one way
constexpr std::uint32_t kSourcePorts = 16384;
constexpr std::uint8_t kTimeToLive = 255;
constexpr auto kWayIsGood = std::chrono::seconds(1);
constexpr unsigned kLabelShift = 12, kExpShift = 9;
constexpr std::uint32_t kBottomOfStack = 1U << 8;

// Only UDP to the echo port comes into the sockets. Offsets are from the IP header on.
constexpr std::array<sock_filter, 9> kIpv4Filter{{
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 6),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x1fff, 4, 0),
    BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
    BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kEchoPort, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, 0xffff),
    BPF_STMT(BPF_RET | BPF_K, 0),
}};
constexpr std::array<sock_filter, 6> kIpv6Filter{{
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 6),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 3),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, sizeof(ip6_hdr) + 2),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kEchoPort, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, 0xffff),
    BPF_STMT(BPF_RET | BPF_K, 0),
}};

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

template <typename Plain>
std::string_view bytesOf(const Plain& plain) {
  return {reinterpret_cast<const char*>(&plain), sizeof plain};
}

// The Internet checksum over all of it.
std::uint16_t checksum(std::string_view bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = static_cast<std::uint8_t>(bytes[i]);
    sum += i % 2 == 0 ? static_cast<std::uint32_t>(byte) << 8 : byte;
  }
  while (sum > 0xffff)
    sum = (sum & 0xffff) + (sum >> 16);
  return htons(static_cast<std::uint16_t>(~sum));
}

std::string udp(const std::string& own, std::uint16_t from, std::string_view payload) {
  udphdr header{};
  header.source = htons(from);
  header.dest = htons(kEchoPort);
  header.len = htons(static_cast<std::uint16_t>(sizeof header + payload.size()));
  const auto datagram = [&] { return std::string(bytesOf(header)).append(payload); };
  const std::array<char, 4> protocol{0, IPPROTO_UDP, reinterpret_cast<char*>(&header.len)[0],
                                     reinterpret_cast<char*>(&header.len)[1]};
  const auto sum = checksum(own + own + std::string(bytesOf(protocol)) + datagram());
  header.check = sum == 0 ? 0xffff : sum;  // zero says that there is none
  return datagram();
}

std::string ipv4Header(const std::string& own, std::uint32_t dscp, std::size_t size) {
  iphdr header{};
  header.version = 4;
  header.ihl = sizeof header / 4;
  header.tos = static_cast<std::uint8_t>(dscp << 2);
  header.tot_len = htons(static_cast<std::uint16_t>(sizeof header + size));
  header.frag_off = htons(IP_DF);
  header.ttl = kTimeToLive;
  header.protocol = IPPROTO_UDP;
  std::memcpy(&header.saddr, own.data(), sizeof header.saddr);
  std::memcpy(&header.daddr, own.data(), sizeof header.daddr);
  header.check = checksum(bytesOf(header));
  return std::string(bytesOf(header));
}

std::string ipv6Header(const std::string& own, std::uint32_t dscp, std::size_t size) {
  ip6_hdr header{};
  header.ip6_flow = htonl((6U << 28) | ((dscp & 0x3f) << 22));
  header.ip6_plen = htons(static_cast<std::uint16_t>(size));
  header.ip6_nxt = IPPROTO_UDP;
  header.ip6_hlim = kTimeToLive;
  std::memcpy(&header.ip6_src, own.data(), sizeof header.ip6_src);
  std::memcpy(&header.ip6_dst, own.data(), sizeof header.ip6_dst);
  return std::string(bytesOf(header));
}

std::string labelStack(const sbfd_echo_session_key_msg& key) {
  std::string stack;
  for (int i = 0; i < key.labels_size(); ++i) {
    const std::uint32_t entry = (key.labels(i) << kLabelShift) |
                                ((key.mpls_exp() & 7) << kExpShift) |
                                (i + 1 == key.labels_size() ? kBottomOfStack : 0) | kTimeToLive;
    const std::uint32_t ordered = htonl(entry);
    stack.append(bytesOf(ordered));
  }
  return stack;
}

ndmsg neighborHeader(const std::string& address, int interface) {
  ndmsg header{};
  header.ndm_family = address.size() == 4 ? AF_INET : AF_INET6;
  header.ndm_ifindex = interface;
  return header;
}

// Asks how a packet to an address would leave by an interface, and from which address.
NetlinkRequest packetsTo(const std::string& address, int interface) {
  rtmsg header{};
  header.rtm_family = address.size() == 4 ? AF_INET : AF_INET6;
  header.rtm_dst_len = static_cast<std::uint8_t>(address.size() * 8);
  NetlinkRequest request(RTM_GETROUTE, 0, header);
  request.put(RTA_DST, address);
  request.put(RTA_OIF, static_cast<std::uint32_t>(interface));
  return request;
}

// The filter is there before the first packet: without a protocol none comes.
Descriptor packetSocket(std::uint16_t protocol) {
  Descriptor socket(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (socket < 0) fail("cannot open a packet socket");
  auto ipv4 = kIpv4Filter;
  auto ipv6 = kIpv6Filter;
  const sock_fprog filter = protocol == ETH_P_IP
                                ? sock_fprog{static_cast<unsigned short>(ipv4.size()), ipv4.data()}
                                : sock_fprog{static_cast<unsigned short>(ipv6.size()), ipv6.data()};
  if (setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0)
    fail("cannot filter packets");
  sockaddr_ll name{};
  name.sll_family = AF_PACKET;
  name.sll_protocol = htons(protocol);
  if (bind(socket, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
    fail("cannot bind a packet socket");
  return socket;
}

}  // namespace

SbfdEcho::SbfdEcho(const std::string& netns) : netlink_(netns, Netlink::kNoNotifications) {
  const VornSdkRpc::ScopedNamespace inside(netns);
  ipv4_ = packetSocket(ETH_P_IP);
  ipv6_ = packetSocket(ETH_P_IPV6);
  links_ = Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (links_ < 0) fail("cannot open a socket");
  if (getrandom(&secret_, sizeof secret_, 0) != sizeof secret_) fail("getrandom");
}

// ------------------------------------------------------------------------------------------------
// The way

const SbfdEcho::Way& SbfdEcho::way(const sbfd_echo_session_key_msg& key, std::uint32_t number) {
  Way& way = ways_[number];
  const auto now = Clock::now();
  if (!way.trouble.empty() || way.own.empty() || now >= way.until) {
    way = findWay(key);
    way.until = now + kWayIsGood;
  }
  return way;
}

SbfdEcho::Way SbfdEcho::findWay(const sbfd_echo_session_key_msg& key) {
  Way way;
  ifreq request{};
  const auto& name = key.outgoing_interface();
  std::copy_n(name.begin(), std::min(name.size(), sizeof request.ifr_name - 1), request.ifr_name);
  if (ioctl(links_, SIOCGIFINDEX, &request) != 0) {
    way.trouble = "there is no interface of this name";
    return way;
  }
  way.interface = request.ifr_ifindex;
  const auto& address = key.nexthop().addr();
  std::vector<NetlinkRequest> requests;
  requests.push_back(packetsTo(address, way.interface));
  const auto answers = netlink_.run(requests, [&](std::size_t, const nlmsghdr& message) {
    const NetlinkAttributes attributes(message, sizeof(rtmsg), RTA_MAX);
    way.own = attributes.bytes(RTA_PREFSRC);
    if (attributes.has(RTA_GATEWAY)) way.trouble = "the next hop is not reached directly";
  });
  if (answers.front().error != 0) {
    way.trouble = answers.front().text();
  } else if (way.own.size() != address.size()) {
    way.trouble = "the interface has no address of this kind";
  }
  if (way.trouble.empty()) findNeighbor(way, address);
  return way;
}

// Also has the kernel look for the next hop, or make sure of it, as for a packet of its own.
void SbfdEcho::findNeighbor(Way& way, const std::string& address) {
  std::vector<NetlinkRequest> requests;
  ndmsg use = neighborHeader(address, way.interface);
  use.ndm_flags = NTF_USE;
  requests.emplace_back(RTM_NEWNEIGH, NLM_F_CREATE, use).put(NDA_DST, address);
  requests.emplace_back(RTM_GETNEIGH, 0, neighborHeader(address, way.interface))
      .put(NDA_DST, address);
  netlink_.run(requests, [&](std::size_t, const nlmsghdr& message) {
    const NetlinkAttributes attributes(message, sizeof(ndmsg), NDA_MAX);
    if (attributes.bytes(NDA_DST) == address) way.layer2 = attributes.bytes(NDA_LLADDR);
  });
  if (way.layer2.empty()) way.trouble = "the next hop does not answer";
}

// ------------------------------------------------------------------------------------------------
// Packets

std::string SbfdEcho::send(const sbfd_echo_session_key_msg& key, std::uint32_t number,
                           std::uint32_t sequence) {
  const Way& way = this->way(key, number);
  if (!way.trouble.empty()) return way.trouble;
  const Payload payload{secret_, number, sequence, Clock::now().time_since_epoch().count()};
  const auto from = static_cast<std::uint16_t>(kFirstSourcePort + number % kSourcePorts);
  const auto datagram = udp(way.own, from, bytesOf(payload));
  const bool v4 = way.own.size() == 4;
  const auto header = (v4 ? ipv4Header : ipv6Header)(way.own, key.dscp(), datagram.size());
  const auto packet = labelStack(key) + header + datagram;

  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_protocol = htons(key.labels_size() != 0 ? ETH_P_MPLS_UC : v4 ? ETH_P_IP : ETH_P_IPV6);
  to.sll_ifindex = way.interface;
  to.sll_halen = static_cast<std::uint8_t>(std::min(way.layer2.size(), sizeof to.sll_addr));
  std::memcpy(to.sll_addr, way.layer2.data(), to.sll_halen);
  const auto sent = sendto(v4 ? ipv4_ : ipv6_, packet.data(), packet.size(), MSG_NOSIGNAL,
                           reinterpret_cast<const sockaddr*>(&to), sizeof to);
  return sent < 0 ? std::strerror(errno) : "";
}

std::vector<SbfdEcho::Returned> SbfdEcho::receive() const {
  std::vector<Returned> returned;
  std::array<char, 256> packet{};
  for (const int fd : {ipv4(), ipv6()}) {
    for (;;) {
      const auto size = recv(fd, packet.data(), packet.size(), MSG_DONTWAIT);
      if (size < 0) break;
      if (const auto echo = read({packet.data(), static_cast<std::size_t>(size)}))
        returned.push_back(*echo);
    }
  }
  return returned;
}

// None when it is not from here.
std::optional<SbfdEcho::Returned> SbfdEcho::read(std::string_view packet) const {
  const auto now = Clock::now();
  if (packet.empty()) return std::nullopt;
  const auto first = static_cast<std::uint8_t>(packet.front());
  const std::size_t header = first >> 4 == 4 ? std::size_t{first & 0xfU} * 4 : sizeof(ip6_hdr);
  Payload payload{};
  if (packet.size() < header + sizeof(udphdr) + sizeof payload) return std::nullopt;
  std::memcpy(&payload, packet.data() + header + sizeof(udphdr), sizeof payload);
  if (payload.secret != secret_) return std::nullopt;
  return Returned{payload.number, payload.sequence,
                  now.time_since_epoch() - Clock::duration(payload.sent)};
}

}  // namespace routing_agent
