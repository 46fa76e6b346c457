#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// What the kernel tells of this unit's network. Functions throw NetworkError when it cannot be asked at all.
namespace NuboSd {

struct AddressState
{
    std::string text;
    unsigned prefixLength = 0;
    bool isTentative = false;  ///< being checked for duplicates, or a duplicate
    bool isDuplicate = false;
    bool isDeprecated = false;
};

struct InterfaceState
{
    std::string name;
    unsigned index = 0;
    bool isLoopback = false;
    bool isUp = false;
    bool hasCarrier = false;
    bool canMulticast = false;
    std::vector<AddressState> addresses;
    bool hasGroupRoute = false;  ///< to the discovery group
    bool isGroupJoined = false;  ///< by anybody
};

/// In the order of their indices.
std::vector<InterfaceState> readInterfaces();

bool hasIPv6();

/// A value of net.ipv6.conf.INTERFACE; -1 when there is none. "all" and "default" are interfaces too.
int ipv6Setting(const std::string& interface, const std::string& name);

/// The counters of IPv6 and UDP by name.
std::map<std::string, std::uint64_t> readCounters();

/// Who has a socket on that UDP port of IPv6: "nubo-sd (process 123)". Empty when it is nobody, or somebody
/// whom this user may not see.
std::vector<std::string> holdersOfPort(std::uint16_t port);

}  // namespace NuboSd
