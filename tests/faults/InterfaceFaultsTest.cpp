#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "faults/HubDelegates.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/SystemFaults.h"
#include "support/TestUnit.h"
#include "support/Times.h"
#include "support/Waiting.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Interfaces that the platform reports in any form and at any time, and that cannot always be used at once.
namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff second = 1000 * millisecond;

constexpr auto globalAddress = "fd00::1";
constexpr auto linkLocal = "fe80::1";

/// Another unit can be reached on eth0.
struct LinkedTest : ::testing::Test
{
    LinkedTest()
    {
        network.link("eth0", globalAddress, "fd00::2");
        network.here.addAddress("eth0", std::string(linkLocal) + "/64");
    }

    NetworkPair network;
};

/// A hub that is not started, and another unit that speaks and listens.
struct InterfaceFaultsTest : LinkedTest
{
    bool start() { return unit.hub.start(IPAddress(globalAddress)); }

    bool isSending()
    {
        const std::string name = "Own" + std::to_string(++number);
        SDService::Ptr service = makeService(name, globalAddress, 8080, name);
        listener.clear();
        return unit.hub.addService(service) &&
               eventually([&] { return !listener.datagrams().empty(); }, std::chrono::milliseconds(500));
    }

    bool isHearing()
    {
        const std::string name = "Far" + std::to_string(++number);
        return eventually(
            [&] {
                speaker.send(Packets::offer(name));
                return eventually([&] { return unit.registry.discovered(name) != 0; },
                                  std::chrono::milliseconds(20));
            },
            std::chrono::milliseconds(500));
    }

    LogCatcher log;
    HubUnit unit;
    Speaker speaker{network.there, "eth0", "fd00::2"};
    Listener listener{network.there, "eth0"};
    int number = 0;
};

/// A hub that runs, with an interface reported whose address is not there. The listings of the interfaces
/// that are taken show how often it is looked for.
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

    /// The milliseconds between two attempts, on the average of so many.
    double shortestWait(std::size_t count, double expected) const
    {
        EXPECT_TRUE(retries(1));
        const auto waits = static_cast<double>(count);
        return shortestTime([&] { EXPECT_TRUE(retries(count)); }, expected * waits) / waits;
    }

    Poco::Clock reported;
    SystemFault watch{{SystemCall::List, SystemFault::forEver}};
};

/// An interface that is reported with one text and taken back with another.
struct Spelling
{
    const char* name;
    const char* added;
    const char* removed;
    friend void PrintTo(const Spelling& row, std::ostream* stream) { *stream << row.name; }
};

struct SpellingTest : InterfaceFaultsTest, ::testing::WithParamInterface<Spelling>
{};

/// A call that fails for a while, whose failure may pass.
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
    reportRemoved(unit.hub, report);

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

/// They are left to the thread that retries by one that is at work for another engine.
TEST_F(RetryTest, ReportsThatAreLeftToItsThreadDoNotBringAnAttemptForward)
{
    constexpr std::size_t count = 20;
    constexpr auto unusable =
        "Error: ServiceDiscovery failed to remove Interface \"eth9\" with IP \"nonsense\" for sending: "
        "Invalid address: nonsense";
    OEMInterface::RemoveServiceDiscoveryInterfacePayload report{{"eth9", "nonsense"}};
    Multicast::ReportQueue elsewhere(
        &report, [&](const auto&) { reportRemoved(unit.hub, report); }, [] {});
    const std::thread::id here = std::this_thread::get_id();
    log.onLine([&](const std::string& line) {
        if (line == unusable && std::this_thread::get_id() == here)
            std::thread([&] { reportRemoved(unit.hub, report); }).join();
    });
    SDClock::turn(1000 * second);  // the wait is a second
    EXPECT_TRUE(retries(1));
    const std::size_t before = watch.calls();

    for (std::size_t i = 1; i <= count; ++i) {
        elsewhere.report({false, "", ""});
        EXPECT_TRUE(eventually([&] { return log.count(unusable) == 2 * i; }));
    }
    log.onLine(nullptr);

    EXPECT_LT(watch.calls() - before, count / 2);
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
        reportAdded(unit.hub, report);
        after = SDClock::now();
        turnTo(since, age);
        const std::size_t listings = watch.calls();
        reportAdded(unit.hub, report);
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

TEST_F(InterfaceFaultsTest, BeyondAThousandAndTwentyFourTheOneThatHasBeenPendingLongestIsDisplaced)
{
    auto& dispatcher = unit.platform.dispatcher();
    dispatcher.addInterface("eth0", globalAddress);
    for (int i = 1; i < 1024; ++i)
        dispatcher.addInterface("missing" + std::to_string(i), globalAddress);
    EXPECT_THAT(log.errors(), IsEmpty());

    network.link("eth1", "fd01::1");
    dispatcher.addInterface("eth1", "fd01::1");

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDCommunicationHub - Interface \"missing1\" with IP "
                                          "\"fd00::1\" is not waited for any longer: 1024 others stand "
                                          "reported."));
    EXPECT_TRUE(start());
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
    EXPECT_TRUE(isHearing());
    EXPECT_TRUE(isSending());
}

TEST_F(InterfaceFaultsTest, DisplacedInterfaceThatWasUsedIsLeft)
{
    auto& dispatcher = unit.platform.dispatcher();
    dispatcher.addInterface("eth0", globalAddress);
    network.here.ip("address delete fd00::1/64 dev eth0");
    SDClock::turn(second);  // a new listing is taken
    dispatcher.addInterface("eth0", globalAddress);
    for (int i = 1; i < 1024; ++i)
        dispatcher.addInterface("missing" + std::to_string(i), globalAddress);
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));

    network.link("eth1", "fd01::1");
    dispatcher.addInterface("eth1", "fd01::1");

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SDCommunicationHub - Interface \"eth0\" with IP \"fd00::1\" is "
                            "not waited for any longer: 1024 others stand reported."));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth1"));
}

TEST_F(InterfaceFaultsTest, InterfaceWhoseNewNameIsReportedBeforeTheOldOneIsTakenBackIsUsed)
{
    network.here.setIPv6("eth0/keep_addr_on_down", "1");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    ASSERT_TRUE(start());

    network.here.ip("link set eth0 down");
    network.here.ip("link set eth0 name eth9 up");
    unit.platform.dispatcher().addInterface("eth9", globalAddress);
    unit.platform.dispatcher().removeInterface("eth0", globalAddress);

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth9"));
    EXPECT_TRUE(eventually([&] { return isHearing(); })) << "the link takes up to a second";
    EXPECT_TRUE(eventually([&] { return isSending(); }));
    unit.platform.dispatcher().removeInterface("eth9", globalAddress);
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(InterfaceFaultsTest, InterfacesMadeAnewAndNeverTakenBackCostNothing)
{
    ASSERT_TRUE(start());
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    const std::size_t before = openDescriptors();

    for (int i = 0; i < 5; ++i) {
        network.here.ip("link delete eth0");
        network.link("eth0", globalAddress, "fd00::2");
        unit.platform.dispatcher().addInterface("eth0", globalAddress);
    }

    EXPECT_TRUE(eventually([&] { return openDescriptors() == before; })) << openDescriptors();
    EXPECT_THAT(groupUsers(), ElementsAre(::testing::Pair("eth0", 1u)));
}

TEST_F(InterfaceFaultsTest, InterfacesThatGoAndAreNeverTakenBackCostNothing)
{
    ASSERT_TRUE(start());
    const std::size_t before = openDescriptors();
    for (int i = 1; i <= 5; ++i) {
        const std::string name = "ppp" + std::to_string(i);
        network.link(name, "fd01::1");
        unit.platform.dispatcher().addInterface(name, "fd01::1");
        EXPECT_TRUE(eventually([&] { return joinedInterfaces() == std::vector{name}; }))
            << "the thread that retries the former one may be at work";
        network.here.ip("link delete " + name);
    }

    unit.platform.dispatcher().addInterface("eth0", globalAddress);

    EXPECT_TRUE(eventually([] { return joinedInterfaces() == std::vector<std::string>{"eth0"}; }));
    EXPECT_TRUE(eventually([&] { return openDescriptors() == before + 1; }))
        << openDescriptors() << ": the socket of eth0 is to be left";
    EXPECT_THAT(groupUsers(), ElementsAre(::testing::Pair("eth0", 1u)));
}

TEST_F(InterfaceFaultsTest, InterfaceThatHasGoneIsUsedWithinASecondOfItsReturn)
{
    network.link("eth1", "fd01::1");
    ASSERT_TRUE(start());
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    network.here.ip("link delete eth1");
    unit.platform.dispatcher().addInterface("eth2", "fd02::1");

    network.link("eth1", "fd01::1");

    EXPECT_TRUE(eventually([] { return joinedInterfaces().size() == 2; }));
}

TEST_F(InterfaceFaultsTest, InterfaceThatHasGoneMakesRoomForAnother)
{
    auto& dispatcher = unit.platform.dispatcher();
    network.link("ppp1", "fd01::1");
    dispatcher.addInterface("ppp1", "fd01::1");
    network.here.ip("link delete ppp1");
    for (int i = 1; i < 1024; ++i)
        dispatcher.addInterface("missing" + std::to_string(i), globalAddress);

    dispatcher.addInterface("eth0", globalAddress);

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDCommunicationHub - Interface \"ppp1\" with IP "
                                          "\"fd01::1\" is not waited for any longer: 1024 others stand "
                                          "reported."));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(InterfaceFaultsTest, InterfaceThatWasLetGoIsTakenBackWithoutAWarning)
{
    network.link("eth1", "fd01::1");
    unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    network.here.ip("link delete eth1");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    unit.platform.dispatcher().addInterface("eth2", "fd02::1");

    unit.platform.dispatcher().removeInterface("eth1", "fd01::1");

    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(InterfaceFaultsTest, InterfaceThatTookTheIndexOfAReportedOneIsNotUsed)
{
    const auto make = [&](const std::string& name, int index, const std::string& address) {
        network.here.ip("link add " + name + " index " + std::to_string(index) + " type veth peer name " +
                        name + " netns there");
        network.here.ip("link set " + name + " up");
        network.there.ip("link set " + name + " up");
        network.here.addAddress(name, address + "/64");
    };
    ASSERT_TRUE(start());
    make("eth7", 77, "fd07::1");
    unit.platform.dispatcher().addInterface("eth7", "fd07::1");
    network.here.ip("link delete eth7");
    make("lan7", 77, "fd08::1");
    make("eth7", 78, "fd07::1");

    unit.platform.dispatcher().addInterface("eth7", "fd07::1");

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth7"));
    Listener onReported(network.there, "eth7");
    Listener onOther(network.there, "lan7");
    SDService::Ptr service = makeService("Own", globalAddress, 8080, "own");
    ASSERT_TRUE(unit.hub.addService(service));
    EXPECT_TRUE(onReported.hears(3));
    EXPECT_THAT(onOther.datagrams(), IsEmpty());
    unit.platform.dispatcher().removeInterface("eth7", "fd07::1");
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(InterfaceFaultsTest, InterfaceThatGaveItsNameToAnotherIsNotUsed)
{
    network.here.setIPv6("eth0/keep_addr_on_down", "1");
    ASSERT_TRUE(start());
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    network.here.ip("link set eth0 down");
    network.here.ip("link set eth0 name lan0 up");
    network.here.ip("address delete fd00::1/64 dev lan0");
    network.here.addAddress("lan0", "fd05::1/64");
    network.there.ip("link set eth0 down");
    network.there.ip("link set eth0 name lan0 up");
    network.link("eth0", globalAddress, "fd00::3");

    unit.platform.dispatcher().addInterface("eth0", globalAddress);

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
    Listener onReported(network.there, "eth0");
    Listener onOther(network.there, "lan0");
    SDService::Ptr service = makeService("Own", globalAddress, 8080, "own");
    ASSERT_TRUE(unit.hub.addService(service));
    EXPECT_TRUE(onReported.hears(3));
    EXPECT_THAT(onOther.datagrams(), IsEmpty());
}

TEST_F(InterfaceFaultsTest, InterfaceThatWasRenamedIsNotUsedUntilItsNewNameIsReported)
{
    network.here.setIPv6("eth0/keep_addr_on_down", "1");
    ASSERT_TRUE(start());
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    network.here.ip("link set eth0 down");
    network.here.ip("link set eth0 name lan0 up");

    unit.platform.dispatcher().addInterface("eth2", "fd02::1");

    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    unit.platform.dispatcher().addInterface("lan0", globalAddress);
    EXPECT_TRUE(eventually([&] { return isSending(); })) << "the link takes up to a second";
    EXPECT_THAT(joinedInterfaces(), ElementsAre("lan0"));
}

TEST_F(InterfaceFaultsTest, ReportsFromWithinALineOfTheLogAreHandledAfterIt)
{
    network.link("eth1", "fd01::1");
    unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    log.onLine([&](const std::string& line) {
        if (line != "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".")
            return;
        unit.platform.dispatcher().removeInterface("eth1", "fd01::1");
        unit.platform.dispatcher().addInterface("eth2", "fd02::1");
    });
    network.link("eth2", "fd02::1");

    unit.platform.dispatcher().addInterface("eth0", globalAddress);

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth2"));
}

TEST_F(InterfaceFaultsTest, ReportFromWithinALineOfTheRetryingThreadIsHandledAfterIt)
{
    network.link("eth1", "fd01::1");
    network.here.ip("address delete fd00::1/64 dev eth0");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    ASSERT_TRUE(start());
    log.onLine([&](const std::string& line) {
        if (line == "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".")
            unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    });

    network.here.addAddress("eth0", "fd00::1/64");

    EXPECT_TRUE(eventually([] { return joinedInterfaces().size() == 2; }));
}

TEST_F(InterfaceFaultsTest, ReportFromWithinALineOfTheStopIsHandledAfterIt)
{
    network.link("eth1", "fd01::1");
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    ASSERT_TRUE(start());
    log.onLine([&](const std::string& line) {
        if (line == "Notice: ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.")
            unit.platform.dispatcher().addInterface("eth1", "fd01::1");
    });

    unit.hub.stop();
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth1"));
    ASSERT_TRUE(start());

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
}

TEST_F(InterfaceFaultsTest, ReportsFromWithinEveryLineOfTheLogComeToAnEnd)
{
    OEMInterface::AddServiceDiscoveryInterfacePayload report{{"missing", globalAddress}};
    log.onLine([&](const std::string&) { reportAdded(unit.hub, report); });

    reportAdded(unit.hub, report);
    reportAdded(unit.hub, report);
    log.onLine(nullptr);

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SDCommunicationHub - 1026 reports of interfaces are dropped: 1024 others "
                            "were made from within lines of the log.",
                            "Error: SDCommunicationHub - 1027 reports of interfaces are dropped: 1024 others "
                            "were made from within lines of the log."))
        << "the second time with the one from the first of these lines";
}

/// The report has the interfaces listed, and what has gone is let go and waited for.
TEST_F(InterfaceFaultsTest, InterfaceThatGoesBeforeAReportThatCannotBeUsedIsWaitedFor)
{
    ASSERT_TRUE(start());
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    network.here.ip("link delete eth0");
    OEMInterface::AddServiceDiscoveryInterfacePayload report{{"eth1", "no address"}};
    EXPECT_TRUE(eventually([&] {
        reportAdded(unit.hub, report);
        return joinedInterfaces().empty();
    }));
    reportAdded(unit.hub, report);

    network.link("eth0", globalAddress, "fd00::2");

    EXPECT_TRUE(eventually([] { return joinedInterfaces().size() == 1; }));
}

TEST_F(InterfaceFaultsTest, RemovalWithAnAddressThatCannotBeParsedChangesNothing)
{
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    log.clear();
    OEMInterface::RemoveServiceDiscoveryInterfacePayload report{{"eth0", "nonsense"}};

    reportRemoved(unit.hub, report);

    EXPECT_THAT(log.lines(),
                ElementsAre(StartsWith("Error: ServiceDiscovery failed to leave IPv6 Multicast Group "
                                       "on Interface \"eth0\" with IP \"nonsense\": "),
                            StartsWith("Error: ServiceDiscovery failed to remove Interface \"eth0\" "
                                       "with IP \"nonsense\" for sending: ")));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(InterfaceFaultsTest, ReportWithoutANameOrAnAddressIsAnErrorAndChangesNothing)
{
    unit.platform.dispatcher().addInterface("eth0", globalAddress);
    log.clear();
    OEMInterface::AddServiceDiscoveryInterfacePayload nameless{{nullptr, globalAddress}};
    OEMInterface::RemoveServiceDiscoveryInterfacePayload addressless{{"eth0", nullptr}};

    EXPECT_NO_THROW(reportAdded(unit.hub, nameless));
    EXPECT_NO_THROW(reportRemoved(unit.hub, addressless));

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Error: SDCommunicationHub - an interface without a name or an address was reported.",
                    "Error: SDCommunicationHub - an interface without a name or an address was taken back."));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
