#pragma once

#include "soak/Model.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// An offer or stop-offer in a datagram.
struct SentOffer
{
    Service service;
    Model::Message message;
};

/// The fields of a packet that the soak checks.
struct SentPacket
{
    std::uint16_t session;
    bool isOffer;  ///< or stop-offer; in other packets the remaining fields are empty
    Service service;
    std::uint32_t ttl;  ///< in seconds, 0 for a stop-offer
};

/// The packets of a datagram that this library has sent, read at fixed offsets. Throws std::out_of_range if
/// it has another form.
std::vector<SentPacket> packetsIn(const std::string& datagram);

/// The source address of an Ethernet frame with an IPv6 packet.
std::string sourceOf(const std::string& frame);

/// The offers in an Ethernet frame with a datagram that this library has sent, read at fixed offsets. Throws
/// std::out_of_range if it has another form.
std::vector<SentOffer> offersIn(const std::string& frame);

}  // namespace Nubo::ServiceDiscovery::Testing
