#pragma once

#include "DataLayer/SDService.h"
#include "support/Descriptions.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

/// The service "Media" at [fd00::1]:8080, version 1.0.0, and the bytes of its packets.
namespace Nubo::ServiceDiscovery::Testing {

// Parts of packets, each with a blank at the end so that they can be joined.
inline const std::string sdMessage = "ff ff 81 00 ";
inline const std::string versions = "01 01 02 00 ";
inline const std::string flags = "e0 00 00 00 ";
inline const std::string fd00_1 = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 ";

/// l6proto=nubo, otherserv=Media, txtvers=1, version=1.0.0
inline const std::string mediaConfiguration =
    "00 37 01 00 "
    "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
    "0f 6f 74 68 65 72 73 65 72 76 3d 4d 65 64 69 61 "
    "09 74 78 74 76 65 72 73 3d 31 "
    "0d 76 65 72 73 69 6f 6e 3d 31 2e 30 2e 30 "
    "00";

/// The offer of media() with that session ID, TTL and address.
inline std::string offerOfMedia(const std::string& session, const std::string& ttl = "00 00 78",
                                const std::string& address = fd00_1)
{
    return sdMessage + "00 00 00 76 00 00 " + session + " " + versions + flags +
           "00 00 00 10 "
           "01 00 01 11 ff fe 00 00 01 " +
           ttl +
           " 00 00 00 00 "
           "00 00 00 52 "
           "00 15 06 00 " +
           address + "00 06 1f 90 " + mediaConfiguration;
}

inline SDService::Ptr announcedService(const NuboServiceDescription& description)
{
    SDService::Ptr service = new SDService(description);
    service->setType(SDService::Type::ANNOUNCED);
    return service;
}

inline SDService::Ptr media(unsigned short port = 8080)
{
    return announcedService(describe("Media", "fd00::1", port));
}

/// Like media(), but with categories that make its packet that large.
inline NuboServiceDescription describeInPacketOf(std::size_t size)
{
    constexpr std::size_t sizeOfMedia = 126;
    constexpr std::size_t aroundCategory = 10;  // the length byte and "category="
    NuboServiceDescription description = describe("Media");
    for (std::size_t missing = size - sizeOfMedia; missing != 0;) {
        std::size_t part = std::min<std::size_t>(missing, 200);
        if (missing - part != 0 && missing - part < 20)
            part -= 20;  // so that enough is left for a further category
        description.addCategory(std::string(part - aroundCategory, 'c'));
        missing -= part;
    }
    return description;
}

inline SDService::Ptr serviceOfSize(std::size_t size)
{
    return announcedService(describeInPacketOf(size));
}

/// The session IDs of each datagram's packets.
inline std::vector<std::vector<unsigned>> sessionsOf(const std::vector<std::string>& datagrams)
{
    std::vector<std::vector<unsigned>> result;
    for (const std::string& bytes : datagrams) {
        const auto number = [&](std::size_t at) {
            return static_cast<unsigned>(static_cast<unsigned char>(bytes.at(at))) << 8 |
                   static_cast<unsigned char>(bytes.at(at + 1));
        };
        result.emplace_back();
        for (std::size_t at = 0; at < bytes.size(); at += number(at + 6) + 8)
            result.back().push_back(number(at + 10));
    }
    return result;
}

}  // namespace Nubo::ServiceDiscovery::Testing
