#include "examples/routing_agent/RouteTable.h"

#include <utility>

namespace routing_agent {

namespace {

bool hasBitsBehind(const std::string& addr, std::uint32_t length) {
  for (std::size_t byte = length / 8; byte < addr.size(); ++byte) {
    const unsigned kept = byte == length / 8 ? length % 8 : 0;
    if ((static_cast<unsigned char>(addr[byte]) & (0xffU >> kept)) != 0) return true;
  }
  return false;
}

grpc::Status unusable(std::string why) {
  return {grpc::StatusCode::INVALID_ARGUMENT, std::move(why)};
}

}  // namespace

grpc::Status checkPrefix(const ip_prefix_msg& prefix) {
  const auto bytes = prefix.addr().size();
  if (bytes != 4 && bytes != 16) {
    return unusable("prefix.addr holds " + std::to_string(bytes) +
                    " bytes; an address has 4 or 16");
  }
  if (prefix.mask_length() > bytes * 8) {
    return unusable("prefix.mask_length is " + std::to_string(prefix.mask_length()) + "; at most " +
                    std::to_string(bytes * 8) + " fits the address");
  }
  if (hasBitsBehind(prefix.addr(), prefix.mask_length())) {
    return unusable("prefix.addr has bits set behind its " + std::to_string(prefix.mask_length()) +
                    " bits of prefix");
  }
  return grpc::Status::OK;
}

void RouteTable::set(ip_route_msg route) {
  const std::lock_guard lock(mutex_);
  RouteKey key(route.prefix());
  routes_.insert_or_assign(std::move(key), std::move(route));
}

bool RouteTable::remove(const ip_prefix_msg& prefix) {
  const std::lock_guard lock(mutex_);
  return routes_.erase(RouteKey(prefix)) != 0;
}

std::vector<ip_route_msg> RouteTable::routesAfter(const std::optional<RouteKey>& after,
                                                  std::size_t limit) const {
  const std::lock_guard lock(mutex_);
  std::vector<ip_route_msg> routes;
  auto next = after ? routes_.upper_bound(*after) : routes_.begin();
  for (; next != routes_.end() && routes.size() < limit; ++next)
    routes.push_back(next->second);
  return routes;
}

std::size_t RouteTable::size() const {
  const std::lock_guard lock(mutex_);
  return routes_.size();
}

}  // namespace routing_agent
