#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>
#include <vorn/export.h>

#include <iosfwd>
#include <string>

// Every message of the RPC interface as one line of text, for a log or a trace: on a stream with
// <<, or as a string with toString. A message prints as its type's name and its fields between
// braces, in a fixed order and whatever their values; addresses, prefixes and statuses print as
// the bare value:
//
//   VornSdkRpc::pb::ip_route_msg{prefix=10.1.0.0/16 nexthopGroup=G1 tag=7}
//
// Strings are written as they are, byte for byte: what a client sent may hold line breaks and
// control bytes. Unset sub-messages print like default ones and members of a oneof only when they
// are set; an enum value that the interface does not know prints as nothing, and an address of a
// wrong length like no address.
//
// Streams. The printers of composite messages write numbers in the stream's base and locale, and
// bools always by name; the stream's width pads the type's name; afterwards every setting of the
// stream, its width included, is as it was. The bare printers (ip_address_msg, ip_prefix_msg,
// sbfd_echo_session_oper_status_msg, rpc_status_msg) are one insertion of a text, which the
// stream's width pads, and which uses the width up as any insertion does. A stream with unitbuf is
// flushed once, when the message is written. Functions that the caller registered with
// std::ios_base::register_callback are called when a stream's format has to be saved and restored,
// which is not always: don't count calls.
//
// Failures. Nothing is thrown and no broken stream ends the process. On a stream that has failed,
// nothing is written and its state stays failed. When the stream breaks on the way, when its
// buffer, its facets or a tied stream throw, or when memory runs out, the stream is left with
// badbit set. That holds for a stream armed with exceptions() too: its mask is as before
// afterwards, but it is for the caller to look at the state, or to meet the exception at the next
// operation of its own. toString returns the empty string when memory runs out.
//
// Any thread may print; a stream is used by one thread at a time.
namespace VornSdkRpc::pb {

VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const ip_address_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const ip_prefix_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const ip_route_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const nexthop_group_tunnel_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const nexthop_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const sbfd_echo_session_key_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const nexthop_group_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const mpls_route_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(
    std::ostream& stream, const mpls_route_msg_forward_nexthop_group_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const cbf_nexthop_group_redirect_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const sbfd_echo_session_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const sbfd_echo_session_rtt_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const sbfd_echo_session_oper_status_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const watch_sbfd_echo_session_config_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const watch_sbfd_echo_session_status_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const rpc_status_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const rpc_server_state_config_msg& message) noexcept;
VORN_EXPORT std::ostream& operator<<(std::ostream& stream,
                                     const rpc_server_state_status_msg& message) noexcept;

// What << writes onto a new std::ostringstream.
VORN_EXPORT std::string toString(const ip_address_msg& message) noexcept;
VORN_EXPORT std::string toString(const ip_prefix_msg& message) noexcept;
VORN_EXPORT std::string toString(const ip_route_msg& message) noexcept;
VORN_EXPORT std::string toString(const nexthop_group_tunnel_msg& message) noexcept;
VORN_EXPORT std::string toString(const nexthop_msg& message) noexcept;
VORN_EXPORT std::string toString(const sbfd_echo_session_key_msg& message) noexcept;
VORN_EXPORT std::string toString(const nexthop_group_msg& message) noexcept;
VORN_EXPORT std::string toString(const mpls_route_msg& message) noexcept;
VORN_EXPORT std::string toString(const mpls_route_msg_forward_nexthop_group_msg& message) noexcept;
VORN_EXPORT std::string toString(const cbf_nexthop_group_redirect_msg& message) noexcept;
VORN_EXPORT std::string toString(const sbfd_echo_session_msg& message) noexcept;
VORN_EXPORT std::string toString(const sbfd_echo_session_rtt_msg& message) noexcept;
VORN_EXPORT std::string toString(const sbfd_echo_session_oper_status_msg& message) noexcept;
VORN_EXPORT std::string toString(const watch_sbfd_echo_session_config_msg& message) noexcept;
VORN_EXPORT std::string toString(const watch_sbfd_echo_session_status_msg& message) noexcept;
VORN_EXPORT std::string toString(const rpc_status_msg& message) noexcept;
VORN_EXPORT std::string toString(const rpc_server_state_config_msg& message) noexcept;
VORN_EXPORT std::string toString(const rpc_server_state_status_msg& message) noexcept;

}  // namespace VornSdkRpc::pb
