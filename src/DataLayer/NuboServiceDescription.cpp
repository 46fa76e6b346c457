#include "DataLayer/NuboServiceDescription.h"

#include <utility>

namespace Nubo::ServiceDiscovery {

NuboServiceDescription::NuboServiceDescription() = default;

NuboServiceDescription::NuboServiceDescription(NuboServiceDescription&& other)  // NOLINT(*-noexcept-move*)
    : NuboServiceDescription()
{
    *this = std::move(other);
}

NuboServiceDescription& NuboServiceDescription::operator=(const NuboServiceDescription& other)
{
    return *this = NuboServiceDescription(other);
}

// NOLINTNEXTLINE(*-noexcept-move*)
NuboServiceDescription& NuboServiceDescription::operator=(NuboServiceDescription&& other)
{
    m_ip6Address = other.m_ip6Address;  // first: it may throw, the rest cannot
    m_name = std::move(other.m_name);
    m_versions = std::move(other.m_versions);
    m_categories = std::move(other.m_categories);
    m_ip6AddressText = std::move(other.m_ip6AddressText);
    m_ip6Port = other.m_ip6Port;
    m_l4Proto = other.m_l4Proto;
    m_localUuid = std::move(other.m_localUuid);
    m_uri = std::move(other.m_uri);
    return *this;
}

const Poco::Net::IPAddress& NuboServiceDescription::getIpAddress() const
{
    static const Poco::Net::IPAddress unspecified(Poco::Net::IPAddress::IPv6);
    return m_ip6Address ? *m_ip6Address : unspecified;
}

void NuboServiceDescription::setIpAddress(const Poco::Net::IPAddress& address)
{
    const std::string text = address.toString();
    std::string shrunkText(text);  // without the spare capacity of the original
    m_ip6Address = address;
    m_ip6AddressText = std::move(shrunkText);
}

std::string NuboServiceDescription::generateUri(const std::string& name, const std::string& ipAddress,
                                                unsigned short port)
{
    const std::string portText = std::to_string(port);
    std::string uri;
    uri.reserve(sizeof("http://[]:///") + ipAddress.size() + portText.size() + name.size());
    uri.append("http://[").append(ipAddress).append("]:").append(portText);
    uri.append("/").append(name).append("/");
    return uri;
}

std::string NuboServiceDescription::generateUri() const
{
    return generateUri(m_name, getIpAddressString(), m_ip6Port);
}

std::size_t NuboServiceDescription::getTextSize() const
{
    return m_name.size() + m_localUuid.size() + m_uri.size() + m_versions.size() + m_categories.size();
}

}  // namespace Nubo::ServiceDiscovery
