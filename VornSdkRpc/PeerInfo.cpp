#include <VornSdkRpc/PeerInfo.h>

namespace VornSdkRpc {

GrpcPeerInfo parsePeerURI(std::string uri) {
  const auto first = uri.find(':');
  if (first == std::string::npos) return {};
  const auto last = uri.rfind(':');
  // With one colon the length wraps around, and the address is everything behind it.
  return {.scheme = uri.substr(0, first),
          .addr = uri.substr(first + 1, last - first - 1),
          .port = uri.substr(last + 1)};
}

std::string extractIpAddr(std::string text) { return text.substr(0, text.find(':')); }

bool checkIfLoopbackAddr(std::string addr) { return addr.substr(0, addr.find('.')) == "127"; }

bool isLocalIpAddr(std::string peer, std::string localAddr) {
  const auto info = parsePeerURI(peer);
  if (info.scheme == "unix" || info.scheme == "unix-abstract") return true;
  if (info.addr.empty()) return false;
  if (info.addr == "localhost" || checkIfLoopbackAddr(info.addr)) return true;
  return info.addr == extractIpAddr(localAddr);
}

}  // namespace VornSdkRpc
