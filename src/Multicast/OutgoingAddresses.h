#pragma once

#include <Poco/Net/SocketAddress.h>

namespace Nubo::ServiceDiscovery::Multicast {

/// Knows the addresses from which this unit sends, so that the receiver can ignore this unit's own datagrams.
class OutgoingAddresses
{
public:
    virtual bool isOwnOutgoingAddress(const Poco::Net::SocketAddress& address) const = 0;

protected:
    ~OutgoingAddresses() = default;
};

}  // namespace Nubo::ServiceDiscovery::Multicast
