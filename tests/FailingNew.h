#pragma once

#include <cstdlib>
#include <new>

// Replaces the program's allocator by one that fails on demand. For one source of a test program.
namespace test {

// How many more allocations of this thread succeed before one fails; negative: all of them.
inline thread_local int allocationsLeft = -1;

// Calls `action` again and again, with its first allocation failing, then its second and so on, and
// `check` after each that threw, until it succeeds. Answers how many failed.
template <typename Action, typename Check>
int failEachAllocation(Action action, Check check) {
  for (int failing = 0;; ++failing) {
    allocationsLeft = failing;
    try {
      action();
      allocationsLeft = -1;
      return failing;
    } catch (std::bad_alloc const&) {
      allocationsLeft = -1;
      check();
    }
  }
}

}  // namespace test

void* operator new(std::size_t size) {
  if (test::allocationsLeft >= 0 && test::allocationsLeft-- == 0) throw std::bad_alloc();
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
