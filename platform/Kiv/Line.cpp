#include <Kiv/Line.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Kiv {

namespace {

// Eight bytes at a time. Whether a word has a byte that is less than `least`, which is 0x80 at
// most.
constexpr std::uint64_t kOnes = 0x0101010101010101;
constexpr std::uint64_t kHighBits = kOnes * 0x80;

std::uint64_t hasLess(std::uint64_t word, std::uint64_t least) {
  return (word - kOnes * least) & ~word & kHighBits;
}

std::uint64_t hasAnyNotPlain(std::uint64_t word) {
  return (word & kHighBits) | hasLess(word, 0x20) | ((word + kOnes) & kHighBits) |
         hasLess(word ^ (kOnes * '\\'), 1);
}

std::uint8_t byteAt(std::string_view text, std::size_t at) {
  return static_cast<std::uint8_t>(text[at]);
}

bool isContinuation(std::uint8_t byte) { return (byte & 0xc0) == 0x80; }

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

struct Character {
  char32_t code;
  std::size_t size;  // in bytes; 0: no UTF-8 begins here
};

// The character that `text`, which isn't empty, begins with.
Character firstOf(std::string_view text) {
  struct Form {
    std::size_t size;
    char32_t least;  // a smaller code has a shorter form
    std::uint8_t leadMask, lead;
  };
  static constexpr Form forms[] = {
      {1, 0, 0x80, 0x00}, {2, 0x80, 0xe0, 0xc0}, {3, 0x800, 0xf0, 0xe0}, {4, 0x10000, 0xf8, 0xf0}};
  const std::uint8_t lead = byteAt(text, 0);
  for (const auto& form : forms) {
    if ((lead & form.leadMask) != form.lead) continue;
    if (text.size() < form.size) return {0, 0};
    char32_t code = lead & static_cast<std::uint8_t>(~form.leadMask);
    for (std::size_t at = 1; at < form.size; ++at) {
      if (!isContinuation(byteAt(text, at))) return {0, 0};
      code = code << 6 | (byteAt(text, at) & 0x3f);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < form.least || code > 0x10ffff || surrogate) return {0, 0};
    return {code, form.size};
  }
  return {0, 0};
}

// A character that ends a line, drives a terminal or changes the direction of a text.
bool isActive(char32_t code) {
  return code < 0x20 || (code >= 0x7f && code <= 0x9f) || code == 0x61c || code == 0x200e ||
         code == 0x200f || (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

// Whether `text` begins with what a reader would take for an escape.
bool readsAsEscape(std::string_view text) {
  return text.size() >= 4 && text[0] == '\\' && text[1] == 'x' && isHexDigit(text[2]) &&
         isHexDigit(text[3]);
}

void appendEscaped(std::string& line, std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    line += "\\x";
    line += digits[byteAt(bytes, at) >> 4];
    line += digits[byteAt(bytes, at) & 0xf];
  }
}

// Takes the first character off `text`, or the first byte where there is none, and appends it to
// the line.
void appendFirst(std::string& line, std::string_view& text) {
  const auto [code, size] = firstOf(text);
  const auto bytes = text.substr(0, std::max<std::size_t>(size, 1));
  if (size == 0 || isActive(code) || readsAsEscape(text)) {
    appendEscaped(line, bytes);
  } else {
    line += bytes;
  }
  text.remove_prefix(bytes.size());
}

}  // namespace

bool isPlain(std::string_view text) {
  std::uint64_t found = 0;
  std::uint64_t word = 0;
  for (; text.size() >= sizeof word; text.remove_prefix(sizeof word)) {
    std::memcpy(&word, text.data(), sizeof word);
    found |= hasAnyNotPlain(word);
  }
  word = kOnes * ' ';
  std::copy(text.begin(), text.end(), reinterpret_cast<char*>(&word));
  return (found | hasAnyNotPlain(word)) == 0;
}

std::string oneLine(std::string_view text) { return oneLine(text, std::string::npos); }

std::string oneLine(std::string_view text, std::size_t max) {
  if (text.size() <= max && isPlain(text)) return std::string(text);
  std::string line;
  line.reserve(std::min(text.size() + text.size() / 4, max));
  std::size_t fits = 0;  // so much of the line leaves room for the mark
  while (!text.empty()) {
    appendFirst(line, text);
    if (line.size() > max) {
      line.resize(fits);
      return line += kLineCutMark;
    }
    if (line.size() <= max - kLineCutMark.size()) fits = line.size();
  }
  return line;
}

void appendOneLine(std::string& line, std::string_view text) {
  if (isPlain(text)) {
    line += text;
    return;
  }
  while (!text.empty())
    appendFirst(line, text);
}

std::string cutTo(std::string text, std::size_t max) {
  if (text.size() <= max) return text;
  std::size_t end = max;
  while (end > max - 3 && isContinuation(byteAt(text, end)))
    --end;
  // Four continuation bytes in a row are no character's.
  if (isContinuation(byteAt(text, end))) end = max;
  text.resize(end);
  return text += kCutMark;
}

}  // namespace Kiv
