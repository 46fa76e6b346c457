#include "soak/Offers.h"

#include <array>
#include <cstddef>
#include <stdexcept>

#include <arpa/inet.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

// Offsets of the sender's address and of the datagram in an Ethernet frame.
constexpr std::size_t sourceAt = 14 + 8;
constexpr std::size_t datagramAt = 14 + 40 + 8;

// Offsets of fields in a packet that has one entry with an endpoint and a configuration option.
constexpr std::size_t lengthAt = 0x04;
constexpr std::size_t countedFrom = 0x08;  // first byte that the length field counts
constexpr std::size_t sessionAt = 0x0A;
constexpr std::size_t entryTypeAt = 0x18;
constexpr std::size_t ttlAt = 0x21;
constexpr std::size_t addressAt = 0x30;
constexpr std::size_t portAt = 0x42;
constexpr char offerType = 1;

std::size_t numberAt(const std::string& bytes, std::size_t at, std::size_t size)
{
    std::size_t number = 0;
    for (std::size_t i = at; i < at + size; ++i)
        number = number << 8 | static_cast<unsigned char>(bytes.at(i));
    return number;
}

std::string addressText(const std::string& bytes)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (bytes.size() != sizeof(in6_addr))
        throw std::out_of_range("no address");
    return ::inet_ntop(AF_INET6, bytes.data(), text.data(), text.size());
}

/// The value after the key. The length of the text is in the byte before the key.
std::string valueOf(const std::string& key, const std::string& packet)
{
    const std::size_t at = packet.find(key);
    if (at == std::string::npos)
        throw std::out_of_range("no " + key);
    return packet.substr(at + key.size(), numberAt(packet, at - 1, 1) - key.size());
}

}  // namespace

std::string sourceOf(const std::string& frame)
{
    return addressText(frame.substr(sourceAt, sizeof(in6_addr)));
}

std::vector<SentPacket> packetsIn(const std::string& datagram)
{
    std::vector<SentPacket> packets;
    for (std::size_t begin = 0; begin < datagram.size();) {
        const std::size_t size = countedFrom + numberAt(datagram, begin + lengthAt, 4);
        const std::string packet = datagram.substr(begin, size);
        begin += size;
        const auto session = static_cast<std::uint16_t>(numberAt(packet, sessionAt, 2));
        if (packet.at(entryTypeAt) != offerType) {
            packets.push_back({session, false, {}, 0});
            continue;
        }
        const Service service{valueOf("otherserv=", packet),
                              addressText(packet.substr(addressAt, sizeof(in6_addr))),
                              static_cast<unsigned short>(numberAt(packet, portAt, 2))};
        packets.push_back({session, true, service, static_cast<std::uint32_t>(numberAt(packet, ttlAt, 3))});
    }
    return packets;
}

std::vector<SentOffer> offersIn(const std::string& frame)
{
    std::vector<SentOffer> offers;
    for (const SentPacket& packet : packetsIn(frame.substr(datagramAt))) {
        if (packet.isOffer)
            offers.push_back(
                {packet.service, packet.ttl == 0 ? Model::Message::StopOffer : Model::Message::Offer});
    }
    return offers;
}

}  // namespace Nubo::ServiceDiscovery::Testing
