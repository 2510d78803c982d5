#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>

namespace Velm {

namespace Impl {

// What a String is made of: the bytes and their equality.
class StrB {
 public:
  bool operator==(const StrB&) const = default;

 protected:
  StrB() = default;
  explicit StrB(std::string_view text) : text_(text) {}

  std::string text_;
};

}  // namespace Impl

// The platform's text value: bytes with a length, which may hold NUL bytes.
class String : public Impl::StrB {
 public:
  String() = default;
  String(const char* text) : StrB(text) {}
  String(std::string_view text) : StrB(text) {}

  const char* data() const noexcept { return text_.data(); }
  const char* c_str() const noexcept { return text_.c_str(); }
  std::size_t size() const noexcept { return text_.size(); }
  operator std::string_view() const noexcept { return text_; }

  friend bool operator==(const String& text, const char* other) { return text.text_ == other; }
};

// Writes the text as a stream writes a std::string.
inline std::ostream& operator<<(std::ostream& stream, const String& text) {
  return stream << std::string_view(text);
}

}  // namespace Velm
