// Input: a received datagram, which passes through hub and request handler to the state machine.

#include "common/Invariants.h"
#include "support/Descriptions.h"
#include "support/OpenHub.h"
#include "support/Platform.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace Nubo::ServiceDiscovery::Fuzzing {

namespace {

/// A unit that offers one service and two instances of another, and searches for a third. It is not started,
/// so it uses no network and does nothing by itself. All inputs share it, because creating its threads takes
/// long.
class Unit
{
public:
    /// Restores the initial state.
    void reset()
    {
        removeRecords(m_machine, workloads());
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
        m_hub.m_requestHandler.handleNext();
    }

    void check()
    {
        checkWorkloads(m_machine, workloads(), m_registry);
        const ServicesContainer all = workloads().all();
        const auto live = std::count_if(all.begin(), all.end(),
                                        [](const SDService::Ptr& record) { return isLive(*record); });
        require(live == 3, "no other unit can end or add what is announced here");
    }

private:
    Workloads workloads() const
    {
        return {m_machine.unsafe_aperiodicWorkload(), m_machine.unsafe_periodicWorkload()};
    }

    void announce(const std::string& name, unsigned short port)
    {
        SDService::Ptr service = Testing::makeService(name, "fd00::1", port, name + std::to_string(port));
        require(m_hub.addService(service), "a service can be announced");
    }

    Testing::PlatformScope m_platform;
    ServiceDiscovery m_facade;
    Registry m_registry{m_facade};
    Testing::OpenHub m_hub{m_facade};
    SDStateMachine& m_machine = m_hub.m_statemachine;
    const Poco::Net::SocketAddress m_origin{"[fd00::2]:30491"};
};

}  // namespace

void tryInput(std::string_view input)
{
    if (input.empty())
        return;  // the hub does not queue empty datagrams
    static Unit unit;
    unit.reset();
    unit.receive(input);
    unit.check();
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
