#pragma once

#include "DataLayer/SDClock.h"

#include <Poco/Clock.h>
#include <Poco/Net/NetworkInterface.h>

#include <memory>
#include <string>

namespace Nubo::ServiceDiscovery::Multicast {

/// The system's network interfaces as they were at one moment. Taking a listing takes the system time for
/// each of them (a millisecond for 15), so that one listing serves as many questions as it can. Never
/// changes.
class InterfaceListing
{
public:
    using Ptr = std::shared_ptr<const InterfaceListing>;

    /// Throws Poco::Exception or std::bad_alloc when the system cannot list them.
    static Ptr take();

    /// The interface of that name, if it has IPv6; null when there is none.
    const Poco::Net::NetworkInterface* find(const std::string& name) const;

    /// Whether the interface of that index has that name.
    bool has(const std::string& name, unsigned index) const;

    /// The addresses of the interface with that one's index; none when it is gone.
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
