// Measures the share of services known at given times after they were added, on a network that loses
// datagrams.
//
// usage: tests/support/in-namespace.sh build-bench/bin/lossy_benchmark [ROUNDS]
//
// A round adds 100 services at intervals of 10 ms. Each of their first four offers has a datagram to itself,
// so losses are independent. After that all services are offered once per second, up to eight in a datagram,
// and those in one datagram are lost together. The shares from 1700 ms on therefore vary more than earlier
// ones.

#include "support/Descriptions.h"
#include "support/DiscoveryStopwatch.h"
#include "support/LossyLink.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <KELUtilLib/Logging.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace Nubo::ServiceDiscovery::Testing;

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int percentages[] = {0, 10, 30, 50};
constexpr int servicesInRound = 100;
constexpr std::chrono::milliseconds pauseBetweenServices{10};

/// Time for sending and receiving an offer after it is due, in milliseconds.
constexpr double grace = 30;

/// Times by which offers are certainly due, in milliseconds. The first offer of those sent once per second
/// follows the fourth offer within 1 s.
constexpr int dueTimes[] = {0, 100, 300, 700, 1700, 2700};

/// Adds services, waits until they are known, and removes them. Returns the milliseconds that each one took,
/// or nothing if some are not known within a minute.
std::vector<double> measureRound(int round, TestUnit& announcing, TestUnit& learning)
{
    DiscoveryStopwatch stopwatch(learning.discovery());
    std::vector<std::string> names;
    for (int i = 0; i < servicesInRound; ++i) {
        names.push_back("Service" + std::to_string(round * servicesInRound + i));
        stopwatch.start(names.back());
        announcing.discovery().addService(describe(names.back(), "fd00::1", 8080, names.back()));
        std::this_thread::sleep_for(pauseBetweenServices);
    }
    const bool areAllKnown =
        eventually([&] { return stopwatch.stopped() == names.size(); }, std::chrono::minutes(1));

    std::vector<double> milliseconds;
    for (const std::string& name : names) {
        if (areAllKnown)
            milliseconds.push_back(Milliseconds(stopwatch.time(name)).count());
        announcing.discovery().removeService(name);
    }
    std::this_thread::sleep_for(std::chrono::seconds(4));  // for the three stop-offers
    return milliseconds;
}

std::vector<double> measure(int percent, int rounds)
{
    TestUnit announcing("one");
    TestUnit learning("two");
    LossyLink link(announcing.network(), "eth0", learning.network(), "eth0",
                   static_cast<std::uint32_t>(percent));
    announcing.network().addAddress("eth0", "fd00::1/64");
    learning.network().addAddress("eth0", "fd00::2/64");
    announcing.addInterface("eth0", "fd00::1");
    learning.addInterface("eth0", "fd00::2");
    announcing.startup("fd00::1");
    learning.startup("fd00::2");
    link.lose(percent / 100.0);

    std::vector<double> milliseconds;
    for (int round = 0; round < rounds; ++round) {
        const std::vector<double> results = measureRound(round, announcing, learning);
        milliseconds.insert(milliseconds.end(), results.begin(), results.end());
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    return milliseconds;
}

void print(int percent, const std::vector<double>& milliseconds)
{
    std::printf("%3d %%  %8zu", percent, milliseconds.size());
    double unheard = 100;
    for (const int due : dueTimes) {
        unheard *= percent / 100.0;
        const auto end = std::upper_bound(milliseconds.begin(), milliseconds.end(), due + grace);
        const auto known = static_cast<double>(end - milliseconds.begin());
        std::printf("  %5.1f /%5.1f", 100 * known / static_cast<double>(milliseconds.size()), 100 - unheard);
    }
    std::printf("  %6.0f  %6.0f\n", milliseconds.at(milliseconds.size() / 2), milliseconds.back());
}

}  // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::stoi(argv[1]) : 5;
    Logging::Log::Logger().setLevel(0);
    ::setlinebuf(stdout);
    std::printf("Share of services known that long after they were added, in %%, measured / computed; ms\n");
    std::printf(" loss  services");
    for (const int due : dueTimes)
        std::printf("  %9d ms", due);
    std::printf("  median   worst\n");
    for (const int percent : percentages) {
        const std::vector<double> milliseconds = measure(percent, rounds);
        if (milliseconds.size() != static_cast<std::size_t>(rounds) * servicesInRound) {
            std::printf("not all were discovered within a minute\n");
            return 1;
        }
        print(percent, milliseconds);
    }
    return 0;
}
