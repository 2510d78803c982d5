#pragma once

#include <prometheus/client_metric.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <vector>

namespace VornSdkRpc {

// Durations, counted in buckets without a lock. Any thread.
class Histogram {
 public:
  // Upper bounds in seconds, in order.
  explicit Histogram(const std::vector<double>& bounds) : bounds_(bounds) {
    for (std::size_t i = 0; i <= bounds_.size(); ++i)
      counts_.emplace_back(0);
  }

  void add(std::chrono::nanoseconds duration) noexcept {
    const auto seconds = std::chrono::duration<double>(duration).count();
    const auto bucket = std::lower_bound(bounds_.begin(), bounds_.end(), seconds);
    counts_[static_cast<std::size_t>(bucket - bounds_.begin())].fetch_add(
        1, std::memory_order_relaxed);
    nanoseconds_.fetch_add(static_cast<std::uint64_t>(duration.count()), std::memory_order_relaxed);
  }

  prometheus::ClientMetric::Histogram collected() const {
    prometheus::ClientMetric::Histogram collected;
    for (std::size_t i = 0; i < bounds_.size(); ++i) {
      collected.sample_count += counts_[i].load(std::memory_order_relaxed);
      collected.bucket.push_back({collected.sample_count, bounds_[i]});
    }
    collected.sample_count += counts_.back().load(std::memory_order_relaxed);
    collected.sample_sum = static_cast<double>(nanoseconds_.load(std::memory_order_relaxed)) / 1e9;
    return collected;
  }

 private:
  const std::vector<double> bounds_;
  std::deque<std::atomic<std::uint64_t>> counts_;  // one more than bounds
  std::atomic<std::uint64_t> nanoseconds_ = 0;
};

}  // namespace VornSdkRpc
