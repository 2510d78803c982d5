#pragma once

#include <cstddef>
#include <functional>

namespace vorn {

// The hash of a value made of several parts: start with the hash of one part, and mix in the others
// in a fixed order.
template <typename Part>
std::size_t hash_mix(std::size_t seed, const Part& part) noexcept {
  return seed ^ (std::hash<Part>()(part) + 0x9e3779b97f4a7c15U + (seed << 6U) + (seed >> 2U));
}

}  // namespace vorn
