#pragma once

#include "ServiceDiscovery.h"

#include <Poco/Delegate.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// A service registry that records its events and numbers discovered services: "uuid-1", ….
class Registry
{
public:
    struct Event
    {
        ServiceDiscovery::EventType type;
        std::string name;
        std::string address;
        unsigned short port;
        std::string uuid;  ///< given to a discovered service, or brought by a gone one
        NuboServiceDescription description;
    };

    explicit Registry(ServiceDiscovery& discovery) : m_discovery(discovery)
    {
        m_discovery.ServiceListChanged += Poco::delegate(this, &Registry::onServiceListChanged);
    }
    /// Shuts down first: unsubscribing does not wait for an event that is about to be delivered.
    ~Registry()
    {
        m_discovery.shutdown();
        m_discovery.ServiceListChanged -= Poco::delegate(this, &Registry::onServiceListChanged);
    }

    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    /// Its events, without the first ones.
    std::vector<Event> events(std::size_t first = 0) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return {m_events.begin() + static_cast<std::ptrdiff_t>(first), m_events.end()};
    }

    std::size_t eventCount() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_events.size();
    }

    /// Number of events of that type about services of that name.
    std::size_t count(ServiceDiscovery::EventType type, const std::string& name) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = std::count_if(m_events.begin(), m_events.end(), [&](const Event& event) {
            return event.type == type && event.name == name;
        });
        return static_cast<std::size_t>(found);
    }
    std::size_t discovered(const std::string& name) const
    {
        return count(ServiceDiscovery::EventType::SERVICE_DISCOVERED, name);
    }
    std::size_t gone(const std::string& name) const
    {
        return count(ServiceDiscovery::EventType::SERVICE_GONE, name);
    }

    /// Called for every event before it is recorded, on the library's thread. To be set before the first
    /// event.
    std::function<void(ServiceDiscovery::ServiceListEventPayload&)> onEvent;
    /// Whether discovered services get an identifier. To be set before the first event.
    bool givesUuids = true;

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        if (onEvent)
            onEvent(payload);
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_DISCOVERED && givesUuids)
            payload.setLocalUuid("uuid-" + std::to_string(++m_lastUuid));
        const NuboServiceDescription& description = *payload.getServiceDescription();
        m_events.push_back({payload.getEventType(), description.getName(), description.getIpAddressString(),
                            description.getPort(), payload.getLocalUuid(), description});
    }

    ServiceDiscovery& m_discovery;
    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
    int m_lastUuid = 0;
};

}  // namespace Nubo::ServiceDiscovery::Testing
