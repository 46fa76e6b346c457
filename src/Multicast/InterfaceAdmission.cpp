#include "Multicast/InterfaceAdmission.h"

#include "LogicLayer/SDCommunicationHub.h"

#include <Poco/Exception.h>

#include <cstring>

namespace Nubo::ServiceDiscovery::Multicast {

using Poco::Net::IPAddress;
using Poco::Net::NetworkInterface;

namespace {

bool isIPv6Unicast(const IPAddress& address)
{
    return address.family() == IPAddress::IPv6 && !address.isWildcard() && !address.isLoopback() &&
           !address.isMulticast();
}

}  // namespace

std::string withoutScope(const std::string& ip)
{
    return ip.substr(0, ip.find('%'));
}

Admission admitInterface(const std::string& name, const std::string& ip, AdmittedInterface& admitted)
{
    IPAddress address;
    if (!IPAddress::tryParse(ip, address) || !isIPv6Unicast(address))
        return Admission::NotAppropriate;
    try {
        admitted.interface = NetworkInterface::forName(name, true);
    }
    catch (const Poco::Exception&) {
        return Admission::NotPresent;
    }
    const NetworkInterface& interface = admitted.interface;
    if (!SDCommunicationHub::containsIP(interface.addressList(), address, name))
        return Admission::NotPresent;
    if (!interface.supportsMulticast())
        return Admission::NoMulticast;

    const Poco::UInt32 scope = address.isLinkLocal() ? interface.index() : 0;
    admitted.address = IPAddress(address.addr(), address.length(), scope);
    return Admission::Good;
}

NetworkInterface::AddressList currentAddresses(const NetworkInterface& interface)
{
    try {
        return NetworkInterface::forIndex(interface.index()).addressList();
    }
    catch (const Poco::Exception&) {
        return {};
    }
}

bool isSameAddress(const IPAddress& address, const IPAddress& other)
{
    return address.family() == other.family() &&
           std::memcmp(address.addr(), other.addr(), static_cast<std::size_t>(address.length())) == 0;
}

bool isReportedInterface(const NetworkInterface& interface, const NetworkInterface::AddressList& addresses,
                         const std::string& name, const IPAddress& ip)
{
    return interface.name() == name && SDCommunicationHub::containsIP(addresses, ip, name);
}

}  // namespace Nubo::ServiceDiscovery::Multicast
