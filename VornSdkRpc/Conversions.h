#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <Zilnet/IpGenAddr.h>
#include <vorn/export.h>
#include <vorn/ip_addr.h>
#include <vorn/ip_prefix.h>
#include <vorn/mpls.h>
#include <vorn/sbfd.h>

namespace VornSdkRpc {

// Conversions between the messages of the RPC interface and the SDK's value types. What comes out
// of a message never ends the process, whatever a client put into it; a function that fills a
// message expects a value that means something. They keep no state: any thread may call them, one
// thread at a time for one message to fill. They throw std::bad_alloc only.

// The label action of a message's operation. The three kinds of pop are one action; an operation
// that the interface does not know is mpls_action_t::none.
VORN_EXPORT vorn::mpls_action_t mplsOpToMplsAction(pb::nexthop_msg::mpls_operation_enum op);

// The address of a message: 4 bytes are an IPv4 one, 16 an IPv6 one. No bytes, or any other number
// of them, are the null address.
VORN_EXPORT vorn::ip_addr_t ipAddressToIpAddr(const pb::ip_address_msg& message);

// Sets the message's bytes to those of the address, and to none when its family is unknown. Asserts
// that the address is not the null address.
VORN_EXPORT void ipAddrToIpAddress(const vorn::ip_addr_t& addr, pb::ip_address_msg* message);

// A new message, filled the same way.
VORN_EXPORT pb::ip_address_msg ipAddrToIpAddress(const vorn::ip_addr_t& addr);

// The prefix of a message. The length is the low 8 bits of mask_length. An address of no bytes, or
// of another number than 4 or 16, gives the empty prefix, whatever the length.
VORN_EXPORT vorn::ip_prefix_t ipPrefixToPrefix(const pb::ip_prefix_msg& message);

// Sets the message's bytes to those of the address, however many there are.
VORN_EXPORT void ipGenAddrToIpAddress(const Zilnet::IpGenAddr& addr, pb::ip_address_msg* message);

// A new message, filled the same way.
VORN_EXPORT pb::ip_address_msg ipGenAddrToIpAddress(const Zilnet::IpGenAddr& addr);

// Fills a message with a session key. The key's labels are appended to those that the message
// already holds; every other field is replaced. Asserts that the key's next hop is not the null
// address.
VORN_EXPORT void convertKey(const vorn::sbfd_echo_session_key_t& key,
                            pb::sbfd_echo_session_key_msg* message);

// The session key of a message: labels in the same order, the low 8 bits of dscp and mpls_exp, the
// null address for a next hop that is absent or of a wrong length.
VORN_EXPORT vorn::sbfd_echo_session_key_t convertMsg(const pb::sbfd_echo_session_key_msg& message);

}  // namespace VornSdkRpc
