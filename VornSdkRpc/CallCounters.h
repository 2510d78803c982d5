#pragma once

#include <VornSdkRpc/CallObserver.h>
#include <VornSdkRpc/Histogram.h>
#include <prometheus/metric_family.h>
#include <vorn/mutex.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace VornSdkRpc {

// The figures of a server's calls, by method. A call finds its method's without a lock, and counts
// in atomics.
class CallCounters : public CallObserver {
 public:
  // Upper bounds of the histogram's buckets, in seconds, in order.
  explicit CallCounters(std::vector<double> buckets);

  Call begun(std::string_view method) noexcept override;
  void received(Call call) noexcept override;
  void sent(Call call) noexcept override;
  void ended(Call call, const CallRecord& record) noexcept override;
  void denied(const CallRecord& record) noexcept override;

  // Appends what has been counted.
  void collect(std::vector<prometheus::MetricFamily>& families) const;

 private:
  static constexpr std::size_t kCodes = 17;
  static constexpr std::size_t kEnds = 6;
  static constexpr std::size_t kSlots = 4096;  // a power of two; half of them are used at most
  using Counter = std::atomic<std::uint64_t>;

  struct Method {
    explicit Method(const std::vector<double>& bounds) : seconds(bounds) {}

    std::string path;  // as clients send it
    std::string service;
    std::string name;
    const char* type = "";
    Counter started = 0;
    Counter received = 0;
    Counter sent = 0;
    std::array<Counter, kCodes> handled{};
    Histogram seconds;
  };

  Method& methodOf(std::string_view path) noexcept;
  Method* added(std::string_view path, std::size_t slot);
  Method& makeMethod(std::string_view path, std::string_view service, std::string_view name,
                     const char* type) VORN_REQUIRES(mutex_);
  void count(Method& method, const CallRecord& record) noexcept;
  template <typename Add>
  prometheus::MetricFamily family(const char* name, const char* help, prometheus::MetricType type,
                                  Add add) const VORN_REQUIRES(mutex_);

  const std::vector<double> bounds_;
  std::array<std::atomic<Method*>, kSlots> table_{};
  std::array<Counter, kEnds> ends_{};
  mutable vorn::mutex mutex_;
  std::deque<Method> methods_ VORN_GUARDED_BY(mutex_);
  Method* const others_;  // those that the process has no messages for
};

}  // namespace VornSdkRpc
