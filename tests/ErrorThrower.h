#pragma once

#include <vorn/error.h>
#include <vorn/export.h>

#include <typeinfo>

// What stands in a shared object of its own.
namespace thrower {

[[noreturn]] VORN_EXPORT void throwRange();
[[noreturn]] VORN_EXPORT void throwUnconfigured();

// Calls `function`, catches what it throws by the base, and raises it again.
VORN_EXPORT void callAndRaise(void (*function)());

VORN_EXPORT const std::type_info* rangeType();

}  // namespace thrower
