#pragma once

#include <vorn/export.h>
#include <vorn/hash.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace vorn {

// The address families; the number is the IP version.
enum class af_t : std::uint8_t { none = 0, ipv4 = 4, ipv6 = 6 };

// An IPv4 or IPv6 address, or no address. A plain value of 17 bytes.
class ip_addr_t {
 public:
  // Room that the text of any address fits in, terminator included.
  static constexpr std::size_t text_size = 46;

  // The null address.
  constexpr ip_addr_t() noexcept = default;

  // The address whose bytes stand at `bytes` in network byte order: 4 of them for ipv4, 16 for
  // ipv6. Of any other family nothing is read.
  constexpr ip_addr_t(af_t af, const unsigned char* bytes) noexcept : af_(af) {
    for (std::size_t i = 0; i < size(); ++i)
      bytes_[i] = bytes[i];
  }

  constexpr af_t af() const noexcept { return af_; }

  // The address's bytes in network byte order, 4 or 16 of them as the family says; valid as long as
  // this object.
  constexpr const unsigned char* addr() const noexcept { return bytes_.data(); }

  // How many bytes addr() points to: 4, 16, or 0 when the family is neither.
  constexpr std::size_t size() const noexcept {
    return af_ == af_t::ipv4 ? 4 : af_ == af_t::ipv6 ? 16 : 0;
  }

  constexpr bool operator==(const ip_addr_t&) const noexcept = default;

 private:
  std::array<unsigned char, 16> bytes_{};
  af_t af_ = af_t::none;
};

// Writes the text of the address at `to`, which has room for text_size bytes, and returns the end
// of the text: what inet_ntop gives, or "none" for an address without a family. No terminator is
// promised. Allocates nothing; any thread may call it.
VORN_EXPORT char* to_chars(char* to, const ip_addr_t& address) noexcept;

// Writes the same text as one string: the stream's width, fill and adjustment pad it as they pad
// any string, no other setting of the stream changes it.
VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const ip_addr_t& address);

}  // namespace vorn

template <>
struct std::hash<vorn::ip_addr_t> {
  std::size_t operator()(const vorn::ip_addr_t& address) const noexcept {
    const std::string_view bytes(reinterpret_cast<const char*>(address.addr()), address.size());
    return vorn::hash_mix(std::hash<std::string_view>()(bytes), address.af());
  }
};
