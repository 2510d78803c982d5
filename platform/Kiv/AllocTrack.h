#pragma once

#include <vorn/export.h>

#include <atomic>
#include <cstddef>
#include <typeinfo>

namespace Kiv {

// Counts the objects of one type, at no cost in the objects themselves. Each tracked type keeps a
// pointer to its record, which is null until its first allocation and valid from then on to the end
// of the process. Any thread.
class VORN_EXPORT AllocTrackTypeInfo {
 public:
  // Counts one allocation in *tracker; makes the record first when there is none. The type and the
  // size of its objects are carried for the platform; this layer has no use for them.
  static void _trackAllocationNoOverhead(AllocTrackTypeInfo** tracker, const std::type_info& type,
                                         unsigned long size);

  // Takes back what one _trackAllocationNoOverhead counted.
  static void trackDeallocation(AllocTrackTypeInfo* tracker) noexcept;

  // How many objects are allocated and not yet released.
  std::size_t liveObjects() const noexcept { return live_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::size_t> live_ = 0;
};

}  // namespace Kiv
