#pragma once

#include <Velm/String.h>

#include <cstddef>
#include <functional>
#include <string_view>

namespace Zilnet {

// An address of either IP version, known by its bytes in network byte order alone: 4 for IPv4, 16
// for IPv6, none for no address. The number of bytes is not checked.
class IpGenAddr {
 public:
  IpGenAddr() = default;
  explicit IpGenAddr(std::string_view bytes) : bytes_(bytes) {}

  Velm::String bytes() const { return bytes_; }

  bool operator==(const IpGenAddr&) const = default;

 private:
  friend std::hash<IpGenAddr>;

  Velm::String bytes_;
};

}  // namespace Zilnet

template <>
struct std::hash<Zilnet::IpGenAddr> {
  std::size_t operator()(const Zilnet::IpGenAddr& address) const noexcept {
    return std::hash<std::string_view>()(address.bytes_);
  }
};
