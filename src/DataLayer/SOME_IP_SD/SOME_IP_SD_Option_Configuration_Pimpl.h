#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "DataLayer/TextList.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace Nubo::ServiceDiscovery {

/// The data of a configuration option and the work on its bytes. It is initialised once: from a string,
/// from pairs, or by reading.
class SOME_IP_SD_Option_Configuration_Pimpl : public SOME_IP_SD_Option_Pimpl
{
public:
    explicit SOME_IP_SD_Option_Configuration_Pimpl(std::uint16_t length);
    SOME_IP_SD_Option_Configuration_Pimpl(const std::uint8_t* string, std::uint16_t length);
    explicit SOME_IP_SD_Option_Configuration_Pimpl(const ConfigurationPairs& pairs);
    ~SOME_IP_SD_Option_Configuration_Pimpl() override;

    std::ostream& serialise(std::ostream& stream) const override;

    /// Leaves the stream at the end of the option in every case.
    std::streamsize deserialise(std::istream& stream) override;

    const char* kind() const override;
    void printSpecific(std::ostream& stream) const override;

    const std::uint8_t* string() const { return m_configurationString.get(); }
    std::uint16_t stringLength() const { return static_cast<std::uint16_t>(getLength() - 2); }
    const ConfigurationPairs& pairs() const { return m_configurationPairs; }

    /// The values of all pairs with that key, copied once.
    TextList shareAllValues(const std::string& key);

    /// Checks the `n` characters of one text and returns the position of its "=" (0: it has none). An empty
    /// text is valid: callers guard the lengths themselves.
    static bool isValidSubstring(const std::uint8_t* s, std::uint8_t n, std::uint8_t* equalsPosition);

    /// Whether a text of `length` characters can be split at its "=". A second line of defence: no text that
    /// isValidSubstring() passed can fail here.
    static bool isValidSplit(std::size_t length, std::size_t equals);

    /// Parses a string of `length` bytes with a zero byte behind it, and keeps a copy. Pairs in front of a
    /// fault are kept.
    bool initFromString(const std::uint8_t* s, std::uint16_t length);

    bool initFromPairs(const ConfigurationPairs& pairs);

    /// Keeps a copy of `length` bytes and sets the length field accordingly. False when they exceed the
    /// length field, which then has wrapped.
    bool copyConfigurationString(const std::uint8_t* s, std::uint32_t length);

private:
    bool insertSubstring(std::string_view substring, std::uint8_t equals);

    ConfigurationPairs m_configurationPairs;
    std::unique_ptr<std::uint8_t[]> m_configurationString;
    std::map<std::string, std::shared_ptr<const TextList::Shared>> m_sharedValues;
};

}  // namespace Nubo::ServiceDiscovery
