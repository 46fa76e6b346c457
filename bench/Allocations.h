#pragma once

#include <cstdint>

/// Returns the number of calls of operator new so far, by all threads of the process. Allocations.cpp
/// replaces operator new in the program that links it.
std::uint64_t allocations();
