#pragma once

#include "DataLayer/NuboServiceDescription.h"
#include "Export.h"

#include <Poco/AbstractDelegate.h>
#include <Poco/BasicEvent.h>
#include <Poco/Mutex.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace Nubo::ServiceDiscovery {

/// A service that this unit currently announces or knows.
struct ServiceStatus
{
    enum class Role
    {
        ANNOUNCED,  ///< a service of this unit
        DISCOVERED  ///< a service of another unit
    };

    NuboServiceDescription description;  ///< including the registry's identifier
    Role role = Role::DISCOVERED;
    unsigned short instanceId = 0;  ///< the number that this unit gave it among the services of its name

    /// Seconds until a discovered service expires unless it is offered again. Empty for an announced service,
    /// which does not expire.
    std::optional<unsigned int> secondsLeft;
};

/// Argument of ServiceListChanged. The engine owns it; valid only while the event is delivered.
class KEL_SD_EXPORT ServiceListEventPayload
{
public:
    enum EventType : std::uint32_t
    {
        SERVICE_DISCOVERED = 0,  ///< a service of another unit was offered
        SERVICE_GONE = 1         ///< it was withdrawn, its offer expired, or newer services displaced it
    };

    ServiceListEventPayload(EventType eventType, const NuboServiceDescription* service,
                            const std::string& localUuid = "");

    EventType getEventType() const { return m_eventType; }

    /// Returns the service concerned, which is valid only while the event is delivered.
    const NuboServiceDescription* getServiceDescription() const { return m_service; }

    /// The registry's identifier of the service. The subscriber sets it for a discovered service and gets it
    /// back when the service is gone. A service without one is not stored, so its next offer raises the event
    /// again.
    const std::string& getLocalUuid() const& { return m_localUuid; }
    std::string getLocalUuid() && { return std::move(m_localUuid); }
    void setLocalUuid(std::string localUuid) { m_localUuid = std::move(localUuid); }

    /// Whether delivery to the subscribers has begun.
    bool isDelivered() const { return m_isDelivered; }

private:
    friend class ServiceListEvent;

    EventType m_eventType;
    const NuboServiceDescription* m_service;
    std::string m_localUuid;
    bool m_isDelivered = false;
};

/// An event to which any number of delegates can be added (`+=`) and from which they can be removed (`-=`),
/// from any thread and from within the event.
///
/// Removal does not wait: an event that is being delivered at that moment may still call the delegate, or be
/// executing it; later events do not. Before you destroy a subscriber, make sure that no event is executing
/// it: wait until shutdown() has returned, or use a lock in the subscriber.
///
/// In a forked child, adding and removing do nothing, because another thread of the parent may have held the
/// event's lock.
class KEL_SD_EXPORT ServiceListEvent : public Poco::BasicEvent<ServiceListEventPayload, Poco::FastMutex>
{
public:
    ServiceListEvent();

    void operator+=(const Poco::AbstractDelegate<ServiceListEventPayload>& delegate);
    void operator-=(const Poco::AbstractDelegate<ServiceListEventPayload>& delegate);
    void clear();

    /// Calls the delegates one after the other. Passes on what one of them throws; the remaining ones are not
    /// called then.
    void notify(const void* sender, ServiceListEventPayload& payload);

private:
    const std::uint64_t m_process;
};

}  // namespace Nubo::ServiceDiscovery
