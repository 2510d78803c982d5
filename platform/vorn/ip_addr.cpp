#include <vorn/ip_addr.h>

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ostream>

namespace vorn {

namespace {

// inet_ntop goes through snprintf, which four small numbers don't need.
char* dotted(char* to, const unsigned char* bytes) noexcept {
  for (int i = 0; i < 4; ++i) {
    if (i > 0) *to++ = '.';
    to = std::to_chars(to, to + 3, unsigned{bytes[i]}).ptr;
  }
  return to;
}

}  // namespace

char* to_chars(char* to, const ip_addr_t& address) noexcept {
  static_assert(ip_addr_t::text_size == INET6_ADDRSTRLEN);
  switch (address.af()) {
    case af_t::ipv4:
      return dotted(to, address.addr());
    case af_t::ipv6:
      inet_ntop(AF_INET6, address.addr(), to, ip_addr_t::text_size);
      return to + std::strlen(to);
    default:
      return std::ranges::copy(std::string_view("none"), to).out;
  }
}

std::ostream& operator<<(std::ostream& stream, const ip_addr_t& address) {
  char text[ip_addr_t::text_size];
  return stream << std::string_view(text, to_chars(text, address));
}

}  // namespace vorn
