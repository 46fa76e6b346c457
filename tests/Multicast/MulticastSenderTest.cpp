#include "SenderFixture.h"
#include "support/Process.h"
#include "support/Waiting.h"

#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/MulticastSocket.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using MulticastSenderTest = SenderFixture;

}  // namespace

TEST_F(MulticastSenderTest, WithoutInitNothingIsSent)
{
    network.link("eth0", "fd00::1");
    Listener listener(network.there, "eth0");
    Sender fresh(discoveryGroup, discoveryPort);
    fresh.addInterface_byIP("eth0", "fd00::1");
    log.clear();

    EXPECT_FALSE(fresh.sendMulticast({}, {}));

    EXPECT_THAT(log.lines(), ElementsAre(notInitialised));
    EXPECT_THAT(listener.bytes(), IsEmpty());
}

TEST_F(MulticastSenderTest, InitWithAnAddressWithoutRawFormLeavesTheSenderUnusable)
{
    addInterface("eth0", "fd00::1");
    log.clear();

    EXPECT_FALSE(sender->init(IPAddress("10.0.0.1")));
    EXPECT_FALSE(send({"01"}));
    EXPECT_FALSE(send({"02"}));

    EXPECT_THAT(log.lines(), ElementsAre(notInitialised, notInitialised));
}

TEST_F(MulticastSenderTest, DatagramGoesToTheGroupFromTheInterfacesAddressWithHopLimit255)
{
    Listener listener = addListenedInterface("eth0", "fd00::1");

    EXPECT_TRUE(send({"01 02 ff"}));

    ASSERT_TRUE(listener.hears(1));
    const Listener::Datagram& datagram = listener.datagrams().front();
    EXPECT_EQ(datagram.bytes, "01 02 ff"_bytes);
    EXPECT_EQ(datagram.source, "fd00::1");
    EXPECT_NE(datagram.sourcePort, discoveryPort);
    EXPECT_EQ(datagram.destination, "ff14::4:0");
    EXPECT_EQ(datagram.hopLimit, 255u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(MulticastSenderTest, UnitDoesNotHearItsOwnDatagramsOnTheInterfaceTheyLeaveBy)
{
    network.link("eth0", "fd00::1", "fd00::2");
    sender->addInterface_byIP("eth0", "fd00::1");
    const IPAddress group(discoveryGroup);
    Poco::Net::MulticastSocket own(SocketAddress(group, discoveryPort), false);
    own.joinGroup(group, Poco::Net::NetworkInterface::forName("eth0", true));
    Speaker speaker(network.there, "eth0", "fd00::2");

    send({"01"});
    speaker.send("02"_bytes);

    char bytes[8];
    SocketAddress origin;
    EXPECT_EQ(own.receiveFrom(bytes, sizeof bytes, origin), 1);
    EXPECT_EQ(bytes[0], '\x02') << "the first datagram that comes in is the other unit's";
}

TEST_F(MulticastSenderTest, SocketDoesNotShareItsAddress)
{
    Listener listener = addListenedInterface("eth0", "fd00::1");

    const SocketAddress taken = ownAddress(listener);

    EXPECT_THROW(Poco::Net::DatagramSocket(taken, true), Poco::Exception);
}

TEST_F(MulticastSenderTest, LinkLocalAddressIsTakenWithAndWithoutScope)
{
    addInterface("eth0", "fe80::1");
    network.link("ETH1", "fe80::2");
    Listener listener0(network.there, "eth0");
    Listener listener1(network.there, "ETH1");

    sender->addInterface_byIP("ETH1", "fe80::2%ETH1");
    EXPECT_TRUE(send({"01"}));

    ASSERT_TRUE(listener0.hears(1));
    EXPECT_EQ(listener0.datagrams().front().source, "fe80::1");
    ASSERT_TRUE(listener1.hears(1));
    EXPECT_EQ(listener1.datagrams().front().source, "fe80::2");
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(MulticastSenderTest, InternalDatagramsStayOffAGlobalInterface)
{
    Listener listener = addListenedInterface("eth0", "fd00::1");
    Datagrams all{"a1", "a2"};
    Datagrams internal{"b1"};

    EXPECT_TRUE(sender->sendMulticast(all.list(), internal.list()));

    EXPECT_THAT(listener.bytes(), ElementsAre("a1", "a2"));
}

TEST_F(MulticastSenderTest, LinkLocalInterfaceGetsTheInternalDatagramsFirst)
{
    Listener listener = addListenedInterface("eth0", "fe80::1");
    Datagrams all{"a1", "a2"};
    Datagrams internal{"b1", "b2"};

    EXPECT_TRUE(sender->sendMulticast(all.list(), internal.list()));

    EXPECT_THAT(listener.bytes(), ElementsAre("b1", "b2", "a1", "a2"));
}

TEST_F(MulticastSenderTest, OfSeveralInterfacesOnlyLinkLocalOnesGetInternalDatagrams)
{
    Listener listener0 = addListenedInterface("eth0", "fd01::1");
    Listener listener1 = addListenedInterface("eth1", "fe80::1");
    Listener listener2 = addListenedInterface("eth2", "fd02::1");
    Datagrams all{"aa " + fd00_1};
    Datagrams internal{"bb " + fd00_1};

    EXPECT_TRUE(sender->sendMulticast(all.list(), internal.list()));

    EXPECT_THAT(listener0.bytes(), ElementsAre("aa " + fd01_1));
    EXPECT_THAT(listener1.bytes(), ElementsAre("bb " + fe80_1, "aa " + fe80_1));
    EXPECT_THAT(listener2.bytes(), ElementsAre("aa " + fd02_1));
    EXPECT_EQ(internal.hex(0), "bb " + fe80_1) << "of the last interface that the list was sent on";
}

TEST_F(MulticastSenderTest, EmptyListsAreSentWithSuccess)
{
    addInterface("eth0", "fe80::1");
    EXPECT_TRUE(send({}));

    addInterface("eth1", "fd01::1");
    EXPECT_TRUE(send({}));
}

TEST_F(MulticastSenderTest, InterfaceThatFailsDoesNotKeepTheOthersFromSending)
{
    Listener listener0 = addListenedInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");
    Listener listener2 = addListenedInterface("eth2", "fe80::1");
    network.here.ip("link set eth1 down");
    log.clear();

    EXPECT_FALSE(send({fd00_1, "aa"}));

    EXPECT_THAT(listener0.bytes(), ElementsAre(fd01_1, "aa"));
    EXPECT_THAT(listener2.bytes(), ElementsAre(fe80_1, "aa"));
    const auto failed = "Error: sendMulticast caught exception: Net Exception: Network is unreachable";
    EXPECT_THAT(log.lines(), ElementsAre(failed, failed)) << "each datagram is tried";
}

TEST_F(MulticastSenderTest, OnlyInterfaceThatFailsGivesFalse)
{
    addInterface("eth0", "fe80::1");
    network.here.ip("link set eth0 down");
    Datagrams all{"aa"};
    Datagrams none{};
    log.clear();

    EXPECT_FALSE(sender->sendMulticast(all.list(), none.list()));
    EXPECT_FALSE(sender->sendMulticast(none.list(), all.list()));

    EXPECT_THAT(log.errors(), ::testing::SizeIs(2));
}

TEST_F(MulticastSenderTest, InternalDatagramThatFailsGivesFalseThoughAllOthersGoOut)
{
    std::string tooLarge(70000, 'x');
    const Sender::MulticastData internal{{tooLarge.data(), tooLarge.size()}};
    Datagrams all{"01"};
    addInterface("eth0", "fe80::1");
    EXPECT_FALSE(sender->sendMulticast(all.list(), internal));

    Listener listener0(network.there, "eth0");
    Listener listener1 = addListenedInterface("eth1", "fd01::1");
    EXPECT_FALSE(sender->sendMulticast(all.list(), internal));

    EXPECT_THAT(listener0.bytes(), ElementsAre("01"));
    EXPECT_THAT(listener1.bytes(), ElementsAre("01"));
}

TEST_F(MulticastSenderTest, DatagramTooLargeForTheNetworkIsReportedAndTheNextIsSent)
{
    Listener listener = addListenedInterface("eth0", "fd00::1");
    std::string tooLarge(70000, 'x');
    std::string good = "01"_bytes;
    log.clear();

    EXPECT_FALSE(sender->sendMulticast({{tooLarge.data(), tooLarge.size()}, {good.data(), good.size()}}, {}));

    EXPECT_THAT(listener.bytes(), ElementsAre("01"));
    EXPECT_THAT(log.lines(),
                ElementsAre("Error: sendMulticast caught exception: Net Exception: Message too long"));
}

TEST_F(MulticastSenderTest, SendingDoesNotWaitForAReportThatIsBeingHandled)
{
    addInterface("eth0", "fd00::1");
    std::atomic<bool> isSent{false};
    std::mutex& mutex = sender->m_interfacesMutex;
    mutex.lock();

    std::thread sending([&] { isSent = send({"01"}); });

    EXPECT_TRUE(eventually([&] { return isSent.load(); }));
    mutex.unlock();
    sending.join();
}

TEST_F(MulticastSenderTest, DatagramsGoOutWhileInterfacesComeAndGo)
{
    addInterface("eth0", "fd01::1");
    network.link("eth1", "fd02::1");
    Listener listener0(network.there, "eth0");
    Listener listener1(network.there, "eth1");
    constexpr int changes = 200;
    std::atomic<bool> isOver{false};

    std::thread platform([&] {
        for (int i = 0; i < changes; ++i) {
            sender->addInterface_byIP("eth1", "fd02::1");
            sender->removeInterface_byIP("eth1", "fd02::1");
            sender->isOwnOutgoingAddress(SocketAddress("fd02::1", 1));
        }
        isOver = true;
    });
    std::size_t sent = 0;
    while (!isOver) {
        EXPECT_TRUE(send({"aa " + fd00_1}));
        ++sent;
        listener0.datagrams();
        listener1.datagrams();
    }
    platform.join();

    EXPECT_EQ(listener0.bytes().size(), sent);
    for (const std::string& bytes : listener0.bytes())
        EXPECT_TRUE(bytes == "aa " + fd01_1 || bytes == "aa " + fd00_1) << bytes;
    EXPECT_THAT(listener1.bytes(), Each("aa " + fd02_1));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
