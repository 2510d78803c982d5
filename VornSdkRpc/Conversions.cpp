#include <VornSdkRpc/Conversions.h>

#include <cassert>
#include <cstddef>
#include <forward_list>
#include <iterator>
#include <string>
#include <string_view>

namespace VornSdkRpc {

namespace {

vorn::ip_addr_t addressOf(const std::string& bytes) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  switch (bytes.size()) {
    case 4:
      return {vorn::af_t::ipv4, data};
    case 16:
      return {vorn::af_t::ipv6, data};
    default:
      return {};
  }
}

}  // namespace

vorn::mpls_action_t mplsOpToMplsAction(pb::nexthop_msg::mpls_operation_enum op) {
  using vorn::mpls_action_t;
  static constexpr mpls_action_t actions[] = {mpls_action_t::none, mpls_action_t::push,
                                              mpls_action_t::swap, mpls_action_t::pop,
                                              mpls_action_t::pop,  mpls_action_t::pop};
  const auto index = static_cast<std::size_t>(op);
  return index < std::size(actions) ? actions[index] : mpls_action_t::none;
}

vorn::ip_addr_t ipAddressToIpAddr(const pb::ip_address_msg& message) {
  return addressOf(message.addr());
}

void ipAddrToIpAddress(const vorn::ip_addr_t& addr, pb::ip_address_msg* message) {
  // As assert(false) would, but compilers differ in how they spell this function's name.
  if (addr.af() == vorn::af_t::none) {
    __assert_fail("false", __FILE__, __LINE__,
                  "void VornSdkRpc::ipAddrToIpAddress(const vorn::ip_addr_t&, "
                  "VornSdkRpc::pb::ip_address_msg*)");
  }
  message->set_addr(addr.addr(), addr.size());
}

pb::ip_address_msg ipAddrToIpAddress(const vorn::ip_addr_t& addr) {
  pb::ip_address_msg message;
  ipAddrToIpAddress(addr, &message);
  return message;
}

vorn::ip_prefix_t ipPrefixToPrefix(const pb::ip_prefix_msg& message) {
  return {addressOf(message.addr()), static_cast<unsigned char>(message.mask_length())};
}

void ipGenAddrToIpAddress(const Zilnet::IpGenAddr& addr, pb::ip_address_msg* message) {
  const Velm::String bytes = addr.bytes();
  message->set_addr(bytes.data(), bytes.size());
}

pb::ip_address_msg ipGenAddrToIpAddress(const Zilnet::IpGenAddr& addr) {
  pb::ip_address_msg message;
  ipGenAddrToIpAddress(addr, &message);
  return message;
}

void convertKey(const vorn::sbfd_echo_session_key_t& key, pb::sbfd_echo_session_key_msg* message) {
  message->set_outgoing_interface(key.nexthop_intf().to_string());
  ipAddrToIpAddress(key.nexthop(), message->mutable_nexthop());
  auto& labels = *message->mutable_labels();
  const auto count = std::distance(key.labels().begin(), key.labels().end());
  labels.Reserve(labels.size() + static_cast<int>(count));
  for (const auto& label : key.labels())
    labels.Add(label.label());
  message->set_dscp(key.ip_dscp());
  message->set_mpls_exp(key.mpls_exp());
}

vorn::sbfd_echo_session_key_t convertMsg(const pb::sbfd_echo_session_key_msg& message) {
  std::forward_list<vorn::mpls_label_t> labels;
  for (auto label = message.labels().rbegin(); label != message.labels().rend(); ++label)
    labels.emplace_front(*label);
  return {ipAddressToIpAddr(message.nexthop()), vorn::intf_id_t(message.outgoing_interface()),
          labels, static_cast<unsigned char>(message.dscp()),
          static_cast<unsigned char>(message.mpls_exp())};
}

}  // namespace VornSdkRpc
