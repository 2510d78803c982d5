#pragma once

#include <vorn/mutex.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace VornSdkRpc {

// Lets one message in ten seconds through: clients can cause as many as they like.
class MessageLimit {
 public:
  // The number of messages that were held back before this one, or nothing when it is held back.
  std::optional<std::uint64_t> admit() {
    const vorn::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (next_ && now < *next_) {
      ++heldBack_;
      return {};
    }
    next_ = now + std::chrono::seconds(10);
    return std::exchange(heldBack_, 0);
  }

 private:
  vorn::mutex mutex_;
  std::optional<std::chrono::steady_clock::time_point> next_ VORN_GUARDED_BY(mutex_);
  std::uint64_t heldBack_ VORN_GUARDED_BY(mutex_) = 0;
};

}  // namespace VornSdkRpc
