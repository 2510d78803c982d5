#pragma once

#include <chrono>

namespace Velm {

// The platform's span of time: a signed count of nanoseconds, made from any coarser std::chrono
// duration.
using Duration = std::chrono::nanoseconds;

}  // namespace Velm
