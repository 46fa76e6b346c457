#pragma once

#include "DataLayer/SDService.h"
#include "DataLayer/ServiceEvents.h"
#include "Export.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/SharedPtr.h>

#include <functional>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

class Engine;

/// Announces the services of this unit on the vehicle network and discovers those of other units.
///
///     ServiceDiscovery discovery;
///     discovery.ServiceListChanged += Poco::delegate(&registry, &Registry::onServiceListChanged);
///     discovery.startup(Poco::Net::IPAddress("fd00::12"));
///     discovery.addService(description);
///
/// Before that, the process must put the platform's dispatcher into the service locator: it reports the
/// network interfaces to use. You can add and search for services before startup(), which then sends them.
///
/// All operations are thread-safe. A call from within ServiceListChanged, or from a log channel that is
/// writing a line of the library, is refused. When memory is short, requests throw std::bad_alloc and change
/// nothing; startup() and shutdown() never throw.
///
/// The object belongs to the process that created it: in a forked child every operation is refused. A child
/// that is forked within ServiceListChanged, or by a log channel that is writing a line of the library, ends
/// there with exit code 0 when it returns or throws.
class KEL_SD_EXPORT ServiceDiscovery
{
public:
    using ServiceListEventPayload = Nubo::ServiceDiscovery::ServiceListEventPayload;
    using ServiceListEvent = Nubo::ServiceDiscovery::ServiceListEvent;
    using EventType = ServiceListEventPayload::EventType;

    /// Raised for every service of another unit that is discovered or gone; never after shutdown() has
    /// returned.
    ///
    /// Subscribers run on a thread of the library and must return promptly, because that thread waits for
    /// them. They must not call this object or another one of its class, nor wait for a thread that does; a
    /// call is refused with an error in the log. The library logs what they throw and continues.
    ServiceListEvent ServiceListChanged;

    /// Throws Poco::Exception when the service locator has no platform dispatcher.
    ServiceDiscovery();
    /// Shuts down if necessary. Must not be called from within ServiceListChanged.
    virtual ~ServiceDiscovery();

    ServiceDiscovery(const ServiceDiscovery&) = delete;
    ServiceDiscovery& operator=(const ServiceDiscovery&) = delete;

    /// Starts on the unit's IPv6 address. If the unit uses several interfaces, a description with this
    /// address is announced on each of them with the address of the interface. Returns true when it is
    /// running, including when it already was. Logs the reason and returns false when the address is not
    /// IPv6, is the wildcard or a multicast address, or when the engine cannot start, for example because the
    /// discovery port is taken; a later call tries again.
    bool startup(const Poco::Net::IPAddress& address);

    /// Withdraws the announced services and stops. Returns true, or false when the call is refused. Takes
    /// about 1 s at most, or longer while a subscriber does not return.
    ///
    /// Only services added at least 700 ms ago are withdrawn, because their announcement has then settled. A
    /// more recent one remains known to other units until its offer expires after 120 s, and its announcement
    /// continues at the next startup(). To withdraw it as well, remove it first.
    bool shutdown();

    bool running() const;

    /// Announces a service until it is removed or shutdown() is called. Logs the reason and returns false,
    /// without announcing anything, when the description is unusable or the same service is already
    /// announced.
    bool addService(const NuboServiceDescription& description);

    /// Searches for 700 ms for all services with the description's name. ServiceListChanged reports the
    /// results, along with every other service that is offered. Returns false, with the reason in the log,
    /// when the name is unusable.
    bool findService(const NuboServiceDescription& description);

    /// Withdraws the service that was added with this identifier. Returns false when there is none.
    bool removeService(const std::string& localUuid);

    /// Returns the announced services and the known services of other units, in no particular order. For a
    /// registry that has to resynchronise its list. Everything else waits while the list is copied, so do not
    /// poll it instead of using ServiceListChanged.
    std::vector<ServiceStatus> getServices() const;

protected:
    /// Uses the given engine instead of the library's.
    explicit ServiceDiscovery(Poco::SharedPtr<Engine> engine);

private:
    bool isRefused() const;

    Poco::SharedPtr<Engine> m_sdHub;
    const std::function<bool()> m_isRunning;
};

}  // namespace Nubo::ServiceDiscovery
