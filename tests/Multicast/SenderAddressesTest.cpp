#include "DataLayer/SDClock.h"
#include "Multicast/InterfaceListing.h"
#include "SenderFixture.h"
#include "support/Times.h"

#include <Poco/Net/MulticastSocket.h>

#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;

namespace {

using SenderAddressesTest = SenderFixture;
using TwoInterfacesSenderTest = TwoInterfacesFixture;

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff second = 1000 * millisecond;

}  // namespace

TEST_F(SenderAddressesTest, OneInterfaceGetsTheDatagramsUnchangedWhateverItsAddress)
{
    Listener listener = addListenedInterface("eth0", "fd01::1");

    EXPECT_TRUE(send({"aa " + fd00_1, "bb"}));

    EXPECT_THAT(listener.bytes(), ElementsAre("aa " + fd00_1, "bb"));
}

TEST_F(TwoInterfacesSenderTest, OfTwoInterfacesEachGetsItsOwnAddressAtTheSamePlaces)
{
    EXPECT_TRUE(send({"aa " + fd00_1 + " bb", fd00_1}));

    EXPECT_THAT(listener0.bytes(), ElementsAre("aa " + fd01_1 + " bb", fd01_1));
    EXPECT_THAT(listener1.bytes(), ElementsAre("aa " + fd02_1 + " bb", fd02_1));
}

TEST_F(SenderAddressesTest, OfThreeInterfacesEachGetsItsOwnAddress)
{
    Listener listener0 = addListenedInterface("eth0", "fd01::1");
    Listener listener1 = addListenedInterface("eth1", "fe80::1");
    Listener listener2 = addListenedInterface("eth2", "fd02::1");

    EXPECT_TRUE(send({fd00_1 + " cc"}));

    EXPECT_THAT(listener0.bytes(), ElementsAre(fd01_1 + " cc"));
    EXPECT_THAT(listener1.bytes(), ElementsAre(fe80_1 + " cc"));
    EXPECT_THAT(listener2.bytes(), ElementsAre(fd02_1 + " cc"));
}

TEST_F(SenderAddressesTest, InterfaceWhoseAddressIsThePlaceholderDoesNotEndTheAdjusting)
{
    Listener listener0 = addListenedInterface("eth0", "fd00::1");
    Listener listener1 = addListenedInterface("eth1", "fd02::1");
    Listener listener2 = addListenedInterface("eth2", "fd01::1");

    EXPECT_TRUE(send({"aa " + fd00_1}));

    EXPECT_THAT(listener0.bytes(), ElementsAre("aa " + fd00_1));
    EXPECT_THAT(listener1.bytes(), ElementsAre("aa " + fd02_1));
    EXPECT_THAT(listener2.bytes(), ElementsAre("aa " + fd01_1));
}

TEST_F(SenderAddressesTest, PlaceholderInterfaceInTheMiddleGetsThePlaceholderBack)
{
    addInterface("eth0", "fd01::1");
    Listener listener1 = addListenedInterface("eth1", "fd00::1");
    Listener listener2 = addListenedInterface("eth2", "fd02::1");

    EXPECT_TRUE(send({"aa " + fd00_1}));

    EXPECT_THAT(listener1.bytes(), ElementsAre("aa " + fd00_1));
    EXPECT_THAT(listener2.bytes(), ElementsAre("aa " + fd02_1));
}

TEST_F(TwoInterfacesSenderTest, PlaceholderThatStandsTwiceIsOverwrittenTwice)
{
    EXPECT_TRUE(send({fd00_1 + " " + fd00_1 + " cc", "aa " + fd00_1 + " bb " + fd00_1}));

    EXPECT_THAT(listener0.bytes(),
                ElementsAre(fd01_1 + " " + fd01_1 + " cc", "aa " + fd01_1 + " bb " + fd01_1));
    EXPECT_THAT(listener1.bytes(),
                ElementsAre(fd02_1 + " " + fd02_1 + " cc", "aa " + fd02_1 + " bb " + fd02_1));
}

TEST_F(TwoInterfacesSenderTest, DatagramWithoutThePlaceholderIsSentUnchanged)
{
    EXPECT_TRUE(send({"aa bb", fd00_1.substr(0, 15 * 3 - 1)}));

    EXPECT_THAT(listener0.bytes(), ElementsAre("aa bb", fd00_1.substr(0, 15 * 3 - 1)));
    EXPECT_EQ(listener1.bytes(), listener0.bytes());
}

TEST_F(TwoInterfacesSenderTest, InterfaceAddressThatStandsWithoutThePlaceholderIsLeftAlone)
{
    EXPECT_TRUE(send({"aa " + fd01_1}));

    EXPECT_THAT(listener0.bytes(), ElementsAre("aa " + fd01_1));
    EXPECT_THAT(listener1.bytes(), ElementsAre("aa " + fd01_1));
}

TEST_F(TwoInterfacesSenderTest, InterfaceAddressThatStandsBesideThePlaceholderIsLeftAlone)
{
    EXPECT_TRUE(send({fd00_1 + " " + fd01_1}));

    EXPECT_THAT(listener1.bytes(), ElementsAre(fd02_1 + " " + fd01_1));
}

TEST_F(SenderAddressesTest, InterfacesAreServedByAscendingIndexAndTheLastAddressStaysInTheDatagram)
{
    network.link("eth0", "fd01::1");
    network.link("eth1", "fd02::1");
    sender->addInterface_byIP("eth1", "fd02::1");
    sender->addInterface_byIP("eth0", "fd01::1");
    Datagrams datagrams{"aa " + fd00_1};

    send(datagrams);

    EXPECT_EQ(datagrams.hex(0), "aa " + fd02_1);
}

TEST_F(SenderAddressesTest, FailedAdjustingDoesNotKeepTheDatagramFromBeingSent)
{
    network.link("eth0", "fd00::1");
    Listener listener(network.there, "eth0");
    Datagrams datagrams{"aa bb"};
    Sender::SendData data(datagrams.list(), fromHex(fd00_1));
    data.ipReplacement = "01"_bytes;
    const Sender::InterfaceData_t interface {
        new Poco::Net::MulticastSocket(SocketAddress("fd00::1", 0), false), fromHex(fd00_1), false,
            IPAddress("fd00::1"),
        {}
    };

    EXPECT_FALSE(sender->sendServices(interface, data));

    EXPECT_THAT(listener.bytes(), ElementsAre("aa bb"));
}

TEST_F(TwoInterfacesSenderTest, AddressOfEachSocketIsAnOwnOne)
{
    const SocketAddress own0 = ownAddress(listener0);
    const SocketAddress own1 = ownAddress(listener1);

    EXPECT_TRUE(sender->isOwnOutgoingAddress(own0));
    EXPECT_TRUE(sender->isOwnOutgoingAddress(own1));
}

TEST_F(SenderAddressesTest, AddressWithAnotherPortOrHostIsNotAnOwnOne)
{
    Listener listener = addListenedInterface("eth0", "fd01::1");
    const SocketAddress own = ownAddress(listener);
    const auto otherPort = static_cast<std::uint16_t>(own.port() + 1);

    EXPECT_FALSE(sender->isOwnOutgoingAddress(SocketAddress("fd01::1", otherPort)));
    EXPECT_FALSE(sender->isOwnOutgoingAddress(SocketAddress("fd01::2", own.port())));
    EXPECT_FALSE(sender->isOwnOutgoingAddress(SocketAddress("127.0.0.1", own.port())));
    EXPECT_FALSE(sender->isOwnOutgoingAddress(SocketAddress("/tmp/socket")));
}

TEST_F(TwoInterfacesSenderTest, PlaceholderAndAddressesInUseAreOwnOnes)
{
    EXPECT_TRUE(sender->isOwnAddress(IPAddress("fd00::1")));
    EXPECT_TRUE(sender->isOwnAddress(IPAddress("fd02::1")));
    EXPECT_FALSE(sender->isOwnAddress(IPAddress("fd03::1")));
    EXPECT_FALSE(sender->isOwnAddress(IPAddress("10.0.0.1")));
}

TEST_F(SenderAddressesTest, OwnAddressIsKnownWithAnyScope)
{
    addInterface("eth0", "fe80::1");
    network.link("eth1");
    Listener listener(network.there, "eth0");
    const std::uint16_t port = ownAddress(listener).port();

    EXPECT_TRUE(sender->isOwnOutgoingAddress(SocketAddress(IPAddress("fe80::1%eth0"), port)));
    EXPECT_TRUE(sender->isOwnOutgoingAddress(SocketAddress(IPAddress("fe80::1%eth1"), port)));
    EXPECT_TRUE(sender->isOwnOutgoingAddress(SocketAddress(IPAddress("fe80::1"), port)));
}

TEST_F(TwoInterfacesSenderTest, AddressOfASocketJustClosedIsStillAnOwnOneForSeconds)
{
    const SocketAddress own0 = ownAddress(listener0);
    const SocketAddress own1 = ownAddress(listener1);

    sender->removeInterface_byIP("eth0", "fd01::1");
    sender->removeInterface_byIP("", "::");
    EXPECT_TRUE(sender->isOwnOutgoingAddress(own0));
    EXPECT_TRUE(sender->isOwnOutgoingAddress(own1));

    SDClock::turn(60 * second);
    EXPECT_FALSE(sender->isOwnOutgoingAddress(own0));
    EXPECT_FALSE(sender->isOwnOutgoingAddress(own1));
}

TEST_F(TwoInterfacesSenderTest, AddressOfAnInterfaceThatIsNotKeptIsStillAnOwnOneForSeconds)
{
    const SocketAddress own0 = ownAddress(listener0);

    sender->keepOnly({"eth1"}, *Multicast::InterfaceListing::take());
    EXPECT_TRUE(sender->isOwnOutgoingAddress(own0));

    SDClock::turn(60 * second);
    EXPECT_FALSE(sender->isOwnOutgoingAddress(own0));
}

TEST_F(TwoInterfacesSenderTest, AddressOfAClosedSocketIsAnOwnOneForFiveSeconds)
{
    const SocketAddress own0 = ownAddress(listener0);
    const Poco::Clock before = SDClock::now();
    sender->removeInterface_byIP("eth0", "fd01::1");
    const Poco::Clock after = SDClock::now();

    turnTo(before, 4700 * millisecond);
    EXPECT_TRUE(sender->isOwnOutgoingAddress(own0));
    turnTo(after, 5001 * millisecond);
    EXPECT_FALSE(sender->isOwnOutgoingAddress(own0));
}

}  // namespace Nubo::ServiceDiscovery::Testing
