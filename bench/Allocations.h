#pragma once

#include <cstddef>

// How often this program, on all its threads, has called operator new so far. Linked into every
// program of benchmarks.
std::size_t allocations();
