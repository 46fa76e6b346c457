#include "InterfacesFixture.h"

#include <KELOEMInterfaceLib/NetlinkDispatcher.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

namespace {

using InterfaceScenariosTest = InterfacesFixture;

}  // namespace

TEST_F(InterfaceScenariosTest, SecondAddressChangesNothing)
{
    startQuietly();
    Listener listener(network.there, "eth0");
    const LogCatcher log;

    network.here.addAddress("eth0", "fd00::11/64");
    network.here.addAddress("eth0", "fe80::11/64");

    EXPECT_THAT(logged(log), IsEmpty());
    EXPECT_TRUE(listener.hears(2));
    for (const Listener::Datagram& datagram : listener.datagrams())
        EXPECT_EQ(datagram.source, "fd00::1");
    EXPECT_THAT(groupUsersIn(network.here), ElementsAre(Pair("eth0", 1), Pair("marker", 1)));
    EXPECT_TRUE(meet());
}

TEST_F(InterfaceScenariosTest, ThousandRenewedLifetimesAreNotReportedAndNotLogged)
{
    startQuietly();
    const LogCatcher log;
    OEMInterface::NetlinkDispatcher dispatcher({"eth0"});
    const Reports reports(dispatcher);

    shell(
        "seq 5000 5999 | sed 's|.*|address change fd00::1/64 dev eth0 valid_lft & preferred_lft &|' | "
        "ip -n here -batch -");

    EXPECT_THAT(logged(log), IsEmpty());
    EXPECT_THAT(reports.lines(), ElementsAre("+eth0 fd00::1"));
    EXPECT_TRUE(meet());
}

TEST_F(InterfaceScenariosTest, InterfaceMadeAnewUnderItsNameIsUsedAgain)
{
    startOnLink();
    const std::size_t descriptorsBefore = openDescriptors();

    for (int i = 0; i < 10; ++i) {
        const unsigned index = indexOf(network.here, "eth0");
        ip("link delete eth0");
        network.link("eth0", "fd00::1", "fd00::2");
        ASSERT_NE(indexOf(network.here, "eth0"), index);
        ASSERT_TRUE(meet()) << i;
    }

    expectLeft(descriptorsBefore, {{"eth0", 1}});
}

TEST_F(InterfaceScenariosTest, RenamedInterfaceIsUsedUnderItsNewName)
{
    network.here.setIPv6("default/keep_addr_on_down", "1");
    startOnLink();
    const std::size_t descriptorsBefore = openDescriptors();

    ip("link set eth0 down");
    ip("link set eth0 name lan0");
    ip("link set lan0 up");

    EXPECT_TRUE(meet());
    expectLeft(descriptorsBefore, {{"lan0", 1}});
}

TEST_F(InterfaceScenariosTest, InterfacesThatSwapTheirNamesAreBothUsed)
{
    network.here.setIPv6("default/keep_addr_on_down", "1");
    network.link("eth1", "fd01::1", "fd01::2");
    startOnLink();
    offer(*one, "Media", "fd00::1");
    Listener listener(network.there, "eth0");
    Listener otherListener(network.there, "eth1");
    Speaker speaker(network.there, "eth0", "fd00::2");
    Speaker otherSpeaker(network.there, "eth1", "fd01::2");
    const std::size_t descriptorsBefore = openDescriptors();

    shell(
        "printf 'link set %s\n' 'eth0 down' 'eth1 down' 'eth0 name swap' 'eth1 name eth0' 'swap name eth1' "
        "'eth0 up' 'eth1 up' | ip -n here -batch -");

    Deadline deadline;
    EXPECT_TRUE(learns(one->registry(), "Navi", speaker, deadline));
    EXPECT_TRUE(learns(one->registry(), "Radio", otherSpeaker, deadline));
    listener.clear();
    otherListener.clear();
    EXPECT_TRUE(deadline.meets([&] { return hearsOffer(listener, "Media"); }));
    EXPECT_TRUE(deadline.meets([&] { return hearsOffer(otherListener, "Media"); }));
    EXPECT_EQ(listener.datagrams().front().source, "fd00::1");
    EXPECT_EQ(otherListener.datagrams().front().source, "fd01::1");
    expectLeft(descriptorsBefore, {{"eth0", 1}, {"eth1", 1}});
}

TEST_F(InterfaceScenariosTest, UnitsWithoutInterfacesMeetWhenOneComes)
{
    constexpr int services = 20;
    start();
    NuboServiceDescription wanted;
    for (int i = 0; i < services; ++i) {
        offer(*one, "Here" + std::to_string(i), "fd00::1");
        offer(*other, "There" + std::to_string(i), "fd00::2");
        wanted.setName("There" + std::to_string(i));
        EXPECT_TRUE(one->discovery().findService(wanted));
    }
    wanted.setName("Here0");
    EXPECT_TRUE(other->discovery().findService(wanted));
    EXPECT_TRUE(keeps([&] { return one->registry().events().empty(); }, milliseconds(1500)));

    network.link("eth0", "fd00::1", "fd00::2");

    Deadline deadline;
    EXPECT_TRUE(deadline.meets([&] {
        return one->registry().eventCount() == services && other->registry().eventCount() == services;
    }));
    for (int i = 0; i < services; ++i) {
        EXPECT_EQ(one->registry().discovered("There" + std::to_string(i)), 1u) << i;
        EXPECT_EQ(other->registry().discovered("Here" + std::to_string(i)), 1u) << i;
    }
}

TEST_F(InterfaceScenariosTest, ShutdownLeavesTheGroupAndAStartJoinsItAgain)
{
    network.link("eth1", "fd01::1", "fd01::2");
    startOnLink();

    for (int i = 0; i < 10; ++i) {
        one->shutdown();
        EXPECT_THAT(groupUsersIn(network.here), IsEmpty());
        EXPECT_TRUE(one->startup("fd00::1"));
        EXPECT_THAT(groupUsersIn(network.here), ElementsAre(Pair("eth0", 1), Pair("eth1", 1)));
    }
    EXPECT_TRUE(one->discovery().addService(describe("Media")));

    EXPECT_TRUE(eventually([&] { return other->registry().discovered("Media") == 2; }));
}

TEST_F(InterfaceScenariosTest, ProcessMadeMeanwhileDoesNotHoldThePort)
{
    startOnLink();
    std::FILE* const process = ::popen("cat", "w");

    one->shutdown();

    EXPECT_TRUE(one->startup("fd00::1"));
    EXPECT_TRUE(meet());
    ::pclose(process);
}

TEST_F(InterfaceScenariosTest, ReportsInQuickSuccessionLeaveNothingBehind)
{
    TestUnit unit("unit");
    connect(unit.network(), "eth0", network.there, "eth0");
    unit.network().addAddress("eth0", "fd00::1/64");
    network.there.addAddress("eth0", "fd00::2/64");
    other.emplace(network.there);
    ASSERT_TRUE(other->startup("fd00::2"));
    ASSERT_TRUE(unit.startup("fd00::1"));
    EXPECT_TRUE(unit.discovery().addService(describe("Media")));
    offer(*other, "Navi", "fd00::2");
    const std::size_t descriptorsWithout = openDescriptors();

    for (int i = 0; i < 100; ++i) {
        unit.addInterface("eth0", "fd00::1");
        EXPECT_THAT(groupUsersIn(unit.network()), ElementsAre(Pair("eth0", 1)));
        unit.removeInterface("eth0", "fd00::1");
        EXPECT_THAT(groupUsersIn(unit.network()), IsEmpty());
    }

    // A sending that has not finished may still hold a socket.
    EXPECT_TRUE(eventually([&] { return openDescriptors() == descriptorsWithout; }));
    unit.addInterface("eth0", "fd00::1");
    EXPECT_TRUE(Testing::meet(unit, "fd00::1", *other, "fd00::2"));
    EXPECT_EQ(openDescriptors(), descriptorsWithout + 1);
}

}  // namespace Nubo::ServiceDiscovery::Testing
