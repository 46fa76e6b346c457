#pragma once

#include "DataLayer/SDClock.h"

#include <Poco/Clock.h>
#include <Poco/Net/NetworkInterface.h>

#include <memory>
#include <string>

namespace Nubo::ServiceDiscovery::Multicast {

/// Immutable snapshot of the system's network interfaces. Taking one costs time per interface (1 ms for 15),
/// so reuse it for as many look-ups as possible. Thread-safe.
class InterfaceListing
{
public:
    using Ptr = std::shared_ptr<const InterfaceListing>;

    /// Takes a snapshot. Throws Poco::Exception or std::bad_alloc when the system cannot list its interfaces.
    static Ptr take();

    /// Returns the interface of that name if it supports IPv6, otherwise null. Valid as long as the listing.
    const Poco::Net::NetworkInterface* find(const std::string& name) const;

    /// Whether the interface with that index has that name.
    bool has(const std::string& name, unsigned index) const;

    /// Returns the addresses of the interface with the same index; none when there is no such interface.
    Poco::Net::NetworkInterface::AddressList addressesOf(const Poco::Net::NetworkInterface& interface) const;

    bool isOlderThan(Poco::Clock::ClockDiff microseconds) const
    {
        return SDClock::now() - m_taken >= microseconds;
    }

private:
    Poco::Net::NetworkInterface::Map m_interfaces;  // by index
    Poco::Clock m_taken = SDClock::now();
};

}  // namespace Nubo::ServiceDiscovery::Multicast
