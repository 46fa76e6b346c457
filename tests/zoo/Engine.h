#pragma once

#include "LogicLayer/SDRequestHandler.h"
#include "Multicast/MulticastReceiver.h"
#include "ServiceDiscovery.h"
#include "support/OpenHub.h"
#include "support/Platform.h"

#include <Poco/NotificationQueue.h>

#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// The engine between receiver and registry, without network, threads and timers: datagrams are handled on
/// the calling thread.
class Engine
{
public:
    Engine();
    ~Engine();

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Announces the service "Local", again if necessary. Afterwards no answer to a search is pending.
    void announceLocal();

    /// Handles a datagram and returns its events as a specimen's "handled" lists them. Then forgets the
    /// discovered services.
    std::vector<std::string> handle(const Multicast::MulticastDataPtr& datagram);

private:
    struct Event
    {
        ServiceDiscovery::EventType type;
        NuboServiceDescription description;
    };

    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload);
    void forget(const NuboServiceDescription& discovered);

    PlatformScope m_platformOfTheFacade;
    ServiceDiscovery m_facade;
    PlatformScope m_platform;
    OpenHub m_hub{m_facade};
    Poco::NotificationQueue m_queue;
    SDRequestHandler m_handler{m_queue};
    std::vector<Event> m_events;
};

}  // namespace Nubo::ServiceDiscovery::Testing
