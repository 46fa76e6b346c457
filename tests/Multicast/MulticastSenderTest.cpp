#include "DataLayer/SDClock.h"
#include "Multicast/MulticastSender.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Process.h"
#include "support/TestUnit.h"
#include "support/ThreadSignals.h"
#include "support/Times.h"
#include "support/UnsuitableAddress.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Exception.h>
#include <Poco/Mutex.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/MulticastSocket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

class Sender : public Multicast::MulticastSender
{
public:
    using MulticastSender::addInterface_byIP;
    using MulticastSender::adjustIPs;
    using MulticastSender::InterfaceData_t;
    using MulticastSender::MulticastSender;
    using MulticastSender::removeInterface_byIP;
    using MulticastSender::SendData;
    using MulticastSender::sendServices;
    using MulticastSender::transmit;
};

/// Opens the mutex that the sender's interfaces are guarded by.
template <auto member>
struct InterfacesMutex
{
    friend std::mutex& interfacesMutexOf(Multicast::MulticastSender& sender) { return sender.*member; }
};
template struct InterfacesMutex<&Multicast::MulticastSender::m_interfacesMutex>;
std::mutex& interfacesMutexOf(Multicast::MulticastSender& sender);

/// Datagrams as the sender takes them: it writes into their bytes.
class Datagrams
{
public:
    Datagrams(std::initializer_list<std::string> hex)
    {
        for (const std::string& one : hex)
            m_bytes.push_back(fromHex(one));
    }

    Sender::MulticastData list()
    {
        Sender::MulticastData result;
        for (std::string& one : m_bytes)
            result.emplace_back(one.data(), one.size());
        return result;
    }

    std::string hex(std::size_t i) const { return toHex(m_bytes[i]); }

private:
    std::vector<std::string> m_bytes;
};

// The placeholder, and the addresses of interfaces, as they stand in datagrams.
const std::string fd00_1 = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
const std::string fd01_1 = "fd 01 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
const std::string fd02_1 = "fd 02 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
const std::string fe80_1 = "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01";

constexpr auto noInterfaces =
    "Error: MulticastSender failed to send package, no service discovery interfaces configured!";
constexpr auto notInitialised =
    "Error: MulticastSender failed to send package, external IP address was not initialised!";

struct MulticastSenderTest : ::testing::Test
{
    MulticastSenderTest() { sender->init(IPAddress("fd00::1")); }

    /// Makes an interface with that address and reports it.
    void addInterface(const std::string& name, const std::string& address)
    {
        network.link(name, address);
        sender->addInterface_byIP(name, address);
    }

    /// The same with somebody who listens behind it.
    Listener addListenedInterface(const std::string& name, const std::string& address)
    {
        addInterface(name, address);
        return Listener(network.there, name);
    }

    bool send(Datagrams& forAll) { return sender->sendMulticast(forAll.list(), {}); }
    bool send(Datagrams&& forAll) { return send(forAll); }

    /// Sends a datagram on every interface and returns where the one on that interface came from.
    SocketAddress ownAddress(Listener& listener)
    {
        listener.clear();
        send({"00"});
        EXPECT_TRUE(listener.hears(1));
        const Listener::Datagram& datagram = listener.datagrams().back();
        return SocketAddress(datagram.source, datagram.sourcePort);
    }

    NetworkPair network;
    HubUnit unit;
    LogCatcher log;
    std::optional<Sender> sender{std::in_place, unit.hub, discoveryGroup, discoveryPort};
};

/// Two interfaces whose addresses are not the placeholder, and who listens behind them.
struct TwoInterfacesSenderTest : MulticastSenderTest
{
    Listener listener0 = addListenedInterface("eth0", "fd01::1");
    Listener listener1 = addListenedInterface("eth1", "fd02::1");
};

/// eth0 has been reported with an address that cannot be used: duplicate address detection is running.
struct TentativeSenderTest : MulticastSenderTest
{
    TentativeSenderTest() { sender->addInterface_byIP("eth0", "fd00::1"); }

    Listener addTentativeInterface() const
    {
        network.link("eth0");
        network.here.setIPv6("eth0/accept_dad", "1");
        network.here.setIPv6("eth0/dad_transmits", "100");
        network.here.ip("address add fd00::1/64 dev eth0");
        return Listener(network.there, "eth0");
    }

    /// Lets the address be used.
    void passCheck() const
    {
        network.here.ip("address delete fd00::1/64 dev eth0");
        network.here.addAddress("eth0", "fd00::1/64");
    }

    /// Adds the interface again, as is done until it can be used.
    Multicast::Outcome retry()
    {
        return sender->add("eth0", "fd00::1", *Multicast::InterfaceListing::take(),
                           Multicast::Attempt::Again);
    }

    Listener listener = addTentativeInterface();
};

/// Leaves no port to be had for that address while it exists.
class NoPorts
{
public:
    explicit NoPorts(const std::string& address)
    {
        setRange("30000 30000");
        m_holder.bind(SocketAddress(address, 30000));
    }
    ~NoPorts() { setRange("32768 60999"); }

    NoPorts(const NoPorts&) = delete;
    NoPorts& operator=(const NoPorts&) = delete;

private:
    static void setRange(const std::string& range)
    {
        std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << range;
    }

    Poco::Net::DatagramSocket m_holder{SocketAddress::IPv6};
};

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff second = 1000 * millisecond;

struct RefusedAddressTest : MulticastSenderTest, ::testing::WithParamInterface<UnsuitableAddress>
{};

}  // namespace

TEST_F(MulticastSenderTest, LargestDatagramHas1212Bytes)
{
    EXPECT_EQ(sender->getMTU(), 1212u);
}

TEST_F(MulticastSenderTest, WithoutInitNothingIsSent)
{
    network.link("eth0", "fd00::1");
    Listener listener(network.there, "eth0");
    Sender fresh(unit.hub, discoveryGroup, discoveryPort);
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

TEST_F(MulticastSenderTest, InitWithAnIPv6AddressMakesTheSenderUsable)
{
    EXPECT_TRUE(sender->init(IPAddress("fd00::1")));
    EXPECT_TRUE(sender->init(IPAddress("::"))) << "every IPv6 address has a raw form";
}

TEST_F(MulticastSenderTest, WithoutInterfacesNothingIsSent)
{
    EXPECT_FALSE(send({"01"}));

    EXPECT_THAT(log.lines(), ElementsAre(noInterfaces));
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

TEST_F(MulticastSenderTest, AddedInterfaceIsNoted)
{
    addInterface("eth0", "fd00::1");

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::1\" for sending."));
}

TEST_F(MulticastSenderTest, ReportsOfThePlatformAddAndRemoveTheInterface)
{
    network.link("eth0", "fd00::1");
    OEMInterface::AddServiceDiscoveryInterfacePayload added{{"eth0", "fd00::1"}};
    OEMInterface::RemoveServiceDiscoveryInterfacePayload removed{{"eth0", "fd00::1"}};

    sender->onInterfaceAdded(added);
    EXPECT_TRUE(send({"01"}));
    sender->onInterfaceRemoved(removed);
    EXPECT_FALSE(send({"02"}));

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::1\" for sending.",
                    "Notice: ServiceDiscovery removing Interface \"eth0\" for given IP \"fd00::1\" for "
                    "sending.",
                    noInterfaces));
}

TEST_P(RefusedAddressTest, IsSkippedWithAWarning)
{
    network.link("eth0", "fd00::1");

    sender->addInterface_byIP("eth0", GetParam().ip);

    EXPECT_THAT(log.lines(),
                ElementsAre(std::string("Warning: ServiceDiscovery skipped adding Interface \"eth0\" with "
                                        "IP \"") +
                            GetParam().ip + "\" for sending: not an appropriate IP."));
    EXPECT_FALSE(send({"01"}));
}

INSTANTIATE_TEST_SUITE_P(Addresses, RefusedAddressTest, ::testing::ValuesIn(unsuitableAddresses),
                         [](const auto& row) { return row.param.name; });

TEST_F(MulticastSenderTest, UnknownInterfaceIsNotAdded)
{
    sender->addInterface_byIP("eth7", "fd00::1");

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(), IsEmpty());
    EXPECT_FALSE(send({"01"}));
}

TEST_F(MulticastSenderTest, AddressThatIsNotTheInterfacesIsNotAdded)
{
    network.link("eth0", "fd00::1");

    sender->addInterface_byIP("eth0", "fd00::2");

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(), IsEmpty());
    EXPECT_FALSE(send({"01"}));
}

TEST_F(MulticastSenderTest, InterfaceWithoutMulticastIsNotAdded)
{
    network.link("eth0", "fd00::1");
    network.here.ip("link set eth0 multicast off");

    sender->addInterface_byIP("eth0", "fd00::1");

    EXPECT_THAT(log.lines(), ElementsAre("Warning: ServiceDiscovery failed to add Interface \"eth0\" with IP "
                                         "\"fd00::1\" for sending: does not support Multicast."));
    EXPECT_FALSE(send({"01"}));
}

TEST_F(MulticastSenderTest, SecondAddressOfAnAddedInterfaceIsRefused)
{
    addInterface("eth0", "fd00::1");
    network.here.addAddress("eth0", "fd00::2/64");
    Listener listener(network.there, "eth0");
    log.clear();

    sender->addInterface_byIP("eth0", "fd00::2");

    EXPECT_THAT(log.lines(), ElementsAre("Warning: ServiceDiscovery failed to add Interface \"eth0\" with IP "
                                         "\"fd00::2\" for sending: already added \"eth0"));
    EXPECT_TRUE(send({"01"}));
    EXPECT_THAT(listener.bytes(), ElementsAre("01")) << "one socket an interface";
}

TEST_F(MulticastSenderTest, InterfaceWhoseSocketCannotBeOpenedIsReportedAndNotAdded)
{
    network.link("eth0", "fd00::1");
    {
        const NoPorts exhausted("fd00::1");
        sender->addInterface_byIP("eth0", "fd00::1");
    }
    EXPECT_FALSE(send({"01"}));
    sender->addInterface_byIP("eth0", "fd00::1");

    EXPECT_TRUE(send({"02"}));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: ServiceDiscovery failed to add Interface \"eth0\" with IP "
                            "\"fd00::1\" for sending: Net Exception: Address already in use: [fd00::1]:0",
                            noInterfaces));
    EXPECT_THAT(log.warnings(), IsEmpty());
}

TEST_F(TentativeSenderTest, AddressThatIsBeingCheckedIsUsedWhenItCanBe)
{
    EXPECT_FALSE(send({"01"}));
    EXPECT_EQ(retry(), Multicast::Outcome::Pending);
    EXPECT_FALSE(send({"01"}));
    passCheck();

    EXPECT_TRUE(eventually([&] { return retry() == Multicast::Outcome::InUse; }));
    EXPECT_TRUE(send({"02"}));
    EXPECT_TRUE(listener.hears(1));
    EXPECT_EQ(listener.datagrams().front().source, "fd00::1");
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(),
                ElementsAre("Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::1\" for "
                            "sending.",
                            "Notice: ServiceDiscovery can use Interface \"eth0\" with IP \"fd00::1\" for "
                            "sending."));
    EXPECT_EQ(log.count("Debug: ServiceDiscovery waits until Interface \"eth0\" with IP \"fd00::1\" can be "
                        "used for sending."),
              1u);
    EXPECT_EQ(log.count("Debug: MulticastSender sends nothing until an interface can be used."),
              log.debugs().size() - 1);
}

TEST_F(TentativeSenderTest, AddressThatGoesWhileItIsBeingCheckedIsNotAwaited)
{
    network.here.ip("address delete fd00::1/64 dev eth0");

    EXPECT_EQ(retry(), Multicast::Outcome::Pending);

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
    network.here.addAddress("eth0", "fd00::1/64");
    EXPECT_EQ(retry(), Multicast::Outcome::InUse);
}

TEST_F(TentativeSenderTest, RemovalEndsTheWaiting)
{
    sender->removeInterface_byIP("eth0", "fd00::1");

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces)) << "none for the removal";
}

TEST_F(TentativeSenderTest, RemovalOfEverythingEndsTheWaiting)
{
    sender->removeInterface_byIP("", "::");

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
    log.clear();
    sender->removeInterface_byIP("eth0", "fd00::1");
    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: Failed to remove Interface \"eth0\" with IP \"fd00::1\" for "
                            "sending: not connected(?)"));
}

TEST_F(TentativeSenderTest, OtherInterfacesAreUsedMeanwhile)
{
    Listener other = addListenedInterface("eth1", "fd01::1");

    EXPECT_TRUE(send({"01"}));

    EXPECT_TRUE(other.hears(1));
    EXPECT_THAT(listener.bytes(), IsEmpty());
}

TEST_F(TentativeSenderTest, InterfaceThatIsAddedMeanwhileIsNotAddedTwice)
{
    passCheck();
    sender->addInterface_byIP("eth0", "fd00::1");

    EXPECT_EQ(retry(), Multicast::Outcome::InUse);
    EXPECT_TRUE(send({"01"}));
    EXPECT_TRUE(listener.hears(1));
    EXPECT_EQ(listener.datagrams().size(), 1u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(TentativeSenderTest, AttemptThatFailsForAnotherReasonIsNotTheLast)
{
    passCheck();
    {
        const NoPorts exhausted("fd00::1");
        EXPECT_EQ(retry(), Multicast::Outcome::Pending);
    }

    EXPECT_EQ(retry(), Multicast::Outcome::InUse);
    EXPECT_THAT(log.complaints(), IsEmpty()) << "only the report itself is worth a line";
}

TEST_F(TwoInterfacesSenderTest, InterfaceThatDoesNotTakeItsDatagramsHoldsUpNobodyForLong)
{
    constexpr std::size_t runs = 20;
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(20, {bytes.data(), bytes.size()});
    network.here.tc("qdisc add dev eth0 root tbf rate 8kbit burst 1600 limit 10000000");  // 1 kB a second

    const std::size_t taken = listener0.datagrams().size();
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < runs; ++i) {
        sender->sendMulticast(list, {});
        EXPECT_EQ(listener1.datagrams().size(), (i + 1) * list.size());
    }

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4)) << "one wait, not hundreds";
    EXPECT_LT(listener0.datagrams().size(), taken + 20) << "or it was not stalled";
    EXPECT_THAT(log.errors(), SizeIs(Gt(runs * list.size() / 2)));
    EXPECT_THAT(log.errors(),
                Each("Error: sendMulticast caught exception: I/O error: Operation would block"));

    network.here.tc("qdisc delete dev eth0 root");
    log.clear();
    listener0.clear();
    EXPECT_TRUE(sender->sendMulticast(list, {})) << "it takes them again";
    EXPECT_TRUE(listener0.hears(list.size()));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

/// Each datagram has room within the 20 milliseconds, so that none is worth giving up.
TEST_F(TwoInterfacesSenderTest, InterfaceThatTakesItsDatagramsSlowlyHoldsUpNobodyForLong)
{
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(80, {bytes.data(), bytes.size()});
    network.here.tc("qdisc add dev eth0 root tbf rate 1mbit burst 1600 limit 10000000");  // one in 10 ms

    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 1; i <= 5; ++i) {
        sender->sendMulticast(list, {});
        EXPECT_EQ(listener1.datagrams().size(), i * list.size());
    }

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(800)) << "not for seconds";
    EXPECT_THAT(log.errors(), SizeIs(Gt(2 * list.size()))) << "or it was not slow";
}

TEST_F(TwoInterfacesSenderTest, InterfaceThatTakesItsDatagramsSlowlyIsWaitedForAgainInTheNextSecond)
{
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(400, {bytes.data(), bytes.size()});
    network.here.tc("qdisc add dev eth0 root tbf rate 2mbit burst 1600 limit 10000000");  // one in 5 ms
    sender->sendMulticast(list, {});
    const auto taken = [&] {
        const std::size_t lost = log.errors().size();
        sender->sendMulticast({list.front()}, {});
        return log.errors().size() == lost;
    };
    ASSERT_TRUE(eventually([&] { return !taken(); }));

    SDClock::turn(1000000);

    EXPECT_TRUE(taken());
}

TEST_F(TwoInterfacesSenderTest, InterfaceThatTookNoneIsWaitedForAgainWhenItHasTakenOne)
{
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(400, {bytes.data(), bytes.size()});
    const auto taken = [&] { return sender->sendMulticast({list.front()}, {}); };
    network.here.tc("qdisc add dev eth0 root tbf rate 64bit burst 1600 limit 10000000");  // none
    sender->sendMulticast(list, {});
    ASSERT_FALSE(taken());

    network.here.tc("qdisc delete dev eth0 root");
    EXPECT_TRUE(eventually(taken));
    network.here.tc("qdisc add dev eth0 root tbf rate 2mbit burst 1600 limit 10000000");  // one in 5 ms
    sender->sendMulticast(list, {});
    ASSERT_TRUE(eventually([&] { return !taken(); }));
    SDClock::turn(1000000);

    EXPECT_TRUE(taken());
}

namespace {

/// More datagrams than a slow interface takes at once: a hundred different ones, four times each.
struct LongList
{
    LongList()
    {
        for (char i = 0; i < 100; ++i)
            bytes.emplace_back(1212, i);
        for (std::string& datagram : bytes)
            list.insert(list.end(), 4, {datagram.data(), datagram.size()});
    }

    bool areAllHeard(Listener& listener) const
    {
        std::set<std::string> heard;
        for (const Listener::Datagram& datagram : listener.datagrams())
            heard.insert(datagram.bytes);
        return heard.size() == bytes.size();
    }

    std::vector<std::string> bytes;
    Sender::MulticastData list;
};

constexpr auto slow = "qdisc add dev eth0 root tbf rate 20mbit burst 1600 limit 10000000";  // one in 0.5 ms

}  // namespace

TEST_F(TwoInterfacesSenderTest, SlowInterfaceGetsAllOfAListInTurn)
{
    const LongList datagrams;
    network.here.tc(slow);

    EXPECT_TRUE(eventually([&] {
        sender->sendMulticast(datagrams.list, {});
        return datagrams.areAllHeard(listener0);
    }));
    EXPECT_THAT(log.errors(), SizeIs(Gt(datagrams.list.size() / 2))) << "or it was not slow";
    EXPECT_THAT(log.errors(),
                Each("Error: sendMulticast caught exception: I/O error: Operation would block"));
}

TEST_F(TwoInterfacesSenderTest, ListBeginsWithWhatASlowInterfaceDidNotTakeOfTheLast)
{
    std::vector<std::string> bytes;
    for (int i = 0; i < 400; ++i)
        bytes.push_back(std::to_string(i) + std::string(1200, 'x'));
    Sender::MulticastData list;
    for (std::string& datagram : bytes)
        list.emplace_back(datagram.data(), datagram.size());
    network.here.tc("qdisc add dev eth0 root tbf rate 2mbit burst 1600 limit 10000000");  // one in 5 ms
    sender->sendMulticast(list, {});
    const std::size_t lost = log.errors().size();
    ASSERT_GT(lost, 1u);
    ASSERT_TRUE(listener0.hears(list.size() - lost));
    std::set<std::string> heard;
    for (const Listener::Datagram& datagram : listener0.datagrams())
        heard.insert(datagram.bytes);
    listener0.clear();

    sender->sendMulticast(list, {});

    ASSERT_TRUE(listener0.hears(1));
    EXPECT_EQ(heard.count(listener0.datagrams().front().bytes), 0u);
}

TEST_F(MulticastSenderTest, SlowInterfaceGetsAllOfAListInTurnBesideAnother)
{
    Listener listener = addListenedInterface("eth0", "fe80::1");
    const LongList datagrams;
    const Sender::MulticastData internal(3, datagrams.list.back());
    network.here.tc(slow);

    EXPECT_TRUE(eventually([&] {
        sender->sendMulticast(datagrams.list, internal);
        return datagrams.areAllHeard(listener);
    }));
}

/// Each would be waited for, and takes a datagram every ten milliseconds.
TEST_F(MulticastSenderTest, ManySlowInterfacesHoldUpNobodyForLonger)
{
    constexpr int interfaces = 8;
    for (int i = 0; i < interfaces; ++i) {
        const std::string name = "eth" + std::to_string(i);
        addInterface(name, "fd0" + std::to_string(i) + "::1");
        network.here.tc("qdisc add dev " + name + " root tbf rate 1mbit burst 1600 limit 10000000");
    }
    const LongList datagrams;
    sender->sendMulticast(datagrams.list, {});  // the queues are full from here on

    constexpr double longest = 100;
    const Sender::MulticastData few(16, datagrams.list.front());
    const auto send = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // each takes the first again
        SDClock::turn(1000000);
        sender->sendMulticast(few, {});
    };

    EXPECT_LT(shortestTime(send, longest), longest) << "not 20 milliseconds for each";
}

namespace {

/// The socket of an interface that takes its datagrams slowly, or none.
struct FullQueueTest : MulticastSenderTest
{
    FullQueueTest()
    {
        network.link("eth0", "fd00::1");
        socket = new Poco::Net::MulticastSocket(SocketAddress("fd00::1", 0), false);
        socket->setInterface(Poco::Net::NetworkInterface::forName("eth0", true));
        socket->setSendBufferSize(4608);  // twice that is room for four datagrams
    }

    /// Leaves no room for a further datagram.
    void fill(const std::string& rate)
    {
        network.here.tc("qdisc add dev eth0 root tbf rate " + rate + " burst 1600 limit 10000000");
        fill();
    }
    void fill()
    {
        int taken = 0;
        while (taken < 1000 && transmit(false))
            ++taken;
        EXPECT_LT(taken, 1000);
    }

    bool transmit(bool isWaitedFor = true)
    {
        return sender->transmit(socket, {bytes.data(), bytes.size()}, isWaitedFor);
    }

    std::string bytes = std::string(1212, 'x');
    Poco::SharedPtr<Poco::Net::MulticastSocket> socket;
};

constexpr auto takesNone = "64bit";
constexpr double wholeWait = 19.9;  // milliseconds; less than the 20 by what clocks round

}  // namespace

TEST_F(FullQueueTest, DatagramWaitsTwentyMillisecondsForRoom)
{
    fill(takesNone);
    log.clear();

    constexpr double longest = 39;
    const double time = shortestTime([&] { EXPECT_FALSE(transmit()); }, longest);

    EXPECT_GE(time, wholeWait);
    EXPECT_LT(time, longest);
    EXPECT_THAT(log.lines(), Each("Error: sendMulticast caught exception: I/O error: Operation would block"));
}

TEST_F(FullQueueTest, DatagramWaitsNoLongerThanUntilThereIsRoom)
{
    fill("5mbit");  // one in 2 ms

    EXPECT_TRUE(inSomeRun([&] {
        fill();
        const auto begin = std::chrono::steady_clock::now();
        const bool isSent = transmit();
        return isSent && std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(15);
    }));
}

TEST_F(FullQueueTest, DatagramThatIsNotWaitedForIsLostAtOnce)
{
    fill(takesNone);

    EXPECT_LT(shortestTime([&] { EXPECT_FALSE(transmit(false)); }, wholeWait), wholeWait);
}

TEST_F(FullQueueTest, SignalsMakeTheWaitNeitherLongerNorShorter)
{
    fill(takesNone);
    log.clear();

    constexpr int most = 3000;
    const ThreadSignals signals(most);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(transmit());
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;

    EXPECT_GE(time.count(), wholeWait);
    EXPECT_LT(signals.count(), most / 2) << "the wait begins anew with each";
    EXPECT_THAT(log.lines(),
                ElementsAre("Error: sendMulticast caught exception: I/O error: Operation would block"));
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

TEST_F(MulticastSenderTest, OneInterfaceGetsTheDatagramsUnchangedWhateverItsAddress)
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

TEST_F(MulticastSenderTest, OfThreeInterfacesEachGetsItsOwnAddress)
{
    Listener listener0 = addListenedInterface("eth0", "fd01::1");
    Listener listener1 = addListenedInterface("eth1", "fe80::1");
    Listener listener2 = addListenedInterface("eth2", "fd02::1");

    EXPECT_TRUE(send({fd00_1 + " cc"}));

    EXPECT_THAT(listener0.bytes(), ElementsAre(fd01_1 + " cc"));
    EXPECT_THAT(listener1.bytes(), ElementsAre(fe80_1 + " cc"));
    EXPECT_THAT(listener2.bytes(), ElementsAre(fd02_1 + " cc"));
}

TEST_F(MulticastSenderTest, InterfaceWhoseAddressIsThePlaceholderDoesNotEndTheAdjusting)
{
    Listener listener0 = addListenedInterface("eth0", "fd00::1");
    Listener listener1 = addListenedInterface("eth1", "fd02::1");
    Listener listener2 = addListenedInterface("eth2", "fd01::1");

    EXPECT_TRUE(send({"aa " + fd00_1}));

    EXPECT_THAT(listener0.bytes(), ElementsAre("aa " + fd00_1));
    EXPECT_THAT(listener1.bytes(), ElementsAre("aa " + fd02_1));
    EXPECT_THAT(listener2.bytes(), ElementsAre("aa " + fd01_1));
}

TEST_F(MulticastSenderTest, PlaceholderInterfaceInTheMiddleGetsThePlaceholderBack)
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

TEST_F(MulticastSenderTest, InterfacesAreServedByAscendingIndexAndTheLastAddressStaysInTheDatagram)
{
    network.link("eth0", "fd01::1");
    network.link("eth1", "fd02::1");
    sender->addInterface_byIP("eth1", "fd02::1");
    sender->addInterface_byIP("eth0", "fd01::1");
    Datagrams datagrams{"aa " + fd00_1};

    send(datagrams);

    EXPECT_EQ(datagrams.hex(0), "aa " + fd02_1);
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

TEST_F(MulticastSenderTest, MissingSocketIsReported)
{
    std::string bytes = "01"_bytes;

    EXPECT_FALSE(sender->transmit(nullptr, {bytes.data(), bytes.size()}));

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: MulticastSender failed to send package: SocketPtr was Null!"));
}

TEST_F(MulticastSenderTest, OffsetListsMustMatchTheDatagramsInNumber)
{
    Datagrams datagrams{"01", "02"};
    Sender::SendData data(datagrams.list(), std::string(16, 'o'));
    data.offsets.pop_back();

    EXPECT_FALSE(sender->sendServices(Sender::InterfaceData_t{}, data));

    EXPECT_THAT(log.lines(), ElementsAre("Error: sendServices: package & offsets count mismatch!"));
}

TEST_F(MulticastSenderTest, AddressesOfDifferentSizeAreNotAdjusted)
{
    Datagrams datagrams{"aa bb cc"};
    Sender::AdjustmentOffsets offsets;

    EXPECT_FALSE(Sender::adjustIPs(datagrams.list().front(), "aa"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "aa bb cc");
    EXPECT_THAT(offsets, IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Error: adjustIPs: IP sizes do not match!"));
}

TEST_F(MulticastSenderTest, FailedAdjustingDoesNotKeepTheDatagramFromBeingSent)
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

TEST_F(MulticastSenderTest, AdjustingNotesTheOffsetOfEachCompleteOccurrence)
{
    Datagrams datagrams{"aa bb 00 aa bb aa bb aa"};
    Sender::AdjustmentOffsets offsets;

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "01 02 00 01 02 01 02 aa");
    EXPECT_THAT(offsets, ElementsAre(0u, 3u, 5u));
}

TEST_F(MulticastSenderTest, AdjustingGoesOnBehindWhatItWrote)
{
    Datagrams datagrams{"aa aa bb bb"};
    Sender::AdjustmentOffsets offsets;

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 aa"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "aa 01 aa bb");
    EXPECT_THAT(offsets, ElementsAre(1u));
}

TEST_F(MulticastSenderTest, AdjustingAtKnownOffsetsDoesNotLookWhatStandsThere)
{
    Datagrams datagrams{"00 11 22 33 44 aa bb"};
    Sender::AdjustmentOffsets offsets{1, 3};

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "00 01 02 01 02 aa bb");
    EXPECT_THAT(offsets, ElementsAre(1u, 3u));
}

TEST_F(MulticastSenderTest, OffsetBeyondTheDatagramEndsTheAdjustingButIsNoFailure)
{
    Datagrams datagrams{"00 11 22 33"};
    Sender::AdjustmentOffsets offsets{0, 3, 1};

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "01 02 22 33") << "the offsets behind it are not written either";
    EXPECT_THAT(log.lines(),
                ElementsAre("Error: adjustIPs: found offset that lies beyond package boundary! (offset:3), "
                            "(package-size:4), (new IP size:2)"));
}

TEST_F(TwoInterfacesSenderTest, RemovedInterfaceIsNotedAndGetsNothingMore)
{
    log.clear();

    sender->removeInterface_byIP("eth0", "fd01::1");
    EXPECT_TRUE(send({"aa"}));

    EXPECT_THAT(log.lines(), ElementsAre("Notice: ServiceDiscovery removing Interface \"eth0\" for given IP "
                                         "\"fd01::1\" for sending."));
    EXPECT_THAT(listener0.bytes(), IsEmpty());
    EXPECT_THAT(listener1.bytes(), ElementsAre("aa"));
}

TEST_F(MulticastSenderTest, RemovedInterfaceCanBeAddedAgain)
{
    Listener listener = addListenedInterface("eth0", "fd01::1");

    sender->removeInterface_byIP("eth0", "fd01::1");
    sender->addInterface_byIP("eth0", "fd01::1");
    EXPECT_TRUE(send({"aa"}));

    EXPECT_THAT(listener.bytes(), ElementsAre("aa"));
}

TEST_F(MulticastSenderTest, AnyAddressOfTheInterfaceRemovesIt)
{
    addInterface("eth0", "fd01::1");
    network.here.addAddress("eth0", "fd01::2/64");
    log.clear();

    sender->removeInterface_byIP("eth0", "fd01::2");

    EXPECT_THAT(log.lines(), ElementsAre("Notice: ServiceDiscovery removing Interface \"eth0\" for given IP "
                                         "\"fd01::2\" for sending."));
    EXPECT_FALSE(send({"aa"}));
}

TEST_F(MulticastSenderTest, LinkLocalInterfaceIsRemovedWithAndWithoutScope)
{
    addInterface("eth0", "fe80::1");
    addInterface("ETH1", "fe80::2");

    sender->removeInterface_byIP("eth0", "fe80::1%eth0");
    sender->removeInterface_byIP("ETH1", "fe80::2");

    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_FALSE(send({"aa"}));
}

TEST_F(MulticastSenderTest, InterfaceThatWasNotAddedCannotBeRemoved)
{
    addInterface("eth0", "fd01::1");
    network.link("eth1", "fd02::1");
    log.clear();

    sender->removeInterface_byIP("eth1", "fd02::1");
    sender->removeInterface_byIP("eth0", "fd02::1");
    sender->removeInterface_byIP("eth7", "fd01::1");

    EXPECT_THAT(log.lines(), ElementsAre("Warning: Failed to remove Interface \"eth1\" with IP \"fd02::1\" "
                                         "for sending: not connected(?)",
                                         "Warning: Failed to remove Interface \"eth0\" with IP \"fd02::1\" "
                                         "for sending: not connected(?)",
                                         "Warning: Failed to remove Interface \"eth7\" with IP \"fd01::1\" "
                                         "for sending: not connected(?)"));
    EXPECT_TRUE(send({"aa"}));
}

TEST_F(MulticastSenderTest, UnparsableAddressCannotBeRemoved)
{
    addInterface("eth0", "fd01::1");
    log.clear();

    sender->removeInterface_byIP("eth0", "no address");

    EXPECT_THAT(log.lines(), ElementsAre("Error: ServiceDiscovery failed to remove Interface \"eth0\" with "
                                         "IP \"no address\" for sending: Invalid address: no address"));
    EXPECT_TRUE(send({"aa"}));
}

TEST_F(MulticastSenderTest, WildcardRemovesEveryInterface)
{
    addInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");
    network.here.ip("address flush dev eth1");
    log.clear();

    sender->removeInterface_byIP("", "::");

    EXPECT_THAT(log.lines(),
                ElementsAre("Notice: ServiceDiscovery all Interfaces for sending.",
                            "Notice: ServiceDiscovery removing Interface \"eth0\" for sending.",
                            "Notice: ServiceDiscovery (was) part of Interface \"eth1\" for sending with "
                            "currently no IPs.",
                            "Notice: ServiceDiscovery removing Interface \"eth1\" for sending."));
    EXPECT_FALSE(send({"aa"}));
    EXPECT_THAT(log.errors(), ElementsAre(noInterfaces));
}

TEST_F(MulticastSenderTest, InterfaceIsRemovedWhenItsAddressHasGone)
{
    addInterface("eth0", "fd01::1");
    network.here.addAddress("eth0", "fd01::2/64");
    network.here.ip("address delete fd01::1/64 dev eth0");
    log.clear();

    sender->removeInterface_byIP("eth0", "fd01::1");

    EXPECT_THAT(log.lines(), ElementsAre("Notice: ServiceDiscovery removing Interface \"eth0\" for given IP "
                                         "\"fd01::1\" for sending."));
    EXPECT_FALSE(send({"aa"}));
}

TEST_F(MulticastSenderTest, InterfaceIsRemovedWhenAllItsAddressesHaveGone)
{
    addInterface("eth0", "fe80::1");
    network.here.ip("address flush dev eth0");
    log.clear();

    sender->removeInterface_byIP("eth0", "fe80::1");

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery part of Interface \"eth0\" for sending with currently no IPs.",
                    "Notice: ServiceDiscovery removing Interface \"eth0\" for given IP \"fe80::1\" for "
                    "sending."));
    EXPECT_FALSE(send({"aa"}));
}

TEST_F(MulticastSenderTest, InterfaceIsRemovedWhenItsLinkHasGone)
{
    addInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");
    network.here.ip("link delete eth0");
    log.clear();

    sender->removeInterface_byIP("eth0", "fd01::1");

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery part of Interface \"eth0\" for sending with currently no IPs.",
                    "Notice: ServiceDiscovery removing Interface \"eth0\" for given IP \"fd01::1\" for "
                    "sending."));
    EXPECT_TRUE(send({"aa"})) << "on eth1";
}

TEST_F(MulticastSenderTest, InterfaceWithoutAddressesIsPassedOverInTheWalk)
{
    addInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");
    network.here.ip("address flush dev eth0");
    log.clear();

    sender->removeInterface_byIP("eth1", "fd02::1");
    sender->removeInterface_byIP("eth0", "fd99::1");

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery part of Interface \"eth0\" for sending with currently no IPs.",
                    "Notice: ServiceDiscovery removing Interface \"eth1\" for given IP \"fd02::1\" for "
                    "sending.",
                    "Notice: ServiceDiscovery part of Interface \"eth0\" for sending with currently no IPs.",
                    "Warning: Failed to remove Interface \"eth0\" with IP \"fd99::1\" for sending: not "
                    "connected(?)"));
}

TEST_F(MulticastSenderTest, RemovalClosesTheSocket)
{
    const std::size_t before = openDescriptors();
    addInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");
    addInterface("eth2", "fd00::1");
    EXPECT_EQ(openDescriptors(), before + 3);

    sender->removeInterface_byIP("eth0", "fd01::1");
    EXPECT_EQ(openDescriptors(), before + 2);
    sender->removeInterface_byIP("", "::");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(MulticastSenderTest, KeepsOnlyWhatIsThereUnderOneOfTheNames)
{
    const std::size_t before = openDescriptors();
    for (const std::string number : {"0", "1", "2", "3"})
        addInterface("eth" + number, "fd0" + number + "::1");
    network.here.ip("link delete eth1");
    network.here.ip("link set eth2 down");
    network.here.ip("link set eth2 name eth9 up");

    sender->keepOnly({"eth0", "eth1", "eth2", "eth9"}, *Multicast::InterfaceListing::take());

    EXPECT_EQ(openDescriptors(), before + 1);
    Listener listener(network.there, "eth0");
    EXPECT_TRUE(send({"01"}));
    EXPECT_TRUE(listener.hears(1));
}

TEST_F(MulticastSenderTest, AddressThatTheInterfaceHasLostGivesWayToAReportedOne)
{
    const std::size_t before = openDescriptors();
    addInterface("eth0", "fd00::1");
    network.here.ip("address delete fd00::1/64 dev eth0");
    network.here.addAddress("eth0", "fd00::9/64");
    log.clear();

    sender->addInterface_byIP("eth0", "fd00::9");

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::9\" for sending."));
    EXPECT_EQ(openDescriptors(), before + 1);
    Listener listener(network.there, "eth0");
    EXPECT_EQ(ownAddress(listener).host(), IPAddress("fd00::9"));
    EXPECT_TRUE(sender->isOwnAddress(IPAddress("fd00::9")));
}

TEST_F(MulticastSenderTest, AddressGivesWayThatTheInterfaceHasLostSinceTheListing)
{
    addInterface("eth0", "fd00::1");
    network.here.addAddress("eth0", "fd00::9/64");
    const auto listing = Multicast::InterfaceListing::take();
    network.here.ip("address delete fd00::1/64 dev eth0");

    EXPECT_EQ(sender->add("eth0", "fd00::9", *listing, Multicast::Attempt::Report),
              Multicast::Outcome::InUse);

    Listener listener(network.there, "eth0");
    EXPECT_EQ(ownAddress(listener).host(), IPAddress("fd00::9"));
}

TEST_F(MulticastSenderTest, AddressThatTheInterfaceHasDoesNotGiveWayToAnother)
{
    addInterface("eth0", "fd00::1");
    network.here.addAddress("eth0", "fd00::9/64");

    sender->addInterface_byIP("eth0", "fd00::9");

    Listener listener(network.there, "eth0");
    EXPECT_EQ(ownAddress(listener).host(), IPAddress("fd00::1"));
}

TEST_F(MulticastSenderTest, AttemptWithAnInterfaceThatIsStillMissingIsNotLogged)
{
    EXPECT_EQ(sender->add("eth9", "fd00::1", *Multicast::InterfaceListing::take(), Multicast::Attempt::Again),
              Multicast::Outcome::Pending);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TentativeSenderTest, AddressThatIsNotToBeAwaitedAnyLongerIsNot)
{
    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), IsEmpty());

    sender->stopAwaiting("eth0", IPAddress("fd00::1"));

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
}

TEST_F(TentativeSenderTest, AddressIsNotAwaitedOnAnInterfaceThatIsUsedWithAnother)
{
    network.here.addAddress("eth0", "fd00::9/64");
    sender->addInterface_byIP("eth0", "fd00::9");
    retry();
    sender->removeInterface_byIP("eth0", "fd00::9");
    log.clear();

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
}

TEST_F(TentativeSenderTest, AddressOfAnInterfaceThatIsNotKeptIsNotAwaited)
{
    sender->keepOnly({"eth1"}, *Multicast::InterfaceListing::take());

    EXPECT_FALSE(send({"01"}));
    EXPECT_THAT(log.complaints(), ElementsAre(noInterfaces));
}

TEST_F(MulticastSenderTest, DestructionClosesEverySocket)
{
    const std::size_t before = openDescriptors();
    addInterface("eth0", "fd01::1");
    addInterface("eth1", "fd02::1");

    sender.reset();

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TwoInterfacesSenderTest, AddressOfEachSocketIsAnOwnOne)
{
    const SocketAddress own0 = ownAddress(listener0);
    const SocketAddress own1 = ownAddress(listener1);

    EXPECT_TRUE(sender->isOwnOutgoingAddress(own0));
    EXPECT_TRUE(sender->isOwnOutgoingAddress(own1));
}

TEST_F(MulticastSenderTest, AddressWithAnotherPortOrHostIsNotAnOwnOne)
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

TEST_F(MulticastSenderTest, OwnAddressIsKnownWithAnyScope)
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

TEST_F(MulticastSenderTest, SendingDoesNotWaitForAReportThatIsBeingHandled)
{
    addInterface("eth0", "fd00::1");
    std::atomic<bool> isSent{false};
    std::mutex& mutex = interfacesMutexOf(*sender);
    mutex.lock();

    std::thread sending([&] { isSent = send({"01"}); });

    EXPECT_TRUE(eventually([&] { return isSent.load(); }));
    mutex.unlock();
    sending.join();
}

TEST_F(MulticastSenderTest, ReportsAreHandledOneAfterTheOtherAndNoDatagramThatComesInWaitsForThem)
{
    network.link("eth0", "fd00::1");
    const std::vector<std::function<void()>> reports{
        [&] { sender->addInterface_byIP("eth0", "fd00::1"); },
        [&] { sender->removeInterface_byIP("eth0", "fd00::1"); }};
    std::atomic<int> done{0};
    std::mutex& mutex = interfacesMutexOf(*sender);
    mutex.lock();
    std::vector<std::thread> threads;
    for (const std::function<void()>& report : reports)
        threads.emplace_back([&] {
            report();
            ++done;
        });

    EXPECT_FALSE(sender->isOwnOutgoingAddress(SocketAddress("fd00::1", 1)));
    EXPECT_TRUE(keeps([&] { return done == 0; }, std::chrono::milliseconds(50)));
    mutex.unlock();
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(done, 2);
}

TEST_F(MulticastSenderTest, InterfacesComeAndGoOnTwoThreads)
{
    network.link("eth0", "fd01::1");
    network.link("eth1", "fd02::1");
    constexpr int changes = 200;

    const auto flap = [&](const std::string& name, const std::string& address) {
        for (int i = 0; i < changes; ++i) {
            sender->addInterface_byIP(name, address);
            sender->removeInterface_byIP(name, address);
        }
        sender->addInterface_byIP(name, address);
    };
    std::thread other([&] { flap("eth1", "fd02::1"); });
    flap("eth0", "fd01::1");
    other.join();

    EXPECT_THAT(log.complaints(), IsEmpty()) << "no change of one is undone by the other";
    EXPECT_TRUE(sender->isOwnAddress(IPAddress("fd01::1")));
    EXPECT_TRUE(sender->isOwnAddress(IPAddress("fd02::1")));
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
