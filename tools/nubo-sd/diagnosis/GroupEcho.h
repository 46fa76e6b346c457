#pragma once

#include <string>
#include <vector>

namespace NuboSd {

/// Whether a datagram that this unit sends to the discovery group on an interface returns to it.
struct GroupEcho
{
    std::string interface;
    bool isBack = false;
    std::string error;  ///< why nothing could be sent; empty if it was sent
};

/// Tries all interfaces at once, within a second. Uses a port other than that of discovery; nothing leaves
/// this unit.
std::vector<GroupEcho> tryGroupEcho(const std::vector<std::string>& interfaces);

}  // namespace NuboSd
