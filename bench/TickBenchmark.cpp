// Measures the processor time for announcing all services of a unit at once, as a unit does every second:
// once discarding the datagrams, and once sending them on real sockets.
//
// usage: tests/support/in-namespace.sh build-bench/bin/tick_benchmark

#include "Allocations.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/Namespace.h"
#include "support/Platform.h"

#include <KELUtilLib/Logging.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <time.h>

namespace Nubo::ServiceDiscovery {

namespace {

using namespace Testing;

double processorTime()
{
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// A hub with the given number of interfaces. Nobody listens at the other ends.
struct Scene
{
    explicit Scene(int interfaces)
    {
        Logging::Log::Logger().setLevel(Poco::Message::PRIO_FATAL);
        for (int i = 0; i < interfaces; ++i) {
            const std::string name = "eth" + std::to_string(i);
            const std::string address = "fd0" + std::to_string(i) + "::1";
            connect(network, name, others, name);
            network.addAddress(name, address + "/64");
            platform.dispatcher().addInterface(name, address);
        }
        hub = std::make_unique<SDCommunicationHub>(facade);
        hub->start(Poco::Net::IPAddress("fd00::1"));
    }
    ~Scene() { hub->stop(); }

    Namespace network{"ticking"};
    Namespace others{"others"};
    InNamespace inside{network};
    PlatformScope platform;
    ServiceDiscovery facade;
    std::unique_ptr<SDCommunicationHub> hub;
};

void tick(benchmark::State& state)
{
    Scene scene(static_cast<int>(state.range(0)));
    std::vector<SDService::Ptr> services;
    for (int i = 0; i < state.range(1); ++i) {
        const std::string name = "Service" + std::to_string(i);
        services.push_back(makeRecord(SDService::Type::ANNOUNCED, SDService::State::MAIN_PHASE, name));
    }
    scene.hub->announce(services);

    const std::uint64_t before = allocations();
    for (auto _ : state) {
        const double start = processorTime();
        scene.hub->announce(services);
        state.SetIterationTime(processorTime() - start);
    }
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["allocations"] = static_cast<double>(allocations() - before) / iterations;
    state.counters["interfaces"] = static_cast<double>(state.range(0));
    state.counters["services"] = static_cast<double>(state.range(1));
}

/// Interfaces by services. Without an interface the datagrams are built and discarded.
BENCHMARK(tick)
    ->ArgsProduct({{0, 1, 2, 8}, {10, 100, 1000, 10000}})
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace Nubo::ServiceDiscovery

BENCHMARK_MAIN();
