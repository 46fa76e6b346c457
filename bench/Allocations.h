#pragma once

#include <cstdint>

/// How often memory was taken by operator new, by any thread of the process. A program that links
/// Allocations.cpp counts.
std::uint64_t allocations();
