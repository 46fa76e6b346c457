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

/// Announces the services of this unit on the vehicle network and learns of those of the other units.
///
///     ServiceDiscovery discovery;
///     discovery.ServiceListChanged += Poco::delegate(&registry, &Registry::onServiceListChanged);
///     discovery.startup(Poco::Net::IPAddress("fd00::12"));
///     discovery.addService(description);
///
/// Before that, the process puts the platform's dispatcher into the service locator: it tells which network
/// interfaces to use. Services may be added and searched for before startup(); they are sent then.
///
/// The operations may be called from any thread, but not from within ServiceListChanged, nor by a log channel
/// that writes a line of the library: such a call is refused. When memory is short, requests throw
/// std::bad_alloc and change nothing; startup() and shutdown() never throw.
///
/// The object belongs to the process that has made it: in a forked child every operation is refused.
class KEL_SD_EXPORT ServiceDiscovery
{
public:
    using ServiceListEventPayload = Nubo::ServiceDiscovery::ServiceListEventPayload;
    using ServiceListEvent = Nubo::ServiceDiscovery::ServiceListEvent;
    using EventType = ServiceListEventPayload::EventType;

    /// Raised for every service of another unit that is discovered or gone; never after shutdown() has
    /// returned.
    ///
    /// The subscriber runs on a thread of the library, which waits for it: it has to return promptly. It
    /// must not call this object or another of its class (a call is refused with an error in the log), nor
    /// wait for a thread that does. What it throws is logged; the library goes on.
    ServiceListEvent ServiceListChanged;

    /// Throws Poco::Exception when the service locator has no platform dispatcher.
    ServiceDiscovery();
    /// Shuts down first if that was not done. Not to be called from within ServiceListChanged.
    virtual ~ServiceDiscovery();

    ServiceDiscovery(const ServiceDiscovery&) = delete;
    ServiceDiscovery& operator=(const ServiceDiscovery&) = delete;

    /// Starts on the unit's IPv6 address. A description that carries this address is announced on each
    /// interface with that interface's own address, once the unit has several. False when it is no address
    /// of IPv6, the wildcard or a multicast address, or when the discovery port cannot be bound; the reason
    /// is in the log, and a later call tries again. True when it runs already.
    bool startup(const Poco::Net::IPAddress& address);

    /// Withdraws the announced services and stops; returns true. Takes about a second at most.
    ///
    /// A service is withdrawn once its announcement has settled, 700 ms after it was added; one that is
    /// younger stays known to the others until its offer runs out after 120 s, and is announced on at the
    /// next startup(). To withdraw it too, remove it first.
    bool shutdown();

    bool running() const;

    /// Announces a service until it is removed, or until shutdown(). False, and nothing is announced, when
    /// the description cannot be used or the very service is announced already; the reason is in the log.
    bool addService(const NuboServiceDescription& description);

    /// Searches for all services of the description's name, for 700 ms. What is found is told by
    /// ServiceListChanged, as is everything else that is offered.
    bool findService(const NuboServiceDescription& description);

    /// Withdraws the service that was added with this identifier. False when there is none.
    bool removeService(const std::string& localUuid);

    /// The services that are announced, and those of other units that are known, in no particular order. A
    /// registry that has lost track compares its list with this one. Everything else waits while it is
    /// copied: not to be asked in place of ServiceListChanged.
    std::vector<ServiceStatus> getServices() const;

protected:
    /// Works with that engine instead of the library's.
    explicit ServiceDiscovery(Poco::SharedPtr<Engine> engine);

private:
    bool isRefused() const;

    Poco::SharedPtr<Engine> m_sdHub;
    const std::function<bool()> m_isRunning;
};

}  // namespace Nubo::ServiceDiscovery
