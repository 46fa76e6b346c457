#include "Multicast/InterfaceListing.h"

#include <algorithm>

namespace Nubo::ServiceDiscovery::Multicast {

using Poco::Net::NetworkInterface;

InterfaceListing::Ptr InterfaceListing::take()
{
    auto listing = std::make_shared<InterfaceListing>();
    constexpr bool withAddressOnly = false;
    constexpr bool upOnly = false;
    listing->m_interfaces = NetworkInterface::map(withAddressOnly, upOnly);
    return listing;
}

const NetworkInterface* InterfaceListing::find(const std::string& name) const
{
    const auto found = std::find_if(m_interfaces.begin(), m_interfaces.end(), [&](const auto& entry) {
        return entry.second.name() == name && entry.second.supportsIPv6();
    });
    return found == m_interfaces.end() ? nullptr : &found->second;
}

bool InterfaceListing::has(const std::string& name, unsigned index) const
{
    const auto found = m_interfaces.find(index);
    return found != m_interfaces.end() && found->second.name() == name;
}

NetworkInterface::AddressList InterfaceListing::addressesOf(const NetworkInterface& interface) const
{
    const auto found = m_interfaces.find(interface.index());
    return found == m_interfaces.end() ? NetworkInterface::AddressList() : found->second.addressList();
}

}  // namespace Nubo::ServiceDiscovery::Multicast
