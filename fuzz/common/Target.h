#pragma once

#include <string_view>

/// What every fuzz target has.
namespace Nubo::ServiceDiscovery::Fuzzing {

/// The target: tries one input, which lies in a memory block of exactly its size, so that a read past it is
/// seen by AddressSanitizer. Each target defines it.
void tryInput(std::string_view input);

/// Ends the process, after a line that quotes the property, if it does not hold.
void require(bool holds, const char* property);

}  // namespace Nubo::ServiceDiscovery::Fuzzing
