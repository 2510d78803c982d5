#pragma once

#include <spdlog/logger.h>
#include <vorn/mutex.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

// Tells that a logger's sinks fail, without making a flood of it when they fail for every line: the
// first failure of the sinks that are installed, and then one an hour at most, with their number.
class SinkFailures {
 public:
  using Tell = std::function<void(std::string_view text)>;

  // Takes over the failures of a logger that is never destroyed. `what` is failing, in words.
  static void tellOf(spdlog::logger& logger, std::string what, Tell tell);

 private:
  SinkFailures(std::string what, Tell tell) : what_(std::move(what)), tell_(std::move(tell)) {}

  void handle(const std::vector<spdlog::sink_ptr>& sinks, const std::string& why);
  bool isToldOf(const std::vector<spdlog::sink_ptr>& sinks) const VORN_REQUIRES(mutex_);

  const std::string what_;
  const Tell tell_;
  vorn::mutex mutex_;
  std::vector<std::weak_ptr<spdlog::sinks::sink>> toldOf_ VORN_GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point toldAt_ VORN_GUARDED_BY(mutex_);
  std::uint64_t count_ VORN_GUARDED_BY(mutex_) = 0;
};

}  // namespace Kiv
