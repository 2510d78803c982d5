#pragma once

#include <VornSdkRpcProtos/VornSdkRpc.pb.h>

#include "agents/routing/RoutingAgent.pb.h"

// What the agent's tables can hold, also in size: names and keys have at most 255 bytes, interfaces
// 15, values 4 KiB; at most 256 keys are read at once. Every function throws
// vorn::invalid_argument_error (or its invalid_range_error), whose text names the field, for a
// message that can't be used; to the client that is INVALID_ARGUMENT.
namespace routing_agent {

using namespace VornSdkRpc::pb;

// An address of 4 or 16 bytes, a length that fits it, and no bits set behind the length.
void check(const ip_prefix_msg& prefix);

void check(const ip_route_msg& route);
void check(const nexthop_group_msg& group);
void check(const mpls_route_msg& route);
void check(const cbf_nexthop_group_redirect_msg& redirect);
void check(const sbfd_echo_session_msg& session);
void check(const rpc_server_state_config_msg& config);
void check(const state_keys_msg& keys);

}  // namespace routing_agent
