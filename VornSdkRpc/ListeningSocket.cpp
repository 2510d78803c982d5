#include <VornSdkRpc/ListeningSocket.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

namespace VornSdkRpc {

namespace {

// Any address that a socket can be bound to.
struct Address {
  sockaddr_storage bytes{};
  socklen_t size = 0;

  Address() = default;
  Address(const void* from, std::size_t length) : size(static_cast<socklen_t>(length)) {
    std::memcpy(&bytes, from, length);
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&bytes); }
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&bytes); }
  sa_family_t family() const { return bytes.ss_family; }
};

std::string cannotListen(const std::string& address) { return "cannot listen on " + address; }

std::system_error systemError(const std::string& address, int error = errno) {
  return {error, std::generic_category(), cannotListen(address)};
}

std::invalid_argument invalid(const std::string& address, const std::string& why) {
  return std::invalid_argument(cannotListen(address) + ": " + why);
}

Address nameOf(int fd) {
  Address name;
  name.size = sizeof name.bytes;
  if (getsockname(fd, name.get(), &name.size) != 0) name.size = 0;
  return name;
}

int portOf(const Address& address) {
  const auto& bytes = address.bytes;
  if (address.family() == AF_INET)
    return ntohs(reinterpret_cast<const sockaddr_in&>(bytes).sin_port);
  if (address.family() == AF_INET6)
    return ntohs(reinterpret_cast<const sockaddr_in6&>(bytes).sin6_port);
  return 0;
}

// A socket that is bound to `name` and listens. It carries errno when it has no descriptor.
OwnDescriptor bound(const Address& name) {
  OwnDescriptor made(socket(name.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (made.get() < 0) return made;
  constexpr int kOn = 1, kOff = 0;
  if (name.family() != AF_UNIX) {
    // A restarted agent need not wait for its last connections to be forgotten. No SO_REUSEPORT:
    // a second agent on a port is an error.
    setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &kOn, sizeof kOn);
    if (name.family() == AF_INET6)
      setsockopt(made.get(), IPPROTO_IPV6, IPV6_V6ONLY, &kOff, sizeof kOff);
  }
  if (bind(made.get(), name.get(), name.size) == 0 && listen(made.get(), SOMAXCONN) == 0)
    return made;
  const int error = errno;
  made.close();
  errno = error;
  return made;
}

// ------------------------------------------------------------------------------------------------
// Unix sockets

Address unixName(const std::string& address, std::string_view path, bool abstract) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.empty()) throw invalid(address, "it has no path");
  if (path.size() + 1 > sizeof name.sun_path) throw invalid(address, "the path is too long");
  std::memcpy(name.sun_path + (abstract ? 1 : 0), path.data(), path.size());
  return {&name, offsetof(sockaddr_un, sun_path) + path.size() + 1};
}

// Whether the socket file was left behind by a process that no longer listens.
bool isStale(const Address& name, const std::string& path) {
  struct stat file;
  if (lstat(path.c_str(), &file) != 0 || !S_ISSOCK(file.st_mode)) return false;
  const OwnDescriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  return probe.get() >= 0 && connect(probe.get(), name.get(), name.size) != 0 &&
         errno == ECONNREFUSED;
}

// The lock of the folder that a socket file is in, for as long as it lives: of two that start at
// once, neither takes the other's file, which is bound and not listened on yet, for one that was
// left behind. Not held where the folder may not be read, or somebody else holds it for a second.
OwnDescriptor lockFolderOf(const std::string& path) {
  const auto folder = std::filesystem::path(path).parent_path();
  OwnDescriptor lock(
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  constexpr int kTries = 100;
  for (int i = 0; i < kTries && lock.get() >= 0 && flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return lock;
}

OwnDescriptor listenOnUnix(const std::string& address, const Address& name,
                           const std::string& path) {
  const OwnDescriptor lock = path.empty() ? OwnDescriptor() : lockFolderOf(path);
  auto made = bound(name);
  if (made.get() < 0 && errno == EADDRINUSE && !path.empty()) {
    if (isStale(name, path)) {
      unlink(path.c_str());
      made = bound(name);
    } else {
      errno = EADDRINUSE;
    }
  }
  if (made.get() < 0) throw systemError(address);
  return made;
}

// ------------------------------------------------------------------------------------------------
// TCP

// HOST:PORT, [HOST]:PORT or :PORT.
std::pair<std::string, std::string> hostAndPort(const std::string& address, std::string_view name) {
  const auto colon = name.rfind(':');
  if (colon == name.npos || colon + 1 == name.size()) throw invalid(address, "it has no port");
  std::string_view host = name.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != host.npos) {
    throw invalid(address, "an IPv6 address stands in brackets");
  }
  std::string port(name.substr(colon + 1));
  const bool isNumber = port.find_first_not_of("0123456789") == port.npos;
  if (isNumber && (port.size() > 5 || std::stoi(port) > 65535))
    throw invalid(address, "there is no such port");  // getaddrinfo() would take the rest of it
  return {std::string(host.empty() ? "::" : host), std::move(port)};
}

std::vector<Address> resolved(const std::string& address, const std::string& host,
                              const std::string& port) {
  addrinfo wanted{};
  wanted.ai_socktype = SOCK_STREAM;
  wanted.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(host.c_str(), port.c_str(), &wanted, &found)) {
    if (error == EAI_SYSTEM) throw systemError(address);
    throw invalid(address, gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
  std::vector<Address> names;
  for (; found; found = found->ai_next)
    names.emplace_back(found->ai_addr, found->ai_addrlen);
  return names;
}

// Addresses of the host's name that this machine has not, an IPv6 one above all, don't matter as
// long as it has one of them.
bool isMissing(int error) { return error == EADDRNOTAVAIL || error == EAFNOSUPPORT; }

void portIs(Address& name, int port) {
  auto& at = name.family() == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(name.bytes).sin6_port
                                       : reinterpret_cast<sockaddr_in&>(name.bytes).sin_port;
  at = htons(static_cast<std::uint16_t>(port));
}

// The sockets of all the names, on one port. Empty with errno when one can't be had.
std::vector<OwnDescriptor> boundToAll(std::vector<Address> names) {
  std::vector<OwnDescriptor> made;
  for (auto& name : names) {
    if (!made.empty() && portOf(name) == 0) portIs(name, portOf(nameOf(made.front().get())));
    auto one = bound(name);
    if (one.get() >= 0) {
      made.push_back(std::move(one));
    } else if (!isMissing(errno)) {
      const int error = errno;
      made.clear();
      errno = error;
      return made;
    }
  }
  return made;
}

std::vector<OwnDescriptor> listenOnTcp(const std::string& address, std::string_view name) {
  const auto [host, port] = hostAndPort(address, name);
  auto names = resolved(address, host, port);
  auto made = boundToAll(names);
  // The port that the first address was given may be taken on the second.
  const bool anyPort = portOf(names.front()) == 0;
  for (int tries = 0; made.empty() && errno == EADDRINUSE && anyPort && tries < 10; ++tries)
    made = boundToAll(names);
  if (made.empty() && host == "::" && isMissing(errno))  // a machine without IPv6
    made = boundToAll(resolved(address, "0.0.0.0", port));
  if (made.empty()) throw systemError(address);
  return made;
}

std::string_view without(std::string_view prefix, std::string_view text) {
  return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
}

}  // namespace

ListeningSocket::ListeningSocket(OwnDescriptor socket, std::string path)
    : socket_(std::move(socket)), path_(std::move(path)) {
  struct stat file;
  if (!path_.empty() && lstat(path_.c_str(), &file) == 0) file_ = FileIdentity(file);
}

ListeningSocket::~ListeningSocket() {
  struct stat file;
  if (!path_.empty() && lstat(path_.c_str(), &file) == 0 && FileIdentity(file) == file_)
    unlink(path_.c_str());
}

ListeningSocket ListeningSocket::inherited(int fd) {
  int listens = 0, type = 0;
  socklen_t size = sizeof listens;
  const bool suits = getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 &&
                     listens != 0 && getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 &&
                     type == SOCK_STREAM;
  if (!suits)
    throw invalid("descriptor " + std::to_string(fd), "it is no stream socket that listens");
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  return ListeningSocket(OwnDescriptor(fd));
}

int ListeningSocket::port() const { return portOf(nameOf(fd())); }

std::vector<ListeningSocket> listenOn(const std::string& address) {
  const std::string_view text = address;
  std::vector<ListeningSocket> sockets;
  if (text.starts_with("unix-abstract:")) {
    const auto name = unixName(address, without("unix-abstract:", text), true);
    sockets.push_back(ListeningSocket(listenOnUnix(address, name, {})));
  } else if (text.starts_with("unix:")) {
    const std::string path(without("//", without("unix:", text)));
    const auto name = unixName(address, path, false);
    sockets.push_back(ListeningSocket(listenOnUnix(address, name, path), path));
  } else {
    std::string_view name = text;
    for (const char* scheme : {"ipv4:", "ipv6:", "dns:"})
      name = without(scheme, name);
    for (auto& made : listenOnTcp(address, without("///", name)))
      sockets.push_back(ListeningSocket(std::move(made)));
  }
  return sockets;
}

}  // namespace VornSdkRpc
