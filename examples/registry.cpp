// A registry: keeps the services of the other units, and answers ServiceListChanged promptly. The library
// waits while the event is delivered, so the subscriber only notes what it is told; what takes time is done
// by a thread of the registry's own.
//
//     bin/example-registry ADDRESS SECONDS     (this unit's IPv6 address; it ends after so long without news)
//
// and on another unit: nubo-sd announce Media --port 8080 --version 1.2.0

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/Delegate.h>
#include <Poco/Event.h>

#include <iostream>
#include <map>
#include <mutex>

#include <ServiceDiscovery.h>

using namespace Nubo::ServiceDiscovery;

class Registry
{
public:
    /// Runs on a thread of the library.
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_DISCOVERED) {
            payload.setLocalUuid("service-" + std::to_string(++m_lastNumber));
            m_services[payload.getLocalUuid()] = *payload.getServiceDescription();
        }
        else {
            m_services.erase(payload.getLocalUuid());
        }
        changed.set();
    }

    std::map<std::string, NuboServiceDescription> services() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_services;
    }

    Poco::Event changed;

private:
    mutable std::mutex m_mutex;
    std::map<std::string, NuboServiceDescription> m_services;  // by the registry's own identifier
    unsigned m_lastNumber = 0;
};

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: example-registry ADDRESS SECONDS" << std::endl;
        return 2;
    }
    ApplicationServices::getLocator().add(
        typeid(OEMInterface::OEMDispatcher),
        Poco::SharedPtr<OEMInterface::OEMDispatcher>(new OEMInterface::NetlinkDispatcher));
    Registry registry;
    ServiceDiscovery discovery;
    discovery.ServiceListChanged += Poco::delegate(&registry, &Registry::onServiceListChanged);
    if (!discovery.startup(Poco::Net::IPAddress(argv[1])))
        return 1;
    while (registry.changed.tryWait(std::stol(argv[2]) * 1000)) {
        std::cout << "services known:" << std::endl;
        for (const auto& [uuid, service] : registry.services())
            std::cout << "  " << uuid << "  " << service.getUri() << std::endl;
    }
    discovery.shutdown();
    discovery.ServiceListChanged -= Poco::delegate(&registry, &Registry::onServiceListChanged);
    return 0;
}
