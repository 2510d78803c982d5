#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <grpcpp/support/status.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace routing_agent {

using VornSdkRpc::pb::ip_prefix_msg;
using VornSdkRpc::pb::ip_route_msg;

// A prefix as the table orders them: IPv4 before IPv6, then by address, then by length.
struct RouteKey {
  explicit RouteKey(const ip_prefix_msg& prefix)
      : bytes(prefix.addr().size()), addr(prefix.addr()), length(prefix.mask_length()) {}
  auto operator<=>(const RouteKey&) const = default;

  std::size_t bytes;
  std::string addr;
  std::uint32_t length;
};

// OK when a table can hold the prefix, and otherwise INVALID_ARGUMENT with a text that names the
// field: an address of 4 or 16 bytes, a length that fits it, and no bits set behind the length.
grpc::Status checkPrefix(const ip_prefix_msg& prefix);

// The agent's IP routes. Any thread may call any operation.
class RouteTable {
 public:
  // Sets a route that checkPrefix has passed, in place of one with the same prefix.
  void set(ip_route_msg route);

  // Removes the route of a prefix, and answers whether there was one.
  bool remove(const ip_prefix_msg& prefix);

  // At most `limit` routes behind the one with the key `after`, in order; from the start without a
  // key.
  std::vector<ip_route_msg> routesAfter(const std::optional<RouteKey>& after,
                                        std::size_t limit) const;

  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::map<RouteKey, ip_route_msg> routes_;
};

}  // namespace routing_agent
