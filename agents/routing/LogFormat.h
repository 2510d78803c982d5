#pragma once

#include <memory>
#include <string_view>

namespace spdlog {
class formatter;
}

// How the lines of the log and the trace look.
namespace routing_agent {

enum class LogFormat {
  kText,     // [time] [logger] [level] message
  kJson,     // one object a line: time (UTC), level, logger, message
  kJournal,  // <priority>message, which the journal takes apart; the time is its own
};

// Formats every line of the log and the trace like that. In text, what goes to standard error has
// the journal's format when that is the journal (JOURNAL_STREAM): `logToStderr` tells whether the
// log does; the trace always goes there. To be called before other threads log.
void logFormatIs(LogFormat format, bool logToStderr);

// One that formats like that; of kText, spdlog's own.
std::unique_ptr<spdlog::formatter> formatterOf(LogFormat format);

}  // namespace routing_agent
