#pragma once

#include <Kiv/AllocTrack.h>
#include <vorn/export.h>

#include <typeinfo>

// Memory for the platform's objects. Any thread.
namespace ZilSlab {

// Memory for one object of `size` bytes. Throws std::bad_alloc.
VORN_EXPORT void* slabAlloc(unsigned long size);

// Gives back what slabAlloc gave for an object of that type.
VORN_EXPORT void slabFree(void* memory, const std::type_info& type) noexcept;

// The same with the type's record kept, for the operator new and the operator delete of a tracked
// type: a failed allocation, and a constructor that throws, leave the count as it was.
VORN_EXPORT void* trackedAlloc(Kiv::AllocTrackTypeInfo** tracker, const std::type_info& type,
                               unsigned long size);
VORN_EXPORT void trackedFree(Kiv::AllocTrackTypeInfo* tracker, const std::type_info& type,
                             void* memory) noexcept;

}  // namespace ZilSlab
