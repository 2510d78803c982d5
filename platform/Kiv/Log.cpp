#include <Kiv/Log.h>

#include <Kiv/Line.h>
#include <Kiv/LineSink.h>
#include <Kiv/SinkFailures.h>
#include <Kiv/StderrSink.h>
#include <Kiv/TraceHandle.h>
#include <fmt/format.h>
#include <spdlog/sinks/base_sink.h>
#include <syslog.h>
#include <vorn/mutex.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <filesystem>
#include <string>
#include <system_error>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Kiv {

namespace {

using Clock = std::chrono::steady_clock;

// Calls syslog(3) and nothing beside it: openlog(3) would take the identity of the process's other
// messages away, and closelog(3) its connection.
class SyslogSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    syslog(LOG_DAEMON | priorityOf(message.level), "%.*s", static_cast<int>(message.payload.size()),
           message.payload.data());
  }
  void flush_() override {}
};

spdlog::sink_ptr defaultSink() {
  std::error_code ignored;
  if (std::filesystem::exists("/dev/log", ignored)) return std::make_shared<SyslogSink>();
  return std::make_shared<StderrSink>();
}

spdlog::level::level_enum levelOf(std::uint64_t severity) {
  if (severity <= LOG_CRIT) return spdlog::level::critical;
  if (severity == LOG_ERR) return spdlog::level::err;
  if (severity == LOG_WARNING) return spdlog::level::warn;
  if (severity == LOG_DEBUG) return spdlog::level::debug;
  return spdlog::level::info;
}

// On the stack, unless it is long.
using Text = fmt::basic_memory_buffer<char, 512>;

std::string_view viewOf(const Text& text) { return {text.data(), text.size()}; }

// The message id, and the format with the texts in place of its conversions; one without an
// argument stays as it is.
Text substituted(std::string_view messageId, std::string_view format, LogArgs args) {
  std::size_t most = messageId.size() + 2 + format.size();
  for (const auto arg : args)
    most += arg.size();
  Text text;
  text.resize(most);  // once, and not for each piece
  char* end = text.data();
  const auto put = [&end](std::string_view piece) {
    end = std::copy(piece.begin(), piece.end(), end);
  };
  put(messageId);
  put(": ");
  std::size_t next = 0;
  for (auto percent = format.find('%'); percent < format.size(); percent = format.find('%')) {
    put(format.substr(0, percent));
    const auto conversion = format.substr(percent, 2);
    if (conversion == "%s" && next < args.size()) {
      put(args[next++]);
    } else {
      put(conversion == "%%" ? "%" : conversion);
    }
    format.remove_prefix(percent + conversion.size());
  }
  put(format);
  text.resize(static_cast<std::size_t>(end - text.data()));
  return text;
}

// A text that is no line yet, or too long, as a line. One that would be too long is cut in its
// arguments, each to its share, so that the message's own words and its short arguments stay.
std::string lineOf(std::string_view text, const LogDescriptor& message, LogArgs args) {
  std::string line = oneLine(text);
  if (line.size() <= kLineMax) return line;
  const std::string id = oneLine(message.messageId), format = oneLine(message.format);
  const std::size_t words = id.size() + 2 + format.size();
  const std::size_t share =
      words < kLineMax ? (kLineMax - words) / std::max<std::size_t>(args.size(), 1) : 0;
  if (args.empty() || share < kLineCutMark.size()) return oneLine(text, kLineMax);
  std::vector<std::string> shortened;
  for (const auto arg : args)
    shortened.push_back(oneLine(arg, share));
  const std::vector<std::string_view> texts(shortened.begin(), shortened.end());
  return std::string(viewOf(substituted(id, format, texts)));
}

std::vector<std::string_view> textsOf(const LogString& record) {
  std::vector<std::string_view> texts(record.argCount());
  for (LogStringIndex index = 0; index < record.argCount(); ++index)
    texts[index] = record.str(index);
  return texts;
}

// FNV-1a.
constexpr std::uint32_t kHashStart = 2166136261U;

std::uint32_t hashed(std::string_view text, std::uint32_t hash) {
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  }
  return hash;
}

}  // namespace

int priorityOf(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::critical:
      return LOG_CRIT;
    case spdlog::level::err:
      return LOG_ERR;
    case spdlog::level::warn:
      return LOG_WARNING;
    case spdlog::level::info:
      return LOG_INFO;
    default:
      return LOG_DEBUG;
  }
}

spdlog::logger& platformLogger() {
  static auto* logger = [] {
    auto* made = new spdlog::logger("log", defaultSink());
    made->set_level(spdlog::level::trace);
    static auto* const trace = new TraceHandle("PlatformLog", false);  // never destroyed either
    SinkFailures::tellOf(*made, "log", [](std::string_view text) { trace->error(text); });
    return made;
  }();
  return *logger;
}

LogBatch::LogBatch() {
  for (const auto& sink : platformLogger().sinks()) {
    if (auto* const lines = dynamic_cast<LineSink*>(sink.get())) lines->gather();
  }
}

LogBatch::~LogBatch() {
  try {
    platformLogger().flush();
  } catch (...) {
    // As in LogHandle::log.
  }
}

void LogString::strIs(LogStringIndex index, const Velm::String& text) {
  if (index >= texts_.size()) texts_.resize(std::size_t{index} + 1);
  texts_[index] = text;
}

std::string_view LogString::str(LogStringIndex index) const {
  return index < texts_.size() ? std::string_view(texts_[index]) : std::string_view();
}

// The keys written less than an interval ago, oldest first.
class LogHandle::Suppressor {
 public:
  explicit Suppressor(Velm::Duration interval) : interval_(interval) {}

  bool admit(std::uint32_t key) {
    const vorn::lock_guard lock(mutex_);
    const auto now = Clock::now();
    while (!written_.empty() && now - written_.front().first >= interval_)
      forgetOldest();
    if (keys_.contains(key)) return false;
    if (written_.size() == kKeysMax) forgetOldest();
    written_.emplace_back(now, key);
    keys_.insert(key);
    return true;
  }

 private:
  static constexpr std::size_t kKeysMax = 4096;

  void forgetOldest() VORN_REQUIRES(mutex_) {
    keys_.erase(written_.front().second);
    written_.pop_front();
  }

  const Velm::Duration interval_;
  vorn::mutex mutex_;
  std::deque<std::pair<Clock::time_point, std::uint32_t>> written_ VORN_GUARDED_BY(mutex_);
  std::unordered_set<std::uint32_t> keys_ VORN_GUARDED_BY(mutex_);
};

LogHandle::LogHandle(const LogDescriptor* descriptor, Velm::Duration interval, double /*factor*/,
                     unsigned keyArgs, unsigned /*extra*/)
    : descriptor_(descriptor),
      keyArgs_(keyArgs),
      idHash_(hashed(descriptor->messageId, kHashStart)),
      suppressor_(interval > Velm::Duration::zero() ? std::make_unique<Suppressor>(interval)
                                                    : nullptr) {}

LogHandle::~LogHandle() = default;

bool LogHandle::okToLog(std::uint32_t key) const {
  return suppressor_ == nullptr || suppressor_->admit(key);
}

void LogHandle::log(const LogString& record) const { log(textsOf(record)); }

void LogHandle::log(LogArgs args) const {
  const Text text = substituted(descriptor_->messageId, descriptor_->format, args);
  std::string_view line = viewOf(text);
  std::string escaped;
  if (line.size() > kLineMax || !isPlain(line)) line = escaped = lineOf(line, *descriptor_, args);
  try {
    platformLogger().log(levelOf(descriptor_->severity), spdlog::string_view_t(line));
  } catch (...) {
    // What a sink throws that is no std::exception, spdlog passes on after its error handler has
    // told it.
  }
}

Velm::String valueToString(const int& value) {
  return Velm::String(std::string_view(std::to_string(value)));
}

std::uint32_t Impl::logArgsHash(LogArgs args, unsigned count) {
  std::uint32_t hash = kHashStart;
  for (const auto text : args.first(std::min<std::size_t>(count, args.size()))) {
    // The length goes in so that a byte that moves from one argument to the next is another key.
    hash = hashed(text, hashed(std::to_string(text.size()) + ':', hash));
  }
  return hash;
}

std::uint32_t Impl::logArgsHash(const LogString& record, unsigned count) {
  return logArgsHash(textsOf(record), count);
}

}  // namespace Kiv
