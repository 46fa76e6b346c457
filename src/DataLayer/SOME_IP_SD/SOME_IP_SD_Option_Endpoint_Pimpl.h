#pragma once

#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Endpoint.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "DataLayer/WireStream.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <iomanip>
#include <optional>
#include <ostream>
#include <string>

/// What the implementations of both families of endpoint options share. Only the sources of the families
/// include it; each specialises EndpointWords and EndpointAddress and instantiates EndpointOption.
namespace Nubo::ServiceDiscovery {

/// The family's words in log lines.
template <class Family>
struct EndpointWords;

/// The family's address, as an object (none is the unspecified address) and as bytes.
template <class Family>
struct EndpointAddress;

/// Streams a byte as two hexadecimal digits.
struct TwoDigits
{
    std::uint8_t value;

    friend std::ostream& operator<<(std::ostream& stream, TwoDigits digits)
    {
        return stream << std::hex << std::setw(2) << std::setfill('0') << +digits.value;
    }
};

/// Why an endpoint is refused, as the log line has it.
template <class Family>
struct WrongAddress
{
    friend std::ostream& operator<<(std::ostream& stream, WrongAddress)
    {
        return stream << EndpointWords<Family>::className << EndpointWords<Family>::wrongAddress;
    }
};

template <class Family>
struct WrongProtocol
{
    OptionL4Protocol::L4Protocol_t protocol;

    friend std::ostream& operator<<(std::ostream& stream, WrongProtocol wrong)
    {
        return stream << EndpointWords<Family>::wrongProtocol << "but 0x" << TwoDigits{wrong.protocol}
                      << " given!";
    }
};

inline bool isEndpointProtocol(OptionL4Protocol::L4Protocol_t protocol)
{
    return protocol == OptionL4Protocol::UDP || protocol == OptionL4Protocol::TCP;
}

/// The data of an endpoint option and the work on its bytes.
template <class Family>
class EndpointOptionPimpl : public SOME_IP_SD_Option_Pimpl, private EndpointAddress<Family>
{
public:
    using W = EndpointWords<Family>;
    using IPAddress = Poco::Net::IPAddress;
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
        std::copy_n(address, this->addressBytes().size(), this->addressBytes().begin());
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
        writer.write(getAddressBytes(), m_reserved01, static_cast<std::uint8_t>(m_l4Proto), m_portNumber);
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
            this->addressBytes() = address;
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
               << "), " << W::openAddress << getAddress().toString() << W::closeAddress << ":" << m_portNumber
               << "), ";
        if (m_l4Proto == OptionL4Protocol::TCP)
            stream << "L4(TCP)";
        else if (m_l4Proto == OptionL4Protocol::UDP)
            stream << "L4(UDP)";
        else
            stream << "L4(0x" << std::hex << +m_l4Proto << "=UNKNOWN)";
    }

    const IPAddress& getAddress() const
    {
        static const IPAddress unspecified(W::family);
        const std::optional<IPAddress>& address = EndpointAddress<Family>::address();
        return address ? *address : unspecified;
    }
    const AddressBytes& getAddressBytes() const { return EndpointAddress<Family>::addressBytes(); }
    std::uint16_t getPort() const { return m_portNumber; }
    OptionL4Protocol::L4Protocol_t getProtocol() const { return m_l4Proto; }

private:
    /// Takes over port and protocol. False, after an error line, when type or protocol do not fit; neither is
    /// kept then.
    bool initCommon(std::uint16_t port, OptionL4Protocol::L4Protocol_t protocol)
    {
        if (std::find(Family::types.begin(), Family::types.end(), getType()) == Family::types.end()) {
            SD_LOG(Error) << W::wrongType << "but 0x" << TwoDigits{getType()} << " given!";
            return false;
        }
        if (!isEndpointProtocol(protocol)) {
            SD_LOG(Error) << WrongProtocol<Family>{protocol};
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
        const AddressBytes& bytes = getAddressBytes();
        try {
            this->address().emplace(bytes.data(), static_cast<poco_socklen_t>(bytes.size()));
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
                this->address().emplace(parsed);
                std::copy_n(static_cast<const std::uint8_t*>(parsed.addr()), Family::addressLength,
                            this->addressBytes().begin());
                return true;
            }
        }
        catch (const Poco::Exception&) {
            // logged like an address of the wrong family
        }
        SD_LOG(Error) << WrongAddress<Family>{};
        return false;
    }

    std::uint8_t m_reserved01 = 0;
    OptionL4Protocol::L4Protocol_t m_l4Proto = OptionL4Protocol::NONE;
    std::uint16_t m_portNumber = 0;
};

template <class Family>
EndpointOption<Family>::EndpointOption(OptionType::Type_t type)
    : EndpointOption::ImplementedBy(new typename Family::Implementation(type),
                                    toBeRead(EndpointWords<Family>::kind))
{}

template <class Family>
EndpointOption<Family>::EndpointOption(OptionType::Type_t type, const std::uint8_t* address,
                                       std::uint16_t port, OptionL4Protocol::L4Protocol_t protocol)
    : EndpointOption::ImplementedBy(new typename Family::Implementation(type, address, port, protocol),
                                    ofValues("Array ", EndpointWords<Family>::brief))
{}

template <class Family>
EndpointOption<Family>::EndpointOption(OptionType::Type_t type, const std::string& address,
                                       std::uint16_t port, OptionL4Protocol::L4Protocol_t protocol)
    : EndpointOption::ImplementedBy(new typename Family::Implementation(type, address, port, protocol),
                                    ofValues("String ", EndpointWords<Family>::brief))
{}

template <class Family>
const Poco::Net::IPAddress& EndpointOption<Family>::getIP() const
{
    return this->m_thisImplementation->getAddress();
}

template <class Family>
const std::uint8_t* EndpointOption<Family>::getIP_asBytes() const
{
    return this->m_thisImplementation->getAddressBytes().data();
}

template <class Family>
std::uint16_t EndpointOption<Family>::getPort() const
{
    return this->m_thisImplementation->getPort();
}

template <class Family>
OptionL4Protocol::L4Protocol_t EndpointOption<Family>::getL4Protocol() const
{
    return this->m_thisImplementation->getProtocol();
}

}  // namespace Nubo::ServiceDiscovery
