#pragma once

#include <optional>
#include <string>
#include <vector>

namespace NuboSd {

/// How this unit takes part in the network.
struct UnitOptions
{
    std::vector<std::string> interfaces;  ///< empty: all
    std::string address;                  ///< empty: that of the first interface
    std::optional<double> duration;       ///< in seconds; none: until a signal
};

}  // namespace NuboSd
