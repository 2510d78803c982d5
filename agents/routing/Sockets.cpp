#include "agents/routing/Sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <string_view>
#include <system_error>

namespace routing_agent {

namespace {

constexpr std::string_view kDefaultAddress = "127.0.0.1:50051";

[[noreturn]] void fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

std::string unixAddress(const sockaddr_un& name, socklen_t size) {
  const std::string_view path(name.sun_path, size - offsetof(sockaddr_un, sun_path));
  if (path.starts_with('\0')) return "unix-abstract:" + std::string(path.substr(1));
  return "unix:" + std::string(path.substr(0, path.find('\0')));
}

std::string ipAddress(const sockaddr_storage& name) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (name.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(name);
    inet_ntop(AF_INET, &v4.sin_addr, text.data(), text.size());
    return std::string(text.data()) + ":" + std::to_string(ntohs(v4.sin_port));
  }
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(name);
  inet_ntop(AF_INET6, &v6.sin6_addr, text.data(), text.size());
  return std::string("[") + text.data() + "]:" + std::to_string(ntohs(v6.sin6_port));
}

// The address that a socket listens on.
std::string addressOf(int fd) {
  sockaddr_storage name{};
  socklen_t size = sizeof name;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size) != 0)
    fail("cannot use descriptor " + std::to_string(fd));
  if (name.ss_family == AF_UNIX)
    return unixAddress(reinterpret_cast<const sockaddr_un&>(name), size);
  if (name.ss_family == AF_INET || name.ss_family == AF_INET6) return ipAddress(name);
  fail("cannot use descriptor " + std::to_string(fd), EAFNOSUPPORT);
}

// Where the file of a Unix socket is; empty for an address without one.
std::string pathOf(std::string_view address) {
  if (!address.starts_with("unix:")) return {};
  address.remove_prefix(5);
  if (address.starts_with("//")) address.remove_prefix(2);
  return std::string(address);
}

void shareWith(const SocketOptions& options, const std::string& path) {
  constexpr auto kAnyUser = static_cast<uid_t>(-1);
  if (options.group && lchown(path.c_str(), kAnyUser, *options.group) != 0)
    fail("cannot give " + path + " to its group");
  if (chmod(path.c_str(), options.mode) != 0) fail("cannot set the mode of " + path);
}

}  // namespace

std::vector<Place> placesOf(const Options& options) {
  std::vector<Place> places;
  const int inherited = sd_listen_fds(1);
  if (inherited < 0) fail("cannot take the service manager's sockets", -inherited);
  for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + inherited; ++fd)
    places.push_back({addressOf(fd), fd});
  for (const auto& address : options.listen)
    places.push_back({address});
  if (places.empty()) places.push_back({std::string(kDefaultAddress)});
  return places;
}

int listen(const Place& place, const SocketOptions& options, VornSdkRpc::Listener& listener,
           const Access& access, VornSdkRpc::CallAccounting* accounting) {
  const bool isUnix = place.address.starts_with("unix");
  if (place.inherited >= 0) {
    return isUnix ? listener.addInheritedLocal(place.inherited, access.localCallers(accounting))
                  : listener.addInherited(place.inherited,
                                          access.credentials(place.address, accounting));
  }
  if (!isUnix) return listener.add(place.address, access.credentials(place.address, accounting));
  const int port = listener.addLocal(place.address, access.localCallers(accounting));
  if (const auto path = pathOf(place.address); !path.empty()) shareWith(options, path);
  return port;
}

}  // namespace routing_agent
