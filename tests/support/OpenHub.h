#pragma once

#include "LogicLayer/SDCommunicationHub.h"
#include "ServiceDiscovery.h"

namespace Nubo::ServiceDiscovery::Testing {

/// A hub whose parts a test can reach.
struct OpenHub : SDCommunicationHub
{
    using SDCommunicationHub::m_outgoing;
    using SDCommunicationHub::m_requestHandler;
    using SDCommunicationHub::m_statemachine;
    using SDCommunicationHub::onInterfaceAdded;
    using SDCommunicationHub::onInterfaceRemoved;
    using SDCommunicationHub::SDCommunicationHub;

    /// Ends the threads while the object still has its own type: they call virtual functions of it.
    ~OpenHub() override
    {
        if (isRunning())
            stop();
    }
};

/// A facade whose hub a test can reach.
struct OpenDiscovery : ServiceDiscovery
{
    OpenDiscovery() : OpenDiscovery(nullptr) {}

    OpenHub& hub;

private:
    explicit OpenDiscovery(OpenHub* made) : ServiceDiscovery(made = new OpenHub(*this)), hub(*made) {}
};

}  // namespace Nubo::ServiceDiscovery::Testing
