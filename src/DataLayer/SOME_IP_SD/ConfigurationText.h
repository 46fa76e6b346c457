#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

/// The rules of the texts in a configuration string. A fault converts to false when nothing is wrong;
/// streamed, it is the line of the log.
namespace Nubo::ServiceDiscovery {

/// A character that a text must not contain, or not there.
struct TextFault
{
    enum class Reason : std::uint8_t
    {
        None,
        Zero,
        OutOfRange,
        ForbiddenStart,
        SecondEquals
    };

    Reason reason = Reason::None;
    std::uint8_t character = 0;
    std::uint8_t firstEquals = 0;   ///< position
    std::uint8_t secondEquals = 0;  ///< position

    explicit operator bool() const { return reason != Reason::None; }
};

std::ostream& operator<<(std::ostream& stream, const TextFault& fault);

/// Checks the `n` characters of one text and returns the position of its "=" (0: it has none), unless there
/// is a fault. No text at all is fine: callers guard the lengths themselves.
TextFault faultOfText(const std::uint8_t* s, std::uint8_t n, std::uint8_t* equalsPosition);

/// A pair that cannot be put into one text. It refers to the pair.
struct PairFault
{
    enum class Reason : std::uint8_t
    {
        None,
        Key,
        Value,
        Length
    };

    Reason reason = Reason::None;
    TextFault ofText;  ///< of the key or the value; it has a line of the log before this one
    const std::string& key;
    const std::string& value;

    explicit operator bool() const { return reason != Reason::None; }
};

std::ostream& operator<<(std::ostream& stream, const PairFault& fault);

PairFault faultOfPair(const std::string& key, const std::string& value);

/// The length byte of the pair's text. A pair with an empty value is the bare key.
inline std::size_t lengthOfPair(const std::string& key, const std::string& value)
{
    return value.empty() ? key.size() : key.size() + sizeof('=') + value.size();
}

/// What the pair takes in a configuration string, with its length byte.
inline std::size_t sizeOfPair(const std::string& key, const std::string& value)
{
    return sizeof(std::uint8_t) + lengthOfPair(key, value);
}

/// A configuration string that exceeds the length field of its option.
struct StringFault
{
    std::size_t length = 0;  ///< 0: it fits

    explicit operator bool() const { return length != 0; }
};

std::ostream& operator<<(std::ostream& stream, const StringFault& fault);

StringFault faultOfStringLength(std::size_t length);

}  // namespace Nubo::ServiceDiscovery
