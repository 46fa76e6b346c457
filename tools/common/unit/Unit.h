#pragma once

#include "unit/EventLoop.h"
#include "unit/ServiceEvent.h"
#include "unit/UnitOptions.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>

#include <Poco/SharedPtr.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include <ServiceDiscovery.h>

namespace NuboSd {

/// This unit on the network: the platform's dispatcher, the library, and the main thread's loop.
class Unit
{
public:
    /// Looks up the interfaces. `options` must outlive the unit. Throws NetworkError when the network
    /// cannot be used, in particular when another registry of this unit holds the discovery port.
    explicit Unit(const UnitOptions& options);
    /// Withdraws the announced services.
    ~Unit();

    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    Nubo::ServiceDiscovery::ServiceDiscovery& discovery() { return *m_discovery; }
    const Poco::Net::IPAddress& address() const { return m_address; }

    /// Joins the network with the address from the options, or else that of the first interface, for which it
    /// waits. False when the run ended meanwhile. Throws NetworkError.
    bool start();

    /// Sends out a search. Throws UsageError when the name cannot be searched for.
    void search(const std::string& name);

    /// The events since the last call.
    std::deque<ServiceEvent> takeEvents();

    /// Waits for an event, for the deadline, or until one of the descriptors is readable. False when the run
    /// ends, by a signal or after its duration.
    bool wait(const EventLoop::Deadline& deadline, const std::vector<int>& descriptors = {});

    /// Passes every event to `handle` on this thread, until `handle` returns false, the deadline is reached,
    /// or the run ends. False in the last case.
    bool run(const EventLoop::Deadline& deadline, const std::function<bool(const ServiceEvent&)>& handle);

private:
    bool chooseAddress();
    void onServiceListChanged(Nubo::ServiceDiscovery::ServiceDiscovery::ServiceListEventPayload& payload);
    void onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload);

    EventLoop m_loop;  // first: it blocks the signals for all threads
    const UnitOptions& m_options;
    const EventLoop::Deadline m_end;
    Poco::SharedPtr<OEMInterface::NetlinkDispatcher> m_dispatcher;
    OEMInterface::ResponseBindingPtr m_interfaceBinding;
    std::unique_ptr<Nubo::ServiceDiscovery::ServiceDiscovery> m_discovery;
    Poco::Net::IPAddress m_address;

    std::mutex m_eventsMutex;
    std::deque<ServiceEvent> m_events;
};

}  // namespace NuboSd
