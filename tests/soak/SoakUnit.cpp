#include "soak/SoakUnit.h"

#include "ServiceDiscovery.h"
#include "soak/Offers.h"
#include "support/Descriptions.h"

#include <KELOEMInterfaceLib/ManualDispatcher.h>
#include <KELOEMInterfaceLib/NetlinkDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Delegate.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/SharedPtr.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

using OEMInterface::LinuxDispatcher;
using OEMInterface::ManualDispatcher;
using OEMInterface::NetlinkDispatcher;
using OEMInterface::OEMDispatcher;

namespace {

constexpr auto interfaceName = "eth0";
constexpr auto uuidPrefix = "local-";

/// shutdown() does not withdraw services that are younger than 700 ms; this leaves a margin.
constexpr std::chrono::seconds settledAge{2};

Model::Instant now()
{
    return Model::Clock::now();
}

/// Passes the events of a unit's registry to the model.
class Subscriber
{
public:
    Subscriber(ServiceDiscovery& discovery, Model::Unit unit, Model& model)
        : m_discovery(discovery)
        , m_unit(unit)
        , m_model(model)
    {
        m_discovery.ServiceListChanged += Poco::delegate(this, &Subscriber::onServiceListChanged);
    }
    ~Subscriber()
    {
        m_discovery.ServiceListChanged -= Poco::delegate(this, &Subscriber::onServiceListChanged);
    }

    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        const NuboServiceDescription& description = *payload.getServiceDescription();
        const Service service{description.getName(), description.getIpAddressString(), description.getPort()};
        if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_DISCOVERED) {
            payload.setLocalUuid("remote-" + std::to_string(++m_lastUuid));
            m_model.onDiscovered(m_unit, service, payload.getLocalUuid(), now());
        }
        else {
            m_model.onGone(m_unit, service, payload.getLocalUuid(), now());
        }
    }

    ServiceDiscovery& m_discovery;
    const Model::Unit m_unit;
    Model& m_model;
    std::atomic<unsigned> m_lastUuid{0};
};

}  // namespace

/// The parts that are destroyed when the unit is killed.
struct SoakUnit::Parts
{
    Parts(const Poco::SharedPtr<LinuxDispatcher>& dispatcher, Model::Unit unit, Model& model)
        : platform(offered(dispatcher))
        , registry(discovery, unit, model)
    {
        ApplicationServices::getLocator().remove(typeid(OEMDispatcher));
    }

    static Poco::SharedPtr<LinuxDispatcher> offered(const Poco::SharedPtr<LinuxDispatcher>& dispatcher)
    {
        ApplicationServices::getLocator().add(typeid(OEMDispatcher),
                                              Poco::SharedPtr<OEMDispatcher>(dispatcher));
        return dispatcher;
    }

    Poco::SharedPtr<LinuxDispatcher> platform;
    ServiceDiscovery discovery;
    Subscriber registry;
};

SoakUnit::Network::Network(const std::string& name) : Namespace(name)
{
    setIPv6("default/addr_gen_mode", "1");
    setIPv6("default/keep_addr_on_down", "1");
}

SoakUnit::SoakUnit(Model::Unit number, const Namespace& theSwitch, Model& model, std::uint32_t seed)
    : m_number(number)
    , m_model(model)
    , m_address(addressOf(number))
    , m_network("unit" + std::to_string(number + 1))
    , m_link(m_network, interfaceName, theSwitch, "port" + std::to_string(number + 1), seed,
             [this](const std::string& frame) { onPassed(frame); })
{
    theSwitch.ip("link set port" + std::to_string(number + 1) + " master br0");
    m_network.addAddress(interfaceName, m_address + "/64");
    for (const unsigned generation : {0u, 1u}) {
        for (std::size_t index = 0; index < services; ++index)
            m_model.introduce(m_number, service(index, generation));
    }
    start();
}

SoakUnit::~SoakUnit()
{
    const InNamespace inside(m_network);
    m_parts.reset();
}

std::string SoakUnit::addressOf(Model::Unit number)
{
    return "fd00::" + std::to_string(number + 1);
}

std::string SoakUnit::serviceName(Model::Unit unit, std::size_t index)
{
    const bool isShared = index % 2 == 0;
    return (isShared ? "Shared" : "Unit" + std::to_string(unit + 1) + "Service") + std::to_string(index);
}

void SoakUnit::add(std::size_t index)
{
    const Service added = service(index);
    m_model.announce(added, now());
    m_announced[index] = now();
    expect(m_parts->discovery.addService(
               describe(added.name, added.address, added.port, uuidPrefix + std::to_string(index))),
           "addService");
}

void SoakUnit::remove(std::size_t index)
{
    m_model.remove(service(index), now());
    m_announced.erase(index);
    expect(m_parts->discovery.removeService(uuidPrefix + std::to_string(index)), "removeService");
}

void SoakUnit::search(const std::string& name)
{
    NuboServiceDescription wanted;
    wanted.setName(name);
    expect(m_parts->discovery.findService(wanted), "findService");
}

void SoakUnit::beginOutage(Outage outage)
{
    m_outage = outage;
    m_model.detach(m_number, now());
    switch (outage) {
        case Outage::InterfaceGone:
            setInterfaceReported(false);
            break;
        case Outage::InterfaceDown:
            m_network.ip(std::string("link set down dev ") + interfaceName);
            break;
        case Outage::LinkCut:
            m_link.cut();
            break;
        case Outage::None:
            break;
    }
}

void SoakUnit::endOutage()
{
    switch (m_outage) {
        case Outage::InterfaceGone:
            setInterfaceReported(true);
            break;
        case Outage::InterfaceDown:
            m_network.ip(std::string("link set up dev ") + interfaceName);
            break;
        case Outage::LinkCut:
            m_link.mend();
            break;
        case Outage::None:
            break;
    }
    m_outage = Outage::None;
    m_model.attach(m_number, now());
}

void SoakUnit::restart()
{
    const Model::Instant settled = now() - settledAge;
    while (!m_announced.empty()) {
        const auto [index, since] = *m_announced.begin();
        if (since > settled) {
            remove(index);
        }
        else {
            m_model.remove(service(index), now());
            m_announced.erase(index);
        }
    }
    m_model.detach(m_number, now());
    const InNamespace inside(m_network);
    expect(m_parts->discovery.shutdown(), "shutdown");
    expect(startup(), "startup");
}

void SoakUnit::replace()
{
    m_model.detach(m_number, now());
    m_link.cut();
    {
        const InNamespace inside(m_network);
        m_parts.reset();
    }
    m_model.replace(m_number, now());
    m_announced.clear();
    ++m_generation;
    m_link.mend();
    start();
}

void SoakUnit::start()
{
    const InNamespace inside(m_network);
    Poco::SharedPtr<LinuxDispatcher> dispatcher;
    const bool followsKernel = m_number % 2 != 0;
    if (followsKernel) {
        dispatcher = new NetlinkDispatcher;
    }
    else {
        Poco::SharedPtr<ManualDispatcher> manual = new ManualDispatcher;
        manual->addInterface(interfaceName, m_address);
        dispatcher = manual;
    }
    m_parts = std::make_unique<Parts>(dispatcher, m_number, m_model);
    expect(startup(), "startup");
}

bool SoakUnit::startup()
{
    const bool result = m_parts->discovery.startup(Poco::Net::IPAddress(m_address));
    m_model.attach(m_number, now());
    return result;
}

void SoakUnit::setInterfaceReported(bool isReported)
{
    const InNamespace inside(m_network);
    Poco::SharedPtr<ManualDispatcher> manual = m_parts->platform.cast<ManualDispatcher>();
    if (manual.isNull() && isReported)
        m_network.addAddress(interfaceName, m_address + "/64");
    else if (manual.isNull())
        m_network.ip("address del " + m_address + "/64 dev " + interfaceName);
    else if (isReported)
        manual->addInterface(interfaceName, m_address);
    else
        manual->removeInterface(interfaceName, m_address);
}

/// Runs on the link's thread for each frame that arrives at the unit's interface.
void SoakUnit::onPassed(const std::string& frame)
{
    try {
        const std::string source = sourceOf(frame);
        if (source == strangerAddress)
            return;
        for (const SentOffer& offer : offersIn(frame))
            m_model.onMessage(m_number, offer.service, offer.message, now());
    }
    catch (const std::out_of_range& exception) {
        m_model.complain("unit " + std::to_string(m_number + 1) +
                         " hears a datagram that cannot be read: " + exception.what());
    }
}

void SoakUnit::expect(bool result, const std::string& call)
{
    if (!result)
        m_model.complain("unit " + std::to_string(m_number + 1) + " refuses " + call);
}

Service SoakUnit::service(std::size_t index) const
{
    return service(index, m_generation);
}

Service SoakUnit::service(std::size_t index, unsigned generation) const
{
    const std::size_t firstPort = generation % 2 == 0 ? 8000 : 9000;
    return {serviceName(m_number, index), m_address, static_cast<unsigned short>(firstPort + index)};
}

}  // namespace Nubo::ServiceDiscovery::Testing
