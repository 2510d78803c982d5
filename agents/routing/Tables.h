#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace routing_agent {

using namespace VornSdkRpc::pb;

// A prefix as the route table orders them: IPv4 before IPv6, then by address, then by length.
struct PrefixKey {
  PrefixKey() = default;
  // `prefix` has an address of 4 or 16 bytes, and a length that fits it.
  explicit PrefixKey(const ip_prefix_msg& prefix)
      : bytes(static_cast<std::uint8_t>(prefix.addr().size())),
        length(static_cast<std::uint8_t>(prefix.mask_length())) {
    std::copy_n(prefix.addr().begin(), std::min(prefix.addr().size(), addr.size()), addr.begin());
  }
  auto operator<=>(const PrefixKey&) const = default;

  ip_prefix_msg message() const {
    ip_prefix_msg prefix;
    prefix.set_addr(addr.data(), bytes);
    prefix.set_mask_length(length);
    return prefix;
  }

  std::uint8_t bytes = 0;  // of the address: 4 or 16
  std::array<std::uint8_t, 16> addr{};
  std::uint8_t length = 0;
};

constexpr std::size_t kItemsPerPart = 256;
constexpr std::size_t kBytesPerPart = std::size_t{256} << 10;

// About what a value takes on the wire.
inline std::size_t sizeOf(const google::protobuf::MessageLite& value) {
  return value.ByteSizeLong();
}
inline std::size_t sizeOf(const std::string& value) { return value.size(); }

// About what an item takes beside its bytes on the wire, here and in the services' books.
constexpr std::size_t kItemBytes = 320;

// How a table keeps its values: as they are.
template <typename Key, typename Value>
struct AsItIs {
  using Kept = Value;

  static Kept keep(Value value) { return value; }
  static Value value(const Key&, Kept kept) { return kept; }
  static void drop(const Kept&) {}
  static std::size_t bytes(const Kept& kept) { return kItemBytes + sizeOf(kept); }
};

// How the table of routes keeps them, in less than half of the memory that the messages take:
// without the prefix, which is the key, and with the name of a group once.
class KeptRoutes {
 public:
  struct Kept {
    std::map<std::string, std::size_t>::value_type* group = nullptr;
    std::uint32_t tag = 0;
  };

  Kept keep(const ip_route_msg& route) {
    auto& group = *groups_.try_emplace(route.nexthop_group()).first;
    ++group.second;
    return {&group, route.tag()};
  }
  static ip_route_msg value(const PrefixKey& key, const Kept& kept) {
    ip_route_msg route;
    *route.mutable_prefix() = key.message();
    if (!kept.group->first.empty()) route.set_nexthop_group(kept.group->first);
    route.set_tag(kept.tag);
    return route;
  }
  void drop(const Kept& kept) {
    if (--kept.group->second == 0) groups_.erase(kept.group->first);
  }
  static std::size_t bytes(const Kept&) { return kItemBytes / 2; }

 private:
  std::map<std::string, std::size_t> groups_;  // with how many routes have each
};

// One table of what is programmed. Any thread may call any operation.
template <typename Key, typename Value, typename Form = AsItIs<Key, Value>>
class Table {
 public:
  using Item = std::pair<Key, Value>;

  // Returns what was there before.
  std::optional<Value> set(const Key& key, Value value) {
    const vorn::lock_guard lock(mutex_);
    auto kept = form_.keep(std::move(value));
    bytes_ += form_.bytes(kept);
    const auto [item, added] = items_.try_emplace(key);
    std::swap(item->second, kept);
    return added ? std::nullopt : std::optional(taken(key, std::move(kept)));
  }

  // The same.
  std::optional<Value> remove(const Key& key) {
    const vorn::lock_guard lock(mutex_);
    auto item = items_.extract(key);
    return item ? std::optional(taken(key, std::move(item.mapped()))) : std::nullopt;
  }

  // Removes an item that `unwanted` says so of.
  template <typename Predicate>
  void removeIf(const Key& key, Predicate unwanted) {
    const vorn::lock_guard lock(mutex_);
    const auto item = items_.find(key);
    if (item == items_.end() || !unwanted(form_.value(key, item->second))) return;
    taken(key, std::move(item->second));
    items_.erase(item);
  }

  // About how much memory it takes. Waits for nobody.
  std::size_t bytes() const { return bytes_; }

  std::optional<Value> find(const Key& key) const {
    const vorn::lock_guard lock(mutex_);
    const auto item = items_.find(key);
    return item == items_.end() ? std::nullopt : std::optional(form_.value(key, item->second));
  }

  std::size_t size() const {
    const vorn::lock_guard lock(mutex_);
    return items_.size();
  }

  // Gives `take` every item, in order. The table may change meanwhile, as between two parts.
  template <typename Take>
  void forEach(Take take) const {
    std::optional<Key> last;
    for (auto items = part(last); !items.empty(); items = part(last)) {
      for (const auto& [key, value] : items)
        take(key, value);
      last = std::move(items.back().first);
    }
  }

  // At most kItemsPerPart items behind the key `after`, and no more when they take kBytesPerPart,
  // in order; from the start without a key. A reader goes on from the last key that it was given,
  // so the table may change between two parts. Empty: that was all.
  std::vector<Item> part(const std::optional<Key>& after) const {
    const vorn::lock_guard lock(mutex_);
    std::vector<Item> items;
    auto next = after ? items_.upper_bound(*after) : items_.begin();
    for (std::size_t bytes = 0;
         next != items_.end() && items.size() < kItemsPerPart && bytes < kBytesPerPart; ++next) {
      items.emplace_back(next->first, form_.value(next->first, next->second));
      bytes += sizeOf(items.back().second);
    }
    return items;
  }

 private:
  Value taken(const Key& key, typename Form::Kept kept) VORN_REQUIRES(mutex_) {
    bytes_ -= form_.bytes(kept);
    Value value = form_.value(key, kept);
    form_.drop(kept);
    return value;
  }

  mutable vorn::mutex mutex_;
  Form form_ VORN_GUARDED_BY(mutex_);
  std::map<Key, typename Form::Kept> items_ VORN_GUARDED_BY(mutex_);
  std::atomic<std::size_t> bytes_ = 0;
};

// What the agent has taken, and programmed where there is no kernel to be programmed.
struct Tables {
  Table<PrefixKey, ip_route_msg, KeptRoutes> routes;
  Table<std::string, nexthop_group_msg> groups;
  Table<std::uint32_t, mpls_route_msg> mplsRoutes;
  Table<std::string, cbf_nexthop_group_redirect_msg> redirects;
  Table<std::string, sbfd_echo_session_msg> sessions;  // by their serialized keys
  Table<std::string, std::string> state;

  std::size_t bytes() const {
    return routes.bytes() + groups.bytes() + mplsRoutes.bytes() + redirects.bytes() +
           sessions.bytes() + state.bytes();
  }

  void configureState(const rpc_server_state_config_msg& config) {
    for (const auto& entry : config.set())
      state.set(entry.key(), entry.value());
    for (const auto& removed : config.delete_())
      state.remove(removed.key());
  }
};

}  // namespace routing_agent
