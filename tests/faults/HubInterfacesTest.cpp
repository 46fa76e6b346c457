#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "faults/HubDelegates.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Process.h"
#include "support/SystemFaults.h"
#include "support/TestUnit.h"
#include "support/Times.h"
#include "support/Waiting.h"

#include <Poco/Net/IPAddress.h>

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// What a hub keeps of the interfaces that stand reported: which of them it retries, and until when.
namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr Poco::Clock::ClockDiff second = 1'000'000;
constexpr auto globalAddress = "fd00::1";

/// Whether the thread that retries waits, for the next attempt when nothing else is under way.
bool isRetryAsleep()
{
    return isAsleep("SdIfRetry");
}

struct HubInterfacesTest : ::testing::Test
{
    HubInterfacesTest() { network.link("eth0", globalAddress); }

    void start()
    {
        const InMarkedThread marked;
        EXPECT_TRUE(unit.hub.start(IPAddress(globalAddress)));
    }
    void add(const std::string& name, const std::string& ip)
    {
        OEMInterface::AddServiceDiscoveryInterfacePayload report{{name.c_str(), ip.c_str()}};
        reportAdded(unit.hub, report);
    }
    void remove(const std::string& name, const std::string& ip)
    {
        OEMInterface::RemoveServiceDiscoveryInterfacePayload report{{name.c_str(), ip.c_str()}};
        reportRemoved(unit.hub, report);
    }

    NetworkPair network;
    LogCatcher log;
    HubUnit unit;
};

}  // namespace

TEST_F(HubInterfacesTest, MissingOnesAreRetriedAfterARestartAsWell)
{
    network.here.ip("address delete fd00::1/64 dev eth0");
    add("eth0", globalAddress);
    start();
    EXPECT_TRUE(eventually(isRetryAsleep));
    unit.hub.stop();
    start();

    network.here.addAddress("eth0", "fd00::1/64");

    EXPECT_TRUE(eventually([] { return !joinedInterfaces().empty(); }));
}

TEST_F(HubInterfacesTest, StopDoesNotWaitUntilTheNextAttempt)
{
    add("missing", globalAddress);
    SDClock::turn(1000 * second);  // a second passes between two attempts

    EXPECT_TRUE(inSomeRun(
        [&] {
            start();
            EXPECT_TRUE(eventually(isRetryAsleep));
            const auto begin = std::chrono::steady_clock::now();
            unit.hub.stop();
            return std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(500);
        },
        5));
}

TEST_F(HubInterfacesTest, AttemptsThatFailAgainAreNotLogged)
{
    add("missing", globalAddress);
    start();
    const SystemFault fault({SystemCall::List, 1, SystemFault::forEver});

    EXPECT_TRUE(eventually([&] { return fault.calls() >= 3; }));

    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(HubInterfacesTest, MissingOneThatIsTakenBackIsWarnedOf)
{
    add("missing", globalAddress);
    EXPECT_THAT(log.complaints(), IsEmpty());

    remove("missing", globalAddress);

    EXPECT_THAT(
        log.complaints(),
        ElementsAre(
            "Warning: Failed to leave IPv6 Multicast Group on Interface \"missing\" with IP \"fd00::1\": "
            "not joined(?)",
            "Warning: Failed to remove Interface \"missing\" with IP \"fd00::1\" for sending: not "
            "connected(?)"));
}

TEST_F(HubInterfacesTest, OtherAddressThatIsMissingWhenOneIsTakenBackIsRetried)
{
    network.here.addAddress("eth0", "fd01::1/64");
    add("eth0", globalAddress);
    add("eth0", "fd01::1");
    start();
    network.here.ip("address delete fd01::1/64 dev eth0");
    SDClock::turn(second);  // the listing that shows it is old
    remove("eth0", globalAddress);
    EXPECT_THAT(joinedInterfaces(), IsEmpty());

    network.here.addAddress("eth0", "fd01::1/64");

    EXPECT_TRUE(eventually([] { return !joinedInterfaces().empty(); }));
}

TEST_F(HubInterfacesTest, BeyondAThousandAndTwentyFourInUseAFurtherOneIsNotUsed)
{
    for (int i = 0; i < 16; ++i)
        network.link("lan" + std::to_string(i), "fd05::1");
    shell(
        "for i in $(seq 0 15); do for j in $(seq 2 64); do echo address add fd05::$j/64 dev lan$i nodad; "
        "done; done | ip -n here -batch -");
    add("lan0", "fd05::1");
    SDClock::turn(-10 * second);  // one listing, which takes long, serves them all
    for (int i = 0; i < 1024; ++i)
        add("lan" + std::to_string(i % 16), "fd05::" + std::to_string(i / 16 + 1));
    EXPECT_THAT(log.errors(), IsEmpty());

    network.link("eth1", "fd01::1");
    add("eth1", "fd01::1");

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SDCommunicationHub - Interface \"eth1\" with IP \"fd01::1\" "
                            "is not used: 1024 others stand reported already."));
    EXPECT_THAT(joinedInterfaces(), Not(Contains("eth1")));
}

}  // namespace Nubo::ServiceDiscovery::Testing
