#pragma once

#include <vorn/export.h>
#include <vorn/hash.h>
#include <vorn/ip_addr.h>

#include <cstddef>
#include <iosfwd>

namespace vorn {

// An IP prefix such as 10.1.0.0/16, or the empty prefix. The address is kept as it was given, bits
// beyond the length included, and the length is not checked against the family.
class ip_prefix_t {
 public:
  // Room that the text of any prefix fits in.
  static constexpr std::size_t text_size = ip_addr_t::text_size + 4;

  // The empty prefix.
  constexpr ip_prefix_t() noexcept = default;

  // The prefix of an address and a length in bits. The null address gives the empty prefix.
  constexpr ip_prefix_t(const ip_addr_t& address, unsigned char length) noexcept
      : address_(address), length_(address.af() == af_t::none ? 0 : length) {}

  constexpr const ip_addr_t& address() const noexcept { return address_; }
  constexpr unsigned char length() const noexcept { return length_; }

  constexpr bool operator==(const ip_prefix_t&) const noexcept = default;

 private:
  ip_addr_t address_;
  unsigned char length_ = 0;
};

// Writes the text of the prefix at `to`, which has room for text_size bytes, and returns the end of
// the text: address/length, or "none" for the empty prefix. No terminator is promised. Allocates
// nothing; any thread may call it.
VORN_EXPORT char* to_chars(char* to, const ip_prefix_t& prefix) noexcept;

// Writes the same text as one string: the stream's width, fill and adjustment pad it as they pad
// any string, no other setting of the stream changes it.
VORN_EXPORT std::ostream& operator<<(std::ostream& stream, const ip_prefix_t& prefix);

}  // namespace vorn

template <>
struct std::hash<vorn::ip_prefix_t> {
  std::size_t operator()(const vorn::ip_prefix_t& prefix) const noexcept {
    return vorn::hash_mix(std::hash<vorn::ip_addr_t>()(prefix.address()), prefix.length());
  }
};
