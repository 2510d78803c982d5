#pragma once

#include <vorn/export.h>

#include <cstddef>
#include <string>
#include <string_view>

// What keeps one record one line, and a line within what log daemons take. Log and trace lines pass
// through it, so that no byte a client sent can end a line, drive a terminal or fill a disk.
namespace Kiv {

// No log or trace line is longer, in bytes, whatever it holds. rsyslog cuts a line at 8 KiB, and a
// logger's time stamp goes in front of it.
constexpr std::size_t kLineMax = 8000;

// What stands behind a text that was cut before it was escaped.
constexpr std::string_view kCutMark = "...[cut]";

// What stands behind an escaped text that was cut. It reads back to kCutMark, and no text of a
// client's is written like this: oneLine escapes no full stop.
constexpr std::string_view kLineCutMark = "\\x2e..[cut]";

// Whether the text has only bytes that stand for themselves wherever they stand: printable ASCII
// without the backslash. It is its own line. Any thread may call it.
VORN_EXPORT bool isPlain(std::string_view text);

// The text as a line of valid UTF-8. Written as \xNN, one for each byte, in lower-case hexadecimal:
// control characters (U+0000 to U+001F, U+007F to U+009F), the line and the paragraph separator
// (U+2028, U+2029), what changes the direction of a text (U+061C, U+200E, U+200F, U+202A to U+202E,
// U+2066 to U+2069), bytes that are no UTF-8, and a backslash that stands before an x and two
// hexadecimal digits. Everything else stays as it is. Whoever replaces each \xNN by its byte has
// the text again. Any thread may call it.
VORN_EXPORT std::string oneLine(std::string_view text);

// The same of at most `max` bytes, which must be no less than the mark's: a longer line is cut,
// never within an escape or a character, and kLineCutMark stands behind it.
VORN_EXPORT std::string oneLine(std::string_view text, std::size_t max);

// Appends oneLine(text) to `line`.
VORN_EXPORT void appendOneLine(std::string& line, std::string_view text);

// The text when it has at most `max` bytes; otherwise its first `max` bytes, without a part of a
// UTF-8 character at their end, and kCutMark behind them. What is cut is then longer than `max`,
// the mark included, and what is not is not. `max` must be 4 or more. Any thread may call it.
VORN_EXPORT std::string cutTo(std::string text, std::size_t max);

}  // namespace Kiv
