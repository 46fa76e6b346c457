// How long it takes from addService() on one unit to ServiceListChanged on another, over a veth pair.
//
// usage: tests/support/in-namespace.sh build-bench/bin/discovery_benchmark [SERVICES]

#include "ServiceDiscovery.h"
#include "support/Namespace.h"
#include "support/Platform.h"
#include "support/Registry.h"

#include <KELUtilLib/Logging.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Nubo::ServiceDiscovery;
using namespace Nubo::ServiceDiscovery::Testing;

namespace {

using Clock = std::chrono::steady_clock;

/// A unit in its namespace, with one interface.
class Unit
{
public:
    Unit(const Namespace& home, const std::string& interface, const std::string& address)
    {
        const InNamespace inside(home);
        m_platform.dispatcher().addInterface(interface, address);
        discovery = std::make_unique<ServiceDiscovery>();
        registry = std::make_unique<Registry>(*discovery);
        discovery->startup(Poco::Net::IPAddress(address));
    }

private:
    PlatformScope m_platform;

public:
    std::unique_ptr<ServiceDiscovery> discovery;
    std::unique_ptr<Registry> registry;
};

NuboServiceDescription describe(int number)
{
    NuboServiceDescription description;
    description.setName("Service" + std::to_string(number));
    description.addVersion("1.0.0");
    description.setIpAddress(Poco::Net::IPAddress("fd00::1"));
    description.setPort(8080);
    description.setLocalUuid("uuid-" + std::to_string(number));
    return description;
}

}  // namespace

int main(int argc, char** argv)
{
    const int services = argc > 1 ? std::stoi(argv[1]) : 500;
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_ERROR);
    const Namespace one("one");
    const Namespace two("two");
    connect(one, "eth0", two, "eth0");
    one.addAddress("eth0", "fd00::1/64");
    two.addAddress("eth0", "fd00::2/64");
    Unit announcing(one, "eth0", "fd00::1");
    Unit learning(two, "eth0", "fd00::2");

    std::mutex mutex;
    std::condition_variable discovered;
    Clock::time_point arrival;
    bool arrived = false;
    learning.registry->onEvent = [&](auto& payload) {
        if (payload.getEventType() != ServiceDiscovery::EventType::SERVICE_DISCOVERED)
            return;
        const std::lock_guard<std::mutex> lock(mutex);
        arrival = Clock::now();
        arrived = true;
        discovered.notify_one();
    };

    std::vector<double> milliseconds;
    for (int number = 0; number < services; ++number) {
        const NuboServiceDescription description = describe(number);
        std::unique_lock<std::mutex> lock(mutex);
        arrived = false;
        lock.unlock();
        const Clock::time_point start = Clock::now();
        announcing.discovery->addService(description);
        lock.lock();
        if (!discovered.wait_for(lock, std::chrono::seconds(5), [&] { return arrived; })) {
            std::printf("service %d was not discovered\n", number);
            return 1;
        }
        milliseconds.push_back(std::chrono::duration<double, std::milli>(arrival - start).count());
        lock.unlock();
        announcing.discovery->removeService(description.getLocalUuid());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // so that each finds an idle unit
    }

    std::sort(milliseconds.begin(), milliseconds.end());
    const auto percentile = [&](double share) {
        return milliseconds[static_cast<std::size_t>(share * static_cast<double>(milliseconds.size() - 1))];
    };
    std::printf("addService to ServiceListChanged, %d services one after the other, in ms:\n", services);
    std::printf("least %.3f  median %.3f  99th percentile %.3f  most %.3f\n", percentile(0), percentile(0.5),
                percentile(0.99), percentile(1));
    return 0;
}
