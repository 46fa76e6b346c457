#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Endpoint.h"

#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "DataLayer/WireStream.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <iomanip>
#include <optional>
#include <ostream>

namespace Nubo::ServiceDiscovery {

using Poco::Net::IPAddress;

namespace {

/// The words of the families in log lines.
template <class Family>
struct Words;

template <>
struct Words<IPv4Family>
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
    static constexpr auto family = IPAddress::IPv4;
};

template <>
struct Words<IPv6Family>
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
    static constexpr auto family = IPAddress::IPv6;
};

/// Streams a byte as two hexadecimal digits.
struct TwoDigits
{
    std::uint8_t value;

    friend std::ostream& operator<<(std::ostream& stream, TwoDigits digits)
    {
        return stream << std::hex << std::setw(2) << std::setfill('0') << +digits.value;
    }
};

template <class Family>
const IPAddress& unspecified()
{
    static const IPAddress address(Words<Family>::family);
    return address;
}

}  // namespace

template <class Family>
class EndpointOptionPimpl : public SOME_IP_SD_Option_Pimpl
{
public:
    using W = Words<Family>;
    using AddressBytes = std::array<std::uint8_t, Family::addressLength>;

    explicit EndpointOptionPimpl(OptionType::Type_t type)
        : SOME_IP_SD_Option_Pimpl(type, Family::optionLength)
    {
        setValid(false);
    }

    EndpointOptionPimpl(OptionType::Type_t type, const std::uint8_t* address, std::uint16_t port,
                        OptionL4Protocol::L4Protocol_t protocol)
        : EndpointOptionPimpl(type)
    {
        if (!address)
            return;
        std::copy_n(address, m_addressBytes.size(), m_addressBytes.begin());
        setValid(initCommon(port, protocol) && initAddress());
    }

    EndpointOptionPimpl(OptionType::Type_t type, const std::string& address, std::uint16_t port,
                        OptionL4Protocol::L4Protocol_t protocol)
        : EndpointOptionPimpl(type)
    {
        if (!initAddress(address))
            return;
        setValid(initCommon(port, protocol));
    }

    std::ostream& serialise(std::ostream& stream) const override
    {
        SOME_IP_SD_Option_Pimpl::serialise(stream);
        WireWriter writer(stream);
        writer.write(m_addressBytes, m_reserved01, static_cast<std::uint8_t>(m_l4Proto), m_portNumber);
        writer.checkWritten(W::className, specificSize());
        return stream;
    }

    std::streamsize deserialise(std::istream& stream) override
    {
        SOME_IP_SD_Option_Pimpl::deserialise(stream);
        AddressBytes address{};
        std::uint8_t reserved = 0;
        std::uint8_t protocol = 0;
        std::uint16_t port = 0;
        WireReader reader(stream);
        reader.read(address, reserved, protocol, port);
        if (reader.checkRead(W::readName, specificSize())) {
            m_addressBytes = address;
            const bool good = initCommon(port, static_cast<OptionL4Protocol::L4Protocol_t>(protocol));
            setValid(initAddress() && good);
        }
        return reader.count();
    }

    const char* kind() const override { return W::textKind; }

    void printSpecific(std::ostream& stream) const override
    {
        static constexpr const char* names[] = {"ENDPOINT", "MULTICAST", "SD_ENDPOINT"};
        const auto type = std::find(Family::types.begin(), Family::types.end(), getType());
        stream << "Type(" << (type == Family::types.end() ? "<UNKNOWN>" : names[type - Family::types.begin()])
               << "), " << W::openAddress << address().toString() << W::closeAddress << ":" << m_portNumber
               << "), ";
        if (m_l4Proto == OptionL4Protocol::TCP)
            stream << "L4(TCP)";
        else if (m_l4Proto == OptionL4Protocol::UDP)
            stream << "L4(UDP)";
        else
            stream << "L4(0x" << std::hex << +m_l4Proto << "=UNKNOWN)";
    }

    const IPAddress& address() const { return m_address ? *m_address : unspecified<Family>(); }
    const AddressBytes& addressBytes() const { return m_addressBytes; }
    std::uint16_t port() const { return m_portNumber; }
    OptionL4Protocol::L4Protocol_t protocol() const { return m_l4Proto; }

private:
    /// Takes port and protocol over; false, after an error line, when type or protocol do not fit: then
    /// neither is kept.
    bool initCommon(std::uint16_t port, OptionL4Protocol::L4Protocol_t protocol)
    {
        if (std::find(Family::types.begin(), Family::types.end(), getType()) == Family::types.end()) {
            SD_LOG(Error) << W::wrongType << "but 0x" << TwoDigits{getType()} << " given!";
            return false;
        }
        if (protocol != OptionL4Protocol::UDP && protocol != OptionL4Protocol::TCP) {
            SD_LOG(Error) << W::wrongProtocol << "but 0x" << TwoDigits{protocol} << " given!";
            return false;
        }
        m_reserved01 = 0;
        m_l4Proto = protocol;
        m_portNumber = port;
        return true;
    }

    /// Makes the address from its bytes.
    bool initAddress()
    {
        try {
            m_address.emplace(m_addressBytes.data(), static_cast<poco_socklen_t>(m_addressBytes.size()));
            return true;
        }
        catch (const Poco::InvalidArgumentException&) {
            SD_LOG(Error) << W::readName << " received an invalid IP address!";
            return false;
        }
    }

    /// Makes the address and its bytes from a text.
    bool initAddress(const std::string& text)
    {
        try {
            const IPAddress parsed(text);
            if (parsed.family() == W::family) {
                m_address.emplace(parsed);
                std::copy_n(static_cast<const std::uint8_t*>(parsed.addr()), m_addressBytes.size(),
                            m_addressBytes.begin());
                return true;
            }
        }
        catch (const Poco::Exception&) {
            // told like an address of the wrong family
        }
        SD_LOG(Error) << W::className << W::wrongAddress;
        return false;
    }

    std::optional<IPAddress> m_address;  // none is the unspecified one
    AddressBytes m_addressBytes{};
    std::uint8_t m_reserved01 = 0;
    OptionL4Protocol::L4Protocol_t m_l4Proto = OptionL4Protocol::NONE;
    std::uint16_t m_portNumber = 0;
};

template <class Family>
EndpointOption<Family>::EndpointOption(OptionType::Type_t type)
    : SOME_IP_SD_Option(new EndpointOptionPimpl<Family>(type))
    , m_thisImplementation(dynamic_cast<EndpointOptionPimpl<Family>*>(implementation()))
{
    logFault(faultOfEmpty(Words<Family>::kind, isValid(), m_thisImplementation != nullptr));
}

template <class Family>
EndpointOption<Family>::EndpointOption(OptionType::Type_t type, const std::uint8_t* address,
                                       std::uint16_t port, OptionL4Protocol::L4Protocol_t protocol)
    : SOME_IP_SD_Option(new EndpointOptionPimpl<Family>(type, address, port, protocol))
    , m_thisImplementation(dynamic_cast<EndpointOptionPimpl<Family>*>(implementation()))
{
    logFault(faultOfValues("Array ", Words<Family>::brief, isValid(), m_thisImplementation != nullptr));
}

template <class Family>
EndpointOption<Family>::EndpointOption(OptionType::Type_t type, const std::string& address,
                                       std::uint16_t port, OptionL4Protocol::L4Protocol_t protocol)
    : SOME_IP_SD_Option(new EndpointOptionPimpl<Family>(type, address, port, protocol))
    , m_thisImplementation(dynamic_cast<EndpointOptionPimpl<Family>*>(implementation()))
{
    logFault(faultOfValues("String ", Words<Family>::brief, isValid(), m_thisImplementation != nullptr));
}

template <class Family>
const IPAddress& EndpointOption<Family>::getIP() const
{
    return m_thisImplementation->address();
}

template <class Family>
const std::uint8_t* EndpointOption<Family>::getIP_asBytes() const
{
    return m_thisImplementation->addressBytes().data();
}

template <class Family>
std::uint16_t EndpointOption<Family>::getPort() const
{
    return m_thisImplementation->port();
}

template <class Family>
OptionL4Protocol::L4Protocol_t EndpointOption<Family>::getL4Protocol() const
{
    return m_thisImplementation->protocol();
}

template class EndpointOption<IPv4Family>;
template class EndpointOption<IPv6Family>;

}  // namespace Nubo::ServiceDiscovery
