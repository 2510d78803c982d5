#include <Kiv/SinkFailures.h>

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace Kiv {

void SinkFailures::tellOf(spdlog::logger& logger, std::string what, Tell tell) {
  const std::shared_ptr<SinkFailures> failures(new SinkFailures(std::move(what), std::move(tell)));
  logger.set_error_handler([&logger, failures](const std::string& why) {
    try {
      failures->handle(logger.sinks(), why);
    } catch (const std::exception&) {
      // Without the memory to tell it, the failure stays untold.
    }
  });
}

void SinkFailures::handle(const std::vector<spdlog::sink_ptr>& sinks, const std::string& why) {
  const vorn::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  const bool known = isToldOf(sinks);
  count_ = known ? count_ + 1 : 1;
  if (known && now - toldAt_ < std::chrono::hours(1)) return;
  toldOf_.assign(sinks.begin(), sinks.end());
  toldAt_ = now;
  tell_(
      fmt::format("A sink of the {} fails: {} (failures so far: {}; the next is told in an hour "
                  "at the earliest)",
                  what_, why, count_));
}

// Whether these are the sinks whose failure was told last.
bool SinkFailures::isToldOf(const std::vector<spdlog::sink_ptr>& sinks) const {
  return std::equal(sinks.begin(), sinks.end(), toldOf_.begin(), toldOf_.end(),
                    [](const auto& now, const auto& then) { return now == then.lock(); });
}

}  // namespace Kiv
