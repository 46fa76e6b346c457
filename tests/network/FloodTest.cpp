#include "LogicLayer/SDCommunicationHub.h"
#include "support/FloodScene.h"
#include "support/Process.h"

#include <chrono>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

// An optimised build must keep what the library promises; other builds are slower. The benchmark runs the
// same floods for longer.
#if defined(NDEBUG)
constexpr bool isFast = !isSanitized;
#else
constexpr bool isFast = false;
#endif
constexpr std::size_t perSecond = isFast ? 20000 : 4000;
constexpr std::size_t services = isFast ? 10000 : 2000;
constexpr Milliseconds lateness{isFast ? 250 : 3000};
constexpr Milliseconds recovery{isFast ? 2000 : 15000};

constexpr std::chrono::seconds length{3};
constexpr Milliseconds cycle{1000};

/// Memory that the unit may need in addition, in bytes.
std::size_t mostMemory(std::size_t discovered)
{
    constexpr std::size_t waitingDatagram = 512;  // in addition to its bytes
    constexpr std::size_t discoveredService = 3000;
    constexpr std::size_t ownServices = 1024 * 1024;
    return SDCommunicationHub::largestQueue + SDCommunicationHub::longestQueue * waitingDatagram +
           discovered * discoveredService + ownServices;
}

using Strings = std::vector<std::string>;

struct FloodCase
{
    std::string name;
    Strings (*datagrams)(const Strings& standing);  ///< of the names of the standing services
    std::size_t perSecond;
    std::size_t standing = 10;

    friend void PrintTo(const FloodCase& flood, std::ostream* stream) { *stream << flood.name; }
};

class FloodTest : public ::testing::TestWithParam<FloodCase>
{};

}  // namespace

TEST_P(FloodTest, UnitAnnouncesInTimeStaysSmallAndHearsAgain)
{
    FloodScene scene(GetParam().standing);
    const FloodPlan plan{GetParam().datagrams(scene.standing()), GetParam().perSecond, length};

    const FloodReport report = scene.endure(plan);

    EXPECT_GE(report.sent, plan.perSecond) << "the flood itself";
    EXPECT_LE(report.longestGap.count(), (cycle + lateness).count());
    EXPECT_GT(report.added, 0u);
    EXPECT_EQ(report.announced, report.added);
    EXPECT_LE(report.latestFirstOffer.count(), lateness.count());
    EXPECT_LE(report.recovery.count(), recovery.count());
    EXPECT_LE(report.memoryAtMost, report.memoryBefore + mostMemory(report.discovered));
    const double lastedSeconds = (report.length + report.recovery) / std::chrono::seconds(1);
    EXPECT_LE(report.dropWarnings, static_cast<std::size_t>(lastedSeconds) + 1);
}

INSTANTIATE_TEST_SUITE_P(
    Floods, FloodTest,
    ::testing::Values(
        FloodCase{"Garbage", [](const Strings&) { return garbage(700); }, perSecond},
        FloodCase{"OffersOfServices", [](const Strings&) { return offersOfServices(services); }, perSecond},
        FloodCase{"OffersOfInstances", [](const Strings&) { return offersOfInstances(services); }, perSecond},
        FloodCase{"LargeDatagrams", [](const Strings&) { return Strings{largeDatagram()}; }, perSecond / 10},
        FloodCase{"SearchesForOneService",
                  [](const Strings& standing) { return searchesFor({standing.front()}); }, perSecond / 2},
        FloodCase{"SearchesForHundredServices", searchesFor, perSecond / 2, 100}),
    [](const auto& row) { return row.param.name; });

TEST(FloodOfSearchesTest, IsAnsweredByAtMostSixteenOffersInFiftyMilliseconds)
{
    FloodScene scene(1);

    const FloodReport report = scene.endure({searchesFor(scene.standing()), perSecond / 2, length});

    const auto cyclic = static_cast<std::size_t>(report.length / cycle) + 2;
    const auto windows = static_cast<std::size_t>(report.length / Milliseconds(50)) + 1;
    EXPECT_LE(report.offers, cyclic + 16 * windows);
    EXPECT_GT(report.offers, cyclic + 16) << "it is answered";
}

TEST(FloodOfLargeDatagramsTest, IsCountedWhereItExceedsTheQueue)
{
    FloodScene scene(1);

    const FloodReport report = scene.endure({{largeDatagram()}, 2000, length});

    EXPECT_GT(report.dropWarnings, 0u);
    EXPECT_GE(report.droppedByUnit, report.dropWarnings);
}

}  // namespace Nubo::ServiceDiscovery::Testing
