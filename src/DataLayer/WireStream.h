#pragma once

#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>

#include <cstdint>
#include <istream>
#include <ostream>

/// The two types through which every field of the wire format passes. All integers are big-endian.
namespace Nubo::ServiceDiscovery {

/// Reads fields and counts the bytes that the stream really delivered for them. After the stream has
/// failed, every further field is 0 and counts nothing.
class WireReader
{
public:
    explicit WireReader(std::istream& stream)
        : m_stream(stream)
        , m_reader(stream, Poco::BinaryReader::BIG_ENDIAN_BYTE_ORDER)
    {}

    template <class Integer>
    WireReader& operator>>(Integer& value)
    {
        value = 0;
        m_reader >> value;
        m_count += m_stream.gcount();
        return *this;
    }

    WireReader& readBytes(void* bytes, std::size_t size)
    {
        m_reader.readRaw(static_cast<char*>(bytes), static_cast<std::streamsize>(size));
        m_count += m_stream.gcount();
        return *this;
    }

    /// Passes over bytes. (std::istream::ignore also looks at the byte that follows and so takes a stream
    /// that ends there for one that ended too early.)
    WireReader& skip(std::streamsize size);

    /// Reads a 24-bit integer with the stream's formatted input and counts three bytes.
    ///
    /// Formatted input passes over white space (0x09 to 0x0D, 0x20) while the stream's skipws flag is set,
    /// so a value that contains such a byte cannot be received: what follows is read out of step. Kept for
    /// compatibility.
    WireReader& readFormatted24(std::uint32_t& value);

    std::streamsize count() const { return m_count; }

private:
    std::istream& m_stream;
    Poco::BinaryReader m_reader;
    std::streamsize m_count = 0;
};

/// Writes fields and tells by how many bytes the stream advanced since the writer was made.
class WireWriter
{
public:
    explicit WireWriter(std::ostream& stream)
        : m_stream(stream)
        , m_writer(stream, Poco::BinaryWriter::BIG_ENDIAN_BYTE_ORDER)
        , m_start(stream.tellp())
    {}

    template <class Integer>
    WireWriter& operator<<(Integer value)
    {
        m_writer << value;
        return *this;
    }

    /// Writes the low 24 bits.
    WireWriter& write24(std::uint32_t value);

    WireWriter& writeBytes(const void* bytes, std::size_t size)
    {
        m_writer.writeRaw(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
        return *this;
    }

    std::streamoff written() const { return m_stream.tellp() - m_start; }

    /// Logs an error when another number of bytes was written than `what` has on the wire.
    void checkWritten(const char* what, std::streamoff expected) const;

private:
    std::ostream& m_stream;
    Poco::BinaryWriter m_writer;
    const std::streamoff m_start;
};

}  // namespace Nubo::ServiceDiscovery
