#pragma once

#include "capture/Capture.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace NuboSd {

/// One entry of a captured packet, or the reason why packet or datagram are malformed.
struct SeenEntry
{
    std::string kind;    ///< one of `kinds`
    std::string reason;  ///< of a malformed one
    std::string name;
    std::vector<std::string> versions;
    std::vector<std::string> categories;
    std::string address;
    std::uint16_t port = 0;
    std::string protocol;
    std::uint16_t serviceID = 0;
    std::uint16_t instanceID = 0;
    std::uint8_t majorVersion = 0;
    std::uint32_t minorVersion = 0;
    std::uint32_t ttl = 0;
    std::uint16_t session = 0;

    static const std::vector<std::string> kinds;
    static const char* const malformed;
};

/// Decodes a datagram with the library's own codec; the reasons for malformed parts are those of the codec.
std::vector<SeenEntry> decode(const SeenDatagram& datagram);

}  // namespace NuboSd
