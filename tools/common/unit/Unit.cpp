#include "unit/Unit.h"

#include "Errors.h"
#include "text/Text.h"
#include "text/UnicastAddress.h"
#include "unit/DiscoveryGroup.h"
#include "unit/DiscoveryPort.h"
#include "unit/LogOutput.h"

#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

#include <iostream>
#include <utility>

#include <net/if.h>

namespace NuboSd {

using Nubo::ServiceDiscovery::ServiceDiscovery;
using Payload = ServiceDiscovery::ServiceListEventPayload;

namespace {

/// Throws NetworkError with the reason when the discovery port cannot be bound.
void checkPort()
{
    const DiscoveryPort port = DiscoveryPort::probe();
    switch (port.state) {
        case DiscoveryPort::State::Free:
            return;
        case DiscoveryPort::State::Taken:
            throw NetworkError("another service registry already uses port " + std::to_string(discoveryPort) +
                               " on this unit");
        case DiscoveryPort::State::Unusable:
            throw NetworkError("the network cannot be used: " + port.error);
    }
}

void noteMissingInterfaces(const std::vector<std::string>& names)
{
    for (const std::string& name : names) {
        if (::if_nametoindex(name.c_str()) == 0)
            std::cerr << "nubo-sd: there is no interface \"" << printable(name) << "\" yet" << std::endl;
    }
}

}  // namespace

Unit::Unit(const UnitOptions& options)
    : m_options(options)
    , m_end(options.duration ? EventLoop::after(*options.duration) : std::nullopt)
{
    if (!options.address.empty())
        m_address = parseUnicastAddress(options.address, "--address:");
    checkPort();
    noteMissingInterfaces(options.interfaces);
    try {
        m_dispatcher = new OEMInterface::NetlinkDispatcher(options.interfaces);
        ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher),
                                              Poco::SharedPtr<OEMInterface::OEMDispatcher>(m_dispatcher));
        m_discovery = std::make_unique<ServiceDiscovery>();
    }
    catch (const Poco::Exception& exception) {
        throw NetworkError("the network cannot be used: " + exception.displayText());
    }
    m_discovery->ServiceListChanged += Poco::delegate(this, &Unit::onServiceListChanged);
}

Unit::~Unit()
{
    m_interfaceBinding.reset();
    m_discovery.reset();
    ApplicationServices::getLocator().remove(typeid(OEMInterface::OEMDispatcher));
}

bool Unit::start()
{
    if (m_options.address.empty() && !chooseAddress())
        return false;
    if (!m_discovery->startup(m_address)) {
        checkPort();
        throw NetworkError("the network cannot be used");
    }
    return true;
}

/// Uses the address of the first interface, and waits until there is one.
bool Unit::chooseAddress()
{
    m_interfaceBinding = m_dispatcher->bindResponse(Poco::delegate(this, &Unit::onInterfaceAdded));
    auto interfaces = m_dispatcher->interfaces();
    if (interfaces.empty())
        std::cerr << "nubo-sd: waiting for an interface that is up and has an IPv6 address" << std::endl;
    while (interfaces.empty()) {
        if (m_loop.wait(m_end) != EventLoop::Reason::Woken)
            return false;
        interfaces = m_dispatcher->interfaces();
    }
    m_interfaceBinding.reset();
    m_address = Poco::Net::IPAddress(interfaces.front().ip);
    return true;
}

void Unit::search(const std::string& name)
{
    Nubo::ServiceDiscovery::NuboServiceDescription description;
    description.setName(name);
    const ErrorCatcher errors;
    if (!m_discovery->findService(description))
        throw UsageError("\"" + printable(name) +
                         "\" cannot be searched for: " + printable(errors.firstError()));
}

std::deque<ServiceEvent> Unit::takeEvents()
{
    const std::lock_guard<std::mutex> lock(m_eventsMutex);
    return std::exchange(m_events, {});
}

bool Unit::wait(const EventLoop::Deadline& deadline, const std::vector<int>& descriptors)
{
    const bool isDeadlineFirst = deadline && (!m_end || *deadline < *m_end);
    const EventLoop::Reason reason = m_loop.wait(isDeadlineFirst ? deadline : m_end, descriptors);
    if (reason == EventLoop::Reason::DeadlineReached)
        return isDeadlineFirst;
    return reason != EventLoop::Reason::Signal;
}

bool Unit::run(const EventLoop::Deadline& deadline, const std::function<bool(const ServiceEvent&)>& handle)
{
    for (;;) {
        for (const ServiceEvent& event : takeEvents()) {
            if (!handle(event))
                return true;
        }
        if (deadline && EventLoop::Clock::now() >= *deadline)
            return true;
        if (!wait(deadline))
            return false;
    }
}

/// Runs on a thread of the library, which waits for it: queues the event and returns.
void Unit::onServiceListChanged(Payload& payload)
{
    ServiceEvent event{ServiceEvent::Kind::Gone, *payload.getServiceDescription()};
    if (payload.getEventType() == Payload::SERVICE_DISCOVERED) {
        event.kind = ServiceEvent::Kind::Discovered;
        payload.setLocalUuid(Poco::UUIDGenerator::defaultGenerator().createRandom().toString());
    }
    event.service.setLocalUuid(payload.getLocalUuid());
    {
        const std::lock_guard<std::mutex> lock(m_eventsMutex);
        m_events.push_back(std::move(event));
    }
    m_loop.wake();
}

void Unit::onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload&)
{
    m_loop.wake();
}

}  // namespace NuboSd
