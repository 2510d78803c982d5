#include "agents/routing/LogFormat.h"

#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <fmt/chrono.h>
#include <spdlog/formatter.h>
#include <spdlog/pattern_formatter.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <string>

namespace routing_agent {

namespace {

using spdlog::details::log_msg;

class JournalFormatter : public spdlog::formatter {
  void format(const log_msg& message, spdlog::memory_buf_t& line) override {
    fmt::format_to(std::back_inserter(line), "<{}>{}\n", Kiv::priorityOf(message.level),
                   std::string_view(message.payload.data(), message.payload.size()));
  }
  std::unique_ptr<formatter> clone() const override { return std::make_unique<JournalFormatter>(); }
};

// Lines of the log and the trace are UTF-8 without control characters (Kiv/Line.h).
class JsonFormatter : public spdlog::formatter {
  void format(const log_msg& message, spdlog::memory_buf_t& line) override {
    const auto time = std::chrono::floor<std::chrono::microseconds>(message.time);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto level = spdlog::level::to_string_view(message.level);
    fmt::format_to(
        std::back_inserter(line),
        R"({{"time":"{:%Y-%m-%dT%H:%M:%S}.{:06}Z","level":"{}","logger":"{}","message":")",
        fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)), (time - seconds).count(),
        std::string_view(level.data(), level.size()),
        std::string_view(message.logger_name.data(), message.logger_name.size()));
    for (const char c : message.payload) {
      if (c == '"' || c == '\\') line.push_back('\\');
      line.push_back(c);
    }
    line.append(std::string_view("\"}\n"));
  }
  std::unique_ptr<formatter> clone() const override { return std::make_unique<JsonFormatter>(); }
};

// Whether standard error is the stream to the journal that the service manager has opened.
bool stderrIsJournal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat now{};
  return stream && fstat(STDERR_FILENO, &now) == 0 &&
         std::to_string(now.st_dev) + ":" + std::to_string(now.st_ino) == stream;
}

}  // namespace

std::unique_ptr<spdlog::formatter> formatterOf(LogFormat format) {
  if (format == LogFormat::kJson) return std::make_unique<JsonFormatter>();
  if (format == LogFormat::kJournal) return std::make_unique<JournalFormatter>();
  return std::make_unique<spdlog::pattern_formatter>();
}

void logFormatIs(LogFormat format, bool logToStderr) {
  const auto onStderr =
      format == LogFormat::kText && stderrIsJournal() ? LogFormat::kJournal : format;
  Kiv::traceLogger().set_formatter(formatterOf(onStderr));
  Kiv::platformLogger().set_formatter(formatterOf(logToStderr ? onStderr : format));
}

}  // namespace routing_agent
