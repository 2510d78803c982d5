#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace test {

// The frames of HTTP/2, as far as it takes to misuse them.
inline constexpr char DATA = 0, HEADERS = 1, RST_STREAM = 3, SETTINGS = 4, PING = 6;

inline std::string number(std::size_t value, int bytes) {
  std::string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
    text += static_cast<char>(value >> shift);
  return text;
}

inline std::string frame(char type, std::uint32_t stream, const std::string& payload = "",
                         char flags = 0) {
  return number(payload.size(), 3) + type + flags + number(stream, 4) + payload;
}

inline std::string call(std::uint32_t stream, const std::string& method) {
  std::string block;
  for (const auto& [name, value] : {std::pair<std::string, std::string>{":method", "POST"},
                                    {":scheme", "http"},
                                    {":path", "/test.Probe/" + method},
                                    {":authority", "probe"},
                                    {"te", "trailers"},
                                    {"content-type", "application/grpc"}}) {
    block += number(0, 1) + number(name.size(), 1) + name + number(value.size(), 1) + value;
  }
  return frame(HEADERS, stream, block, 4);
}

inline std::string message(const std::string& serialized) {
  return number(0, 1) + number(serialized.size(), 4) + serialized;
}

inline const std::string kHello =
    std::string("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n") + frame(SETTINGS, 0);

}  // namespace test
