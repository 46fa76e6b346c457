#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// Number of low bits that the hashes of colliding names have in common.
constexpr int collidingBits = 20;

/// Different printable names of 16 characters whose hashes by the standard library agree in their low bits.
/// They are the same in each call.
std::vector<std::string> collidingNames(std::size_t count);

}  // namespace Nubo::ServiceDiscovery::Testing
