#pragma once

#include "soak/Model.h"

#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// An offer or a stop-offer in a datagram.
struct SentOffer
{
    Service service;
    Model::Message message;
};

/// The address that an Ethernet frame with an IPv6 packet comes from.
std::string sourceOf(const std::string& frame);

/// The offers in an Ethernet frame with a datagram that this library has sent, read by their places. Throws
/// std::out_of_range when it is none.
std::vector<SentOffer> offersIn(const std::string& frame);

}  // namespace Nubo::ServiceDiscovery::Testing
