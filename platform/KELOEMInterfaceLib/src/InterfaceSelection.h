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
    bool isDeprecated = false;  ///< still valid, but not to be chosen for something new
};

/// A link of the kernel that may serve service discovery: up, with multicast, not loopback.
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

/// What is reported of one interface.
struct ChosenInterface
{
    std::string name;
    std::string ip;

    bool operator==(const ChosenInterface& other) const { return name == other.name && ip == other.ip; }
};

/// The interfaces to be reported, by interface index.
using Selection = std::map<int, ChosenInterface>;

/// Chooses the interfaces to be reported and the address of each. What was chosen in `previous` stays
/// chosen while it can be used, unless it is a link-local address and a global one has come.
Selection selectInterfaces(const Links& links, const Selection& previous);

}  // namespace OEMInterface
