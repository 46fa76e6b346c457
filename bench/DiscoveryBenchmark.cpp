// Measures the time until other units know the services that one unit adds or removes, on real networks of
// network namespaces.
//
// usage: tests/support/in-namespace.sh build-bench/bin/discovery_benchmark [SERVICES]
//
// SERVICES is the number of services added one after the other (default: 300).

#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/Namespace.h"
#include "support/Platform.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Delegate.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Nubo::ServiceDiscovery;
using namespace Nubo::ServiceDiscovery::Testing;

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::chrono::seconds patience{30};

/// A unit on the interface "eth0" of its namespace, with a registry that counts.
class Unit
{
public:
    Unit(const Namespace& home, std::string address) : m_address(std::move(address))
    {
        const InNamespace inside(home);
        m_platform.dispatcher().addInterface("eth0", m_address);
        m_discovery = std::make_unique<ServiceDiscovery>();
        m_discovery->ServiceListChanged += Poco::delegate(this, &Unit::onServiceListChanged);
        if (!m_discovery->startup(Poco::Net::IPAddress(m_address)))
            throw std::runtime_error("a unit does not start");
    }
    ~Unit() { m_discovery->ServiceListChanged -= Poco::delegate(this, &Unit::onServiceListChanged); }

    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    void add(int number)
    {
        const std::string text = std::to_string(number);
        m_discovery->addService(describe("Service" + text, m_address, 8080, "own-" + text));
    }
    void add(int first, int count)
    {
        for (int i = 0; i < count; ++i)
            add(first + i);
    }
    void remove(int number) { m_discovery->removeService("own-" + std::to_string(number)); }

    /// Waits until the unit knows `count` services. Returns the time of its last change.
    Clock::time_point knows(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_changed.wait_for(lock, patience, [&] { return m_known == count; }))
            throw std::runtime_error("knows " + std::to_string(m_known) + " services, not " +
                                     std::to_string(count));
        return m_lastChange;
    }

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool isGone = payload.getEventType() == ServiceDiscovery::ServiceListEventPayload::SERVICE_GONE;
        m_known += isGone ? -1 : 1;
        if (!isGone)
            payload.setLocalUuid("remote-" + std::to_string(++m_lastUuid));
        m_lastChange = Clock::now();
        m_changed.notify_all();
    }

    const std::string m_address;
    PlatformScope m_platform;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Clock::time_point m_lastChange;
    int m_known = 0;
    int m_lastUuid = 0;
    std::unique_ptr<ServiceDiscovery> m_discovery;
};

/// Two connected namespaces with one address each.
struct Pair : NetworkPair
{
    Pair() { link("eth0", "fd00::1", "fd00::2"); }
};

void print(const std::string& what, Milliseconds time)
{
    std::printf("%-52s %9.1f ms\n", what.c_str(), time.count());
}

void oneAfterTheOther(int services)
{
    const Pair network;
    Unit announcing(network.here, "fd00::1");
    Unit learning(network.there, "fd00::2");
    std::vector<double> times;
    for (int number = 0; number < services; ++number) {
        const Clock::time_point start = Clock::now();
        announcing.add(number);
        times.push_back(Milliseconds(learning.knows(number + 1) - start).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // the unit must be idle for the next one
    }
    std::sort(times.begin(), times.end());
    const auto percentile = [&](double share) {
        return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
    };
    std::printf("one after the other, %d: least %.3f  median %.3f  99th percentile %.3f  most %.3f ms\n",
                services, percentile(0), percentile(0.5), percentile(0.99), percentile(1));
}

void atOnce(int services)
{
    const std::string count = std::to_string(services);
    const Pair network;
    Unit announcing(network.here, "fd00::1");
    Unit learning(network.there, "fd00::2");

    const Clock::time_point start = Clock::now();
    announcing.add(0, services);
    const Milliseconds adding = Clock::now() - start;
    print(count + " at once, until the last call returns", adding);
    print(count + " at once, until all are known", learning.knows(services) - start);
}

void lateJoiner(int services)
{
    const std::string count = std::to_string(services);
    const Pair network;
    Unit announcing(network.here, "fd00::1");
    announcing.add(0, services);
    std::this_thread::sleep_for(
        std::chrono::milliseconds(1000 + 4 * services));  // all are in their main phase

    const Clock::time_point start = Clock::now();
    Unit late(network.there, "fd00::2");
    print("a unit that joins late knows all " + count, late.knows(services) - start);

    const Clock::time_point removal = Clock::now();
    for (int number = 0; number < services; ++number)
        announcing.remove(number);
    print("all " + count + " are removed, and gone", late.knows(0) - removal);
}

void manyUnits(int units, int services)
{
    Segment segment;
    std::deque<Namespace> homes;
    std::deque<Unit> running;
    for (int i = 1; i <= units; ++i) {
        const std::string address = "fd00::" + std::to_string(i);
        segment.plug(homes.emplace_back("unit" + std::to_string(i)), "eth0");
        homes.back().addAddress("eth0", address + "/64");
        running.emplace_back(homes.back(), address);
    }
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < units; ++i)
        running[static_cast<std::size_t>(i)].add(i * services, services);
    Clock::time_point last = start;
    for (Unit& unit : running)
        last = std::max(last, unit.knows((units - 1) * services));
    print(std::to_string(units) + " units with " + std::to_string(services) + " each, until each knows all",
          last - start);
}

}  // namespace

int main(int argc, char** argv)
{
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_FATAL);
    try {
        oneAfterTheOther(argc > 1 ? std::stoi(argv[1]) : 300);
        for (const int services : {100, 1000})
            atOnce(services);
        for (const int services : {100, 1000})
            lateJoiner(services);
        manyUnits(8, 25);
    }
    catch (const std::exception& exception) {
        std::printf("%s\n", exception.what());
        return 1;
    }
    return 0;
}
