#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct nl_sock;
struct nlmsgerr;
struct sockaddr_nl;

namespace routing_agent {

// Programs IP routes and their next hops into the main routing table of a network namespace's
// kernel, over rtnetlink. What it makes carries a protocol number of its own, and routes of another
// protocol are left alone. One object a namespace, used by one thread.
//
// A metric tells the kernel's routes of one prefix apart. Another owner's route of the same prefix
// with another metric stands beside ours, and the kernel forwards by the lower one: with kMetric,
// ours gives way to an IPv4 route that was added without a metric (0) and goes before such an IPv6
// route (1024). Where another owner has the prefix with the very metric, set() is refused.
//
// The kernel drops a route when its last interface goes down or away; the next set() of its prefix
// brings it back. What somebody else has meanwhile put in its place with the very metric, or
// appended to our IPv6 route with it, is taken for ours: the kernel can't replace a route by its
// protocol.
//
// Only the IP part of a next hop can be programmed: one with labels is refused, since without them
// its traffic would go astray.
class KernelRoutes {
 public:
  // The rtnetlink protocol number (RTPROT_...) of our routes: `ip route show proto 201` lists them.
  // The kernel leaves the numbers from 5 on to user space, and no common routing daemon has this
  // one.
  static constexpr std::uint8_t kProtocol = 201;

  // The metric of a route that is set without one; as rare as the protocol, to meet nobody else's.
  static constexpr std::uint32_t kMetric = 201;

  // Opens a socket inside the namespace `netns`, as `ip netns` knows it (empty: the calling
  // thread's own), and removes the routes that an earlier run left behind. Throws std::system_error
  // when that can't be done; it needs CAP_NET_ADMIN there. A namespace that can't be entered is a
  // broken precondition, as for ScopedNamespace.
  explicit KernelRoutes(const std::string& netns);

  // Removes every route of ours. What goes wrong is said on standard error.
  ~KernelRoutes();

  KernelRoutes(const KernelRoutes&) = delete;
  KernelRoutes& operator=(const KernelRoutes&) = delete;

  // Makes these the next hops of our route of the prefix, which has no bits set behind its length.
  // There may be such a route or not; one that there is serves until the new one does.
  //
  // A next hop has an address, the name of an interface, or both. Interfaces are looked up by every
  // call, so one that came or came back meanwhile is found. A next hop counts replicate_count times
  // (0 is once), and one that is named twice counts the sum, at most 256. An IPv4 route may have an
  // IPv6 next hop. `metric_or_0` is the route's metric, 0 for kMetric; with another metric than
  // before, the former route is removed after the new one was made.
  //
  // Throws std::system_error that names the prefix and says what is wrong, in the kernel's words
  // where it refuses: an unknown interface, one that is down, an address that can't be reached,
  // several IPv6 next hops one of which has no address, another owner's route with the same metric.
  // The kernel then holds what it held before.
  void set(const VornSdkRpc::pb::ip_prefix_msg& prefix,
           const std::vector<VornSdkRpc::pb::nexthop_msg>& nexthops, std::uint32_t metric_or_0);

  // Removes our route of the prefix; one that is not there is no error. Throws std::system_error
  // when the kernel refuses.
  void remove(const VornSdkRpc::pb::ip_prefix_msg& prefix);

  // What tells one of our routes from another.
  struct Prefix {
    std::string address;  // 4 or 16 bytes, network byte order
    std::uint32_t length;
    auto operator<=>(const Prefix&) const = default;
  };
  struct Route {
    Prefix prefix;
    std::uint32_t metric;
  };

 private:
  struct CloseSocket {
    void operator()(nl_sock* socket) const;
  };

  void open(const std::string& netns);
  static int keepRefusal(sockaddr_nl* from, nlmsgerr* message, void* self);
  void check(int status, const std::string& what, int allowed = 0);
  int interfaceIndex(const std::string& name, const std::string& what);
  std::vector<Route> read(std::uint8_t family);
  void erase(const Route& route);
  void removeAll();

  std::unique_ptr<nl_sock, CloseSocket> socket_;
  int refusal_ = 0;                          // errno of a refusal that check() has not seen yet
  std::string refusalText_;                  // and the kernel's own words for it, or empty
  std::map<Prefix, std::uint32_t> metrics_;  // of the routes that were set and not removed since
};

}  // namespace routing_agent
