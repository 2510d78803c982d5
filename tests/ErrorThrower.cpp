#include "ErrorThrower.h"

namespace thrower {

void throwRange() { throw vorn::invalid_range_error("too high", "label", 1U << 20); }

void throwUnconfigured() { throw vorn::unconfigured_agent_error("no configuration", "routing"); }

void callAndRaise(void (*function)()) {
  try {
    function();
  } catch (const vorn::error& error) {
    error.raise();
  }
}

const std::type_info* rangeType() { return &typeid(vorn::invalid_range_error); }

}  // namespace thrower
