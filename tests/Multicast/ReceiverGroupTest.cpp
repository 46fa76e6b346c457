#include "Multicast/InterfaceListing.h"
#include "ReceiverFixture.h"
#include "support/UnsuitableAddress.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

namespace {

using ReceiverGroupTest = ReceiverFixture;
using RunningReceiverGroupTest = RunningReceiverFixture;

struct RefusedJoinTest : ReceiverFixture, ::testing::WithParamInterface<UnsuitableAddress>
{};

constexpr auto joining0 = "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".";
constexpr auto leaving0ForIP =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\" for given IP "
    "\"fd00::1\".";

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

/// The kernel refuses to join an address that is no multicast group.
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

/// The report of an interface that was created anew without being withdrawn: the socket's membership
/// disappeared with the former interface.
TEST_F(ReceiverGroupTest, InterfaceMadeAnewWithItsIndexIsJoinedWhenItIsReported)
{
    makeWithIndex77();
    join("eth7", "fd07::1");
    network.here.ip("link delete eth7");
    makeWithIndex77();
    log.clear();

    join("eth7", "fd07::1");

    EXPECT_THAT(groupUsers(), ElementsAre(Pair("eth7", 1u)));
    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth7\" with IP \"fd07::1\", already joined on \"eth7\""));
}

TEST_F(ReceiverGroupTest, KeepsOnlyWhatIsThereUnderOneOfTheNames)
{
    for (const std::string number : {"1", "2", "3"}) {
        network.link("eth" + number, "fd0" + number + "::1");
        join("eth" + number, "fd0" + number + "::1");
    }
    join();
    network.here.ip("link delete eth1");
    network.here.ip("link set eth2 down");
    network.here.ip("link set eth2 name eth9 up");

    receiver->keepOnly({"eth0", "eth1", "eth2", "eth9"}, *Multicast::InterfaceListing::take());

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
    for (const std::string name : {"eth1", "eth2", "eth3", "eth9"})
        EXPECT_FALSE(receiver->isJoinedOn(name)) << name;
}

TEST_F(ReceiverGroupTest, FurtherReportLeavesOneMembership)
{
    join();
    join();

    EXPECT_THAT(groupUsers(), ElementsAre(Pair("eth0", 1u)));
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

TEST_F(ReceiverGroupTest, AttemptWithAnInterfaceThatIsStillMissingIsNotLogged)
{
    log.clear();

    EXPECT_EQ(
        receiver->add("eth9", "fd00::1", *Multicast::InterfaceListing::take(), Multicast::Attempt::Again),
        Multicast::Outcome::Pending);

    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
