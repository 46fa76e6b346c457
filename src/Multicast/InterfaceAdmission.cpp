#include "Multicast/InterfaceAdmission.h"

#include "DataLayer/AddressText.h"
#include "Multicast/CloseOnExec.h"

#include <Common/StandardStreamGuard.h>

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/String.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

namespace Nubo::ServiceDiscovery::Multicast {

using Poco::Net::IPAddress;
using Poco::Net::NetworkInterface;

namespace {

bool isIPv6Unicast(const IPAddress& address)
{
    return address.family() == IPAddress::IPv6 && !address.isWildcard() && !address.isLoopback() &&
           !address.isMulticast();
}

/// A copy that shares no state with the original. Copies of a NetworkInterface share their implementation,
/// and other threads may release the listing that the original belongs to.
struct OwnCopy : NetworkInterface
{
    explicit OwnCopy(const NetworkInterface& other)
        : NetworkInterface(other.name(), other.displayName(), other.adapterName(), other.index())
    {}
};

const InterfaceListing::Ptr emptyListing = std::make_shared<InterfaceListing>();

}  // namespace

std::optional<IPAddress> parseAddress(const std::string& ip)
{
    try {
        return IPAddress(std::string(withoutScope(ip)));  // IPAddress::tryParse() rejects "::"
    }
    catch (const Poco::Exception&) {
        return std::nullopt;
    }
}

bool isLinkLocal(const IPAddress& address)
{
    const auto* const bytes = static_cast<const std::uint8_t*>(address.addr());
    return address.family() == IPAddress::IPv6 && bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80;
}

Admission admitInterface(const std::string& name, const std::string& ip, const InterfaceListing& listing,
                         AdmittedInterface& admitted)
{
    // A scope that names the interface itself is redundant, and cannot be parsed before the interface exists.
    const bool isOwnScope = ip.size() > name.size() && ip.find('%') == ip.size() - name.size() - 1 &&
                            ip.compare(ip.size() - name.size(), name.size(), name) == 0;
    IPAddress address;
    if (!IPAddress::tryParse(isOwnScope ? std::string(withoutScope(ip)) : ip, address) ||
        !isIPv6Unicast(address))
        return Admission::NotAppropriate;
    const NetworkInterface* const interface = listing.find(name);
    if (!interface || !containsIP(interface->addressList(), address, name))
        return Admission::NotPresent;
    if (!interface->supportsMulticast())
        return Admission::NoMulticast;

    admitted.interface = OwnCopy(*interface);
    const Poco::UInt32 scope = isLinkLocal(address) ? interface->index() : 0;
    admitted.address = IPAddress(address.addr(), address.length(), scope);
    return Admission::Good;
}

Admission admitInterface(const std::string& name, const std::string& ip, AdmittedInterface& admitted)
{
    return admitInterface(name, ip, *InterfaceListing::take(), admitted);
}

InterfaceListing::Ptr listingIfAny() noexcept
{
    try {
        return InterfaceListing::take();
    }
    catch (...) {
        return emptyListing;
    }
}

bool containsIP(const NetworkInterface::AddressList& addresses, const IPAddress& ip,
                const std::string& interfaceName)
{
    return std::any_of(addresses.begin(), addresses.end(), [&](const auto& entry) {
        const IPAddress& address = entry.template get<NetworkInterface::IP_ADDRESS>();
        if (!isSameAddress(address, ip))
            return false;  // cheaper than texts: Poco asks the system for the name of each scope
        const std::string plain = ip.toString();
        const std::string text = address.toString();
        // Poco writes addresses in lower case, the scope included.
        return text == plain || text == Poco::toLower(plain + "%" + interfaceName);
    });
}

bool isSameAddress(const IPAddress& address, const IPAddress& other)
{
    return address.family() == other.family() &&
           std::memcmp(address.addr(), other.addr(), static_cast<std::size_t>(address.length())) == 0;
}

bool isStillOneOf(const std::set<std::string>& names, const NetworkInterface& interface,
                  const InterfaceListing& listing)
{
    return names.count(interface.name()) != 0 && listing.has(interface.name(), interface.index());
}

bool isStillThere(const IPAddress& address, const AdmittedInterface& admitted,
                  const InterfaceListing& listing)
{
    const NetworkInterface& interface = admitted.interface;
    return isSameAddress(address, admitted.address) ||
           containsIP(listing.addressesOf(interface), address, interface.name());
}

bool canBeBound(const IPAddress& address)
{
    const Common::StandardStreamGuard guard;
    try {
        openSocket().bind(Poco::Net::SocketAddress(address, 0), false);
    }
    catch (const Poco::Exception&) {
        return false;
    }
    return true;
}

bool isReportedInterface(const NetworkInterface& interface, const NetworkInterface::AddressList& addresses,
                         const std::string& name, const IPAddress& ip)
{
    return interface.name() == name && containsIP(addresses, ip, name);
}

}  // namespace Nubo::ServiceDiscovery::Multicast
