// Whatever text is a trace setting or is traced: a setting holds or is refused as a whole, and a
// line stays one line.

#include <Kiv/Line.h>
#include <Kiv/Trace.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "fuzz/Require.h"

namespace {

bool isControl(char c) { return (static_cast<unsigned char>(c) < 0x20) || c == 0x7f; }

std::uint32_t levelsOf(const Kiv::TraceHandle& handle) {
  std::uint32_t levels = 0;
  for (unsigned level = 0; level < 32; ++level)
    levels |= std::uint32_t{handle.enabled(level)} << level;
  return levels;
}

void checkLine(const std::string& text) {
  const std::string line = Kiv::oneLine(text);
  const auto controls = static_cast<std::size_t>(std::ranges::count_if(text, isControl));
  require(std::ranges::none_of(line, isControl));
  require(line.size() == text.size() + 3 * controls);
  require(Kiv::oneLine(line) == line);
  require(controls != 0 || line == text);
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
  checkSetting(text);
  return 0;
}
