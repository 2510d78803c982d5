// Whatever text names a peer: its parts are parts of the text, and whether it is on this host
// depends on the address alone.

#include <VornSdkRpc/PeerInfo.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/Require.h"

using namespace VornSdkRpc;

// A peer, and behind the first line end an address of this host.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto end = text.find('\n');
  const std::string peer = text.substr(0, end);
  const std::string local = end == std::string::npos ? "" : text.substr(end + 1);

  const auto info = parsePeerURI(peer);
  if (peer.find(':') == std::string::npos) {
    require(info.scheme.empty() && info.addr.empty() && info.port.empty());
    require(!isLocalIpAddr(peer, local));
  } else {
    const bool once = peer.find(':') == peer.rfind(':');
    require(info.scheme + ":" + info.addr + (once ? "" : ":" + info.port) == peer);
    require(!once || info.addr == info.port);
    require(info.scheme == extractIpAddr(peer));
  }

  // As gRPC writes peers: nobody chooses the scheme or the port, but whatever they are, they make
  // no difference.
  const bool isLocal = isLocalIpAddr("ipv4:" + peer + ":1", local);
  require(isLocalIpAddr("ipv4:" + peer + ":65535", local + ":50051") == isLocal);
  require(isLocal == (checkIfLoopbackAddr(peer) || peer == "localhost" ||
                      (!peer.empty() && peer == extractIpAddr(local))));
  require(isLocalIpAddr("unix:" + peer, local));
  if (peer.find(':') != std::string::npos) require(!isLocalIpAddr("ipv6:[" + peer + "]:1", local));
  return 0;
}
