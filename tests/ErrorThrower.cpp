#include "ErrorThrower.h"

namespace thrower {

void throwRange() { throw vorn::invalid_range_error("too high", "label", 1U << 20); }

void throwUnconfigured() { throw vorn::unconfigured_agent_error("no configuration", "routing"); }

void callAndRaise(void (*function)()) {
  try {
    function();
  } catch (vorn::error const& error) {
    error.raise();
  }
}

std::type_info const* rangeType() { return &typeid(vorn::invalid_range_error); }

}  // namespace thrower
