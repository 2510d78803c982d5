// Whatever bytes the routing agent is sent as a request: it takes them, and then they can be used,
// or it names the field at fault in a text of its own.

#include <VornSdkRpc/Conversions.h>
#include <VornSdkRpc/MessagePrinters.h>
#include <vorn/error.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "agents/routing/Check.h"
#include "fuzz/Require.h"

namespace {

using namespace routing_agent;

bool isPlain(char c) { return c >= 0x20 && c < 0x7f; }

// Whether the agent takes the message. A refusal says nothing that the client has made up.
template <typename Message>
bool isTaken(const Message& message) {
  try {
    check(message);
    return true;
  } catch (const vorn::invalid_argument_error& error) {
    const std::string_view text = error.what();
    require(!error.argument().empty() && text.starts_with(error.argument()));
    require(text.size() < 200 && std::ranges::all_of(text, isPlain));
    return false;
  }
}

void use(const google::protobuf::Message&) {}

void use(const ip_prefix_msg& message) {
  const auto prefix = VornSdkRpc::ipPrefixToPrefix(message);
  require(prefix.length() == message.mask_length() && !(prefix == vorn::ip_prefix_t()));
}

void use(const ip_route_msg& message) { use(message.prefix()); }

void use(const sbfd_echo_session_msg& message) {
  const auto key = VornSdkRpc::convertMsg(message.session_key());
  sbfd_echo_session_key_msg back;
  VornSdkRpc::convertKey(key, &back);
  require(VornSdkRpc::convertMsg(back) == key);
}

template <typename Message>
void checkAs(const std::uint8_t* data, std::size_t size) {
  Message message;
  if (!message.ParseFromArray(data, static_cast<int>(size)) || !isTaken(message)) return;
  require(!toString(message).empty());
  Message again;
  require(again.ParseFromString(message.SerializeAsString()) && isTaken(again));
  use(message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkAs<ip_prefix_msg>(data, size);
  checkAs<ip_route_msg>(data, size);
  checkAs<nexthop_group_msg>(data, size);
  checkAs<mpls_route_msg>(data, size);
  checkAs<cbf_nexthop_group_redirect_msg>(data, size);
  checkAs<sbfd_echo_session_msg>(data, size);
  checkAs<rpc_server_state_config_msg>(data, size);
  return 0;
}
