#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace routing_agent {

using namespace VornSdkRpc::pb;

// A prefix as the route table orders them: IPv4 before IPv6, then by address, then by length.
struct PrefixKey {
  explicit PrefixKey(const ip_prefix_msg& prefix)
      : bytes(prefix.addr().size()), addr(prefix.addr()), length(prefix.mask_length()) {}
  auto operator<=>(const PrefixKey&) const = default;

  std::size_t bytes;
  std::string addr;
  std::uint32_t length;
};

// One table of what is programmed. Any thread may call any operation.
template <typename Key, typename Value>
class Table {
 public:
  using Item = std::pair<Key, Value>;

  void set(const Key& key, Value value) {
    const std::lock_guard lock(mutex_);
    items_.insert_or_assign(key, std::move(value));
  }

  void remove(const Key& key) {
    const std::lock_guard lock(mutex_);
    items_.erase(key);
  }

  std::optional<Value> find(const Key& key) const {
    const std::lock_guard lock(mutex_);
    const auto item = items_.find(key);
    return item == items_.end() ? std::nullopt : std::optional(item->second);
  }

  // At most `limit` items behind the key `after`, in order; from the start without one. A reader
  // goes on from the last key that it was given, so the table may change between two parts.
  std::vector<Item> part(const std::optional<Key>& after, std::size_t limit) const {
    const std::lock_guard lock(mutex_);
    std::vector<Item> items;
    auto next = after ? items_.upper_bound(*after) : items_.begin();
    for (; next != items_.end() && items.size() < limit; ++next)
      items.emplace_back(*next);
    return items;
  }

 private:
  mutable std::mutex mutex_;
  std::map<Key, Value> items_;
};

// What the agent has programmed.
struct Tables {
  Table<PrefixKey, ip_route_msg> routes;
  Table<std::string, nexthop_group_msg> groups;
  Table<std::uint32_t, mpls_route_msg> mplsRoutes;
  Table<std::string, cbf_nexthop_group_redirect_msg> redirects;
  Table<std::string, std::string> state;
};

}  // namespace routing_agent
