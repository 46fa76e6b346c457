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

/// A snapshot of this unit's network: the whole input of a diagnosis.
struct Picture
{
    std::vector<std::string> namedInterfaces;  ///< by --interface; empty: all
    std::string namedAddress;                  ///< by --address, in canonical form; empty: none

    std::vector<InterfaceState> interfaces;
    bool hasIPv6 = true;  ///< if false, nothing below is filled in

    Ipv6Settings settingsOfAll;
    Ipv6Settings settingsOfNew;               ///< for interfaces added later
    std::map<std::string, std::string> used;  ///< addresses by interface name

    std::string addressError;  ///< if --address is no address of a unit; then nothing below is filled in

    DiscoveryPort port;
    std::vector<std::string> portHolders;  ///< if the port is taken
    std::vector<GroupEcho> echoes;         ///< of the used interfaces
    std::map<std::string, std::uint64_t> counters;
};

/// Takes up to a second. Throws NetworkError when the network cannot be examined.
Picture gatherPicture(const UnitOptions& options);

}  // namespace NuboSd
