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
    /// Takes stock of the interfaces; `options` must outlive the unit. Throws NetworkError when the network
    /// cannot be used, in particular when another registry of this unit holds the discovery port.
    explicit Unit(const UnitOptions& options);
    /// Withdraws what was announced.
    ~Unit();

    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    Nubo::ServiceDiscovery::ServiceDiscovery& discovery() { return *m_discovery; }
    const Poco::Net::IPAddress& address() const { return m_address; }

    /// Joins the network with this unit's address; without a given one it is that of the first interface,
    /// which is waited for. False when the run was ended meanwhile. Throws NetworkError.
    bool start();

    /// Sends out a search. Throws UsageError when the name cannot be searched for.
    void search(const std::string& name);

    /// The events since the last call.
    std::deque<ServiceEvent> takeEvents();

    /// Waits for an event, for the deadline, or until one of the descriptors is readable. False when the run
    /// is ended, by a signal or by its duration.
    bool wait(const EventLoop::Deadline& deadline, const std::vector<int>& descriptors = {});

    /// Hands every event to `handle` on this thread, until `handle` returns false, the deadline comes, or
    /// the run is ended. True when it was `handle` or `deadline`.
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
