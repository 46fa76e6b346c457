#include "Multicast/InterfaceListing.h"
#include "ReceiverFixture.h"
#include "support/Process.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketAddress.h>

#include <cerrno>
#include <string>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

// The receiver does not hear interfaces that it has not joined or has left, even if other sockets have joined
// the group there.
namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using Poco::Net::MulticastSocket;
using Poco::Net::NetworkInterface;
using Poco::Net::SocketAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// Returns the socket of another program of the unit that has joined the group on an interface.
MulticastSocket joinElsewhere(const std::string& interface)
{
    MulticastSocket socket(SocketAddress::IPv6);
    socket.joinGroup(IPAddress(discoveryGroup), NetworkInterface::forName(interface));
    return socket;
}

class ReceiverLeavingTest : public RunningReceiverFixture
{
protected:
    /// Leaves eth0, which another program has joined, and checks that only eth1 is heard.
    template <class Leave>
    void expectOnlyTheOtherIsHeardAfter(Leave leaveEth0)
    {
        network.link("eth1", "fd01::1", "fd01::2");
        join("eth1", "fd01::1");
        const MulticastSocket other = joinElsewhere("eth0");
        Speaker elsewhere(network.there, "eth1", "fd01::2");
        leaveEth0();

        speaker.send("01"_bytes);
        elsewhere.send("02"_bytes);

        EXPECT_TRUE(subscriber->gets(1));
        EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));
    }
};

}  // namespace

/// The kernel gives a socket all datagrams for its group that arrive on an interface where any socket has
/// joined the group.
TEST_F(ReceiverLeavingTest, DatagramFromAnInterfaceOnWhichOnlyAnotherSocketHasJoinedIsDropped)
{
    network.link("eth1", "fd01::1", "fd01::2");
    const MulticastSocket other = joinElsewhere("eth1");
    Speaker elsewhere(network.there, "eth1", "fd01::2");

    elsewhere.send("01"_bytes);
    speaker.send("02"_bytes);
    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));

    join("eth1", "fd01::1");
    elsewhere.send("03"_bytes);
    EXPECT_TRUE(subscriber->gets(2));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02", "03"));
}

TEST_F(ReceiverLeavingTest, InterfaceThatOnlyOthersHaveJoinedIsNotHeardAfterARestart)
{
    const MulticastSocket other = joinElsewhere("eth0");
    receiver->stop();
    EXPECT_TRUE(receiver->start());

    speaker.send("01"_bytes);
    join();
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));
}

TEST_F(ReceiverLeavingTest, InterfaceThatOnlyOthersHaveJoinedIsNotHeardAfterItWasLeft)
{
    expectOnlyTheOtherIsHeardAfter([this] { leave(); });
}

TEST_F(ReceiverLeavingTest, InterfaceThatOnlyOthersHaveJoinedIsNotHeardWhenItIsNotKept)
{
    expectOnlyTheOtherIsHeardAfter(
        [this] { receiver->keepOnly({"eth1"}, *Multicast::InterfaceListing::take()); });
}

TEST_F(ReceiverLeavingTest, InterfaceThatOnlyOthersHaveJoinedIsNotHeardAfterEveryOneWasLeft)
{
    const MulticastSocket other = joinElsewhere("eth0");
    Listener arriving(network.here, "eth0");
    leave("", "::");

    speaker.send("01"_bytes);
    EXPECT_TRUE(arriving.hears(1));
    join();
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));
}

TEST_F(ReceiverLeavingTest, InterfaceIsLeftByTheAddressThatWasReportedInPlaceOfOneThatHasGone)
{
    network.here.addAddress("eth0", "fd00::9/64");
    network.here.ip("address delete fd00::1/64 dev eth0");
    join("eth0", "fd00::9");

    leave("eth0", "fd00::1");
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));

    network.here.ip("address delete fd00::9/64 dev eth0");
    leave("eth0", "fd00::9");
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

/// The kernel limits the memberships of a socket.
TEST_F(ReceiverLeavingTest, MembershipOfAnInterfaceThatWasMadeAnewIsGivenBack)
{
    makeWithIndex77();
    join("eth7", "fd07::1");
    network.here.ip("link delete eth7");
    network.link("eth7", "fd07::1");
    receiver->keepOnly({"eth7"}, *Multicast::InterfaceListing::take());

    ipv6_mreq former{};
    former.ipv6mr_interface = 77;
    ASSERT_EQ(::inet_pton(AF_INET6, discoveryGroup, &former.ipv6mr_multiaddr), 1);
    const int left =
        ::setsockopt(socketAt(discoveryPort), IPPROTO_IPV6, IPV6_LEAVE_GROUP, &former, sizeof former);

    EXPECT_EQ(left, -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
}

}  // namespace Nubo::ServiceDiscovery::Testing
