#pragma once

#include <cstdint>

/// What a stretch of code costs, counted and not timed: the same on every machine, whatever else it does.
namespace Nubo::ServiceDiscovery::Fuzzing {

/// Reads and writes of memory since the process began, and about what its allocations cost, in as many of
/// them.
std::uint64_t workDone();

}  // namespace Nubo::ServiceDiscovery::Fuzzing
