#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace NuboSd {

/// What is wrong with a service, and with which part of it.
struct Fault
{
    std::string key;                     ///< of the service in JSON; empty: the service as a whole
    std::optional<std::size_t> element;  ///< of the key's list
    std::string text;
};

}  // namespace NuboSd
