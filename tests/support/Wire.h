#pragma once

#include <cstddef>
#include <istream>
#include <sstream>
#include <stdexcept>
#include <string>

/// Bytes on the wire in the notation of tests: pairs of lower-case hexadecimal digits, separated by blanks,
/// "ff ff 81 00".
namespace Nubo::ServiceDiscovery::Testing {

inline std::string toHex(const void* bytes, std::size_t size)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<const unsigned char*>(bytes)[i];
        text += (i == 0 ? "" : " ");
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return text;
}

inline std::string toHex(const std::string& bytes)
{
    return toHex(bytes.data(), bytes.size());
}

/// The bytes of a hexadecimal text. Blanks and line ends are ignored.
inline std::string fromHex(const std::string& text)
{
    std::string bytes;
    int high = -1;
    for (const char c : text) {
        int digit = 0;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c == ' ' || c == '\n')
            continue;
        else
            throw std::invalid_argument("no hexadecimal digit: " + std::string(1, c));
        if (high < 0) {
            high = digit;
        }
        else {
            bytes += static_cast<char>(high << 4 | digit);
            high = -1;
        }
    }
    if (high >= 0)
        throw std::invalid_argument("half a byte at the end of: " + text);
    return bytes;
}

inline std::string operator""_bytes(const char* text, std::size_t size)
{
    return fromHex(std::string(text, size));
}

/// The output of the object's stream operator, as hexadecimal text.
template <class Object>
std::string written(const Object& object)
{
    std::ostringstream stream;
    stream << object;
    return toHex(stream.str());
}

/// A stream over bytes given as hexadecimal text.
inline std::istringstream streamOf(const std::string& hex)
{
    return std::istringstream(fromHex(hex));
}

/// Number of bytes that have not been read from the stream.
inline std::streamsize unread(std::istream& stream)
{
    return stream.rdbuf()->in_avail();
}

/// Gives access to the result of reading an entry or an option.
template <class Part>
struct Opened : Part
{
    using Part::Part;

    std::streamsize readBytes(const std::string& hex)
    {
        std::istringstream stream = streamOf(hex);
        return this->implementation()->deserialise(stream);
    }
};

/// A configuration text on the wire: one length byte before the characters.
inline std::string configText(const std::string& text)
{
    return static_cast<char>(text.size()) + text;
}

}  // namespace Nubo::ServiceDiscovery::Testing
