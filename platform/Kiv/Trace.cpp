#include <Kiv/Trace.h>

#include <Kiv/Line.h>
#include <Kiv/QueuedSink.h>
#include <Kiv/SinkFailures.h>
#include <Kiv/StderrSink.h>
#include <fmt/format.h>
#include <vorn/mutex.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Kiv {

namespace {

constexpr unsigned kLevels = 32;

// One item of the setting: the levels that are on for the handles of a name.
struct TraceRule {
  std::string name;
  std::uint32_t mask;
};

[[noreturn]] void refuse(std::string_view item, const char* why) {
  throw std::invalid_argument("trace setting \"" + oneLine(item) + "\": " + why);
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

unsigned parseLevel(std::string_view item, std::string_view digits) {
  unsigned level = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), level);
  if (error != std::errc() || end != digits.data() + digits.size() || level >= kLevels) {
    refuse(item, "a level is a number from 0 to 31");
  }
  return level;
}

TraceRule parseRule(std::string_view item) {
  const auto slash = item.rfind('/');
  if (slash == std::string_view::npos || slash == 0)
    refuse(item, "expected NAME/LEVEL or NAME/FIRST-LAST");
  const auto levels = item.substr(slash + 1);
  const auto dash = levels.find('-');
  const unsigned first = parseLevel(item, levels.substr(0, dash));
  const unsigned last =
      dash == std::string_view::npos ? first : parseLevel(item, levels.substr(dash + 1));
  if (last < first) refuse(item, "the first level is above the last");
  const std::uint64_t upToLast = (std::uint64_t{2} << last) - 1;
  const std::uint64_t belowFirst = (std::uint64_t{1} << first) - 1;
  return {std::string(item.substr(0, slash)), static_cast<std::uint32_t>(upToLast & ~belowFirst)};
}

std::vector<TraceRule> parseSetting(std::string_view setting) {
  std::vector<TraceRule> rules;
  while (!setting.empty()) {
    const auto comma = setting.find(',');
    const auto item = trimmed(setting.substr(0, comma));
    if (!item.empty()) rules.push_back(parseRule(item));
    setting.remove_prefix(comma == std::string_view::npos ? setting.size() : comma + 1);
  }
  return rules;
}

}  // namespace

// The live handles and the setting that their masks follow.
class TraceRegistry {
 public:
  // Never destroyed: handles with static storage duration outlive any order of destruction.
  static TraceRegistry& instance() {
    static auto* registry = new TraceRegistry;
    return *registry;
  }

  void add(TraceHandle& handle) {
    const vorn::lock_guard lock(mutex_);
    handles_.insert(&handle);
    apply(handle);
  }

  void remove(TraceHandle& handle) {
    const vorn::lock_guard lock(mutex_);
    handles_.erase(&handle);
  }

  void rulesAre(std::vector<TraceRule> rules) {
    const vorn::lock_guard lock(mutex_);
    rules_ = std::move(rules);
    for (auto* handle : handles_)
      apply(*handle);
  }

 private:
  void apply(TraceHandle& handle) const VORN_REQUIRES(mutex_) {
    std::uint32_t mask = 1;
    for (const auto& rule : rules_) {
      if (rule.name == "*" || rule.name == handle.name_) mask |= rule.mask;
    }
    handle.mask_.store(mask, std::memory_order_relaxed);
  }

  vorn::mutex mutex_;
  std::vector<TraceRule> rules_ VORN_GUARDED_BY(mutex_);
  std::unordered_set<TraceHandle*> handles_ VORN_GUARDED_BY(mutex_);
};

namespace {

// Since the process began to exit, every line is flushed: there is no later.
std::atomic<bool> isExiting = false;

void flushAtExit() {
  isExiting = true;
  traceLogger().flush();
}

void writeLine(const std::string& name, unsigned level, spdlog::level::level_enum severity,
               const spdlog::source_loc& where, std::string_view text) {
  try {
    const std::string line = oneLine(fmt::format("{}/{}: {}", name, level, text), kLineMax);
    traceLogger().log(where, severity, spdlog::string_view_t(line));
    if (isExiting) traceLogger().flush();
  } catch (...) {
    // spdlog keeps a sink's std::exception to itself; what else a sink may throw ends here.
  }
}

// Tells a failure of the trace's sinks, where the trace can't.
void tellOnStderr(std::string_view text) {
  static auto* const sink = new StderrSink(std::chrono::milliseconds(0));
  sink->log({"trace", spdlog::level::err, text});
}

}  // namespace

spdlog::logger& traceLogger() {
  static auto* logger = [] {
    auto* made = new spdlog::logger(
        "trace", std::make_shared<QueuedSink>(std::make_shared<StderrSink>(StderrSink::kForever)));
    made->set_level(spdlog::level::trace);
    SinkFailures::tellOf(*made, "trace", &tellOnStderr);
    std::atexit(&flushAtExit);
    return made;
  }();
  return *logger;
}

void traceSettingIs(std::string_view setting) {
  TraceRegistry::instance().rulesAre(parseSetting(setting));
}

TraceHandle::TraceHandle(const char* name, bool /*flag*/) : name_(name) {
  TraceRegistry::instance().add(*this);
}

TraceHandle::~TraceHandle() { TraceRegistry::instance().remove(*this); }

void TraceHandle::write(unsigned level, std::string_view text) const {
  write(level, spdlog::source_loc{}, text);
}

void TraceHandle::write(unsigned level, const spdlog::source_loc& where,
                        std::string_view text) const {
  writeLine(name_, level, level == 0 ? spdlog::level::info : spdlog::level::debug, where, text);
}

void TraceHandle::warn(std::string_view text) const {
  writeLine(name_, 0, spdlog::level::warn, {}, text);
}

void TraceHandle::error(std::string_view text) const {
  writeLine(name_, 0, spdlog::level::err, {}, text);
}

}  // namespace Kiv
