#pragma once

#include "DataLayer/SDService.h"
#include "Export.h"

#include <Poco/AbstractDelegate.h>
#include <Poco/BasicEvent.h>
#include <Poco/Mutex.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/SharedPtr.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

class SDCommunicationHub;

/// A service that is announced or known at the moment.
struct ServiceStatus
{
    enum class Role
    {
        ANNOUNCED,  ///< a service of this unit
        DISCOVERED  ///< one of another unit
    };

    NuboServiceDescription description;  ///< with the registry's own identifier
    Role role = Role::DISCOVERED;
    unsigned short instanceId = 0;  ///< this unit's number of it, among those of its name

    /// The seconds until a discovered service is gone, unless it is offered again before. None for an
    /// announced one, which stays.
    std::optional<unsigned int> secondsLeft;
};

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
/// The object belongs to the process that has made it: in a forked child every operation is refused. A child
/// that is forked within ServiceListChanged, or by a log channel that writes a line of the library, ends with
/// exit code 0 when it returns from there or throws.
class KEL_SD_EXPORT ServiceDiscovery
{
public:
    class ServiceListEvent;

    /// What ServiceListChanged reports.
    class KEL_SD_EXPORT ServiceListEventPayload
    {
    public:
        enum EventType : std::uint32_t
        {
            SERVICE_DISCOVERED = 0,  ///< a service of another unit was offered
            SERVICE_GONE = 1         ///< it was withdrawn, or was not heard of any more
        };

        ServiceListEventPayload(EventType eventType, const NuboServiceDescription* service,
                                const std::string& localUuid = "");

        EventType getEventType() const { return m_eventType; }

        /// The service concerned; valid only while the event is delivered.
        const NuboServiceDescription* getServiceDescription() const { return m_service; }

        /// The registry's own identifier of the service. For a discovered service the subscriber sets it;
        /// a service without one is not taken in, and its next offer raises the event anew. It comes back
        /// when the service is gone.
        const std::string& getLocalUuid() const& { return m_localUuid; }
        std::string getLocalUuid() && { return std::move(m_localUuid); }
        void setLocalUuid(std::string localUuid) { m_localUuid = std::move(localUuid); }

        /// Whether subscribers have been called with it.
        bool isDelivered() const { return m_isDelivered; }

    private:
        friend class ServiceListEvent;

        EventType m_eventType;
        const NuboServiceDescription* m_service;
        std::string m_localUuid;
        bool m_isDelivered = false;
    };
    using EventType = ServiceListEventPayload::EventType;

    /// An event to which any number of delegates can be added (`+=`) and from which they can be removed
    /// (`-=`), from any thread, also from within the event.
    ///
    /// Removing never waits for the event: one that is being delivered at that moment may still call the
    /// delegate, or be inside it; none that begins afterwards does. Before a subscriber is destroyed, make
    /// sure that no event is in it: shutdown() has returned, or the subscriber's own lock says so.
    ///
    /// In a forked child all of this does nothing: a thread of the parent may have held the event's lock.
    class KEL_SD_EXPORT ServiceListEvent : public Poco::BasicEvent<ServiceListEventPayload, Poco::FastMutex>
    {
    public:
        ServiceListEvent();

        void operator+=(const Poco::AbstractDelegate<ServiceListEventPayload>& delegate);
        void operator-=(const Poco::AbstractDelegate<ServiceListEventPayload>& delegate);
        void clear();

        /// Calls the delegates one after the other. What one of them throws passes to the caller, and those
        /// after it are not called.
        void notify(const void* sender, ServiceListEventPayload& payload);

    private:
        const std::uint64_t m_process;
    };

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

private:
    bool isRefused() const;

    Poco::SharedPtr<SDCommunicationHub> m_sdHub;
};

}  // namespace Nubo::ServiceDiscovery
