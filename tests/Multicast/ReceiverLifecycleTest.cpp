#include "ReceiverFixture.h"
#include "support/Process.h"
#include "support/Repeating.h"
#include "support/Times.h"

#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

namespace {

using ReceiverLifecycleTest = ReceiverFixture;
using RunningReceiverLifecycleTest = RunningReceiverFixture;

constexpr auto stillHeldUp = "Error: MulticastReceiver - a subscriber still holds up the thread.";

/// A running receiver with a subscriber that does not return from the first datagram until the gate is
/// opened.
struct HungSubscriberTest : RunningReceiverFixture
{
    HungSubscriberTest()
    {
        subscriber->onDatagram([this] { gate.pass(); });
        speaker.send("01"_bytes);
        EXPECT_TRUE(eventually([&] { return gate.isReached(); }));
        log.clear();
    }
    ~HungSubscriberTest() override
    {
        gate.open();
        if (receiver)
            destroyReceiver();
    }

    Gate gate;
};

}  // namespace

TEST_F(ReceiverLifecycleTest, InterfaceJoinedBeforeTheStartIsHeardAfterIt)
{
    Speaker speaker(network.there, "eth0", "fd00::2");
    join();

    speaker.send("01"_bytes);
    EXPECT_TRUE(receiver->start());
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));
}

TEST_F(ReceiverLifecycleTest, StartAsksForALargeReceiveBufferAndSaysWhatItGot)
{
    Poco::Net::DatagramSocket other(Poco::Net::AddressFamily::IPv6);
    other.setReceiveBufferSize(4194304);

    EXPECT_TRUE(receiver->start());

    EXPECT_THAT(log.lines(),
                ElementsAre("Debug: MulticastReceiver receive buffer: 4194304 Bytes asked for, " +
                            std::to_string(other.getReceiveBufferSize()) + " got."));
    int bytes = 0;
    socklen_t size = sizeof bytes;
    EXPECT_EQ(::getsockopt(socketAt(discoveryPort), SOL_SOCKET, SO_RCVBUF, &bytes, &size), 0);
    EXPECT_EQ(bytes, other.getReceiveBufferSize());
}

TEST_F(ReceiverLifecycleTest, MulticastLoopbackIsOffOnTheSocket)
{
    EXPECT_TRUE(receiver->start());

    int isOn = -1;
    socklen_t size = sizeof isOn;
    EXPECT_EQ(::getsockopt(socketAt(discoveryPort), IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &isOn, &size), 0);
    EXPECT_EQ(isOn, 0);
}

TEST_F(ReceiverLifecycleTest, PortInUseKeepsTheReceiverIdle)
{
    std::optional<Poco::Net::DatagramSocket> other{std::in_place, SocketAddress("::", discoveryPort), false};

    EXPECT_FALSE(receiver->start());

    EXPECT_THAT(log.lines(), ElementsAre("Error: MultiCast binding failed: Net Exception: Address already in "
                                         "use: [ff14::4:0]:30491"));
}

TEST_F(ReceiverLifecycleTest, PortIsNotShared)
{
    EXPECT_TRUE(receiver->start());

    EXPECT_THROW(Poco::Net::DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), true),
                 Poco::Exception);
}

TEST_F(ReceiverLifecycleTest, LaterStartWorksWhenThePortIsFree)
{
    std::optional<Poco::Net::DatagramSocket> other{std::in_place, SocketAddress("::", discoveryPort), false};
    Speaker speaker(network.there, "eth0", "fd00::2");
    join();
    EXPECT_FALSE(receiver->start());
    other.reset();

    EXPECT_TRUE(receiver->start());
    speaker.send("01"_bytes);

    EXPECT_TRUE(subscriber->gets(1)) << "the group joined before is still joined";
}

TEST_F(RunningReceiverLifecycleTest, StopLeavesTheGroupEverywhere)
{
    network.link("eth1", "fd01::1");
    join("eth1", "fd01::1");
    log.clear();

    receiver->stop();

    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            leavingAll, leaving0,
            "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth1\" \"eth1\"."));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_FALSE(receiver->isJoinedOn("eth0"));
    EXPECT_FALSE(receiver->isJoinedOn("eth1"));
}

TEST_F(RunningReceiverLifecycleTest, InterfaceThatHasGoneDoesNotKeepTheOthersFromBeingLeft)
{
    network.link("eth1", "fd01::1");
    join("eth1", "fd01::1");
    network.here.ip("link delete eth0");
    log.clear();

    receiver->stop();

    EXPECT_THAT(
        log.notices(),
        ElementsAre(
            leavingAll,
            "Notice: ServiceDiscovery (was) part of IPv6 Multicast Group for Interface \"eth0\" with "
            "currently no IPs.",
            leaving0,
            "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth1\" \"eth1\"."));
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(RunningReceiverLifecycleTest, SecondStopFindsNothingToLeave)
{
    receiver->stop();
    log.clear();

    receiver->stop();

    EXPECT_THAT(log.lines(), ElementsAre(leavingAll));
}

TEST_F(RunningReceiverLifecycleTest, SecondStartChangesNothing)
{
    log.clear();

    EXPECT_TRUE(receiver->start());

    speaker.send("01"_bytes);
    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningReceiverLifecycleTest, StopGivesThePortBack)
{
    receiver->stop();

    EXPECT_NO_THROW(Poco::Net::DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), false));
}

TEST_F(RunningReceiverLifecycleTest, NothingIsHandedOverAfterTheStop)
{
    receiver->stop();

    speaker.send("01"_bytes);
    EXPECT_TRUE(receiver->start());
    join();
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));
}

TEST_F(RunningReceiverLifecycleTest, ReceiverHearsAfterEveryRestart)
{
    for (std::size_t i = 1; i <= 5; ++i) {
        receiver->stop();
        ASSERT_TRUE(receiver->start());
        EXPECT_THAT(joinedInterfaces(), IsEmpty());
        join();
        speaker.send("01"_bytes);
        ASSERT_TRUE(subscriber->gets(i)) << i;
    }
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningReceiverLifecycleTest, StopDoesNotWaitForTheEndOfAPoll)
{
    constexpr std::size_t count = 20;
    const auto begin = std::chrono::steady_clock::now();

    for (std::size_t i = 1; i <= count; ++i) {
        speaker.send("01"_bytes);
        ASSERT_TRUE(subscriber->gets(i));
        receiver->stop();
        ASSERT_TRUE(receiver->start());
        join();
    }

    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10)) << "a poll lasts a second";
}

TEST_F(ReceiverLifecycleTest, StopWithoutStartOnlyLeavesTheGroup)
{
    join();
    log.clear();

    receiver->stop();

    EXPECT_THAT(log.lines(), ElementsAre(leavingAll, leaving0));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(ReceiverLifecycleTest, InterfaceJoinedWhileStoppedIsHeardAfterTheStart)
{
    Speaker speaker(network.there, "eth0", "fd00::2");
    receiver->start();
    receiver->stop();
    join();

    EXPECT_TRUE(receiver->start());
    speaker.send("01"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
}

TEST_F(HungSubscriberTest, StopReturnsInTwoSecondsAndLeavesTheGroup)
{
    constexpr double longest = 2200;  // milliseconds

    const double duration = shortestTime([&] { receiver->stop(); }, longest);

    EXPECT_GE(duration, 1990);
    EXPECT_LE(duration, longest);
    EXPECT_THAT(log.notices(), IsSupersetOf({leavingAll, leaving0}));
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(HungSubscriberTest, StopWaitsForASubscriberThatReturnsInTime)
{
    std::atomic<bool> isStopped{false};

    std::thread stopper([&] {
        receiver->stop();
        isStopped = true;
    });
    EXPECT_TRUE(keeps([&] { return !isStopped; }, std::chrono::milliseconds(300)));
    gate.open();
    stopper.join();

    EXPECT_TRUE(receiver->start());
}

TEST_F(HungSubscriberTest, StartIsRefusedUntilTheSubscriberReturns)
{
    receiver->stop();
    log.clear();

    EXPECT_FALSE(receiver->start());
    EXPECT_THAT(log.lines(), ElementsAre(stillHeldUp));

    gate.open();
    EXPECT_TRUE(eventually([&] { return receiver->start(); }));
    join();
    speaker.send("02"_bytes);
    EXPECT_TRUE(subscriber->gets(2));
}

TEST_F(HungSubscriberTest, DatagramsThatWaitAreNotHandedOverAfterTheStop)
{
    speaker.send("02"_bytes);
    receiver->stop();

    gate.open();
    EXPECT_TRUE(eventually([&] { return receiver->start(); }));
    join();
    speaker.send("03"_bytes);

    EXPECT_TRUE(subscriber->gets(2));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("01", "03"));
}

TEST_F(HungSubscriberTest, DatagramsThatWaitAreTakenTogetherInTheirOrder)
{
    std::vector<std::string> sent{"01"};
    for (int i = 2; i < 200; ++i) {
        sent.push_back(toHex(std::string(1, static_cast<char>(i))));
        speaker.send(fromHex(sent.back()));
    }
    ASSERT_TRUE(subscriber->gets(1));

    log.clear();
    gate.open();

    ASSERT_TRUE(subscriber->gets(sent.size()));
    EXPECT_EQ(subscriber->bytes(), sent);
    EXPECT_EQ(log.count("Trace: MulticastReceiver onSocketReadable"), sent.size() - 1) << "one each";
}

TEST_F(HungSubscriberTest, DatagramsOnAnInterfaceThatIsNotJoinedTakeNoRoom)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Poco::Net::MulticastSocket otherProgram(SocketAddress::IPv6);
    otherProgram.joinGroup(IPAddress(discoveryGroup), Poco::Net::NetworkInterface::forName("eth1"));
    Speaker flooding(network.there, "eth1", "fd01::2");

    for (int i = 0; i < 2000; ++i)  // twice the room that is asked for
        flooding.send(std::string(8000, 'x'));
    speaker.send("02"_bytes);
    gate.open();

    EXPECT_TRUE(subscriber->gets(2));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("01", "02"));
    EXPECT_EQ(lostDatagrams(network.here), 0u);
}

TEST_F(HungSubscriberTest, DatagramsWaitUntilTheLastOneIsHandedOver)
{
    EXPECT_TRUE(receiver->hasWaiting()) << "the one that is being handed over";
    speaker.send("02"_bytes);

    gate.open();

    EXPECT_TRUE(eventually([&] { return !receiver->hasWaiting(); }));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("01", "02"));
}

TEST_F(HungSubscriberTest, NothingWaitsAfterTheStop)
{
    speaker.send("02"_bytes);

    receiver->stop();

    EXPECT_FALSE(receiver->hasWaiting());
}

TEST_F(RunningReceiverLifecycleTest, DatagramBehindAnEmptyOneWaits)
{
    Gate gate;
    log.onLine([&](const std::string& line) {
        if (line == "Trace: MulticastReceiver onSocketReadable")
            gate.pass();
    });
    speaker.send("");
    EXPECT_TRUE(eventually([&] { return gate.isReached(); }));
    speaker.send("01"_bytes);

    EXPECT_TRUE(eventually([&] { return receiver->hasWaiting(); }));

    gate.open();
    EXPECT_TRUE(subscriber->gets(1));
    log.onLine(nullptr);
}

TEST_F(ReceiverLifecycleTest, NothingWaitsBeforeTheStart)
{
    EXPECT_FALSE(receiver->hasWaiting());
}

TEST_F(HungSubscriberTest, DestructionWaitsForTheSubscriber)
{
    std::atomic<bool> isDestroyed{false};
    subscriber->outliveReceiver();

    std::thread destroyer([&] {
        receiver.reset();
        isDestroyed = true;
    });
    EXPECT_TRUE(keeps([&] { return !isDestroyed; }, std::chrono::milliseconds(300)));
    gate.open();
    destroyer.join();

    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(ReceiverLifecycleTest, RestartsWhileItIsAsked)
{
    const Repeating asking([&] {
        receiver->isJoinedOn("eth0");
        receiver->hasWaiting();
    });

    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(receiver->start());
        join();
        receiver->stop();
    }

    EXPECT_FALSE(receiver->isJoinedOn("eth0"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(ReceiverLifecycleTest, NoDescriptorIsLostOverRestartsAndDestruction)
{
    destroyReceiver();
    const std::size_t before = openDescriptors();

    {
        Receiver another(unit.hub, discoveryGroup, discoveryPort);
        for (int i = 0; i < 3; ++i) {
            another.joinGroupOnInterface_byIP("eth0", "fd00::1");
            EXPECT_TRUE(another.start());
            another.stop();
        }
        EXPECT_TRUE(another.start());
        another.joinGroupOnInterface_byIP("eth0", "fd00::1");
    }

    EXPECT_EQ(openDescriptors(), before);
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
