#include <ZilSlab/ZilSlab.h>

#include <new>

namespace ZilSlab {

void* slabAlloc(unsigned long size) { return ::operator new(size); }

void slabFree(void* memory, std::type_info const& /*type*/) noexcept { ::operator delete(memory); }

void* trackedAlloc(Kiv::AllocTrackTypeInfo** tracker, std::type_info const& type,
                   unsigned long size) {
  Kiv::AllocTrackTypeInfo::_trackAllocationNoOverhead(tracker, type, size);
  try {
    return slabAlloc(size);
  } catch (...) {
    Kiv::AllocTrackTypeInfo::trackDeallocation(*tracker);
    throw;
  }
}

void trackedFree(Kiv::AllocTrackTypeInfo* tracker, std::type_info const& type,
                 void* memory) noexcept {
  Kiv::AllocTrackTypeInfo::trackDeallocation(tracker);
  slabFree(memory, type);
}

}  // namespace ZilSlab
