#include "bench/Allocations.h"

#include <atomic>

// The names under which glibc keeps its allocator for a program that has its own in front of it.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<std::size_t> made = 0;
std::atomic<bool> counting = true;

void count() {
  if (counting.load(std::memory_order_relaxed)) made.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

std::size_t allocations() { return made; }

void allocationCountingIs(bool on) { counting = on; }

extern "C" {

void* malloc(std::size_t size) {
  count();
  return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size) {
  count();
  return __libc_calloc(number, size);
}

void* realloc(void* memory, std::size_t size) {
  count();
  return __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  count();
  return __libc_memalign(alignment, size);
}

}  // extern "C"
