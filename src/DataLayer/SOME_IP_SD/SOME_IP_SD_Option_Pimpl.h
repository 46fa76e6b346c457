#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"

#include <ios>

namespace Nubo::ServiceDiscovery {

/// The data of an option and the work on its bytes.
class SOME_IP_SD_Option_Pimpl
{
public:
    SOME_IP_SD_Option_Pimpl(OptionType::Type_t type, std::uint16_t length);
    virtual ~SOME_IP_SD_Option_Pimpl();

    /// Writes the four bytes that all kinds share; a kind adds its own.
    virtual std::ostream& serialise(std::ostream& stream) const;

    /// Reads the reserved byte behind the type byte and returns 1; a kind returns the size of its own part.
    virtual std::streamsize deserialise(std::istream& stream);

    /// Start and end of the text for the log.
    virtual const char* kind() const { return "<UNKNOWN OPTION TYPE>"; }
    virtual void printSpecific(std::ostream&) const {}

    bool isValid() const { return m_valid; }
    void setValid(bool valid) { m_valid = valid; }

    OptionType::Type_t getType() const { return m_type; }
    std::uint16_t getLength() const { return m_length; }
    void setLength(std::uint16_t length) { m_length = length; }

    /// Number of bytes that the length field leaves to the kind's own part.
    std::streamsize specificSize() const { return std::streamsize{m_length} - 1; }

private:
    bool m_valid = true;
    std::uint16_t m_length;
    const OptionType::Type_t m_type;
    std::uint8_t m_reserved00 = 0;
};

}  // namespace Nubo::ServiceDiscovery
