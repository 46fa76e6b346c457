#pragma once

#include "diagnosis/GroupEcho.h"
#include "diagnosis/NetworkState.h"
#include "unit/DiscoveryPort.h"
#include "unit/UnitOptions.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace NuboSd {

/// This unit's network as it was at one moment: all that a diagnosis looks at.
struct Picture
{
    std::vector<std::string> namedInterfaces;  ///< by the user; empty: all
    std::string namedAddress;                  ///< by the user, in its shortest form; empty: none

    std::vector<InterfaceState> interfaces;
    bool hasIPv6 = true;  ///< if not, nothing below was gathered

    Ipv6Settings settingsOfAll;
    Ipv6Settings settingsOfNew;               ///< of interfaces that are yet to come
    std::map<std::string, std::string> used;  ///< the address by the name of the interface

    DiscoveryPort port;
    std::vector<std::string> portHolders;  ///< of a port that is taken
    std::vector<GroupEcho> echoes;         ///< on the interfaces that are used
    std::map<std::string, std::uint64_t> counters;
};

/// Takes up to a second. Throws NetworkError when the network cannot be looked at, UsageError for an address
/// that cannot be a unit's.
Picture gatherPicture(const UnitOptions& options);

}  // namespace NuboSd
