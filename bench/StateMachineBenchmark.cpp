// Measures the time of the state machine per event, for increasing numbers of known services.

#include "DataLayer/SDClock.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "LogicLayer/SDStateMachine.h"
#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/Platform.h"

#include <KELUtilLib/Logging.h>

#include <Poco/Delegate.h>

#include <chrono>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace Nubo::ServiceDiscovery {

namespace {

using Event = SDStateMachine::ExternalEvent;

/// A hub that sends nothing.
class SilentHub : public SDCommunicationHub
{
public:
    using SDCommunicationHub::SDCommunicationHub;
    void announce(const SDService::Ptr&) override {}
    void announce(const std::vector<SDService::Ptr>&) override {}
};

/// A state machine without timers.
class Machine : public SDStateMachine
{
public:
    using SDStateMachine::SDStateMachine;

    void tick() { m_periodicWorker.onInterval(m_timer); }
    void dropAnswers()
    {
        while (!m_aperiodicWorkload.empty())
            unsafe_removeAperiodicService(m_aperiodicWorkload.begin()->second);
    }
    std::size_t known() const { return m_periodicWorkload.size(); }

private:
    Poco::Timer m_timer;
};

/// An offer received from another unit.
struct Offer
{
    explicit Offer(const std::string& name, unsigned ttl = 120)
        : entry(fields(ttl), 0)
        , ipv6(OptionType::IP6_ENDPOINT, "fd00::2", 8080, OptionL4Protocol::TCP)
        , configuration(ConfigurationPairs{{"otherserv", name}, {"version", "1.0.0"}})
    {}

    static SOME_IP_SD_Entry::CommonFields fields(unsigned ttl)
    {
        SOME_IP_SD_Entry::CommonFields fields;
        fields.type = EntryType::OFFER_SERVICE;
        fields.serviceID = SOME_IP_SD_Types::EntryValues::ServiceID_Non_SOMEIP_SD;
        fields.instanceID = 1;
        fields.ttl = ttl;
        return fields;
    }

    SOME_IP_SD_Entry_Service entry;
    SOME_IP_SD_Option_IPv6 ipv6;
    SOME_IP_SD_Option_Configuration configuration;
};

using Offers = std::deque<Offer>;

struct Scene
{
    explicit Scene(std::size_t services)
    {
        Logging::Log::Logger().setLevel(Poco::Message::PRIO_FATAL);
        facade.ServiceListChanged += Poco::delegate(this, &Scene::onServiceListChanged);
        for (std::size_t i = 0; i < services; ++i)
            receive(Offer(nameOf(i)));
    }
    ~Scene() { facade.ServiceListChanged -= Poco::delegate(this, &Scene::onServiceListChanged); }

    static std::string nameOf(std::size_t number) { return "Service" + std::to_string(number); }

    bool handle(Event::WorkloadEvent_t type, const SDService::Ptr& record, const std::string& uuid = "")
    {
        Event event(type, record, uuid);
        return machine.onExternalEvent(event);
    }

    /// Handles an offer the way the hub does.
    void receive(const Offer& offer)
    {
        SDService::Ptr service = SDService::instanceOf(offer.entry, offer.ipv6, offer.configuration);
        if (service->getTTL() == 0) {
            handle(Event::SOMEIP_STOPOFFER, service);
        }
        else if (!machine.renew(*service)) {
            service->complete(offer.configuration);
            handle(Event::SOMEIP_OFFER, service);
        }
    }

    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        if (payload.getEventType() == ServiceDiscovery::ServiceListEventPayload::SERVICE_DISCOVERED)
            payload.setLocalUuid("uuid-" + std::to_string(++uuids));
    }

    Testing::PlatformScope platform;
    ServiceDiscovery facade;
    SilentHub hub{facade};
    Machine machine{hub};
    std::size_t uuids = 0;
};

/// Handles a batch of events. The time per event includes what `handle` does to create its record.
template <class Handle>
void measure(benchmark::State& state, std::size_t events, Handle handle)
{
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < events; ++i)
        handle(i);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(time.count() / static_cast<double>(events));
}

constexpr std::size_t batch = 500;

/// The order in which known services are accessed.
enum class Order
{
    AsDiscovered,  ///< the order in which a unit repeats its offers every second
    Random
};

/// Produces the numbers of known services in the given order.
class Numbers
{
public:
    Numbers(std::size_t known, Order order) : m_known(known), m_order(order) {}

    std::size_t next()
    {
        m_last = m_order == Order::AsDiscovered ? m_last + 1 : m_random();
        return m_last % m_known;
    }

private:
    const std::size_t m_known;
    const Order m_order;
    std::minstd_rand m_random{1};  // NOLINT(cert-msc32-c,cert-msc51-cpp) all runs use the same numbers
    std::size_t m_last = 0;
};

Offers offersOfUnknown(unsigned ttl = 120)
{
    Offers offers;
    for (std::size_t i = 0; i < batch; ++i)
        offers.emplace_back("New" + std::to_string(i), ttl);
    return offers;
}

template <Order order>
void repeatedOffer(benchmark::State& state)
{
    const auto known = static_cast<std::size_t>(state.range(0));
    Scene scene(known);
    Numbers numbers(known, order);
    for (auto _ : state) {
        Offers offers;
        for (std::size_t i = 0; i < batch; ++i)
            offers.emplace_back(Scene::nameOf(numbers.next()));
        measure(state, batch, [&](std::size_t i) { scene.receive(offers[i]); });
    }
}

void newOffer(benchmark::State& state)
{
    Scene scene(static_cast<std::size_t>(state.range(0)));
    const Offers offers = offersOfUnknown();
    const Offers stopOffers = offersOfUnknown(0);
    for (auto _ : state) {
        measure(state, batch, [&](std::size_t i) { scene.receive(offers[i]); });
        for (const Offer& stopOffer : stopOffers)
            scene.receive(stopOffer);
    }
}

void stopOffer(benchmark::State& state)
{
    Scene scene(static_cast<std::size_t>(state.range(0)));
    const Offers offers = offersOfUnknown();
    const Offers stopOffers = offersOfUnknown(0);
    for (auto _ : state) {
        for (const Offer& offer : offers)
            scene.receive(offer);
        measure(state, batch, [&](std::size_t i) { scene.receive(stopOffers[i]); });
    }
}

void findOfUnknown(benchmark::State& state)
{
    Scene scene(static_cast<std::size_t>(state.range(0)));
    const std::string name = "Unknown";
    for (auto _ : state)
        measure(state, batch, [&](std::size_t) { scene.handle(Event::SOMEIP_FIND, new SDService(name)); });
}

/// Finds a service of this unit. At most 16 answers may wait, so each batch has 16 events.
void findOfAnnounced(benchmark::State& state)
{
    Scene scene(static_cast<std::size_t>(state.range(0)));
    const SDService::Ptr own =
        Testing::makeRecord(SDService::Type::ANNOUNCED, SDService::State::MAIN_PHASE, "Own");
    scene.machine.unsafe_addPeriodicService(own);
    constexpr std::size_t answers = 16;
    for (auto _ : state) {
        measure(state, answers, [&](std::size_t) { scene.handle(Event::SOMEIP_FIND, new SDService("Own")); });
        scene.machine.dropAnswers();
    }
}

/// Looks up a discovered service by its identifier. HTTP_DELETE finds it but does not remove it.
template <Order order>
void lookUpByUuid(benchmark::State& state)
{
    const auto known = static_cast<std::size_t>(state.range(0));
    Scene scene(known);
    Numbers numbers(known, order);
    for (auto _ : state)
        measure(state, batch, [&](std::size_t) {
            scene.handle(Event::HTTP_DELETE, nullptr, "uuid-" + std::to_string(numbers.next() + 1));
        });
}

SDService::Ptr expired(const std::string& name)
{
    const Offer offer(name);
    SDService::Ptr record = new SDService(offer.entry, offer.ipv6, offer.configuration);
    record->setTTL(0);
    return record;
}

/// Measures a tick in which all services expire, per service.
void expiry(benchmark::State& state)
{
    const auto known = static_cast<std::size_t>(state.range(0));
    Scene scene(0);
    for (auto _ : state) {
        for (std::size_t i = 0; i < known; ++i)
            scene.handle(Event::SOMEIP_OFFER, expired(Scene::nameOf(i)));
        const auto start = std::chrono::steady_clock::now();
        scene.machine.tick();
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        if (scene.machine.known() != 0)
            state.SkipWithError("not all have expired");
        state.SetIterationTime(time.count() / static_cast<double>(known));
    }
}

/// Measures a tick in which nothing happens, per service.
void quietTick(benchmark::State& state)
{
    const auto known = static_cast<std::size_t>(state.range(0));
    Scene scene(known);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        scene.machine.tick();
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(time.count() / static_cast<double>(known));
    }
}

void sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->RangeMultiplier(10)
        ->Range(10, 100000)
        ->UseManualTime()
        ->Iterations(10)
        ->Repetitions(5)
        ->ReportAggregatesOnly();
}

BENCHMARK_TEMPLATE(repeatedOffer, Order::AsDiscovered)->Apply(sizes);
BENCHMARK_TEMPLATE(repeatedOffer, Order::Random)->Apply(sizes);
BENCHMARK(newOffer)->Apply(sizes);
BENCHMARK(stopOffer)->Apply(sizes);
BENCHMARK(findOfUnknown)->Apply(sizes);
BENCHMARK(findOfAnnounced)->Apply(sizes);
BENCHMARK_TEMPLATE(lookUpByUuid, Order::AsDiscovered)->Apply(sizes);
BENCHMARK_TEMPLATE(lookUpByUuid, Order::Random)->Apply(sizes);
BENCHMARK(expiry)->Apply(sizes);
BENCHMARK(quietTick)->Apply(sizes);

}  // namespace

}  // namespace Nubo::ServiceDiscovery

BENCHMARK_MAIN();
