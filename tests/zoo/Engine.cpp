#include "zoo/Engine.h"

#include "LogicLayer/SDMessageNotification.h"
#include "support/Descriptions.h"
#include "zoo/Specimen.h"

#include <Poco/Delegate.h>

#include <utility>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

using StateMachineEvent = SDStateMachine::ExternalEvent;

/// Makes the handler's run() return after this datagram.
class OnlyDatagram : public SDMessageNotification
{
public:
    OnlyDatagram(const Multicast::MulticastDataPtr& datagram, SDRequestHandler& handler)
        : SDMessageNotification(datagram)
        , m_handler(handler)
    {}
    ~OnlyDatagram() override { m_handler.shutdown(); }

private:
    SDRequestHandler& m_handler;
};

}  // namespace

Engine::Engine()
{
    m_facade.ServiceListChanged += Poco::delegate(this, &Engine::onServiceListChanged);
    SDCommunicationHub* const hub = &m_hub;
    m_handler.OfferService += Poco::delegate(hub, &SDCommunicationHub::onOfferServiceReceived);
    m_handler.FindService += Poco::delegate(hub, &SDCommunicationHub::onFindServiceReceived);
}

Engine::~Engine()
{
    m_facade.ServiceListChanged -= Poco::delegate(this, &Engine::onServiceListChanged);
}

void Engine::announceLocal()
{
    m_hub.removeService("local");
    SDService::Ptr local = makeService("Local", "fd00::1", 8080, "local");
    m_hub.addService(local);
}

std::vector<std::string> Engine::handle(const Multicast::MulticastDataPtr& datagram)
{
    m_queue.enqueueNotification(new OnlyDatagram(datagram, m_handler));
    m_handler.run();

    std::vector<std::string> handled;
    for (const Event& event : std::exchange(m_events, {})) {
        handled.push_back(handledText(event.type, event.description));
        forget(event.description);
    }
    m_events.clear();
    return handled;
}

void Engine::onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
{
    payload.setLocalUuid("uuid");
    m_events.push_back({payload.getEventType(), *payload.getServiceDescription()});
}

/// Sends a stop-offer that matches any service ID. Has no effect on a service that is gone already.
void Engine::forget(const NuboServiceDescription& discovered)
{
    constexpr auto anyID = SOME_IP_SD_Types::EntryValues::ServiceID_Any;
    StateMachineEvent stopOffer(StateMachineEvent::SOMEIP_STOPOFFER,
                                new SDService(discovered, 0, anyID, 0, 0, 0, {}, SDService::Type::NONE));
    m_hub.m_statemachine.onExternalEvent(stopOffer);
}

}  // namespace Nubo::ServiceDiscovery::Testing
