#include "FailingNew.h"

#include <cstdlib>

void* operator new(std::size_t size) {
  if (test::allocationsLeft >= 0 && test::allocationsLeft-- == 0) throw std::bad_alloc();
  if (size >= test::allocationTooLarge) throw std::bad_alloc();
  if (test::allocationsFailing > 0) {
    --test::allocationsFailing;
    ++test::allocationsFailed;
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
// As the standard library's does; a sanitizer's would not come to the one above.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
