// A registry: keeps the services of the other units, and answers ServiceListChanged promptly. The library
// waits while the event is delivered, so the subscriber only stores what it is told and returns; what takes
// time, here the printing, is done by a thread of the registry's own.
//
//     bin/example-registry ADDRESS SECONDS     (this unit's IPv6 address; how long to run)
//
// and on another unit: nubo-sd announce Media --port 8080 --version 1.2.0

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/Delegate.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <iostream>
#include <map>
#include <mutex>

#include <ServiceDiscovery.h>

using namespace Nubo::ServiceDiscovery;

class Registry
{
public:
    using Payload = ServiceDiscovery::ServiceListEventPayload;

    /// Runs on a thread of the library.
    void onServiceListChanged(Payload& payload)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (payload.getEventType() == Payload::SERVICE_DISCOVERED) {
            payload.setLocalUuid("service-" + std::to_string(++m_lastNumber));
            m_services[payload.getLocalUuid()] = *payload.getServiceDescription();
            m_news.push_back(payload.getLocalUuid() +
                             " is there: " + payload.getServiceDescription()->getUri());
        }
        else {
            m_services.erase(payload.getLocalUuid());
            m_news.push_back(payload.getLocalUuid() + " is gone");
        }
        m_changed.notify_one();
    }

    /// Works off the news as they come.
    void workUntil(std::chrono::steady_clock::time_point end)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_changed.wait_until(lock, end, [this] { return !m_news.empty(); })) {
            std::deque<std::string> news;
            news.swap(m_news);
            const std::size_t count = m_services.size();
            lock.unlock();  // from here on the library need not wait
            for (const std::string& text : news)
                std::cout << text << '\n';
            std::cout << "services known: " << count << std::endl;
            lock.lock();
        }
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, NuboServiceDescription> m_services;
    std::deque<std::string> m_news;
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
    registry.workUntil(std::chrono::steady_clock::now() + std::chrono::seconds(std::stoi(argv[2])));
    discovery.shutdown();
    discovery.ServiceListChanged -= Poco::delegate(&registry, &Registry::onServiceListChanged);
    return 0;
}
