#pragma once

#include "LogicLayer/SDCommunicationHub.h"

#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>

namespace Nubo::ServiceDiscovery::Testing {

/// Opens the hub's delegates, for reports that no dispatcher of ours makes.
template <auto added, auto removed>
struct Delegates
{
    friend void reportAdded(SDCommunicationHub& hub,
                            OEMInterface::AddServiceDiscoveryInterfacePayload& report)
    {
        (hub.*added)(report);
    }
    friend void reportRemoved(SDCommunicationHub& hub,
                              OEMInterface::RemoveServiceDiscoveryInterfacePayload& report)
    {
        (hub.*removed)(report);
    }
};
template struct Delegates<&SDCommunicationHub::onInterfaceAdded, &SDCommunicationHub::onInterfaceRemoved>;
void reportAdded(SDCommunicationHub& hub, OEMInterface::AddServiceDiscoveryInterfacePayload& report);
void reportRemoved(SDCommunicationHub& hub, OEMInterface::RemoveServiceDiscoveryInterfacePayload& report);

}  // namespace Nubo::ServiceDiscovery::Testing
