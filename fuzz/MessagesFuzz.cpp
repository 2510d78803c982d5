// Whatever bytes a client sends as a message: it prints, the same way by each of the ways of
// printing, and it converts.

#include <VornSdkRpc/Conversions.h>
#include <VornSdkRpc/MessagePrinters.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <ios>
#include <locale>
#include <sstream>

#include "fuzz/Require.h"

namespace {

using namespace VornSdkRpc;
using namespace VornSdkRpc::pb;

// A stream that is not in its default format, though all that it writes looks like it.
std::ostringstream likeDefault() {
  std::ostringstream stream;
  stream.imbue({std::locale::classic(), new std::numpunct<char>});
  return stream;
}

void convert(const google::protobuf::Message&) {}

void convert(const ip_address_msg& message) {
  const auto address = ipAddressToIpAddr(message);
  if (address.af() == vorn::af_t::none) return;
  require(ipAddrToIpAddress(address).addr() == message.addr());
}

void convert(const ip_prefix_msg& message) {
  const auto prefix = ipPrefixToPrefix(message);
  require(prefix == vorn::ip_prefix_t() || prefix.length() == message.mask_length() % 256);
}

void convert(const nexthop_msg& message) {
  require(mplsOpToMplsAction(message.mpls_op()) <= vorn::mpls_action_t::pop);
}

void convert(const sbfd_echo_session_key_msg& message) {
  const auto key = convertMsg(message);
  if (key.nexthop().af() == vorn::af_t::none) return;
  sbfd_echo_session_key_msg back;
  convertKey(key, &back);
  require(std::ranges::equal(back.labels(), message.labels()) && convertMsg(back) == key);
}

template <typename Message>
void check(const std::uint8_t* data, std::size_t size) {
  Message message;
  // What was read before an error is a message too.
  static_cast<void>(message.ParseFromArray(data, static_cast<int>(size)));
  auto stream = likeDefault();
  stream << message;
  require(stream.str() == toString(message));
  stream << std::hex << std::showbase << std::internal << std::setfill('0') << std::setw(60)
         << message;
  require(stream.good());
  convert(message);
}

template <typename... Messages>
void checkAs(const std::uint8_t* data, std::size_t size) {
  (check<Messages>(data, size), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkAs<ip_address_msg, ip_prefix_msg, ip_route_msg, nexthop_group_tunnel_msg, nexthop_msg,
          sbfd_echo_session_key_msg, nexthop_group_msg, mpls_route_msg,
          mpls_route_msg_forward_nexthop_group_msg, cbf_nexthop_group_redirect_msg,
          sbfd_echo_session_msg, sbfd_echo_session_rtt_msg, sbfd_echo_session_oper_status_msg,
          watch_sbfd_echo_session_config_msg, watch_sbfd_echo_session_status_msg, rpc_status_msg,
          rpc_server_state_config_msg, rpc_server_state_status_msg>(data, size);
  return 0;
}
