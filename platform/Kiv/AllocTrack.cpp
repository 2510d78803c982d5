#include <Kiv/AllocTrack.h>

#include <memory>

namespace Kiv {

void AllocTrackTypeInfo::_trackAllocationNoOverhead(AllocTrackTypeInfo** tracker,
                                                    const std::type_info& /*type*/,
                                                    unsigned long /*size*/) {
  const std::atomic_ref slot(*tracker);
  auto* record = slot.load(std::memory_order_acquire);
  if (record == nullptr) {
    auto made = std::make_unique<AllocTrackTypeInfo>();
    if (slot.compare_exchange_strong(record, made.get(), std::memory_order_acq_rel)) {
      record = made.release();
    }
  }
  record->live_.fetch_add(1, std::memory_order_relaxed);
}

void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo* tracker) noexcept {
  tracker->live_.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace Kiv
