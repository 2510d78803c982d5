#pragma once

// What scripts/faults puts in front of every source that it builds.

#include <cstdlib>
#include <string_view>

// Whether the fault of this name is on: the environment variable FAULT names one.
inline bool fault(std::string_view name) {
  static const char* const on = std::getenv("FAULT");
  return on != nullptr && name == on;
}
