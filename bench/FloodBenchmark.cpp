// Measures a unit during a flood of datagrams: the delay of its announcements, the time until it discovers
// others again, and the memory and processor time that it uses.
//
// usage: tests/support/in-namespace.sh build-bench/bin/flood_benchmark [SECONDS [FLOOD]]

#include "LogicLayer/SDCommunicationHub.h"
#include "support/FloodScene.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using namespace Nubo::ServiceDiscovery;
using namespace Nubo::ServiceDiscovery::Testing;

namespace {

using LogTo = FloodScene::LogTo;
using std::chrono::seconds;

constexpr std::size_t services = 10000;
constexpr std::size_t perSecond = 20000;

struct Scenario
{
    std::string name;
    std::function<FloodPlan(const FloodScene&, seconds)> plan;
    std::size_t standing = 20;
    LogTo log = LogTo::Nowhere;
};

const auto garbagePlan = [](const FloodScene&, seconds length) {
    return FloodPlan{garbage(700), perSecond, length};
};

const std::vector<Scenario> scenarios{
    {"garbage", garbagePlan},
    {"garbage-logged-to-file", garbagePlan, 20, LogTo::File},
    {"offers-of-services",
     [](const FloodScene&, seconds length) {
         return FloodPlan{offersOfServices(services), perSecond, length};
     }},
    {"offers-of-instances",
     [](const FloodScene&, seconds length) {
         return FloodPlan{offersOfInstances(services), perSecond, length};
     }},
    {"large-datagrams",
     [](const FloodScene&, seconds length) {
         return FloodPlan{{largeDatagram()}, perSecond / 10, length / 3};
     }},
    {"searches-for-one",
     [](const FloodScene& scene, seconds length) {
         return FloodPlan{searchesFor({scene.standing().front()}), perSecond / 2, length / 3};
     }},
    {"searches-for-hundred",
     [](const FloodScene& scene, seconds length) {
         return FloodPlan{searchesFor(scene.standing()), perSecond / 2, length / 3};
     },
     100},
};

double megabytes(std::size_t bytes)
{
    return static_cast<double>(bytes) / 1e6;
}

void printRow(const std::string& what, double value, const char* unit,
              std::optional<double> goal = std::nullopt)
{
    std::printf("  %-42s %8.1f %-2s", what.c_str(), value, unit);
    if (goal)
        std::printf("   goal %7.1f  %s", *goal, value <= *goal ? "met" : "MISSED");
    std::printf("\n");
}

void print(const FloodReport& report)
{
    std::printf(
        "  %zu datagrams in %.1f s; dropped by the kernel %zu, by the unit %zu in %zu warnings; "
        "%zu other complaints\n",
        report.sent, report.length / seconds(1), report.droppedByKernel, report.droppedByUnit,
        report.dropWarnings, report.otherComplaints);
    std::printf(
        "  %zu services discovered, %zu offers of standing services heard, %zu of %zu added services "
        "announced\n",
        report.discovered, report.offers, report.announced, report.added);
    printRow("longest gap between two offers", report.longestGap.count(), "ms", 1250);
    printRow("latest first offer of an added service", report.latestFirstOffer.count(), "ms", 250);
    printRow("longest addService", report.longestCall.count(), "ms");
    printRow("neighbour discovered after the flood", report.recovery.count(), "ms", 2000);

    constexpr std::size_t waitingDatagram = 512;  // bytes, in addition to its contents
    constexpr std::size_t discoveredService = 3000;
    printRow("memory before", megabytes(report.memoryBefore), "MB");
    printRow("memory at most, beyond that", megabytes(report.memoryAtMost - report.memoryBefore), "MB",
             megabytes(SDCommunicationHub::largestQueue + SDCommunicationHub::longestQueue * waitingDatagram +
                       report.discovered * discoveredService));
    for (const auto& [thread, time] : report.processorTime) {
        if (thread.rfind("Sd", 0) == 0)
            printRow("processor, " + thread, 100 * time / report.length, "%");
    }
}

bool run(const Scenario& scenario, seconds length)
{
    try {
        FloodScene scene(scenario.standing, scenario.log);
        const FloodPlan plan = scenario.plan(scene, length);
        print(scene.endure(plan));
        return true;
    }
    catch (const std::exception& exception) {
        std::printf("  %s\n", exception.what());
        return false;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const seconds length(argc > 1 ? std::stoi(argv[1]) : 30);
    bool isGood = true;
    for (const Scenario& scenario : scenarios) {
        if (argc > 2 && scenario.name != argv[2])
            continue;
        std::printf("%s\n", scenario.name.c_str());
        static_cast<void>(std::fflush(stdout));
        // A separate process, so that its memory and threads belong to only one unit.
        const pid_t child = ::fork();
        if (child == 0)
            return run(scenario, length) ? 0 : 1;
        int status = 1;
        isGood = ::waitpid(child, &status, 0) == child && status == 0 && isGood;
    }
    return isGood ? 0 : 1;
}
