#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Endpoint_Pimpl.h"

#include <sstream>

namespace Nubo::ServiceDiscovery {

template <>
struct EndpointWords<IPv6Family>
{
    static constexpr auto kind = "IPv6 Option";
    static constexpr auto brief = "IP6-Option";
    static constexpr auto textKind = "IPv6 Option: ";
    static constexpr auto openAddress = "IP6([";
    static constexpr auto closeAddress = "]";
    static constexpr auto className = "SOME_IP_SD_Option_IPv6";
    static constexpr auto readName = "SOME_IP_SD_IPv6_Option";
    static constexpr auto wrongType =
        "IPv6 SOME_IP_SD_Option need to be of type {SOME_IP_SD_Types::OptionType::IP6_ENDPOINT=0x06, "
        "SOME_IP_SD_Types::OptionType::IP6_MULTICAST=0x16, "
        "SOME_IP_SD_Types::OptionType::IP6_SD_ENDPOINT=0x26}, ";
    static constexpr auto wrongProtocol =
        "IPv6 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), ";
    static constexpr auto wrongAddress = ": given IP is not a IPv6 address!";
    static constexpr auto family = Poco::Net::IPAddress::IPv6;
};

template <>
struct EndpointAddress<IPv6Family>
{
    using Address = std::optional<Poco::Net::IPAddress>;
    using Bytes = std::array<std::uint8_t, IPv6Family::addressLength>;

    const Address& address() const { return m_ip6Address; }
    Address& address() { return m_ip6Address; }
    const Bytes& addressBytes() const { return m_ip6AddressPtr; }
    Bytes& addressBytes() { return m_ip6AddressPtr; }

    Address m_ip6Address;
    Bytes m_ip6AddressPtr{};
};

class SOME_IP_SD_Option_IPv6_Pimpl : public EndpointOptionPimpl<IPv6Family>
{
public:
    using EndpointOptionPimpl::EndpointOptionPimpl;
};

template class EndpointOption<IPv6Family>;

std::string SOME_IP_SD_Option_IPv6::toByteStream(const Poco::Net::IPAddress& address)
{
    if (address.family() != Poco::Net::IPAddress::IPv6)
        return {};
    return std::string(static_cast<const char*>(address.addr()), IPv6Family::addressLength);
}

std::string SOME_IP_SD_Option_IPv6::faultOf(const Poco::Net::IPAddress& address)
{
    std::ostringstream text;
    if (address.family() != Poco::Net::IPAddress::IPv6)
        text << WrongAddress<IPv6Family>{};
    return text.str();
}

std::string SOME_IP_SD_Option_IPv6::faultOf(OptionL4Protocol::L4Protocol_t protocol)
{
    std::ostringstream text;
    if (!isEndpointProtocol(protocol))
        text << WrongProtocol<IPv6Family>{protocol};
    return text.str();
}

}  // namespace Nubo::ServiceDiscovery
