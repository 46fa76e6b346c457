#include "soak/TurnedUnit.h"

#include "support/Descriptions.h"

#include <Poco/Delegate.h>
#include <Poco/Net/IPAddress.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr auto interfaceName = "turned0";  // does not exist
constexpr auto uuidPrefix = "local-";

/// shutdown() does not withdraw services that are younger than 700 ms; this leaves a margin.
constexpr auto settledAge = 2 * TurnedTime::second;

}  // namespace

TurnedUnit::TurnedUnit(std::size_t number, TurnedWire& wire, TurnedModel& model)
    : m_number(number)
    , m_wire(wire)
    , m_model(model)
    , m_port{number, "fd00::" + std::to_string(number + 1)}
{
    make();
}

TurnedUnit::~TurnedUnit()
{
    m_model.stop(m_number);
    m_discovery.reset();
}

std::string TurnedUnit::serviceName(std::size_t unit, std::size_t index)
{
    const bool isShared = index % 2 == 0;
    return (isShared ? "Shared" : "Unit" + std::to_string(unit + 1) + "Service") + std::to_string(index);
}

void TurnedUnit::add(std::size_t index)
{
    const Service added = service(index);
    m_model.announce(m_number, added);
    m_announced[index] = TurnedTime::now();
    expect(m_discovery->addService(
               describe(added.name, added.address, added.port, uuidPrefix + std::to_string(index))),
           "addService");
}

void TurnedUnit::remove(std::size_t index)
{
    m_model.remove(m_number, service(index));
    m_announced.erase(index);
    expect(m_discovery->removeService(uuidPrefix + std::to_string(index)), "removeService");
}

void TurnedUnit::search(const std::string& name)
{
    NuboServiceDescription wanted;
    wanted.setName(name);
    expect(m_discovery->findService(wanted), "findService");
}

void TurnedUnit::setPlugged(bool isPlugged)
{
    m_isOut = !isPlugged;
    m_port.isPlugged = isPlugged;
}

void TurnedUnit::setReported(bool isReported)
{
    m_isOut = !isReported;
    m_model.setUp(m_number, isReported);
    if (isReported)
        m_platform->dispatcher().addInterface(interfaceName, m_port.address);
    else
        m_platform->dispatcher().removeInterface(interfaceName, m_port.address);
}

void TurnedUnit::restart()
{
    const auto settled = TurnedTime::now() - settledAge;
    while (!m_announced.empty()) {
        const auto [index, since] = *m_announced.begin();
        if (since > settled)
            remove(index);
        else
            m_announced.erase(index);
    }
    m_model.stop(m_number);
    expect(m_discovery->shutdown(), "shutdown");
    startup();
}

void TurnedUnit::replace()
{
    m_port.isPlugged = false;
    m_model.stop(m_number);
    m_discovery.reset();
    passOnEvents();
    m_model.replace(m_number);
    m_announced.clear();
    m_port.isPlugged = true;
    make();
}

void TurnedUnit::make()
{
    m_wire.plugInNext(m_port);
    m_platform.reset();  // its destructor would withdraw the new dispatcher
    m_platform = std::make_unique<PlatformScope>();
    m_discovery = std::make_unique<ServiceDiscovery>();
    PlatformScope::withdraw();
    m_discovery->ServiceListChanged += Poco::delegate(this, &TurnedUnit::onServiceListChanged);
    setReported(true);
    startup();
}

void TurnedUnit::startup()
{
    expect(m_discovery->startup(Poco::Net::IPAddress(m_port.address)), "startup");
    m_model.start(m_number);
}

void TurnedUnit::passOnEvents()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const TurnedModel::Event& event : m_events)
        m_model.onEvent(m_number, event);
    m_events.clear();
}

void TurnedUnit::onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const NuboServiceDescription& description = *payload.getServiceDescription();
    const bool isDiscovery = payload.getEventType() == ServiceDiscovery::EventType::SERVICE_DISCOVERED;
    if (isDiscovery)
        payload.setLocalUuid("remote-" + std::to_string(++m_lastUuid));
    m_events.push_back({isDiscovery,
                        {description.getName(), description.getIpAddressString(), description.getPort()},
                        payload.getLocalUuid()});
}

void TurnedUnit::expect(bool result, const std::string& call)
{
    if (!result)
        m_model.complain(m_number, "refuses " + call);
}

Service TurnedUnit::service(std::size_t index) const
{
    return {serviceName(m_number, index), m_port.address, static_cast<unsigned short>(8000 + index)};
}

}  // namespace Nubo::ServiceDiscovery::Testing
