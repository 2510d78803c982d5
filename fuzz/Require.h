#pragma once

#include <cstdlib>

// A property that no input may break: libFuzzer keeps the input that did.
inline void require(bool condition) {
  if (!condition) std::abort();
}
