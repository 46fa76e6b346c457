#pragma once

#include "DataLayer/Log.h"

#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>

/// The two types through which every field of the wire format passes. All integers are big-endian. One call
/// names consecutive fields in wire order and moves them as one block: a stream operation costs more than all
/// work on its bytes.
namespace Nubo::ServiceDiscovery {

/// A 24-bit integer to be written: the low bits of a value.
struct Low24
{
    std::uint32_t value;
};

/// Number of bytes that a field has on the wire: an unsigned integer, an array of bytes, or a 24-bit integer.
template <class Field>
inline constexpr std::size_t wireSize = sizeof(Field);
template <>
inline constexpr std::size_t wireSize<Low24> = 3;

/// Reads fields and counts the bytes that the stream delivered for them. Once the stream has failed, further
/// fields are 0 and count nothing.
class WireReader
{
public:
    explicit WireReader(std::istream& stream)
        : m_stream(stream)
        , m_reader(stream, Poco::BinaryReader::BIG_ENDIAN_BYTE_ORDER)
    {}

    /// The missing bytes of a partly delivered field are 0.
    template <class... Fields>
    WireReader& read(Fields&... fields)
    {
        std::array<std::uint8_t, (wireSize<Fields> + ...)> block{};
        readBytes(block.data(), block.size());
        const std::uint8_t* next = block.data();
        (take(next, fields), ...);
        return *this;
    }

    WireReader& readBytes(void* bytes, std::size_t size)
    {
        m_reader.readRaw(static_cast<char*>(bytes), static_cast<std::streamsize>(size));
        m_count += m_stream.gcount();
        return *this;
    }

    /// Skips bytes. (std::istream::ignore also peeks at the next byte, so a stream that ends there would
    /// count as having ended too early.)
    WireReader& skip(std::streamsize size);

    /// Reads a 24-bit integer with the stream's formatted input and counts three bytes.
    ///
    /// Formatted input skips white space (0x09 to 0x0D, 0x20) while the stream's skipws flag is set,
    /// so a value that contains such a byte cannot be received: the following fields are read out of step.
    /// Kept for compatibility.
    WireReader& readFormatted24(std::uint32_t& value);

    std::streamsize count() const { return m_count; }

    /// Whether the reader delivered the expected number of bytes; logs an error otherwise.
    bool checkRead(const char* what, std::streamsize expected) const
    {
        return checkCount(m_count, what, expected, expected);
    }
    /// For log lines that name a `size` other than the expected one, or have another `end`.
    template <class End>
    bool checkRead(const char* what, std::streamsize expected, std::streamsize size, const End& end) const
    {
        return checkCount(m_count, what, expected, size, end);
    }

    /// The same for bytes that were counted elsewhere.
    template <class End = const char*>
    static bool checkCount(std::streamsize count, const char* what, std::streamsize expected,
                           std::streamsize size, const End& end = "!")
    {
        if (count != expected)
            SD_LOG(Error) << what << " size=" << size << ", but " << count << " read by deserialisation"
                          << end;
        return count == expected;
    }

private:
    template <class Integer>
    static void take(const std::uint8_t*& next, Integer& value)
    {
        value = 0;
        for (const std::uint8_t* const end = next + sizeof value; next != end; ++next)
            value = static_cast<Integer>(value << 8 | *next);
    }

    template <std::size_t size>
    static void take(const std::uint8_t*& next, std::array<std::uint8_t, size>& bytes)
    {
        std::copy_n(next, size, bytes.begin());
        next += size;
    }

    std::istream& m_stream;
    Poco::BinaryReader m_reader;
    std::streamsize m_count = 0;
};

/// Writes fields and counts the bytes by which the stream has advanced since the writer was made.
class WireWriter
{
public:
    explicit WireWriter(std::ostream& stream)
        : m_stream(stream)
        , m_writer(stream, Poco::BinaryWriter::BIG_ENDIAN_BYTE_ORDER)
        , m_start(position())
    {}

    template <class... Fields>
    WireWriter& write(const Fields&... fields)
    {
        std::array<std::uint8_t, (wireSize<Fields> + ...)> block;
        std::uint8_t* next = block.data();
        (put(next, fields), ...);
        return writeBytes(block.data(), block.size());
    }

    WireWriter& writeBytes(const void* bytes, std::size_t size)
    {
        m_writer.writeRaw(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
        return *this;
    }

    std::streamoff written() const { return position() - m_start; }

    /// Logs an error unless the expected number of bytes was written.
    void checkWritten(const char* what, std::streamoff expected) const
    {
        checkWritten(what, expected, expected);
    }
    /// For log lines that name a `size` other than the expected one.
    void checkWritten(const char* what, std::streamoff expected, std::streamoff size) const;

private:
    static void put(std::uint8_t*& next, std::uint32_t value, std::size_t size)
    {
        while (size > 0)
            *next++ = static_cast<std::uint8_t>(value >> 8 * --size);
    }

    template <class Integer>
    static void put(std::uint8_t*& next, const Integer& value)
    {
        put(next, value, sizeof value);
    }

    static void put(std::uint8_t*& next, const Low24& field) { put(next, field.value, wireSize<Low24>); }

    template <std::size_t size>
    static void put(std::uint8_t*& next, const std::array<std::uint8_t, size>& bytes)
    {
        next = std::copy(bytes.begin(), bytes.end(), next);
    }

    /// The position as tellp() returns it; tellp() also prepares the stream for output, at the cost of a
    /// write.
    std::streamoff position() const
    {
        return m_stream.fail()
                   ? std::streamoff{-1}
                   : std::streamoff{m_stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::out)};
    }

    std::ostream& m_stream;
    Poco::BinaryWriter m_writer;
    const std::streamoff m_start;
};

}  // namespace Nubo::ServiceDiscovery
