#pragma once

#include <vorn/hash.h>
#include <vorn/intf_id.h>
#include <vorn/ip_addr.h>
#include <vorn/mpls.h>

#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <utility>

namespace vorn {

// What identifies an SBFD echo session: where its echo packets leave, what they are sent to, and
// how they are marked.
class sbfd_echo_session_key_t {
 public:
  // `labels` has the top of the stack first; `ip_dscp` and `mpls_exp` are not checked.
  sbfd_echo_session_key_t(ip_addr_t nexthop, intf_id_t nexthop_intf,
                          const std::forward_list<mpls_label_t>& labels, unsigned char ip_dscp,
                          unsigned char mpls_exp)
      : nexthop_(nexthop),
        ip_dscp_(ip_dscp),
        mpls_exp_(mpls_exp),
        nexthop_intf_(std::move(nexthop_intf)),
        labels_(labels) {}

  const ip_addr_t& nexthop() const noexcept { return nexthop_; }
  const intf_id_t& nexthop_intf() const noexcept { return nexthop_intf_; }
  const std::forward_list<mpls_label_t>& labels() const noexcept { return labels_; }
  std::uint8_t ip_dscp() const noexcept { return ip_dscp_; }
  std::uint8_t mpls_exp() const noexcept { return mpls_exp_; }

  bool operator==(const sbfd_echo_session_key_t&) const = default;

 private:
  ip_addr_t nexthop_;
  std::uint8_t ip_dscp_;
  std::uint8_t mpls_exp_;
  intf_id_t nexthop_intf_;
  std::forward_list<mpls_label_t> labels_;
};

}  // namespace vorn

template <>
struct std::hash<vorn::sbfd_echo_session_key_t> {
  std::size_t operator()(const vorn::sbfd_echo_session_key_t& key) const noexcept {
    std::size_t seed = std::hash<vorn::ip_addr_t>()(key.nexthop());
    seed = vorn::hash_mix(seed, key.nexthop_intf());
    for (const auto& label : key.labels())
      seed = vorn::hash_mix(seed, label);
    seed = vorn::hash_mix(seed, key.ip_dscp());
    return vorn::hash_mix(seed, key.mpls_exp());
  }
};
