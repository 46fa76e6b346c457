#include "ReceiverFixture.h"
#include "support/UnsuitableAddress.h"

#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using ReceiverGroupTest = ReceiverFixture;
using RunningReceiverGroupTest = RunningReceiverFixture;

struct RefusedJoinTest : ReceiverFixture, ::testing::WithParamInterface<UnsuitableAddress>
{};

constexpr auto joining0 = "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".";
constexpr auto leaving0ForIP =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\" for given IP "
    "\"fd00::1\".";
constexpr auto without0 =
    "Notice: ServiceDiscovery part of IPv6 Multicast Group for Interface \"eth0\" with currently no IPs.";

}  // namespace

TEST_F(ReceiverGroupTest, GroupIsJoinedAndLeftOnTheInterface)
{
    join();
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
    EXPECT_TRUE(receiver->isJoinedOn("eth0"));

    leave();
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_FALSE(receiver->isJoinedOn("eth0"));

    EXPECT_THAT(log.lines(), ElementsAre(joining0, leaving0ForIP));
}

TEST_F(ReceiverGroupTest, ReportsOfThePlatformJoinAndLeaveTheGroup)
{
    OEMInterface::AddServiceDiscoveryInterfacePayload added{{"eth0", "fd00::1"}};
    OEMInterface::RemoveServiceDiscoveryInterfacePayload removed{{"eth0", "fd00::1"}};

    receiver->onInterfaceAdded(added);
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));

    receiver->onInterfaceRemoved(removed);
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(RunningReceiverGroupTest, OnlyJoinedInterfacesAreHeard)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Speaker other(network.there, "eth1", "fd01::2");

    other.send("a1"_bytes);
    speaker.send("01"_bytes);
    EXPECT_TRUE(subscriber->gets(1));
    join("eth1", "fd01::1");
    other.send("a2"_bytes);
    EXPECT_TRUE(subscriber->gets(2));
    leave();
    speaker.send("02"_bytes);
    other.send("a3"_bytes);
    EXPECT_TRUE(subscriber->gets(3));

    EXPECT_THAT(subscriber->bytes(), ElementsAre("01", "a2", "a3"));
}

TEST_P(RefusedJoinTest, IsSkippedWithAWarning)
{
    join("eth0", GetParam().ip);

    EXPECT_THAT(log.lines(), ElementsAre(std::string("Warning: ServiceDiscovery skipped joining Multicast "
                                                     "Group on Interface \"eth0\" with IP \"") +
                                         GetParam().ip + "\": not an appropriate IP."));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Addresses, RefusedJoinTest, ::testing::ValuesIn(unsuitableAddresses),
                         [](const auto& row) { return row.param.name; });

TEST_F(ReceiverGroupTest, UnknownInterfaceOrAddressIsNotJoined)
{
    join("eth7", "fd00::1");
    join("eth0", "fd00::7");

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(), IsEmpty());
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(ReceiverGroupTest, InterfaceWithoutMulticastIsNotJoined)
{
    network.here.ip("link set eth0 multicast off");

    join();

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"fd00::1\": does not support Multicast."));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

/// The kernel joins nobody to an address that is no group.
TEST_F(ReceiverGroupTest, JoiningThatFailsIsReportedAndTheInterfaceIsNotJoined)
{
    Receiver misled(unit.hub, "fd00::7", discoveryPort);

    misled.joinGroupOnInterface_byIP("eth0", "fd00::1");

    EXPECT_THAT(log.lines(),
                ElementsAre(joining0,
                            "Error: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"fd00::1\": Invalid argument"));
    EXPECT_FALSE(misled.isJoinedOn("eth0"));
}

TEST_F(ReceiverGroupTest, SecondJoiningOfAnInterfaceIsRefused)
{
    network.here.addAddress("eth0", "fd00::7/64");
    join();
    log.clear();

    join();
    join("eth0", "fd00::7");

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"fd00::1\", already joined on \"eth0\"",
                            "Warning: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"fd00::7\", already joined on \"eth0\""));
}

TEST_F(ReceiverGroupTest, InterfaceThatHasBeenRenamedSinceIsTheSame)
{
    network.here.setIPv6("eth0/keep_addr_on_down", "1");
    join();
    network.here.ip("link set eth0 down");
    network.here.ip("link set eth0 name eth9 up");
    log.clear();

    join("eth9", "fd00::1");

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth9\" with IP \"fd00::1\", already joined on \"eth0\""));
}

TEST_F(ReceiverGroupTest, LinkLocalAddressIsTakenWithAndWithoutScope)
{
    network.here.addAddress("eth0", "fe80::1/64");
    network.link("ETH1", "fe80::3");

    join("eth0", "fe80::1");
    join("ETH1", "fe80::3%ETH1");
    EXPECT_THAT(joinedInterfaces(), ElementsAre("ETH1", "eth0"));

    leave("eth0", "fe80::1%eth0");
    leave("ETH1", "fe80::3");
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(ReceiverGroupTest, InterfaceThatWasNotJoinedCannotBeLeft)
{
    network.link("eth1", "fd01::1");
    join();
    log.clear();

    leave("eth1", "fd01::1");
    leave("eth0", "fd01::1");

    EXPECT_THAT(log.lines(), ElementsAre("Warning: Failed to leave IPv6 Multicast Group on Interface "
                                         "\"eth1\" with IP \"fd01::1\": not joined(?)",
                                         "Warning: Failed to leave IPv6 Multicast Group on Interface "
                                         "\"eth0\" with IP \"fd01::1\": not joined(?)"));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(ReceiverGroupTest, UnparsableAddressCannotBeLeft)
{
    join();
    log.clear();

    leave("eth0", "no address");

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: ServiceDiscovery failed to leave IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"no address\": Invalid address: no address"));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(ReceiverGroupTest, AnyAddressOfTheInterfaceLeavesIt)
{
    network.here.addAddress("eth0", "fd00::7/64");
    join();

    leave("eth0", "fd00::7");

    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(ReceiverGroupTest, WildcardLeavesEveryInterface)
{
    network.link("eth1", "fd01::1");
    join("eth1", "fd01::1");
    join();
    network.here.ip("address flush dev eth1");
    log.clear();

    leave("", "::");

    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            leavingAll, leaving0,
            "Notice: ServiceDiscovery (was) part of IPv6 Multicast Group for Interface \"eth1\" with "
            "currently no IPs.",
            "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth1\" \"eth1\"."));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(ReceiverGroupTest, InterfaceIsLeftWhenItsAddressHasGone)
{
    network.here.addAddress("eth0", "fd00::7/64");
    join();
    network.here.ip("address delete fd00::1/64 dev eth0");
    log.clear();

    leave();

    EXPECT_THAT(log.lines(), ElementsAre(leaving0ForIP));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(ReceiverGroupTest, InterfaceIsLeftWhenAllItsAddressesHaveGone)
{
    join();
    network.here.ip("address flush dev eth0");
    log.clear();

    leave();

    EXPECT_THAT(log.lines(), ElementsAre(without0, leaving0ForIP));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(ReceiverGroupTest, InterfaceIsLeftWhenItsLinkHasGone)
{
    join();
    network.here.ip("link delete eth0");
    log.clear();

    leave();

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(), ElementsAre(without0, leaving0ForIP));
    EXPECT_FALSE(receiver->isJoinedOn("eth0"));
}

TEST_F(ReceiverGroupTest, InterfaceWithoutAddressesIsPassedOverInTheWalk)
{
    network.link("eth1", "fd01::1");
    join();
    join("eth1", "fd01::1");
    network.here.ip("address flush dev eth0");
    log.clear();

    leave("eth1", "fd01::1");

    EXPECT_THAT(
        log.lines(),
        ElementsAre(without0,
                    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth1\" \"eth1\" "
                    "for given IP \"fd01::1\"."));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(RunningReceiverGroupTest, InterfaceThatComesBackUnderItsNameIsHeardAgain)
{
    network.here.ip("link delete eth0");
    leave();
    network.link("eth0", "fd00::1", "fd00::2");
    join();
    Speaker again(network.there, "eth0", "fd00::2");

    again.send("01"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
}

TEST_F(ReceiverGroupTest, GroupIsJoinedAndLeftOnTwoThreads)
{
    network.link("eth1", "fd01::1");
    constexpr int changes = 200;

    const auto flap = [&](const std::string& name, const std::string& address) {
        for (int i = 0; i < changes; ++i) {
            join(name, address);
            leave(name, address);
        }
        join(name, address);
    };
    std::thread other([&] { flap("eth1", "fd01::1"); });
    flap("eth0", "fd00::1");
    other.join();

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
