#pragma once

#include <vorn/export.h>

#include <string>

// Takes apart the peer text that gRPC reports for a call (ServerContext::peer()) and tells whether
// the peer is on this host. String operations only: nothing is resolved or looked up, and nothing
// throws unless memory runs out. Any thread.
namespace VornSdkRpc {

// The parts of a peer text; all three are empty when it can't be split.
struct GrpcPeerInfo {
  std::string scheme;  // before the first colon: ipv4, ipv6, unix, unix-abstract
  std::string addr;    // between the first and the last colon, or after the only one
  std::string port;    // after the last colon
};

// The parts of a peer text such as ipv4:10.1.2.3:900, ipv6:[::1]:900 (the brackets stay in the
// address, and so does %5B::1%5D, as newer gRPC writes them), or unix:/run/agent.sock (the path is
// both address and port).
VORN_EXPORT GrpcPeerInfo parsePeerURI(std::string uri);

// The text before the first colon; all of it when it has none.
VORN_EXPORT std::string extractIpAddr(std::string text);

// Whether the whole component before the first dot is "127". An IPv6 address never is a loopback by
// this rule.
VORN_EXPORT bool checkIfLoopbackAddr(std::string addr);

// Whether the peer text names this host: a Unix socket, "localhost", an IPv4 loopback address, or
// the address of `localAddr`, which is an address of this host with or without a colon and a port.
// Addresses are compared byte for byte, and an IPv6 peer is never local.
VORN_EXPORT bool isLocalIpAddr(std::string peer, std::string localAddr);

}  // namespace VornSdkRpc
