#pragma once

#include <cstdint>

/// Where service discovery takes place.
namespace NuboSd {

constexpr auto discoveryGroup = "ff14::4:0";
constexpr std::uint16_t discoveryPort = 30491;

}  // namespace NuboSd
