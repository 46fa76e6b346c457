// A received datagram, through hub and request handler to the state machine.

#include "LogicLayer/SDCommunicationHub.h"
#include "common/Invariants.h"
#include "support/Descriptions.h"
#include "support/Platform.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace Nubo::ServiceDiscovery::Fuzzing {

namespace {

/// Opens what no caller has to see.
template <auto stateMachine, auto requestHandler>
struct OpenHub
{
    friend SDStateMachine& stateMachineOf(SDCommunicationHub& hub) { return hub.*stateMachine; }
    friend SDRequestHandler& requestHandlerOf(SDCommunicationHub& hub) { return hub.*requestHandler; }
};
template struct OpenHub<&SDCommunicationHub::m_statemachine, &SDCommunicationHub::m_requestHandler>;
SDStateMachine& stateMachineOf(SDCommunicationHub& hub);
SDRequestHandler& requestHandlerOf(SDCommunicationHub& hub);

template <auto aperiodic, auto periodic>
struct OpenStateMachine
{
    friend Workloads workloadsOf(const SDStateMachine& machine)
    {
        return {machine.*aperiodic, machine.*periodic};
    }
};
template struct OpenStateMachine<&SDStateMachine::m_aperiodicWorkload, &SDStateMachine::m_periodicWorkload>;
Workloads workloadsOf(const SDStateMachine& machine);

template <auto handleNext>
struct OpenRequestHandler
{
    friend void handleNextOf(SDRequestHandler& handler) { (handler.*handleNext)(); }
};
template struct OpenRequestHandler<&SDRequestHandler::handleNext>;
void handleNextOf(SDRequestHandler& handler);

/// A unit that offers a service and another one twice, and searches for a third. It is not started: nothing
/// touches the network, and nothing happens but what the target does. Its threads take long to make, so it
/// serves all inputs.
class Unit
{
public:
    /// As if it were new.
    void reset()
    {
        removeRecords(m_machine, workloadsOf(m_machine));
        m_registry.forget();
        announce("Media", 8080);
        announce("Navi", 8081);
        announce("Navi", 8082);
        SDService::Ptr wanted = new SDService("Radio");
        require(m_hub.findService(wanted), "a service can be searched for");
    }

    void receive(std::string_view bytes)
    {
        Multicast::MulticastDataPtr datagram =
            new Multicast::MulticastReceiver::MulticastData(bytes.data(), bytes.size(), m_origin);
        m_hub.onMessageReceived(datagram);
        handleNextOf(requestHandlerOf(m_hub));
    }

    void check()
    {
        const Workloads workloads = workloadsOf(m_machine);
        checkWorkloads(m_machine, workloads, m_registry);
        const ServicesContainer all = workloads.all();
        const auto live = std::count_if(all.begin(), all.end(),
                                        [](const SDService::Ptr& record) { return isLive(*record); });
        require(live == 3, "no other unit can end or add what is announced here");
    }

private:
    void announce(const std::string& name, unsigned short port)
    {
        SDService::Ptr service = Testing::makeService(name, "fd00::1", port, name + std::to_string(port));
        require(m_hub.addService(service), "a service can be announced");
    }

    Testing::PlatformScope m_platform;
    ServiceDiscovery m_facade;
    Registry m_registry{m_facade};
    SDCommunicationHub m_hub{m_facade};
    SDStateMachine& m_machine = stateMachineOf(m_hub);
    const Poco::Net::SocketAddress m_origin{"[fd00::2]:30491"};
};

}  // namespace

void tryInput(std::string_view input)
{
    if (input.empty())
        return;  // the hub queues nothing
    static Unit unit;
    unit.reset();
    unit.receive(input);
    unit.check();
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
