#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// What the kernel reports about this unit's network. Functions throw NetworkError when nothing can be
/// read.
namespace NuboSd {

struct AddressState
{
    std::string text;
    unsigned prefixLength = 0;
    bool isTentative = false;  ///< being checked for duplicates, or a duplicate
    bool isDuplicate = false;
    bool isDeprecated = false;
};

/// Values of net.ipv6.conf.INTERFACE; -1 where there is none.
struct Ipv6Settings
{
    int disableIpv6 = -1;
    int acceptDad = -1;
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
    bool isGroupJoined = false;  ///< by any process
    Ipv6Settings settings;
};

/// Sorted by index.
std::vector<InterfaceState> readInterfaces();

bool hasIPv6();

/// `interface` may also be "all" or "default".
Ipv6Settings readIpv6Settings(const std::string& interface);

/// The counters of IPv6 and UDP by name.
std::map<std::string, std::uint64_t> readCounters();

/// The processes with a socket on that UDP port of IPv6: "nubo-sd (process 123)". Those that this user may
/// not see are left out.
std::vector<std::string> holdersOfPort(std::uint16_t port);

}  // namespace NuboSd
