#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "Multicast/MulticastReceiver.h"
#include "support/Wire.h"

#include <Poco/Net/SocketAddress.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

/// Datagrams of another unit, put together by hand from hexadecimal text. Only lengths and the texts of
/// configuration options are computed.
namespace Nubo::ServiceDiscovery::Testing::Packets {

/// The address of the other unit, as bytes and as the origin of its datagrams.
constexpr auto otherUnit = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 02";
constexpr auto otherUnitOrigin = "[fd00::2]:30491";

inline std::string bigEndian16(std::size_t value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline std::string bigEndian32(std::size_t value)
{
    return bigEndian16(value >> 16) + bigEndian16(value);
}

/// An endpoint with TCP and port 8080.
inline std::string ipv6Option(const std::string& address = otherUnit)
{
    return "00 15 06 00"_bytes + fromHex(address) + "00 06 1f 90"_bytes;
}

inline std::string ipv4Option()
{
    return "00 09 04 00 c0 a8 00 02 00 06 1f 90"_bytes;
}

inline std::string loadBalancingOption()
{
    return "00 05 02 00 00 01 00 02"_bytes;
}

inline std::string optionOfUnknownType()
{
    return "00 03 77 00 aa bb"_bytes;
}

/// A configuration option with texts such as "version=1.0.0".
inline std::string configurationOption(const std::vector<std::string>& texts)
{
    std::string string;
    for (const std::string& text : texts)
        string += configText(text);
    return bigEndian16(1 + string.size() + 1) + "01 00"_bytes + string + "00"_bytes;
}

/// The configuration option of an offer of that name.
inline std::string offerConfiguration(const std::string& name)
{
    return configurationOption({"l6proto=nubo", "otherserv=" + name, "txtvers=1", "version=1.0.0"});
}

/// The fields of an entry, each as hexadecimal text.
struct Entry
{
    std::string type = "01";        ///< an offer
    std::string runs = "00 01 11";  ///< options 0 and 1, in a run each
    std::string instance = "00 01";
    std::string ttl = "00 00 78";  ///< 120 s

    std::string bytes() const
    {
        return fromHex(type + runs + "ff fe" + instance + "01" + ttl + "00 00 00 00");
    }
};

/// A complete packet with these entries and options.
inline std::string packet(const std::string& entries, const std::string& options)
{
    const std::string payload =
        "e0 00 00 00"_bytes + bigEndian32(entries.size()) + entries + bigEndian32(options.size()) + options;
    return "ff ff 81 00"_bytes + bigEndian32(payload.size() + 8) + "00 00 00 01 01 01 02 00"_bytes + payload;
}

/// A packet with one entry that refers to all options, of whatever kind.
inline std::string packetWith(const std::string& entryType, const std::vector<std::string>& options,
                              const std::string& ttl = "00 00 78")
{
    std::string all;
    for (const std::string& option : options)
        all += option;
    Entry entry{entryType, "00 00" + std::to_string(options.size()) + "0", "00 01", ttl};
    return packet(entry.bytes(), all);
}

/// Common packets, for version 1.0.0 at port 8080 of the other unit.
inline std::string offer(const std::string& name, const std::string& ttl = "00 00 78",
                         const std::string& address = otherUnit)
{
    Entry entry;
    entry.ttl = ttl;
    return packet(entry.bytes(), ipv6Option(address) + offerConfiguration(name));
}

inline std::string stopOffer(const std::string& name)
{
    return offer(name, "00 00 00");
}

inline std::string find(const std::string& name)
{
    const Entry entry{"00", "00 00 01", "ff ff", "00 00 78"};
    return packet(entry.bytes(), configurationOption({"l6proto=nubo", "otherserv=" + name, "txtvers=1"}));
}

inline Multicast::MulticastDataPtr datagram(const std::string& bytes)
{
    return new Multicast::MulticastReceiver::MulticastData(bytes.data(), bytes.size(),
                                                           Poco::Net::SocketAddress(otherUnitOrigin));
}

/// The first entry of a packet, with its options, as the request handler hands it on.
inline SOME_IP_SD_Header::EntryData firstEntryOf(const std::string& bytes)
{
    SOME_IP_SD_Header received(bytes.size());
    std::istringstream stream(bytes);
    stream >> received;
    return received.getEntryData(0);
}

}  // namespace Nubo::ServiceDiscovery::Testing::Packets
