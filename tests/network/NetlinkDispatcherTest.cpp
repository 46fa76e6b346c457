#include "NetlinkFollowing.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using NetlinkDispatcherTest = NetlinkFollowing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(NetlinkDispatcherTest, InterfacesThatExistAreReportedOnTheBindingThread)
{
    network.link("eth0", "fd00::1");
    network.link("eth1", "fe80::1");

    follow();

    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "+eth1 fe80::1"));
}

TEST_F(NetlinkDispatcherTest, InterfaceThatComesIsReported)
{
    follow();

    network.link("eth0", "fd00::1");

    EXPECT_TRUE(reports->come(1));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, ReportsComeOnAThreadOfTheDispatcher)
{
    follow();
    std::thread::id thread;
    reports->onReport([&] { thread = std::this_thread::get_id(); });

    network.link("eth0", "fd00::1");

    EXPECT_TRUE(reports->come(1));
    reports->unbind();
    EXPECT_NE(thread, std::thread::id());
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(NetlinkDispatcherTest, LoopbackIsNotReported)
{
    ip("address add fd00::7/128 dev lo nodad");
    follow();
    ip("address add fd00::8/128 dev lo nodad");

    EXPECT_THAT(reported(), IsEmpty());
}

TEST_F(NetlinkDispatcherTest, InterfaceThatIsDownIsNotReportedUntilItIsUp)
{
    network.link("eth0");
    ip("link set eth0 down");
    follow();
    network.here.addAddress("eth0", "fd00::1/64");
    EXPECT_THAT(reported(), IsEmpty());

    ip("link set eth0 up");

    EXPECT_TRUE(reports->come(2));
    EXPECT_EQ(reports->lines().back(), "+eth0 fd00::1");
}

TEST_F(NetlinkDispatcherTest, InterfaceWithoutAnIPv6AddressIsNotReported)
{
    network.link("eth0");
    ip("address add 10.0.0.1/24 dev eth0");
    follow();
    network.link("eth1");

    EXPECT_THAT(reported(), IsEmpty());
}

TEST_F(NetlinkDispatcherTest, InterfaceWithoutMulticastIsNotReported)
{
    network.link("eth0", "fd00::1");
    ip("link set eth0 multicast off");
    follow();
    EXPECT_THAT(reported(), IsEmpty());

    ip("link set eth0 multicast on");

    EXPECT_TRUE(reports->come(2));
    EXPECT_EQ(reports->lines().back(), "+eth0 fd00::1");
}

TEST_F(NetlinkDispatcherTest, InterfaceThatLosesMulticastIsGone)
{
    network.link("eth0", "fd00::1");
    follow();

    ip("link set eth0 multicast off");

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, BridgeIsFollowedAsAnyInterface)
{
    follow();

    ip("link add br0 type bridge");
    ip("link set br0 up");
    network.here.addAddress("br0", "fd00::5/64");
    EXPECT_TRUE(reports->come(1));
    ip("link set br0 down");
    EXPECT_TRUE(reports->come(2));

    EXPECT_THAT(reported(), ElementsAre("+br0 fd00::5", "-br0 fd00::5"));
}

TEST_F(NetlinkDispatcherTest, BridgeThatExistsIsReported)
{
    ip("link add br0 type bridge");
    ip("link set br0 up");
    network.here.addAddress("br0", "fd00::5/64");

    follow();

    EXPECT_THAT(reports->lines(), ElementsAre("+br0 fd00::5"));
}

TEST_F(NetlinkDispatcherTest, PortOfABridgeIsOneInterface)
{
    network.link("eth0", "fd00::1");
    ip("link add br0 type bridge");
    follow();

    ip("link set eth0 master br0");
    ip("link set eth0 nomaster");
    ip("link set eth0 master br0");
    ip("link delete eth0");

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, TentativeAddressIsWaitedFor)
{
    detectDuplicates();
    follow();
    bool wasTentative = true;
    reports->onReport([&] { wasTentative = isTentative("eth0"); });

    network.link("eth0");
    ip("address add fd00::1/64 dev eth0");

    EXPECT_TRUE(isTentative("eth0"));
    EXPECT_TRUE(reports->come(1));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1"));
    reports->unbind();
    EXPECT_FALSE(wasTentative);
}

TEST_F(NetlinkDispatcherTest, DuplicateAddressIsNeverReported)
{
    detectDuplicates();
    follow();
    network.link("eth0", "", "fd00::1");

    ip("address add fd00::1/64 dev eth0");
    EXPECT_TRUE(
        eventually([&] { return !shellOutput("ip -n here -6 address show dev eth0 dadfailed").empty(); }));

    EXPECT_THAT(reported(), IsEmpty());
}

TEST_F(NetlinkDispatcherTest, DuplicateGlobalAddressDoesNotKeepTheLinkLocalOneBack)
{
    detectDuplicates();
    follow();
    network.link("eth0", "", "fd00::1");

    ip("address add fd00::1/64 dev eth0");
    network.here.addAddress("eth0", "fe80::1/64");

    EXPECT_TRUE(reports->come(1));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fe80::1"));
}

TEST_F(NetlinkDispatcherTest, GlobalAddressComesBeforeALinkLocalOne)
{
    network.link("eth0", "fe80::1");
    network.here.addAddress("eth0", "fd00::1/64");

    follow();

    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, LinkLocalAddressWaitsWhileAGlobalOneIsBeingChecked)
{
    detectDuplicates();
    network.link("eth0");
    ip("address add fd00::1/64 dev eth0");
    network.here.addAddress("eth0", "fe80::1/64");

    follow();

    EXPECT_THAT(reports->lines(), IsEmpty());
    EXPECT_TRUE(reports->come(1));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, GlobalAddressThatComesLaterReplacesTheLinkLocalOne)
{
    network.link("eth0", "fe80::1");
    follow();

    network.here.addAddress("eth0", "fd00::1/64");

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fe80::1", "-eth0 fe80::1", "+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, LinkLocalAddressInUseStaysWhileAGlobalOneIsBeingChecked)
{
    detectDuplicates();
    network.link("eth0", "fe80::1");
    follow();
    bool wasTentative = true;
    reports->onReport([&] { wasTentative = isTentative("eth0"); });

    ip("address add fd00::1/64 dev eth0");

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fe80::1", "-eth0 fe80::1", "+eth0 fd00::1"));
    reports->unbind();
    EXPECT_FALSE(wasTentative);
}

TEST_F(NetlinkDispatcherTest, FurtherAddressesChangeNothing)
{
    network.link("eth0", "fd00::2");
    follow();

    network.here.addAddress("eth0", "fd00::1/64");
    network.here.addAddress("eth0", "fe80::1/64");
    ip("address delete fd00::1/64 dev eth0");

    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::2"));
}

TEST_F(NetlinkDispatcherTest, RenewedLifetimesChangeNothing)
{
    network.link("eth0", "fd00::1");
    follow();

    for (int lifetime = 1000; lifetime < 1020; ++lifetime)
        ip("address change fd00::1/64 dev eth0 preferred_lft " + std::to_string(lifetime) + " valid_lft " +
           std::to_string(lifetime));

    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, DeprecatedAddressInUseStays)
{
    network.link("eth0", "fd00::1");
    network.here.addAddress("eth0", "fd00::2/64");
    follow();
    const std::vector<std::string> before = reports->lines();
    ASSERT_EQ(before.size(), 1u);
    const std::string inUse = before.front().substr(std::string("+eth0 ").size());

    ip("address change " + inUse + "/64 dev eth0 preferred_lft 0");

    EXPECT_EQ(reported(), before);
}

TEST_F(NetlinkDispatcherTest, DeprecatedAddressIsReportedWhenThereIsNoOther)
{
    network.link("eth0", "fd00::1");
    ip("address change fd00::1/64 dev eth0 preferred_lft 0");

    follow();

    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, InterfaceIsGoneWhenItsAddressGoes)
{
    network.link("eth0", "fd00::1");
    follow();

    ip("address delete fd00::1/64 dev eth0");

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, AddressWhoseLifetimeEndsIsGone)
{
    network.link("eth0");
    follow();

    ip("address add fd00::1/64 dev eth0 nodad preferred_lft 1 valid_lft 1");

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, AnotherAddressOfTheInterfaceTakesOver)
{
    network.link("eth0", "fd00::1");
    follow();
    network.here.addAddress("eth0", "fd00::2/64");

    ip("address delete fd00::1/64 dev eth0");

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1", "+eth0 fd00::2"));
}

TEST_F(NetlinkDispatcherTest, InterfaceIsGoneWhenItsLinkGoesDown)
{
    network.link("eth0", "fd00::1");
    follow();

    ip("link set eth0 down");

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, InterfaceIsGoneWhenItsLinkIsDeleted)
{
    network.link("eth0", "fd00::1");
    network.link("eth1", "fd01::1");
    follow();

    ip("link delete eth0");

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, InterfaceIsGoneWhenItMovesToAnotherNamespace)
{
    network.link("eth0", "fd00::1");
    const Namespace third("third");
    follow();

    ip("link set eth0 netns third");

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, RenamedInterfaceIsGoneUnderItsOldNameAndThereUnderTheNewOne)
{
    network.here.setIPv6("all/keep_addr_on_down", "1");
    network.link("eth0", "fd00::1");
    follow();

    ip("link set eth0 down");
    ip("link set eth0 name lan0");
    ip("link set lan0 up");

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1", "+lan0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, InterfaceRenamedWhileUpIsGoneUnderItsOldNameAndThereUnderTheNewOne)
{
    network.link("eth0", "fd00::1");
    follow();
    try {
        ip("link set eth0 name lan0");
    }
    catch (const std::exception&) {
        GTEST_SKIP() << "this kernel renames only interfaces that are down";
    }

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1", "+lan0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, InterfaceThatComesBackUnderItsNameIsReportedAgain)
{
    network.link("eth0", "fd00::1");
    follow();

    ip("link delete eth0");
    network.link("eth0", "fd00::1");

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1", "+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, OnlyInterfacesOfTheGivenNamesAreReported)
{
    network.link("eth0", "fd00::1");
    network.link("eth1", "fd01::1");

    follow({"eth1", "eth2", "marker"});
    EXPECT_THAT(reports->lines(), ElementsAre("+eth1 fd01::1"));
    network.link("eth2", "fd02::1");
    network.link("eth3", "fd03::1");

    EXPECT_THAT(reported(), ElementsAre("+eth1 fd01::1", "+eth2 fd02::1"));
}

TEST_F(NetlinkDispatcherTest, InterfaceRenamedToAGivenNameIsReported)
{
    network.here.setIPv6("all/keep_addr_on_down", "1");
    network.link("eth0", "fd00::1");
    follow({"lan0"});
    EXPECT_THAT(reports->lines(), IsEmpty());

    ip("link set eth0 down");
    ip("link set eth0 name lan0");
    ip("link set lan0 up");

    EXPECT_TRUE(reports->come(1));
    EXPECT_THAT(reports->lines(), ElementsAre("+lan0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, WhoBindsLateIsToldWhatStandsReported)
{
    follow();
    network.link("eth0", "fd00::1");
    network.link("eth1", "fd01::1");
    network.link("eth2", "fd02::1");
    EXPECT_TRUE(reports->come(3));
    ip("link delete eth1");
    EXPECT_TRUE(reports->come(4));

    const Reports late(*dispatcher);

    EXPECT_THAT(late.lines(), ElementsAre("+eth0 fd00::1", "+eth2 fd02::1"));
}

TEST_F(NetlinkDispatcherTest, StandingInterfacesCanBeAskedFor)
{
    network.link("eth0", "fd00::1");
    follow();

    ASSERT_EQ(dispatcher->interfaces().size(), 1u);
    EXPECT_EQ(dispatcher->interfaces().front().name, "eth0");
    EXPECT_EQ(dispatcher->interfaces().front().ip, "fd00::1");
}

TEST_F(NetlinkDispatcherTest, QuickFlapsEndInTheRightState)
{
    network.here.setIPv6("all/keep_addr_on_down", "1");
    network.link("eth0", "fd00::1");
    network.link("eth1", "fd01::1");
    follow();

    shell(
        "for i in $(seq 200); do echo link set eth0 down; echo link set eth0 up; done | ip -n here -batch -");
    shell(
        "for i in $(seq 200); do echo link set eth1 down; echo link set eth1 up; done | ip -n here -batch -");
    ip("link set eth1 down");
    markEnd();

    const auto standing = dispatcher->interfaces();
    ASSERT_EQ(standing.size(), 2u);
    EXPECT_EQ(standing.front().name, "eth0");
    EXPECT_EQ(standing.front().ip, "fd00::1");
    EXPECT_EQ(standing.back().name, "marker");
}

TEST_F(NetlinkDispatcherTest, EveryAdditionIsFollowedByItsRemovalBeforeTheNext)
{
    network.here.setIPv6("all/keep_addr_on_down", "1");
    network.link("eth0", "fd00::1");
    follow();

    shell(
        "for i in $(seq 200); do echo link set eth0 down; echo link set eth0 up; done | ip -n here -batch -");

    const std::vector<std::string> lines = reported();
    for (std::size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(lines[i], i % 2 == 0 ? "+eth0 fd00::1" : "-eth0 fd00::1") << i;
}

TEST_F(NetlinkDispatcherTest, WhatTheKernelCouldNotTellIsReadAnew)
{
    fallBehind();
    network.link("eth1", "fd01::1");
    ip("link delete eth0");
    gate.open();

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1", "+eth1 fd01::1"));
}

TEST_F(NetlinkDispatcherTest, AddressThatWasMadeAnewInWhatTheKernelCouldNotTellIsReportedAnew)
{
    fallBehind();
    ip("address delete fd00::1/64 dev eth0");
    network.here.addAddress("eth0", "fd00::1/64");
    gate.open();

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1", "+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, AddressThatStandsIsNotReportedAnewWhenTheKernelCouldNotTellAll)
{
    fallBehind();
    network.link("eth1", "fd01::1");
    gate.open();

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1"));
}

TEST_F(NetlinkDispatcherTest, AddressThatWasMadeAnewMeanwhileIsReportedAnew)
{
    holdUp();
    ip("address delete fd00::1/64 dev eth0");
    network.here.addAddress("eth0", "fd00::1/64");
    gate.open();

    EXPECT_TRUE(reports->come(3));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1", "+eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, NoticesFromBeforeTheLossOfOthersBringNothingBack)
{
    holdUp();
    network.here.addAddress("eth0", "fd00::5/64");
    sendTooMuch();
    ip("address delete fd00::5/64 dev eth0");
    ip("address delete fd00::1/64 dev eth0");
    gate.open();

    EXPECT_TRUE(reports->come(2));
    EXPECT_THAT(reported(), ElementsAre("+eth0 fd00::1", "-eth0 fd00::1"));
}

TEST_F(NetlinkDispatcherTest, EndsWhileReportsCome)
{
    network.link("eth0", "fd00::1");
    std::atomic<bool> isOver{false};
    std::thread kernel([&] {
        while (!isOver)
            shell(
                "for i in $(seq 20); do echo address add fd00::2/64 dev eth0 nodad; "
                "echo address delete fd00::2/64 dev eth0; "
                "echo address delete fd00::1/64 dev eth0; "
                "echo address add fd00::1/64 dev eth0 nodad; done | ip -n here -batch -");
    });

    for (int i = 0; i < 50; ++i) {
        follow();
        reports->come(2);
        reports.reset();
        dispatcher.reset();
    }
    isOver = true;
    kernel.join();
}

TEST_F(NetlinkDispatcherTest, BindingMayOutliveTheDispatcher)
{
    network.link("eth0", "fd00::1");
    follow();

    dispatcher.reset();
    ip("link delete eth0");
    network.link("eth1", "fd01::1");

    EXPECT_THAT(reports->lines(), ElementsAre("+eth0 fd00::1"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
