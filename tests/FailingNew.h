#pragma once

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>

// The program's allocator fails on demand, when FailingNew.cpp is among its sources.
namespace test {

// How many more allocations of this thread succeed before one fails; negative: all of them.
inline thread_local int allocationsLeft = -1;

// The size from which on every allocation of this thread fails.
inline thread_local std::size_t allocationTooLarge = std::numeric_limits<std::size_t>::max();

// How many allocations of this thread fail from now on, and how many of all threads have failed.
inline thread_local int allocationsFailing = 0;
inline std::atomic<int> allocationsFailed = 0;

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
    } catch (const std::bad_alloc&) {
      allocationsLeft = -1;
      check();
    }
  }
}

}  // namespace test
