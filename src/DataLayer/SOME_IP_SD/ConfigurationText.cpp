#include "DataLayer/SOME_IP_SD/ConfigurationText.h"

#include <ostream>

namespace Nubo::ServiceDiscovery {

namespace {

constexpr std::uint8_t lowestCharacter = 0x20;
constexpr std::uint8_t highestCharacter = 0x7e;
constexpr std::size_t longestText = 255;
constexpr std::size_t longestOption = 65535;

/// Streams a character as it is and as "0x" and its hexadecimal value.
struct QuotedCharacter
{
    std::uint8_t value;

    friend std::ostream& operator<<(std::ostream& stream, QuotedCharacter character)
    {
        return stream << "'" << static_cast<char>(character.value) << "' = 0x" << std::hex
                      << +character.value;
    }
};

/// A key or a value.
struct PartCheck
{
    bool isGood;
    TextFault fault;
};

PartCheck checkPart(const std::string& text)
{
    if (text.size() > longestText)
        return {false, {}};
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    std::uint8_t equals = 0;
    const TextFault fault = faultOfText(bytes, static_cast<std::uint8_t>(text.size()), &equals);
    return {!fault && equals == 0, fault};
}

}  // namespace

TextFault faultOfText(const std::uint8_t* s, std::uint8_t n, std::uint8_t* equalsPosition)
{
    using Reason = TextFault::Reason;
    std::uint8_t equals = 0;  // position 0 can never hold "="
    for (std::uint8_t i = 0; s && i < n; ++i) {
        const std::uint8_t c = s[i];
        if (c == 0x00)
            return {Reason::Zero};
        if (c < lowestCharacter || c > highestCharacter)
            return {Reason::OutOfRange, c};
        if (i == 0 && (c == ' ' || c == '='))
            return {Reason::ForbiddenStart, c};
        if (c == '=') {
            if (equals != 0)
                return {Reason::SecondEquals, c, equals, i};
            equals = i;
        }
    }
    if (equalsPosition)
        *equalsPosition = equals;
    return {};
}

std::ostream& operator<<(std::ostream& stream, const TextFault& fault)
{
    using Reason = TextFault::Reason;
    switch (fault.reason) {
        case Reason::None:
            break;
        case Reason::Zero:
            return stream << "isValidSubstring: given string is '0' terminated!";
        case Reason::OutOfRange:
            return stream << "isValidSubstring: given string contains out-of-range character "
                          << QuotedCharacter{fault.character} << std::hex << " [0x" << +lowestCharacter
                          << ",0x" << +highestCharacter << "]!";
        case Reason::ForbiddenStart:
            return stream << "isValidSubstring: given string starts with forbidden character "
                          << QuotedCharacter{fault.character} << "!";
        case Reason::SecondEquals:
            // Kept for compatibility: each position is written as one raw byte.
            return stream << "isValidSubstring: given string contains at least two '=' signs, first at "
                          << fault.firstEquals << ", second at " << fault.secondEquals << "!";
    }
    return stream;
}

PairFault faultOfPair(const std::string& key, const std::string& value)
{
    using Reason = PairFault::Reason;
    const PartCheck keyCheck = checkPart(key);
    if (key.empty() || !keyCheck.isGood)
        return {Reason::Key, keyCheck.fault, key, value};
    const PartCheck valueCheck = checkPart(value);
    if (!valueCheck.isGood)
        return {Reason::Value, valueCheck.fault, key, value};
    const bool isTooLong = lengthOfPair(key, value) > longestText;
    return {isTooLong ? Reason::Length : Reason::None, {}, key, value};
}

std::ostream& operator<<(std::ostream& stream, const PairFault& fault)
{
    using Reason = PairFault::Reason;
    switch (fault.reason) {
        case Reason::None:
            break;
        case Reason::Key:
            return stream << "initFromPairs: invalid Configuration-key detected: '" << fault.key << "'!";
        case Reason::Value:
            return stream << "initFromPairs: invalid Configuration-value detected: '" << fault.value << "'!";
        case Reason::Length:
            return stream << "initFromPairs: detected too long Configuration-pair, length of '"
                          << lengthOfPair(fault.key, fault.value) << "' exceeds per substring length field!";
    }
    return stream;
}

StringFault faultOfStringLength(std::size_t length)
{
    constexpr std::size_t reservedAndTerminator = 2;
    return {length + reservedAndTerminator > longestOption ? length : 0};
}

std::ostream& operator<<(std::ostream& stream, const StringFault& fault)
{
    return stream << "copyConfigurationString: generated Configuration-string is too long, length of '"
                  << fault.length + 1 << "' exceeds Option length field!";
}

}  // namespace Nubo::ServiceDiscovery
