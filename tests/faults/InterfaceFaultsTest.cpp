#include "DataLayer/EngineFrame.h"
#include "DataLayer/SDClock.h"
#include "InterfaceFixture.h"
#include "support/Process.h"
#include "support/SystemFaults.h"
#include "support/Times.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Interfaces that the platform reports in any form and at any time, and that are not always usable at once.
namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff second = 1000 * millisecond;

using InterfaceFaultsTest = InterfaceFixture;

/// A running hub with a reported interface whose address does not exist. The number of listings of the
/// interfaces shows how often the hub looks for it.
struct RetryTest : InterfaceFaultsTest
{
    RetryTest()
    {
        network.here.ip("address delete fd00::1/64 dev eth0");
        const InMarkedThread marked;
        unit.platform.dispatcher().addInterface("eth0", globalAddress);
        reported = SDClock::now();
        EXPECT_TRUE(start());
    }

    bool retries(std::size_t count) const
    {
        const std::size_t before = watch.calls();
        return eventually([&] { return watch.calls() >= before + count; });
    }

    /// Average time between two attempts, in milliseconds, over `count` attempts.
    double shortestWait(std::size_t count, double expected) const
    {
        EXPECT_TRUE(retries(1));
        const auto waits = static_cast<double>(count);
        return shortestTime([&] { EXPECT_TRUE(retries(count)); }, expected * waits) / waits;
    }

    Poco::Clock reported;
    SystemFault watch{{SystemCall::List, SystemFault::forEver}};
    OEMInterface::RemoveServiceDiscoveryInterfacePayload unusable{{"eth9", "nonsense"}};
    const std::string unusableLine =
        "Error: ServiceDiscovery failed to remove Interface \"eth9\" with IP \"nonsense\" for sending: "
        "Invalid address: nonsense";
};

/// An interface that is reported with one text and removed with another.
struct Spelling
{
    const char* name;
    const char* added;
    const char* removed;
    friend void PrintTo(const Spelling& row, std::ostream* stream) { *stream << row.name; }
};

struct SpellingTest : InterfaceFaultsTest, ::testing::WithParamInterface<Spelling>
{};

/// A call that fails for a while and may succeed later.
struct PassingFailure
{
    const char* name;
    SystemCall call;
    friend void PrintTo(const PassingFailure& row, std::ostream* stream) { *stream << row.name; }
};

struct PassingFailureTest : InterfaceFaultsTest, ::testing::WithParamInterface<PassingFailure>
{};

}  // namespace

TEST_P(SpellingTest, RemovedInterfaceIsNeitherHeardNorSentOnAfterARestart)
{
    unit.platform.dispatcher().addInterface("eth0", GetParam().added);
    ASSERT_TRUE(start());
    EXPECT_TRUE(isHearing());

    OEMInterface::RemoveServiceDiscoveryInterfacePayload report{{"eth0", GetParam().removed}};
    unit.hub.onInterfaceRemoved(report);

    EXPECT_FALSE(isSending());
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    unit.hub.stop();
    ASSERT_TRUE(start());
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_FALSE(isSending());
    EXPECT_FALSE(isHearing());
}

INSTANTIATE_TEST_SUITE_P(Texts, SpellingTest,
                         ::testing::Values(Spelling{"Same", "fd00::1", "fd00::1"},
                                           Spelling{"InCapitals", "fd00::1", "FD00::1"},
                                           Spelling{"Longer", "fd00::1", "fd00:0:0:0:0:0:0:1"},
                                           Spelling{"WithScope", "fe80::1", "fe80::1%eth0"},
                                           Spelling{"WithoutScope", "fe80::1%eth0", "fe80::1"},
                                           Spelling{"OtherAddressOfTheInterface", "fd00::1", "fe80::1"}),
                         [](const auto& row) { return row.param.name; });

TEST_F(InterfaceFaultsTest, AddressThatComesBeforeTheFirstStartIsHeardAndSentOn)
{
    network.here.ip("address delete fd00::1/64 dev eth0");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    EXPECT_THAT(joinedInterfaces(), IsEmpty());

    network.here.addAddress("eth0", "fd00::1/64");
    ASSERT_TRUE(start());

    EXPECT_TRUE(isHearing());
    EXPECT_TRUE(isSending());
}

TEST_F(InterfaceFaultsTest, StartGoesByANewListing)
{
    network.here.ip("address delete fd00::1/64 dev eth0");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    network.here.addAddress("eth0", "fd00::1/64");
    SDClock::turn(-10 * second);  // the report's listing does not grow old

    ASSERT_TRUE(start());

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0")) << "a retry would come 50 ms later";
}

TEST_F(InterfaceFaultsTest, AddressThatComesAfterTheStartIsHeardAndSentOnWithinASecond)
{
    network.here.ip("address delete fd00::1/64 dev eth0");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    ASSERT_TRUE(start());

    network.here.addAddress("eth0", "fd00::1/64");

    EXPECT_TRUE(eventually([] { return !joinedInterfaces().empty(); }));
    EXPECT_TRUE(eventually([&] { return isSending(); }));
    EXPECT_TRUE(isHearing());
}

TEST_F(RetryTest, WaitsFiftyMillisecondsAtFirst)
{
    SDClock::turn(-10 * second);  // the address is missed for no time at all, however long the test takes

    const double wait = shortestWait(5, 55);

    EXPECT_GE(wait, 46);
    EXPECT_LE(wait, 55);
}

TEST_F(RetryTest, WaitsASecondAtMost)
{
    SDClock::turn(1000 * second);

    const double wait = shortestWait(1, 1080);

    EXPECT_GE(wait, 930);
    EXPECT_LE(wait, 1080);
}

TEST_F(RetryTest, TakesOneListingHoweverManyInterfacesAreMissing)
{
    {
        const InMarkedThread marked;
        for (int i = 0; i < 20; ++i)
            unit.platform.dispatcher().addInterface("missing" + std::to_string(i), globalAddress);
    }
    EXPECT_TRUE(eventually([&] {
        return log.has(
            "Debug: ServiceDiscovery did not add Interface \"missing19\" with IP \"fd00::1\" for "
            "sending: not present.");
    })) << "the retrying thread handles those that came while it waited for its turn";
    SDClock::turn(1000 * second);

    EXPECT_GE(shortestWait(1, 1080), 930) << "between two listings";
}

TEST_F(RetryTest, EndsWithTheStopWithoutAFurtherAttempt)
{
    const auto endsAtOnce = [&] {
        {
            const InMarkedThread marked;
            EXPECT_TRUE(start());
        }
        turnTo(reported, 4 * second);  // the stop comes within the wait, of half a second
        EXPECT_TRUE(retries(1));
        const std::size_t before = watch.calls();
        unit.hub.stop();
        return watch.calls() == before;
    };

    EXPECT_TRUE(inSomeRun(endsAtOnce, 5));
}

TEST_F(RetryTest, WaitsAnEighthOfTheTimeForWhichTheAddressHasBeenMissed)
{
    double ratio = 0;
    const auto isWaitedAnEighth = [&] {
        turnTo(reported, 4 * second);
        EXPECT_TRUE(retries(2)) << "the first wait began before";
        const double missed = static_cast<double>(SDClock::now() - reported) / millisecond;
        ratio = shortestTime([&] { EXPECT_TRUE(retries(1)); }, 5000) / (missed / 8);
        return ratio > 0.93 && ratio < 1.07;
    };

    EXPECT_TRUE(inSomeRun(isWaitedAnEighth, 3)) << ratio;
}

TEST_F(RetryTest, ReportsThatAreLeftToItsThreadDoNotBringAnAttemptForward)
{
    constexpr std::size_t count = 20;
    SDClock::turn(1000 * second);  // the wait is a second
    EXPECT_TRUE(retries(1));
    const std::size_t before = watch.calls();

    for (std::size_t i = 1; i <= count; ++i) {
        const EngineFrame working(this);
        reportRemoved(unit.hub, unusable);
        EXPECT_TRUE(eventually([&] { return log.count(unusableLine) == i; }));
    }

    EXPECT_LT(watch.calls() - before, count / 2);
}

TEST_F(RetryTest, ReportsThatNeverEndDoNotPutAnAttemptOff)
{
    std::atomic<bool> isOver{false};
    log.onLine([&](const std::string& line) {
        if (line == unusableLine && !isOver)
            std::thread([&] { reportRemoved(unit.hub, unusable); }).join();
    });
    SDClock::turn(1000 * second);  // the wait is a second
    EXPECT_TRUE(retries(1));

    reportRemoved(unit.hub, unusable);
    const std::size_t handled = log.count(unusableLine);
    EXPECT_TRUE(retries(2));

    EXPECT_GT(log.count(unusableLine), handled) << "they went on meanwhile";
    isOver = true;
    unit.hub.stop();
    log.onLine(nullptr);
}

TEST_F(InterfaceFaultsTest, AddressesAreToldApartWithoutTheNamesOfTheirScopes)
{
    for (int i = 10; i < 30; ++i)
        network.here.addAddress("eth0", "fd00::" + std::to_string(i) + "/64");
    const auto listing = Multicast::InterfaceListing::take();
    const auto& addresses = listing->find("eth0")->addressList();
    EXPECT_GE(addresses.size(), 20u);
    const InMarkedThread marked;
    const SystemFault watch({SystemCall::Control, SystemFault::forEver});

    EXPECT_FALSE(SDCommunicationHub::containsIP(addresses, IPAddress("fd00::99"), "eth0"));

    EXPECT_EQ(watch.calls(), 0u);
}

TEST_F(InterfaceFaultsTest, ListingOfTheInterfacesServesReportsForATenthOfASecond)
{
    const InMarkedThread marked;
    const SystemFault watch({SystemCall::List, SystemFault::forEver});
    OEMInterface::AddServiceDiscoveryInterfacePayload report{{"eth0", globalAddress}};
    Poco::Clock before;
    Poco::Clock after;
    const auto listingsOfASecondReport = [&](const Poco::Clock& since, Poco::Clock::ClockDiff age) {
        SDClock::turn(second);  // the listing of the first one is new
        before = SDClock::now();
        unit.hub.onInterfaceAdded(report);
        after = SDClock::now();
        turnTo(since, age);
        const std::size_t listings = watch.calls();
        unit.hub.onInterfaceAdded(report);
        return watch.calls() - listings;
    };

    EXPECT_TRUE(inSomeRun([&] { return listingsOfASecondReport(before, 95 * millisecond) == 0; }));
    EXPECT_FALSE(inSomeRun([&] { return listingsOfASecondReport(after, 100 * millisecond) == 0; }));
}

TEST_P(PassingFailureTest, WhileReportedLosesNothing)
{
    ASSERT_TRUE(start());
    {
        const InMarkedThread marked;
        const SystemFault fault({GetParam().call, 1, SystemFault::forEver});
        unit.platform.dispatcher().addInterface("eth0", globalAddress);
        EXPECT_TRUE(fault.happened());
    }

    EXPECT_TRUE(eventually([&] { return isSending(); }));
    EXPECT_TRUE(eventually([&] { return isHearing(); }));
    unit.hub.stop();
    ASSERT_TRUE(start());
    EXPECT_TRUE(isSending());
    EXPECT_TRUE(isHearing());
}

TEST_P(PassingFailureTest, BeforeTheStartLosesNothing)
{
    {
        const InMarkedThread marked;
        const SystemFault fault({GetParam().call, 1, SystemFault::forEver});
        unit.platform.dispatcher().addInterface("eth0", globalAddress);
        EXPECT_TRUE(fault.happened());
    }

    ASSERT_TRUE(start());

    EXPECT_TRUE(isSending());
    EXPECT_TRUE(isHearing());
}

INSTANTIATE_TEST_SUITE_P(Calls, PassingFailureTest,
                         ::testing::Values(PassingFailure{"Socket", SystemCall::Socket},
                                           PassingFailure{"Bind", SystemCall::Bind},
                                           PassingFailure{"SetOption", SystemCall::SetOption},
                                           PassingFailure{"List", SystemCall::List},
                                           PassingFailure{"Control", SystemCall::Control}),
                         [](const auto& row) { return row.param.name; });

TEST_F(InterfaceFaultsTest, ReportWhoseInterfaceCannotBeLookedForIsAnError)
{
    const InMarkedThread marked;
    const SystemFault fault({SystemCall::List, 1, SystemFault::forEver});

    unit.platform.dispatcher().addInterface("eth0", globalAddress);

    EXPECT_THAT(log.complaints(),
                ElementsAre(StartsWith("Error: SDCommunicationHub - failed to use Interface "
                                       "\"eth0\" with IP \"fd00::1\": ")));
}

TEST_F(InterfaceFaultsTest, ReportIsGivenUpAfterAFewAttemptsWithoutMemory)
{
    const auto longerThanAStringsOwnRoom = "fd00:0000:0000:0000:0000:0000:0000:0001";
    OEMInterface::AddServiceDiscoveryInterfacePayload report{{"eth0", longerThanAStringsOwnRoom}};
    {
        const InMarkedThread marked;
        const SystemFault shortage({SystemCall::Allocate, 1, 1000});
        reportAdded(unit.hub, report);
    }
    EXPECT_THAT(joinedInterfaces(), IsEmpty());

    reportAdded(unit.hub, report);
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(InterfaceFaultsTest, AddressThatTheSystemTakesForWrongIsAnErrorOfTheSender)
{
    const InMarkedThread marked;
    SystemFault::Plan plan{SystemCall::Bind};
    plan.error = EINVAL;
    const SystemFault fault(plan);

    unit.platform.dispatcher().addInterface("eth0", globalAddress);

    EXPECT_THAT(log.complaints(), ElementsAre("Error: ServiceDiscovery failed to add Interface \"eth0\" with "
                                              "IP \"fd00::1\" for sending: Invalid argument"));
}

TEST_F(InterfaceFaultsTest, InterfaceThatNoThreadCanRetryIsRetriedAfterTheNextReport)
{
    ASSERT_TRUE(start());
    network.here.ip("address delete fd00::1/64 dev eth0");
    {
        const InMarkedThread marked;
        const SystemFault fault({SystemCall::Thread});
        unit.platform.dispatcher().addInterface("eth0", globalAddress);
    }
    EXPECT_THAT(
        log.errors(),
        ElementsAre(
            "Error: SDCommunicationHub - no thread to retry interfaces: Resource temporarily unavailable"));

    unit.platform.dispatcher().addInterface("missing", globalAddress);
    network.here.addAddress("eth0", "fd00::1/64");

    EXPECT_TRUE(eventually([] { return !joinedInterfaces().empty(); }));
}

TEST_F(InterfaceFaultsTest, RefusedReportIsWarnedOfOnceAndNotAtEveryStart)
{
    unit.platform.dispatcher().addInterface("eth0", "10.0.0.1");
    EXPECT_THAT(log.warnings(), ElementsAre(HasSubstr("not an appropriate IP."),
                                            HasSubstr("for sending: not an appropriate IP.")));
    log.clear();

    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(start());
        unit.hub.stop();
    }

    EXPECT_THAT(log.warnings(), IsEmpty());
}

TEST_F(InterfaceFaultsTest, OwnServiceThatWasDiscoveredAtAnAddressOfALaterInterfaceGoes)
{
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    ASSERT_TRUE(start());
    SDService::Ptr own = makeService("Own", globalAddress, 8080, "own");
    ASSERT_TRUE(unit.hub.addService(own));
    const auto replay = [&] {
        speaker.send(Packets::offer("Own", "00 00 78", "fd 01 00 00 00 00 00 00 00 00 00 00 00 00 00 01"));
    };
    ASSERT_TRUE(eventually([&] {
        replay();
        return unit.registry.discovered("Own") == 1;
    }));

    network.link("eth1", "fd01::1", "fd01::2");
    unit.platform.dispatcher().addInterface("eth1", "fd01::1");

    EXPECT_TRUE(eventually([&] {
        replay();
        return unit.registry.gone("Own") == 1;
    }));
    EXPECT_EQ(unit.registry.discovered("Own"), 1u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
