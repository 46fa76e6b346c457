#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace OEMInterface {

/// An IPv6 address of a link as the kernel reports it.
struct LinkAddress
{
    std::string text;
    bool isLinkLocal = false;
    bool isTentative = false;   ///< duplicate address detection is running, or has failed
    bool isDuplicate = false;   ///< duplicate address detection has failed
    bool isDeprecated = false;  ///< still valid, but should not be used for new communication
};

/// A link of the kernel that is suitable for service discovery: up, supports multicast, not loopback.
struct Link
{
    std::string name;
    std::vector<LinkAddress> addresses;
};

/// The links by interface index.
using Links = std::map<int, Link>;

/// An address of a link: the link's index, and the address as text.
using AddressKey = std::pair<int, std::string>;
using AddressKeys = std::set<AddressKey>;

/// An interface as it is reported, with one of its addresses.
struct ChosenInterface
{
    std::string name;
    std::string ip;

    bool operator==(const ChosenInterface& other) const { return name == other.name && ip == other.ip; }
};

/// The interfaces to report, by interface index.
using Selection = std::map<int, ChosenInterface>;

/// Chooses the interfaces to report and the address of each. Keeps the choices in `previous` as long as they
/// are usable, except that a global address replaces a link-local one.
Selection selectInterfaces(const Links& links, const Selection& previous);

}  // namespace OEMInterface
