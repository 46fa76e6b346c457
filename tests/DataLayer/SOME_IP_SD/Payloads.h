#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/Wire.h"

#include <cstddef>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

/// Shared by the tests of payloads: elements as hexadecimal text, and a fixture.
namespace Nubo::ServiceDiscovery::Testing {

// Elements on the wire.
inline const std::string offer = "01 00 00 20 ff fe 00 01 01 00 00 03 00 00 00 00 ";
inline const std::string find = "00 00 00 00 ff fe ff ff ff 00 00 03 ff ff ff ff ";
inline const std::string subscribe = "06 00 00 00 12 34 00 01 01 00 00 03 00 85 00 07 ";
inline const std::string unknownEntry = "05 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 ";
inline const std::string ipv6 = "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 1a ";
inline const std::string configuration = "00 08 01 00 01 61 03 62 3d 32 00 ";
inline const std::string loadBalancing = "00 05 02 00 00 01 00 02 ";

inline std::size_t sizeOf(const std::string& hex)
{
    return fromHex(hex).size();
}

/// An array with its length in front.
inline std::string arrayOf(const std::string& hex)
{
    return toHex(Packets::bigEndian32(sizeOf(hex))) + " " + hex;
}

inline std::string payloadOf(const std::string& entries, const std::string& options)
{
    return "e0 00 00 00 " + arrayOf(entries) + arrayOf(options);
}

/// The line about array lengths that contradict what could be read.
inline std::string sizeLine(std::size_t entries, std::size_t options)
{
    return "Error: SOME_IP_SD header size>=" + std::to_string(12 + entries + options) +
           " read by deserialisation and length fields contain '" + std::to_string(entries) + "|" +
           std::to_string(options) + "' (Entries|Options)!";
}

/// Fixture with a payload to be filled, written or read. It catches the log.
struct PayloadTest : ::testing::Test
{
    /// Reads a payload that fills the rest of its datagram.
    void read(const std::string& hex)
    {
        stream = streamOf(hex);
        metaData.remainingPacketLength = unread(stream);
        stream >> payload;
    }

    LogCatcher log;
    SOME_IP_SD_Types::MetaData metaData{1000};
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
    std::istringstream stream;
};

}  // namespace Nubo::ServiceDiscovery::Testing
