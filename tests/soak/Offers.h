#pragma once

#include "soak/Model.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// An offer or a stop-offer in a datagram.
struct SentOffer
{
    Service service;
    Model::Message message;
};

/// What is looked at of a packet.
struct SentPacket
{
    std::uint16_t session;
    bool isOffer;  ///< or stop-offer; of others the rest is empty
    Service service;
    std::uint32_t ttl;  ///< in seconds, 0 for a stop-offer
};

/// The packets of a datagram that this library has sent, read by their places. Throws std::out_of_range when
/// it is none.
std::vector<SentPacket> packetsIn(const std::string& datagram);

/// The address that an Ethernet frame with an IPv6 packet comes from.
std::string sourceOf(const std::string& frame);

/// The offers in an Ethernet frame with a datagram that this library has sent, read by their places. Throws
/// std::out_of_range when it is none.
std::vector<SentOffer> offersIn(const std::string& frame);

}  // namespace Nubo::ServiceDiscovery::Testing
