#pragma once

#include <string_view>

/// Interface of every fuzz target.
namespace Nubo::ServiceDiscovery::Fuzzing {

/// Tries one input. Each target defines it. The input occupies a memory block of exactly its size, so that
/// AddressSanitizer detects a read past its end.
void tryInput(std::string_view input);

/// If the property does not hold, prints it and aborts the process.
void require(bool holds, const char* property);

}  // namespace Nubo::ServiceDiscovery::Fuzzing
