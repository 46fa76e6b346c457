// A gateway that offers the services of another network namespace ("beyond") in this one ("here"), with their
// original endpoints. A subscriber must not call any engine: two engines whose subscribers called each other
// would deadlock. The subscriber therefore only fills a queue, which the main thread empties.
//
//     bin/example-gateway ADDRESS NAMESPACE ADDRESS-BEYOND SECONDS
//
// Run it as root. ADDRESS is this unit's IPv6 address; NAMESPACE is a namespace listed by "ip netns" that has
// the address ADDRESS-BEYOND. The gateway exits after SECONDS without a change.

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/AutoPtr.h>
#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>

#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <ServiceDiscovery.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

using namespace Nubo::ServiceDiscovery;

/// A service that was discovered or is gone beyond.
struct Change : Poco::Notification
{
    Change(bool hasCome, NuboServiceDescription which) : isThere(hasCome), service(std::move(which)) {}

    const bool isThere;
    const NuboServiceDescription service;
};

class Handover
{
public:
    /// Runs on a thread of the library, so it only queues the change.
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        const bool isThere = payload.getEventType() == ServiceDiscovery::EventType::SERVICE_DISCOVERED;
        if (isThere)
            payload.setLocalUuid("beyond-" + std::to_string(++m_lastNumber));
        NuboServiceDescription service = *payload.getServiceDescription();
        service.setLocalUuid(payload.getLocalUuid());
        queue.enqueueNotification(new Change(isThere, std::move(service)));
    }

    Poco::NotificationQueue queue;

private:
    unsigned m_lastNumber = 0;
};

std::unique_ptr<ServiceDiscovery> makeEngine()
{
    ApplicationServices::getLocator().add(
        typeid(OEMInterface::OEMDispatcher),
        Poco::SharedPtr<OEMInterface::OEMDispatcher>(new OEMInterface::NetlinkDispatcher));
    return std::make_unique<ServiceDiscovery>();
}

/// Creates an engine in the namespace. A thread that has entered the namespace creates all its threads and
/// sockets.
std::unique_ptr<ServiceDiscovery> startBeyond(const std::string& name, const std::string& address,
                                              Handover& handover)
{
    std::unique_ptr<ServiceDiscovery> engine;
    std::thread([&] {
        const int file = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        const bool isThere = file >= 0 && ::setns(file, CLONE_NEWNET) == 0;
        if (file >= 0)
            ::close(file);
        if (!isThere)
            return;
        engine = makeEngine();
        engine->ServiceListChanged += Poco::delegate(&handover, &Handover::onServiceListChanged);
        if (!engine->startup(Poco::Net::IPAddress(address)))
            engine.reset();
    }).join();
    return engine;
}

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::cerr << "usage: example-gateway ADDRESS NAMESPACE ADDRESS-BEYOND SECONDS" << std::endl;
        return 2;
    }
    Handover handover;
    const auto here = makeEngine();
    const auto beyond = startBeyond(argv[2], argv[3], handover);
    if (!beyond || !here->startup(Poco::Net::IPAddress(argv[1])))
        return 1;
    const long patience = std::stol(argv[4]) * 1000;
    while (const Poco::AutoPtr<Poco::Notification> next{handover.queue.waitDequeueNotification(patience)}) {
        const auto* const change = dynamic_cast<const Change*>(next.get());
        if (!change)
            continue;
        const std::string& uuid = change->service.getLocalUuid();
        const bool isDone = change->isThere ? here->addService(change->service) : here->removeService(uuid);
        std::cout << (change->isThere ? "offered here: " : "withdrawn here: ") << change->service.getName()
                  << (isDone ? "" : " (refused)") << std::endl;
    }
    here->shutdown();
    beyond->shutdown();
    beyond->ServiceListChanged -= Poco::delegate(&handover, &Handover::onServiceListChanged);
    return 0;
}
