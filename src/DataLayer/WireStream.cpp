#include "DataLayer/WireStream.h"

namespace Nubo::ServiceDiscovery {

WireReader& WireReader::skip(std::streamsize size)
{
    std::array<char, 256> skipped;
    while (size > 0 && m_stream.good()) {
        const auto part = std::min(static_cast<std::size_t>(size), skipped.size());
        readBytes(skipped.data(), part);
        size -= static_cast<std::streamsize>(part);
    }
    return *this;
}

WireReader& WireReader::readFormatted24(std::uint32_t& value)
{
    value = 0;
    for (int i = 0; i < 3; ++i) {
        char byte = 0;
        m_stream >> byte;
        value = value << 8 | static_cast<std::uint8_t>(byte);
        ++m_count;
    }
    return *this;
}

void WireWriter::checkWritten(const char* what, std::streamoff expected, std::streamoff size) const
{
    const std::streamoff count = written();
    if (count != expected)
        SD_LOG(Error) << what << " size=" << size << ", but " << count << " written by serialisation!";
}

}  // namespace Nubo::ServiceDiscovery
