// Whatever text is a trace setting or is traced: a setting holds or is refused as a whole, and a
// line is one line of valid UTF-8 for every reader, and reads back to the text.

#include <Kiv/Line.h>
#include <Kiv/Trace.h>

#include <algorithm>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/Require.h"

namespace {

bool isControl(char c) { return (static_cast<unsigned char>(c) < 0x20) || c == 0x7f; }

// What ends a line, drives a terminal or turns a text around, in UTF-8.
constexpr std::string_view kActive[] = {"\u2028", "\u2029", "\u202a", "\u202b", "\u202c",
                                        "\u202d", "\u202e", "\u2066", "\u2067", "\u2068",
                                        "\u2069", "\u200e", "\u200f", "\u061c"};

// C1 control characters, which all begin with one byte in UTF-8.
bool hasC1(std::string_view line) {
  for (std::size_t at = 1; at < line.size(); ++at) {
    if (line[at - 1] == '\xc2' && static_cast<unsigned char>(line[at]) < 0xa0) return true;
  }
  return false;
}

bool isUtf8(const std::string& line) {
  static const char* const locale = std::setlocale(LC_CTYPE, "C.UTF-8");
  require(locale != nullptr);
  return std::mbstowcs(nullptr, line.c_str(), 0) != static_cast<std::size_t>(-1);
}

// What a reader makes of a line: each \xNN is a byte.
std::string readBack(const std::string& line) {
  static const std::string_view digits = "0123456789abcdefABCDEF";
  std::string text;
  for (std::size_t at = 0; at < line.size(); ++at) {
    const bool escape = line.compare(at, 2, "\\x") == 0 && line.size() - at >= 4 &&
                        line.find_first_not_of(digits, at + 2) >= at + 4;
    text += escape ? static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16)) : line[at];
    if (escape) at += 3;
  }
  return text;
}

std::uint32_t levelsOf(const Kiv::TraceHandle& handle) {
  std::uint32_t levels = 0;
  for (unsigned level = 0; level < 32; ++level)
    levels |= std::uint32_t{handle.enabled(level)} << level;
  return levels;
}

void checkLine(const std::string& text) {
  const std::string line = Kiv::oneLine(text);
  require(std::ranges::none_of(line, isControl) && !hasC1(line) && isUtf8(line));
  for (const auto active : kActive)
    require(line.find(active) == std::string::npos);
  require(readBack(line) == text);

  const auto max = Kiv::kLineCutMark.size() + text.size() / 2;
  const std::string limited = Kiv::oneLine(text, max);
  if (line.size() <= max) return require(limited == line);
  require(limited.size() <= max && limited.ends_with(Kiv::kLineCutMark) && isUtf8(limited));
  const auto kept = readBack(limited);
  require(kept.ends_with(Kiv::kCutMark));
  require(text.starts_with(kept.substr(0, kept.size() - Kiv::kCutMark.size())));
}

void checkCut(const std::string& text) {
  const auto max = 4 + text.size() / 2;
  const std::string cut = Kiv::cutTo(text, max);
  if (text.size() <= max) return require(cut == text);
  const auto kept = cut.substr(0, cut.size() - Kiv::kCutMark.size());
  require(cut.size() > max && kept.size() <= max && cut == kept + std::string(Kiv::kCutMark));
  require(text.starts_with(kept) && (!isUtf8(text) || isUtf8(kept)));
}

void checkSetting(const std::string& setting) {
  static const Kiv::TraceHandle server("GrpcServer", false);
  static const Kiv::TraceHandle other("a", false);
  Kiv::traceSettingIs("GrpcServer/3");
  try {
    Kiv::traceSettingIs(setting);
  } catch (const std::invalid_argument& error) {
    require(std::ranges::none_of(std::string(error.what()), isControl));
    require(levelsOf(server) == 0b1001 && levelsOf(other) == 1);
    return;
  }
  const auto levels = levelsOf(server);
  const auto otherLevels = levelsOf(other);
  require((levels & 1) == 1);
  require(levelsOf(Kiv::TraceHandle("GrpcServer", false)) == levels);
  Kiv::traceSettingIs(" " + setting + " , " + setting + ",a/5-6");
  require(levelsOf(server) == levels && levelsOf(other) == (otherLevels | 0b1100000));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkLine(text);
  if (text.find('\0') == std::string::npos) checkCut(text);
  checkSetting(text);
  return 0;
}
