#pragma once

#include <cstdint>

/// The multicast group and UDP port of service discovery.
namespace NuboSd {

constexpr auto discoveryGroup = "ff14::4:0";
constexpr std::uint16_t discoveryPort = 30491;

}  // namespace NuboSd
