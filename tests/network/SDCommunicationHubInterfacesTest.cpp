#include "HubFixture.h"
#include "support/Descriptions.h"
#include "support/Repeating.h"

#include <atomic>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDCommunicationHubInterfacesTest = HubFixture;
using RunningHubInterfacesTest = RunningHubFixture;

constexpr auto joining0 = "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".";
constexpr auto adding0 =
    "Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::1\" for sending.";
constexpr auto leaving0 =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\" for given IP "
    "\"fd00::1\".";
constexpr auto removing0 =
    "Notice: ServiceDiscovery removing Interface \"eth0\" for given IP \"fd00::1\" for sending.";

}  // namespace

TEST_F(SDCommunicationHubInterfacesTest, ReportsReachTheReceiverFirst)
{
    dispatcher().addInterface("eth0", "fd00::1");
    dispatcher().removeInterface("eth0", "fd00::1");

    EXPECT_THAT(log.lines(), ElementsAre(joining0, adding0, leaving0, removing0));
}

TEST_F(SDCommunicationHubInterfacesTest, InterfaceThatStandsReportedIsTakenInWhenTheHubIsBuilt)
{
    dispatcher().addInterface("eth0", "fd00::1");
    log.clear();

    const SDCommunicationHub second(unit->facade);

    EXPECT_THAT(log.lines(), ElementsAre(joining0, adding0));
}

TEST_F(SDCommunicationHubInterfacesTest, InterfaceReportedBeforeTheStartIsHeardAfterIt)
{
    dispatcher().addInterface("eth0", "fd00::1");
    start();

    speaker.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
    EXPECT_EQ(log.count(joining0), 1u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningHubInterfacesTest, InterfaceThatComesLaterIsHeardAndSentOn)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Speaker other(network.there, "eth1", "fd01::2");
    Listener beyond(network.there, "eth1");
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");

    dispatcher().addInterface("eth1", "fd01::1");
    hub().addService(service);
    other.send(fromHex(offerOfFar));

    EXPECT_TRUE(beyond.hears(1));
    EXPECT_TRUE(discovers(1));
}

TEST_F(RunningHubInterfacesTest, OpeningOfAnAwaitedInterfaceHoldsUpNoRequestAndNoOffer)
{
    Gate gate;
    network.link("eth1");
    dispatcher().addInterface("eth1", "fd01::1");
    log.onLine([&](const std::string& line) {
        if (line == "Notice: ServiceDiscovery can use Interface \"eth1\" with IP \"fd01::1\" for sending.")
            gate.pass();
    });
    network.here.addAddress("eth1", "fd01::1/64");
    ASSERT_TRUE(eventually([&] { return gate.isReached(); })) << "it is being opened";

    std::atomic<bool> isDone{false};
    std::thread registry([&] {
        SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
        EXPECT_TRUE(hub().addService(service));
        EXPECT_THAT(hub().getServices(), SizeIs(1));
        isDone = true;
    });

    EXPECT_TRUE(eventually([&] { return isDone.load(); }));
    EXPECT_TRUE(listener.hears(5)) << "four offers at the beginning, then one a second";
    gate.open();
    registry.join();
    hub().stop();
}

TEST_F(RunningHubInterfacesTest, AwaitedInterfaceIsOpenedWhileASubscriberHoldsTheStateMachineUp)
{
    Gate gate;
    unit->registry.onEvent = [&](auto&) { gate.pass(); };
    network.link("eth1");
    dispatcher().addInterface("eth1", "fd01::1");
    speaker.send(fromHex(offerOfFar));
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));

    network.here.addAddress("eth1", "fd01::1/64");

    EXPECT_TRUE(eventually([&] {
        return log.has(
            "Notice: ServiceDiscovery can use Interface \"eth1\" with IP \"fd01::1\" for sending.");
    }));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
    gate.open();
    hub().stop();
}

TEST_F(RunningHubInterfacesTest, RestartedHubHearsOnTheInterfacesThatStandReported)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Speaker other(network.there, "eth1", "fd01::2");
    dispatcher().addInterface("eth1", "fd01::1");
    for (int i = 0; i < 3; ++i) {
        hub().stop();
        ASSERT_TRUE(start());
    }
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));

    other.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningHubInterfacesTest, RestartedHubSendsOnTheInterfacesThatStandReported)
{
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    hub().stop();
    start();

    hub().addService(service);

    EXPECT_TRUE(listener.hears(1));
}

TEST_F(RunningHubInterfacesTest, InterfaceAddedWhileStoppedIsHeardAfterTheStart)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Speaker other(network.there, "eth1", "fd01::2");
    hub().stop();

    dispatcher().addInterface("eth1", "fd01::1");
    start();
    other.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningHubInterfacesTest, InterfaceRemovedWhileStoppedIsNotJoinedAgain)
{
    network.link("eth1", "fd01::1");
    dispatcher().addInterface("eth1", "fd01::1");
    hub().stop();

    dispatcher().removeInterface("eth0", "fd00::1");
    start();

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth1"));
}

TEST_F(RunningHubInterfacesTest, RemovalOfAllInterfacesWhileStoppedLeavesNoneToJoin)
{
    hub().stop();

    dispatcher().removeInterface("", "::");
    start();

    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(RunningHubInterfacesTest, StartsAndStopsWhileInterfacesComeAndGo)
{
    network.link("eth1", "fd01::1");
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    hub().addService(service);
    {
        const Repeating platformReports([&] {
            dispatcher().addInterface("eth1", "fd01::1");
            dispatcher().removeInterface("eth1", "fd01::1");
        });
        for (int i = 0; i < 10; ++i) {
            hub().stop();
            EXPECT_TRUE(start());
        }
    }

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
    speaker.send(fromHex(offerOfFar));
    EXPECT_TRUE(discovers(1));
}

}  // namespace Nubo::ServiceDiscovery::Testing
