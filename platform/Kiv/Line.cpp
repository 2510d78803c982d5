#include <Kiv/Line.h>

#include <algorithm>

namespace Kiv {

namespace {

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

}  // namespace

std::string oneLine(std::string_view text) {
  static constexpr char digits[] = "0123456789abcdef";
  const auto controls =
      static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isControl));
  if (controls == 0) return std::string(text);
  std::string line;
  line.reserve(text.size() + 3 * controls);
  for (const char c : text) {
    if (!isControl(c)) {
      line += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    line += "\\x";
    line += digits[byte >> 4];
    line += digits[byte & 0xf];
  }
  return line;
}

}  // namespace Kiv
