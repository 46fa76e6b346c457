#pragma once

#include <cstdint>

/// Cost of a section of code, counted rather than timed, so that it is the same on every machine under any
/// load.
namespace Nubo::ServiceDiscovery::Fuzzing {

/// Returns the number of accesses to memory since the process began. Each allocation adds its approximate
/// cost in accesses.
std::uint64_t workDone();

}  // namespace Nubo::ServiceDiscovery::Fuzzing
