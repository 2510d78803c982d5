#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace test {

// Waits for a condition. One that does not come in two minutes, which is for ever, ends the
// program, and says in words what it waited for: a hang says nothing.
template <typename Condition>
void waitUntil(Condition condition, const char* what) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      std::fprintf(stderr, "waited in vain until %s\n", what);
      std::abort();
    }
    std::this_thread::yield();
  }
}

}  // namespace test
