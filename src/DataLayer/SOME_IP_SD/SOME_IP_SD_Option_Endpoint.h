#pragma once

#include "DataLayer/SOME_IP_SD/ImplementedBy.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"

#include <Poco/Net/IPAddress.h>

#include <array>
#include <cstddef>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_IPv4_Pimpl;
class SOME_IP_SD_Option_IPv6_Pimpl;

/// Differences between the two families of endpoint options.
struct IPv4Family
{
    using Implementation = SOME_IP_SD_Option_IPv4_Pimpl;

    static constexpr std::size_t addressLength = 4;
    static constexpr std::uint16_t optionLength = SOME_IP_SD_Types::OptionLength::IP4;
    static constexpr std::array<OptionType::Type_t, 3> types{
        OptionType::IP4_ENDPOINT, OptionType::IP4_MULTICAST, OptionType::IP4_SD_ENDPOINT};
};

struct IPv6Family
{
    using Implementation = SOME_IP_SD_Option_IPv6_Pimpl;

    static constexpr std::size_t addressLength = 16;
    static constexpr std::uint16_t optionLength = SOME_IP_SD_Types::OptionLength::IP6;
    static constexpr std::array<OptionType::Type_t, 3> types{
        OptionType::IP6_ENDPOINT, OptionType::IP6_MULTICAST, OptionType::IP6_SD_ENDPOINT};
};

/// An endpoint, multicast or SD endpoint option of either family. Fields behind the four bytes of every
/// option: address (4 or 16), reserved byte, transport protocol (1) and port (2).
template <class Family>
class EndpointOption : public ImplementedBy<SOME_IP_SD_Option, typename Family::Implementation>
{
public:
    /// An option to be filled by reading.
    explicit EndpointOption(OptionType::Type_t type);

    /// `address` points to the family's 4 or 16 bytes in network order. A type of another kind or a protocol
    /// other than TCP and UDP logs an error and makes the option invalid.
    EndpointOption(OptionType::Type_t type, const std::uint8_t* address, std::uint16_t port,
                   OptionL4Protocol::L4Protocol_t protocol);

    /// The same from the address as text; a text that is no address of the family is refused, too.
    EndpointOption(OptionType::Type_t type, const std::string& address, std::uint16_t port,
                   OptionL4Protocol::L4Protocol_t protocol);

    const Poco::Net::IPAddress& getIP() const;
    /// The family's 4 or 16 bytes in network order; they live as long as the option.
    const std::uint8_t* getIP_asBytes() const;
    std::uint16_t getPort() const;
    OptionL4Protocol::L4Protocol_t getL4Protocol() const;
};

extern template class EndpointOption<IPv4Family>;
extern template class EndpointOption<IPv6Family>;

}  // namespace Nubo::ServiceDiscovery
