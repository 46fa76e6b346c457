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
    const int m_process;
};

}  // namespace Nubo::ServiceDiscovery
