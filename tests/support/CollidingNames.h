#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// How many low bits of their hashes colliding names have in common.
constexpr int collidingBits = 20;

/// Different printable names of 16 characters, chosen by somebody who knows the standard library's hash of
/// strings: its values for them agree in their low bits. The same ones every time.
std::vector<std::string> collidingNames(std::size_t count);

}  // namespace Nubo::ServiceDiscovery::Testing
