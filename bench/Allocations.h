#pragma once

#include <cstddef>

// How often this program, on all its threads and in all its libraries, has asked malloc and its kin
// for memory so far, while counting was on. Linked into every program of benchmarks.
std::size_t allocations();

// Counting is on from the start. It costs an atomic addition for each allocation; off, a test.
void allocationCountingIs(bool on);
