#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace test {

// A connection without any client behind it, to 127.0.0.1:PORT, [::1]:PORT or unix:PATH.
class RawClient {
 public:
  RawClient() = default;
  // Keeps its descriptor out of the low numbers, below `lowest`.
  explicit RawClient(int lowest) : lowest_(lowest) {}
  ~RawClient() {
    if (fd_ >= 0) close(fd_);
  }
  RawClient(RawClient&& other) noexcept
      : lowest_(other.lowest_), fd_(std::exchange(other.fd_, -1)) {}
  RawClient& operator=(RawClient&& other) noexcept {
    std::swap(lowest_, other.lowest_);
    std::swap(fd_, other.fd_);
    return *this;
  }

  // Opens the socket that connectTo() else opens: for a process that soon can't.
  void open(int family = AF_INET) {
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    fd_ = fcntl(fd, F_DUPFD_CLOEXEC, lowest_);
    close(fd);
  }
  bool connectTo(const std::string& address) {
    if (address.starts_with("unix:")) return connectToFile(address.substr(5));
    const auto number = std::stoi(address.substr(address.rfind(':') + 1));
    const auto port = htons(static_cast<std::uint16_t>(number));
    return address.starts_with("[") ? connectToIpv6(port) : connectToIpv4(port);
  }
  bool send(std::string_view bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // Reads until the server has sent `text`, or answers false when it has closed the connection.
  bool readUntil(std::string_view text) {
    std::string read;
    char part[4096];
    while (read.find(text) == std::string::npos) {
      const auto size = recv(fd_, part, sizeof part, 0);
      if (size <= 0) return false;
      read.append(part, static_cast<std::size_t>(size));
    }
    return true;
  }
  int fd() const { return fd_; }
  // Whether gRPC has taken the connection: it begins with its settings.
  bool isServed() { return readUntil(std::string_view("\0", 1)); }

 private:
  bool connectToIpv4(in_port_t port) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = port;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0) open();
    return connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
  }
  bool connectToIpv6(in_port_t port) {
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = port;
    to.sin6_addr = in6addr_loopback;
    if (fd_ < 0) open(AF_INET6);
    return connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
  }
  bool connectToFile(const std::string& path) {
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    std::strncpy(to.sun_path, path.c_str(), sizeof to.sun_path - 1);
    if (fd_ < 0) open(AF_UNIX);
    return connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0;
  }

  int lowest_ = 0;
  int fd_ = -1;
};

}  // namespace test
