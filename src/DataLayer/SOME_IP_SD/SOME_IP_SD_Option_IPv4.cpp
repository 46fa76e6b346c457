#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Endpoint_Pimpl.h"

namespace Nubo::ServiceDiscovery {

template <>
struct EndpointWords<IPv4Family>
{
    static constexpr auto kind = "IPv4 Option";
    static constexpr auto brief = "IP4-Option";
    static constexpr auto textKind = "IPv4 Option: ";
    static constexpr auto openAddress = "IP4(";
    static constexpr auto closeAddress = "";
    static constexpr auto className = "SOME_IP_SD_Option_IPv4";
    static constexpr auto readName = "SOME_IP_SD_IPv4_Option";
    static constexpr auto wrongType =
        "IPv4 SOME_IP_SD_Option need to be of type {SOME_IP_SD_Types::OptionType::IP4_ENDPOINT=0x04, "
        "SOME_IP_SD_Types::OptionType::IP4_MULTICAST=0x14, "
        "SOME_IP_SD_Types::OptionType::IP4_SD_ENDPOINT=0x24}, ";
    static constexpr auto wrongProtocol =
        "IPv4 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), ";
    static constexpr auto wrongAddress = ": given IP is not a IPv4 address!";
    static constexpr auto family = Poco::Net::IPAddress::IPv4;
};

template <>
struct EndpointAddress<IPv4Family>
{
    using Address = std::optional<Poco::Net::IPAddress>;
    using Bytes = std::array<std::uint8_t, IPv4Family::addressLength>;

    const Address& address() const { return m_ip4Address; }
    Address& address() { return m_ip4Address; }
    const Bytes& addressBytes() const { return m_ip4AddressPtr; }
    Bytes& addressBytes() { return m_ip4AddressPtr; }

    Address m_ip4Address;
    Bytes m_ip4AddressPtr{};
};

class SOME_IP_SD_Option_IPv4_Pimpl : public EndpointOptionPimpl<IPv4Family>
{
public:
    using EndpointOptionPimpl::EndpointOptionPimpl;
};

template class EndpointOption<IPv4Family>;

}  // namespace Nubo::ServiceDiscovery
