#include <ZilSlab/ZilSlab.h>

#include <new>

namespace ZilSlab {

void* slabAlloc(unsigned long size) { return ::operator new(size); }

void slabFree(void* memory, const std::type_info& /*type*/) noexcept { ::operator delete(memory); }

void* trackedAlloc(Kiv::AllocTrackTypeInfo** tracker, const std::type_info& type,
                   unsigned long size) {
  Kiv::AllocTrackTypeInfo::_trackAllocationNoOverhead(tracker, type, size);
  try {
    return slabAlloc(size);
  } catch (...) {
    Kiv::AllocTrackTypeInfo::trackDeallocation(*tracker);
    throw;
  }
}

void trackedFree(Kiv::AllocTrackTypeInfo* tracker, const std::type_info& type,
                 void* memory) noexcept {
  Kiv::AllocTrackTypeInfo::trackDeallocation(tracker);
  slabFree(memory, type);
}

}  // namespace ZilSlab
