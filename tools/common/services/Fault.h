#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace NuboSd {

/// A reason why a service cannot be announced, and the part that it concerns.
struct Fault
{
    std::string key;                     ///< of the service in JSON; empty: the service as a whole
    std::optional<std::size_t> element;  ///< index in the list of that key
    std::string text;
};

}  // namespace NuboSd
