#include <vorn/ip_prefix.h>

#include <charconv>
#include <ostream>
#include <string_view>

namespace vorn {

char* to_chars(char* to, const ip_prefix_t& prefix) noexcept {
  to = to_chars(to, prefix.address());
  if (prefix.address().size() == 0) return to;
  *to++ = '/';
  return std::to_chars(to, to + 3, unsigned{prefix.length()}).ptr;
}

std::ostream& operator<<(std::ostream& stream, const ip_prefix_t& prefix) {
  char text[ip_prefix_t::text_size];
  return stream << std::string_view(text, to_chars(text, prefix));
}

}  // namespace vorn
