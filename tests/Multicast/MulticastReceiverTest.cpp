#include "TestReceiver.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Process.h"
#include "support/RawSpeaker.h"
#include "support/Repeating.h"
#include "support/TestUnit.h"
#include "support/Times.h"
#include "support/UnsuitableAddress.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Exception.h>
#include <Poco/NObserver.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketNotification.h>
#include <Poco/Net/SocketReactor.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Nubo::ServiceDiscovery::Testing {

using Multicast::MulticastDataPtr;
using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Pair;

namespace {

std::string nameOfAReceiversThread(const NetworkPair& network)
{
    HubUnit unit;
    Receiver receiver(unit.hub, discoveryGroup, discoveryPort);
    Subscriber subscriber(receiver);
    std::string name;
    subscriber.onDatagram([&] { std::ifstream("/proc/thread-self/comm") >> name; });
    receiver.start();
    receiver.joinGroupOnInterface_byIP("eth0", "fd00::1");
    Speaker(network.there, "eth0", "fd00::2").send("01"_bytes);
    subscriber.gets(1);
    receiver.stop();
    return name;
}

/// Names are given once a process, so this needs one of its own.
int namedOnlyOnce()
{
    const NetworkPair network;
    network.link("eth0", "fd00::1", "fd00::2");
    const std::string first = nameOfAReceiversThread(network);
    const std::string second = nameOfAReceiversThread(network);
    const bool namedOnce = first == "SdSockReact" && !second.empty() && second != first;
    return namedOnce ? EXIT_SUCCESS : EXIT_FAILURE;
}

constexpr auto joining0 = "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".";
constexpr auto leavingAll =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.";
constexpr auto leaving0 =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\".";
constexpr auto leaving0ForIP =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\" for given IP "
    "\"fd00::1\".";
constexpr auto without0 =
    "Notice: ServiceDiscovery part of IPv6 Multicast Group for Interface \"eth0\" with currently no IPs.";
constexpr auto stillHeldUp = "Error: MulticastReceiver - a subscriber still holds up the thread.";

/// The same with a subscriber that does not return from the first datagram until the gate is opened.
struct HungSubscriberTest : RunningReceiverTest
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

struct RefusedJoinTest : MulticastReceiverTest, ::testing::WithParamInterface<UnsuitableAddress>
{};

struct Thrown
{
    const char* name;
    void (*raise)();
    const char* text;

    friend std::ostream& operator<<(std::ostream& stream, const Thrown& row) { return stream << row.text; }
};

struct ThrowingSubscriberTest : RunningReceiverTest, ::testing::WithParamInterface<Thrown>
{};

}  // namespace

TEST_F(RunningReceiverTest, DatagramArrivesByteForByteWithItsSender)
{
    speaker.send("00 01 02 fe ff"_bytes);

    ASSERT_TRUE(subscriber->gets(1));
    const MulticastDataPtr data = subscriber->received().front();
    EXPECT_EQ(toHex(data->buffer.begin(), data->buffer.size()), "00 01 02 fe ff");
    EXPECT_EQ(data->origin.host().toString(), "fd00::2");
    EXPECT_EQ(data->origin.port(), speaker.address().port());
    EXPECT_THAT(log.lines(), ElementsAre("Trace: MulticastReceiver onSocketReadable"));
}

TEST_F(RunningReceiverTest, DatagramsOfEverySizeArriveWholeAndInOrder)
{
    std::vector<std::string> sent;
    for (const std::size_t size : {1u, 1212u, 1u, 8000u, 65000u}) {
        speaker.send(std::string(size, static_cast<char>('a' + sent.size())));
        sent.push_back(toHex(std::string(size, static_cast<char>('a' + sent.size()))));
    }

    ASSERT_TRUE(subscriber->gets(sent.size()));
    EXPECT_EQ(subscriber->bytes(), sent);
}

TEST_F(RunningReceiverTest, ManyDatagramsAtOnceAllArrive)
{
    constexpr std::size_t count = 250;
    for (std::size_t i = 0; i < count; ++i)
        speaker.send(std::string(1212, static_cast<char>(i)));

    EXPECT_TRUE(subscriber->gets(count));
}

TEST_F(RunningReceiverTest, SenderWithALinkLocalAddressIsGivenWithItsScope)
{
    network.there.addAddress("eth0", "fe80::2/64");
    Speaker linkLocal(network.there, "eth0", "fe80::2%eth0");

    linkLocal.send("01"_bytes);

    ASSERT_TRUE(subscriber->gets(1));
    EXPECT_EQ(subscriber->received().front()->origin.host().toString(), "fe80::2%eth0");
}

TEST_F(RunningReceiverTest, DatagramLivesAsLongAsItsLastReference)
{
    speaker.send("01 02"_bytes);
    ASSERT_TRUE(subscriber->gets(1));
    const MulticastDataPtr data = subscriber->received().front();

    destroyReceiver();

    EXPECT_EQ(toHex(data->buffer.begin(), data->buffer.size()), "01 02");
}

TEST(MulticastDataTest, HoldsACopyOfTheBytesAndTheSender)
{
    std::string bytes = "01 02 03"_bytes;
    const Multicast::MulticastReceiver::MulticastData data(bytes.data(), 2, SocketAddress("fd00::2", 1234));
    bytes[0] = 'x';

    EXPECT_EQ(toHex(data.buffer.begin(), data.buffer.size()), "01 02");
    EXPECT_EQ(data.origin.toString(), "[fd00::2]:1234");
}

TEST_F(RunningReceiverTest, EmptyDatagramIsDrainedAndRaisesNoEvent)
{
    constexpr std::size_t count = 100;
    for (std::size_t i = 0; i < count; ++i)
        speaker.send("");
    speaker.send("01"_bytes);

    ASSERT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("01"));
    EXPECT_EQ(log.count("Debug: Multicast connection closed (available = 0)."), count);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningReceiverTest, DatagramWithABadChecksumIsPassedOver)
{
    RawSpeaker corrupting(network.there, "eth0", "fd00::2", IPPROTO_UDP);

    corrupting.send(corrupted("aa"_bytes), discoveryGroup);
    speaker.send("01"_bytes);
    ASSERT_TRUE(subscriber->gets(1));
    corrupting.send(corrupted("bb"_bytes), discoveryGroup);
    corrupting.send(corrupted("cc"_bytes), discoveryGroup);
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(2));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("01", "02"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningReceiverTest, SubscriberRunsOnAThreadOfTheReceiver)
{
    std::thread::id thread;
    subscriber->onDatagram([&] { thread = std::this_thread::get_id(); });

    speaker.send("01"_bytes);
    ASSERT_TRUE(subscriber->gets(1));
    receiver->stop();

    EXPECT_NE(thread, std::thread::id());
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(ReceiverThreadTest, IsNamedOnceAProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(std::exit(namedOnlyOnce()), ::testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_P(ThrowingSubscriberTest, IsLoggedAndTheReceiverGoesOn)
{
    subscriber->onDatagram(GetParam().raise);

    speaker.send("01"_bytes);
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(2));
    const std::string line = std::string("Error: MulticastReceiver - caught exception: ") + GetParam().text;
    EXPECT_TRUE(eventually([&] { return log.count(line) == 2; }));
}

INSTANTIATE_TEST_SUITE_P(
    Exceptions, ThrowingSubscriberTest,
    ::testing::Values(Thrown{"Poco", [] { throw Poco::NotFoundException("it"); }, "Not found: it"},
                      Thrown{"Standard", [] { throw std::runtime_error("went wrong"); }, "went wrong"},
                      Thrown{"Other", [] { throw 42; }, "unknown exception"}),
    [](const auto& row) { return row.param.name; });

TEST_F(MulticastReceiverTest, GroupIsJoinedAndLeftOnTheInterface)
{
    join();
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
    EXPECT_TRUE(receiver->isJoinedOn("eth0"));

    leave();
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_FALSE(receiver->isJoinedOn("eth0"));

    EXPECT_THAT(log.lines(), ElementsAre(joining0, leaving0ForIP));
}

TEST_F(MulticastReceiverTest, ReportsOfThePlatformJoinAndLeaveTheGroup)
{
    OEMInterface::AddServiceDiscoveryInterfacePayload added{{"eth0", "fd00::1"}};
    OEMInterface::RemoveServiceDiscoveryInterfacePayload removed{{"eth0", "fd00::1"}};

    receiver->onInterfaceAdded(added);
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));

    receiver->onInterfaceRemoved(removed);
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(RunningReceiverTest, OnlyJoinedInterfacesAreHeard)
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

TEST_F(MulticastReceiverTest, InterfaceJoinedBeforeTheStartIsHeardAfterIt)
{
    Speaker speaker(network.there, "eth0", "fd00::2");
    join();

    speaker.send("01"_bytes);
    EXPECT_TRUE(receiver->start());
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));
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

TEST_F(MulticastReceiverTest, UnknownInterfaceOrAddressIsNotJoined)
{
    join("eth7", "fd00::1");
    join("eth0", "fd00::7");

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(), IsEmpty());
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(MulticastReceiverTest, InterfaceWithoutMulticastIsNotJoined)
{
    network.here.ip("link set eth0 multicast off");

    join();

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"fd00::1\": does not support Multicast."));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

/// The kernel joins nobody to an address that is no group.
TEST_F(MulticastReceiverTest, JoiningThatFailsIsReportedAndTheInterfaceIsNotJoined)
{
    Receiver misled(unit.hub, "fd00::7", discoveryPort);

    misled.joinGroupOnInterface_byIP("eth0", "fd00::1");

    EXPECT_THAT(log.lines(),
                ElementsAre(joining0,
                            "Error: ServiceDiscovery failed to join IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"fd00::1\": Invalid argument"));
    EXPECT_FALSE(misled.isJoinedOn("eth0"));
}

TEST_F(MulticastReceiverTest, SecondJoiningOfAnInterfaceIsRefused)
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

TEST_F(MulticastReceiverTest, InterfaceThatHasBeenRenamedSinceIsTheSame)
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

/// As of an interface that was made anew and never taken back: the socket's membership went with the former
/// one.
TEST_F(MulticastReceiverTest, InterfaceMadeAnewWithItsIndexIsJoinedWhenItIsReported)
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

TEST_F(MulticastReceiverTest, KeepsOnlyWhatIsThereUnderOneOfTheNames)
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

TEST_F(MulticastReceiverTest, FurtherReportLeavesOneMembership)
{
    join();
    join();

    EXPECT_THAT(groupUsers(), ElementsAre(Pair("eth0", 1u)));
}

TEST_F(MulticastReceiverTest, LinkLocalAddressIsTakenWithAndWithoutScope)
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

TEST_F(MulticastReceiverTest, InterfaceThatWasNotJoinedCannotBeLeft)
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

TEST_F(MulticastReceiverTest, UnparsableAddressCannotBeLeft)
{
    join();
    log.clear();

    leave("eth0", "no address");

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: ServiceDiscovery failed to leave IPv6 Multicast Group on Interface "
                            "\"eth0\" with IP \"no address\": Invalid address: no address"));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(MulticastReceiverTest, AnyAddressOfTheInterfaceLeavesIt)
{
    network.here.addAddress("eth0", "fd00::7/64");
    join();

    leave("eth0", "fd00::7");

    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(MulticastReceiverTest, WildcardLeavesEveryInterface)
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

TEST_F(MulticastReceiverTest, InterfaceIsLeftWhenItsAddressHasGone)
{
    network.here.addAddress("eth0", "fd00::7/64");
    join();
    network.here.ip("address delete fd00::1/64 dev eth0");
    log.clear();

    leave();

    EXPECT_THAT(log.lines(), ElementsAre(leaving0ForIP));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(MulticastReceiverTest, InterfaceIsLeftWhenAllItsAddressesHaveGone)
{
    join();
    network.here.ip("address flush dev eth0");
    log.clear();

    leave();

    EXPECT_THAT(log.lines(), ElementsAre(without0, leaving0ForIP));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(MulticastReceiverTest, InterfaceIsLeftWhenItsLinkHasGone)
{
    join();
    network.here.ip("link delete eth0");
    log.clear();

    leave();

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(), ElementsAre(without0, leaving0ForIP));
    EXPECT_FALSE(receiver->isJoinedOn("eth0"));
}

TEST_F(MulticastReceiverTest, InterfaceWithoutAddressesIsPassedOverInTheWalk)
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

TEST_F(RunningReceiverTest, InterfaceThatComesBackUnderItsNameIsHeardAgain)
{
    network.here.ip("link delete eth0");
    leave();
    network.link("eth0", "fd00::1", "fd00::2");
    join();
    Speaker again(network.there, "eth0", "fd00::2");

    again.send("01"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
}

TEST_F(MulticastReceiverTest, StartAsksForALargeReceiveBufferAndSaysWhatItGot)
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

TEST_F(MulticastReceiverTest, MulticastLoopbackIsOffOnTheSocket)
{
    EXPECT_TRUE(receiver->start());

    int isOn = -1;
    socklen_t size = sizeof isOn;
    EXPECT_EQ(::getsockopt(socketAt(discoveryPort), IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &isOn, &size), 0);
    EXPECT_EQ(isOn, 0);
}

TEST_F(MulticastReceiverTest, PortInUseKeepsTheReceiverIdle)
{
    std::optional<Poco::Net::DatagramSocket> other{std::in_place, SocketAddress("::", discoveryPort), false};

    EXPECT_FALSE(receiver->start());

    EXPECT_THAT(log.lines(), ElementsAre("Error: MultiCast binding failed: Net Exception: Address already in "
                                         "use: [ff14::4:0]:30491"));
}

TEST_F(MulticastReceiverTest, PortIsNotShared)
{
    EXPECT_TRUE(receiver->start());

    EXPECT_THROW(Poco::Net::DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), true),
                 Poco::Exception);
}

TEST_F(MulticastReceiverTest, LaterStartWorksWhenThePortIsFree)
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

TEST_F(RunningReceiverTest, StopLeavesTheGroupEverywhere)
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

TEST_F(RunningReceiverTest, InterfaceThatHasGoneDoesNotKeepTheOthersFromBeingLeft)
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

TEST_F(RunningReceiverTest, SecondStopFindsNothingToLeave)
{
    receiver->stop();
    log.clear();

    receiver->stop();

    EXPECT_THAT(log.lines(), ElementsAre(leavingAll));
}

TEST_F(RunningReceiverTest, SecondStartChangesNothing)
{
    log.clear();

    EXPECT_TRUE(receiver->start());

    speaker.send("01"_bytes);
    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningReceiverTest, StopGivesThePortBack)
{
    receiver->stop();

    EXPECT_NO_THROW(Poco::Net::DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), false));
}

TEST_F(RunningReceiverTest, NothingIsHandedOverAfterTheStop)
{
    receiver->stop();

    speaker.send("01"_bytes);
    EXPECT_TRUE(receiver->start());
    join();
    speaker.send("02"_bytes);

    EXPECT_TRUE(subscriber->gets(1));
    EXPECT_THAT(subscriber->bytes(), ElementsAre("02"));
}

TEST_F(RunningReceiverTest, ReceiverHearsAfterEveryRestart)
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

TEST_F(RunningReceiverTest, StopDoesNotWaitForTheEndOfAPoll)
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

TEST_F(MulticastReceiverTest, StopWithoutStartOnlyLeavesTheGroup)
{
    join();
    log.clear();

    receiver->stop();

    EXPECT_THAT(log.lines(), ElementsAre(leavingAll, leaving0));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(MulticastReceiverTest, InterfaceJoinedWhileStoppedIsHeardAfterTheStart)
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

TEST_F(RunningReceiverTest, DatagramBehindAnEmptyOneWaits)
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

TEST_F(MulticastReceiverTest, AttemptWithAnInterfaceThatIsStillMissingIsNotLogged)
{
    log.clear();

    EXPECT_EQ(
        receiver->add("eth9", "fd00::1", *Multicast::InterfaceListing::take(), Multicast::Attempt::Again),
        Multicast::Outcome::Pending);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(MulticastReceiverTest, NothingWaitsBeforeTheStart)
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

TEST_F(MulticastReceiverTest, GroupIsJoinedAndLeftOnTwoThreads)
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

TEST_F(MulticastReceiverTest, RestartsWhileItIsAsked)
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

TEST_F(MulticastReceiverTest, NoDescriptorIsLostOverRestartsAndDestruction)
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

TEST_F(RunningReceiverTest, InterfacesComeAndGoWhileDatagramsArrive)
{
    network.link("eth1", "fd01::1");
    constexpr std::size_t count = 200;

    std::thread platform([&] {
        for (int i = 0; i < 50; ++i) {
            join("eth1", "fd01::1");
            leave("eth1", "fd01::1");
        }
    });
    for (std::size_t i = 0; i < count; ++i)
        speaker.send("01"_bytes);
    platform.join();

    EXPECT_TRUE(subscriber->gets(count));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

/// A reactor of the test's own raises what the receiver's one raises seldom.
TEST_F(MulticastReceiverTest, SocketErrorIsReportedAndTakenOffTheSocket)
{
    Poco::Net::DatagramSocket refused(SocketAddress("::1", 0), false);
    refused.connect(SocketAddress("::1", 9));
    Poco::Net::SocketReactor reactor(Poco::Timespan(0, 100000));
    const Poco::NObserver<Receiver, Poco::Net::ErrorNotification> observer(*receiver,
                                                                           &Receiver::onSocketError);
    reactor.addEventHandler(refused, observer);
    std::thread thread([&] { reactor.run(); });
    const auto provoke = [&] {
        try {
            return refused.sendBytes("x", 1) == 1;
        }
        catch (const Poco::Exception&) {
            return false;  // the former error was still there
        }
    };
    const std::string line =
        "Error: MulticastReceiver encountered Socket-Error "
        "\"N4Poco3Net17ErrorNotificationE\" from \"" +
        refused.address().toString() + "\"";

    EXPECT_TRUE(provoke());
    EXPECT_TRUE(eventually([&] { return log.has(line); }));
    EXPECT_TRUE(eventually(provoke));
    EXPECT_TRUE(eventually([&] { return log.count(line) == 2; }));
    reactor.stop();
    thread.join();

    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_F(MulticastReceiverTest, ShutdownOfTheReactorIsReported)
{
    Poco::Net::DatagramSocket socket(SocketAddress("::1", 0), false);
    Poco::Net::SocketReactor reactor(Poco::Timespan(0, 100000));
    reactor.addEventHandler(socket, Poco::NObserver<Receiver, Poco::Net::ShutdownNotification>(
                                        *receiver, &Receiver::onReactorShutdown));
    reactor.stop();

    reactor.run();

    EXPECT_THAT(log.lines(), ElementsAre("Error: MulticastReceiver encountered Reactor Shutdown "
                                         "\"N4Poco3Net20ShutdownNotificationE\" from \"" +
                                         socket.address().toString() + "\""));
}

TEST(OwnDatagramTest, DatagramOfThisUnitThatComesBackOnAnotherPortIsDroppedSilently)
{
    const Namespace here("here");
    const Namespace there("there");
    Segment segment;
    segment.plug(here, "eth0");
    segment.plug(here, "eth1");
    segment.plug(there, "eth0");
    here.addAddress("eth0", "fd00::1/64");
    here.addAddress("eth1", "fd00::2/64");
    there.addAddress("eth0", "fd00::3/64");
    const InNamespace inside(here);
    HubUnit unit;
    unit.platform.dispatcher().addInterface("eth0", "fd00::1");
    unit.platform.dispatcher().addInterface("eth1", "fd00::2");
    ASSERT_TRUE(unit.hub.start(IPAddress("fd00::1")));
    SDService::Ptr service = makeService("Media");
    service->setType(SDService::Type::ANNOUNCED);
    const LogCatcher log;

    unit.hub.announce(service);
    const std::string arrived = "Trace: MulticastReceiver onSocketReadable";
    EXPECT_TRUE(eventually([&] { return log.count(arrived) == 2; })) << "by the other port each";
    EXPECT_THAT(log.complaints(), IsEmpty());
    Speaker speaker(there, "eth0", "fd00::3");
    speaker.send("00"_bytes);
    const std::string ofTheOther = "Trace: SDCommunicationHub::onMessageReceived - message received from " +
                                   speaker.address().toString();
    EXPECT_TRUE(eventually([&] { return log.has(ofTheOther); }));

    EXPECT_THAT(log.traces(), ::testing::Not(::testing::Contains(::testing::HasSubstr("from [fd00::1]"))));
    EXPECT_THAT(log.traces(), ::testing::Not(::testing::Contains(::testing::HasSubstr("from [fd00::2]"))));
    unit.hub.stop();
}

}  // namespace Nubo::ServiceDiscovery::Testing
