#pragma once

#include <vorn/export.h>

#include <string>
#include <string_view>

namespace Kiv {

// What keeps one record one line: the text with every control byte (below 0x20, and 0x7f) written
// as \xNN in lower-case hexadecimal, everything else as it is. Log and trace lines pass through it,
// so that no byte a client sent can end a line or drive a terminal. Any thread may call it.
VORN_EXPORT std::string oneLine(std::string_view text);

}  // namespace Kiv
