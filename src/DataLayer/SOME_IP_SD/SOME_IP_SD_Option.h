#pragma once

#include "DataLayer/ServiceDiscovery_Types.h"

#include <Poco/SharedPtr.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_Pimpl;

/// An option of a service-discovery payload: a variable record that entries refer to by its index. All
/// fields are big-endian on the wire:
///
///     offset 0 length (2): the bytes after the type byte, 2 type (1), 3 reserved (1),
///     4 fields of the kind
///
/// The implementation object holds the data and does the work on bytes. isValid() is false after a
/// construction or a read that failed. Not thread-safe.
class SOME_IP_SD_Option
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Option>;

    virtual ~SOME_IP_SD_Option();

    SOME_IP_SD_Option(const SOME_IP_SD_Option&) = delete;
    SOME_IP_SD_Option& operator=(const SOME_IP_SD_Option&) = delete;

    bool isValid() const;
    OptionType::Type_t getType() const;
    /// The length field: all bytes but the first three.
    std::uint16_t getLength() const;
    /// Size on the wire in bytes.
    std::uint32_t getSize() const;
    static constexpr std::uint32_t prefixSize = 3;  ///< length field and type

    /// The option as one line for the log, after `indent` tabs.
    std::string toString(unsigned int indent) const;

    /// An option of the class for a received type, to be filled by reading the bytes behind the type byte. A
    /// placeholder for an unknown type.
    static Ptr makeReceived(OptionType::Type_t type, std::uint16_t length);

    /// Smallest value of the length field of an option of this type.
    static std::uint16_t shortestLength(OptionType::Type_t type);

protected:
    /// Takes ownership. Without an implementation the option is unusable, and an error is logged.
    explicit SOME_IP_SD_Option(SOME_IP_SD_Option_Pimpl* implementation);

    SOME_IP_SD_Option_Pimpl* implementation() const { return m_implementation.get(); }
    void setLength(std::uint16_t length);

private:
    friend std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Option& option);
    friend std::istream& operator>>(std::istream& stream, SOME_IP_SD_Option& option);

    const std::unique_ptr<SOME_IP_SD_Option_Pimpl> m_implementation;
};

/// Writes the option.
std::ostream& operator<<(std::ostream& stream, const SOME_IP_SD_Option& option);

/// Reads the bytes behind the type byte; isValid() says whether they make sense.
std::istream& operator>>(std::istream& stream, SOME_IP_SD_Option& option);

}  // namespace Nubo::ServiceDiscovery
