#include "agents/routing/Check.h"

#include <vorn/error.h>

#include <cstdint>
#include <string>

namespace routing_agent {

namespace {

constexpr std::uint32_t kMaxLabel = (1U << 20) - 1;
constexpr std::uint32_t kMaxDscp = 63;
constexpr std::uint32_t kMaxExp = 7;
constexpr std::uint32_t kMaxReplicates = 256;  // as the kernel's
constexpr std::size_t kMaxName = 255;
constexpr std::size_t kMaxInterface = 15;  // as the kernel's
constexpr std::size_t kMaxValue = 4096;
constexpr int kMaxKeysRead = 256;  // whose values fit a client's messages
constexpr int kMaxLabels = 30;     // as the kernel's

[[noreturn]] void refuse(const std::string& field, const std::string& why) {
  throw vorn::invalid_argument_error(field + " " + why, field);
}

void checkRange(const std::string& field, std::uint32_t value, std::uint32_t max) {
  if (value <= max) return;
  throw vorn::invalid_range_error(
      field + " is " + std::to_string(value) + "; at most " + std::to_string(max) + " is possible",
      field, value);
}

void checkSize(const std::string& field, const std::string& text, std::size_t max) {
  if (text.size() <= max) return;
  refuse(field, "has " + std::to_string(text.size()) + " bytes; at most " + std::to_string(max) +
                    " are possible");
}

void checkName(const std::string& field, const std::string& name) {
  if (name.empty()) refuse(field, "is empty");
  checkSize(field, name, kMaxName);
}

void checkInterface(const std::string& field, const std::string& name) {
  checkSize(field, name, kMaxInterface);
  if (name.find('\0') != std::string::npos) refuse(field, "has a NUL in it");
}

template <typename Numbers>
void checkEach(const std::string& field, const Numbers& values, std::uint32_t max) {
  for (int i = 0; i < values.size(); ++i) {
    checkRange(field + "[" + std::to_string(i) + "]", values[i], max);
  }
}

template <typename Labels>
void checkLabels(const std::string& field, const Labels& labels) {
  if (labels.size() > kMaxLabels) {
    refuse(field, "holds " + std::to_string(labels.size()) + " labels; at most " +
                      std::to_string(kMaxLabels) + " are possible");
  }
  checkEach(field, labels, kMaxLabel);
}

void checkAddress(const std::string& field, const std::string& addr) {
  if (addr.size() == 4 || addr.size() == 16) return;
  refuse(field, "holds " + std::to_string(addr.size()) + " bytes; an address has 4 or 16");
}

bool hasBitsBehind(const std::string& addr, std::uint32_t length) {
  for (std::size_t byte = length / 8; byte < addr.size(); ++byte) {
    const unsigned kept = byte == length / 8 ? length % 8 : 0;
    if ((static_cast<unsigned char>(addr[byte]) & (0xffU >> kept)) != 0) return true;
  }
  return false;
}

void checkKey(const std::string& field, const sbfd_echo_session_key_msg& key) {
  checkName(field + ".outgoing_interface", key.outgoing_interface());
  checkInterface(field + ".outgoing_interface", key.outgoing_interface());
  checkAddress(field + ".nexthop.addr", key.nexthop().addr());
  checkLabels(field + ".labels", key.labels());
  checkRange(field + ".dscp", key.dscp(), kMaxDscp);
  checkRange(field + ".mpls_exp", key.mpls_exp(), kMaxExp);
}

void checkNexthop(const std::string& field, const nexthop_msg& nexthop) {
  if (!nexthop.nexthop_ip().addr().empty()) {
    checkAddress(field + ".nexthop_ip.addr", nexthop.nexthop_ip().addr());
  } else if (nexthop.nexthop_interface().empty()) {
    refuse(field, "has neither an address nor an interface");
  }
  checkInterface(field + ".nexthop_interface", nexthop.nexthop_interface());
  checkRange(field + ".replicate_count", nexthop.replicate_count(), kMaxReplicates);
  if (!nexthop_msg::mpls_operation_enum_IsValid(nexthop.mpls_op())) {
    refuse(field + ".mpls_op", "is no operation: " + std::to_string(nexthop.mpls_op()));
  }
  checkLabels(field + ".labels", nexthop.labels());
  if (nexthop.has_sbfd_session_key()) {
    checkKey(field + ".sbfd_session_key", nexthop.sbfd_session_key());
  }
}

template <typename Nexthops>
void checkNexthops(const std::string& field, const Nexthops& nexthops) {
  for (int i = 0; i < nexthops.size(); ++i) {
    checkNexthop(field + "[" + std::to_string(i) + "]", nexthops[i]);
  }
}

}  // namespace

void check(const ip_prefix_msg& prefix) {
  checkAddress("prefix.addr", prefix.addr());
  const auto bits = static_cast<std::uint32_t>(prefix.addr().size() * 8);
  checkRange("prefix.mask_length", prefix.mask_length(), bits);
  if (hasBitsBehind(prefix.addr(), prefix.mask_length())) {
    refuse("prefix.addr", "has bits set behind its prefix length");
  }
}

void check(const ip_route_msg& route) {
  check(route.prefix());
  checkName("nexthop_group", route.nexthop_group());
}

void check(const nexthop_group_msg& group) {
  checkName("name", group.name());
  if (!nexthop_group_msg::nexthop_group_type_enum_IsValid(group.nexthop_group_type())) {
    refuse("nexthop_group_type", "is no type: " + std::to_string(group.nexthop_group_type()));
  }
  checkNexthops("nexthop", group.nexthop());
  checkNexthops("backup_nexthop", group.backup_nexthop());
}

void check(const mpls_route_msg& route) {
  checkRange("label", route.label(), kMaxLabel);
  if (route.request_delete()) return;
  switch (route.forwarding_case()) {
    case mpls_route_msg::kNexthop:
      return checkNexthop("nexthop", route.nexthop());
    case mpls_route_msg::kNexthopGroup:
      checkName("nexthop_group.nexthop_group", route.nexthop_group().nexthop_group());
      if (!mpls_route_msg_forward_nexthop_group_msg::mpls_operation_enum_IsValid(
              route.nexthop_group().mpls_op())) {
        refuse("nexthop_group.mpls_op",
               "is no operation: " + std::to_string(route.nexthop_group().mpls_op()));
      }
      return;
    case mpls_route_msg::kPopAndForwardVrfName:
      return checkName("pop_and_forward_vrf_name", route.pop_and_forward_vrf_name());
    case mpls_route_msg::FORWARDING_NOT_SET:
      refuse("forwarding", "is not set");
  }
}

void check(const cbf_nexthop_group_redirect_msg& redirect) {
  checkName("match_nexthop_group", redirect.match_nexthop_group());
  if (redirect.request_delete()) return;
  checkName("redirect_nexthop_group", redirect.redirect_nexthop_group());
  checkEach("match_ipv4_dscp", redirect.match_ipv4_dscp(), kMaxDscp);
  checkEach("match_ipv6_dscp", redirect.match_ipv6_dscp(), kMaxDscp);
}

void check(const sbfd_echo_session_msg& session) { checkKey("session_key", session.session_key()); }

void check(const rpc_server_state_config_msg& config) {
  for (const auto& entry : config.set()) {
    checkName("set.key", entry.key());
    checkSize("set.value", entry.value(), kMaxValue);
  }
  for (const auto& removed : config.delete_())
    checkName("delete.key", removed.key());
}

void check(const state_keys_msg& keys) {
  if (keys.key_size() > kMaxKeysRead) {
    refuse("key", "stands there " + std::to_string(keys.key_size()) + " times; at most " +
                      std::to_string(kMaxKeysRead) + " are possible");
  }
  for (const auto& key : keys.key())
    checkSize("key", key, kMaxName);
}

}  // namespace routing_agent
