#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agents/routing/Descriptor.h"
#include "agents/routing/Netlink.h"

namespace routing_agent {

using namespace VornSdkRpc::pb;

// The data plane of SBFD echo sessions: UDP packets to port 3785 that are addressed to this end
// itself, and handed to the next hop by the session's interface, so that the next hop forwards them
// back by its routes, without knowing of the session. They go and come by packet sockets, past this
// end's own routing. A session's labels are a label stack in front of its packets, which the path
// has to take off. Used by one thread at a time.
class SbfdEcho {
 public:
  // Opens its sockets inside the namespace `netns`, as `ip netns` knows it; empty: the calling
  // thread's own. Takes no further descriptor later. Throws std::system_error; without CAP_NET_RAW
  // that is EPERM.
  explicit SbfdEcho(const std::string& netns);

  // Sends the echo packet `sequence` of the session `number`. Answers why it can't be sent, empty
  // when it is on its way.
  std::string send(const sbfd_echo_session_key_msg& key, std::uint32_t number,
                   std::uint32_t sequence);

  // What the session's way was is forgotten.
  void forget(std::uint32_t number) { ways_.erase(number); }

  struct Returned {
    std::uint32_t number;
    std::uint32_t sequence;
    std::chrono::nanoseconds time;  // that it was on its way
  };

  // The packets that have come back. Does not block.
  std::vector<Returned> receive() const;

  // Readable when packets have come back.
  int ipv4() const { return ipv4_; }
  int ipv6() const { return ipv6_; }

 private:
  using Clock = std::chrono::steady_clock;

  // How the packets of a session leave, as the kernel has told lately.
  struct Way {
    int interface = 0;
    std::string own;     // the address that the packets come from and go to
    std::string layer2;  // address of the next hop
    std::string trouble;
    Clock::time_point until;
  };

  // What a packet carries, in the machine's order: nobody else reads it.
  struct Payload {
    std::uint64_t secret;  // of this object: others' packets are not taken for its own
    std::uint32_t number;
    std::uint32_t sequence;
    std::int64_t sent;  // by the clock
  };

  const Way& way(const sbfd_echo_session_key_msg& key, std::uint32_t number);
  Way findWay(const sbfd_echo_session_key_msg& key);
  void findNeighbor(Way& way, const std::string& address);
  std::optional<Returned> read(std::string_view packet) const;

  Netlink netlink_;
  Descriptor ipv4_, ipv6_;
  Descriptor links_;  // to ask for the numbers of interfaces
  std::uint64_t secret_ = 0;
  std::map<std::uint32_t, Way> ways_;
};

}  // namespace routing_agent
