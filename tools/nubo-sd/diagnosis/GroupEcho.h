#pragma once

#include <string>
#include <vector>

namespace NuboSd {

/// Whether what this unit sends to the discovery group comes back to itself on an interface.
struct GroupEcho
{
    std::string interface;
    bool isBack = false;
    std::string error;  ///< why nothing could be sent; empty: it was
};

/// Tries that on all interfaces at once, within a second. The port is another one than that of discovery, and
/// nothing leaves this unit.
std::vector<GroupEcho> tryGroupEcho(const std::vector<std::string>& interfaces);

}  // namespace NuboSd
