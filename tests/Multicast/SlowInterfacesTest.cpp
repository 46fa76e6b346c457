#include "DataLayer/SDClock.h"
#include "SenderFixture.h"
#include "support/ThreadSignals.h"
#include "support/Times.h"
#include "support/Waiting.h"

#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/SharedPtr.h>

#include <chrono>
#include <cstddef>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SlowInterfacesTest = SenderFixture;
using SlowInterfaceBesideAnotherTest = TwoInterfacesFixture;

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

constexpr auto slow =
    "qdisc add dev eth0 root tbf rate 20mbit burst 1600 limit 10000000";  // a datagram every 0.5 ms

/// A socket on an interface that accepts datagrams slowly or not at all.
struct FullQueueTest : SenderFixture
{
    FullQueueTest()
    {
        network.link("eth0", "fd00::1");
        socket = new Poco::Net::MulticastSocket(SocketAddress("fd00::1", 0), false);
        socket->setInterface(Poco::Net::NetworkInterface::forName("eth0", true));
        socket->setSendBufferSize(4608);  // the kernel doubles it: room for four datagrams
    }

    /// Fills the queue, so that it has no room for a further datagram.
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
constexpr double wholeWait = 19.9;  // milliseconds; 20 less what clocks round

}  // namespace

TEST_F(SlowInterfaceBesideAnotherTest, InterfaceThatDoesNotTakeItsDatagramsHoldsUpNobodyForLong)
{
    constexpr std::size_t runs = 20;
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(20, {bytes.data(), bytes.size()});
    network.here.tc("qdisc add dev eth0 root tbf rate 8kbit burst 1600 limit 10000000");  // 1 kB per second

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

/// Each datagram gets room within the 20 milliseconds, so that giving up on one alone would not help.
TEST_F(SlowInterfaceBesideAnotherTest, InterfaceThatTakesItsDatagramsSlowlyHoldsUpNobodyForLong)
{
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(80, {bytes.data(), bytes.size()});
    network.here.tc(
        "qdisc add dev eth0 root tbf rate 1mbit burst 1600 limit 10000000");  // a datagram every 10 ms

    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 1; i <= 5; ++i) {
        sender->sendMulticast(list, {});
        EXPECT_EQ(listener1.datagrams().size(), i * list.size());
    }

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(800)) << "not for seconds";
    EXPECT_THAT(log.errors(), SizeIs(Gt(2 * list.size()))) << "or it was not slow";
}

TEST_F(SlowInterfaceBesideAnotherTest, InterfaceThatTakesItsDatagramsSlowlyIsWaitedForAgainInTheNextSecond)
{
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(400, {bytes.data(), bytes.size()});
    network.here.tc(
        "qdisc add dev eth0 root tbf rate 2mbit burst 1600 limit 10000000");  // a datagram every 5 ms
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

TEST_F(SlowInterfaceBesideAnotherTest, InterfaceThatTookNoneIsWaitedForAgainWhenItHasTakenOne)
{
    std::string bytes(1212, 'x');
    const Sender::MulticastData list(400, {bytes.data(), bytes.size()});
    const auto taken = [&] { return sender->sendMulticast({list.front()}, {}); };
    network.here.tc("qdisc add dev eth0 root tbf rate 64bit burst 1600 limit 10000000");  // takes none
    sender->sendMulticast(list, {});
    ASSERT_FALSE(taken());

    network.here.tc("qdisc delete dev eth0 root");
    EXPECT_TRUE(eventually(taken));
    network.here.tc(
        "qdisc add dev eth0 root tbf rate 2mbit burst 1600 limit 10000000");  // a datagram every 5 ms
    sender->sendMulticast(list, {});
    ASSERT_TRUE(eventually([&] { return !taken(); }));
    SDClock::turn(1000000);

    EXPECT_TRUE(taken());
}

TEST_F(SlowInterfaceBesideAnotherTest, SlowInterfaceGetsAllOfAListInTurn)
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

TEST_F(SlowInterfaceBesideAnotherTest, ListBeginsWithWhatASlowInterfaceDidNotTakeOfTheLast)
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

TEST_F(SlowInterfacesTest, SlowInterfaceGetsAllOfAListInTurnBesideAnother)
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

/// The sender would wait for each of them: they take a datagram every ten milliseconds.
TEST_F(SlowInterfacesTest, ManySlowInterfacesHoldUpNobodyForLonger)
{
    constexpr int interfaces = 8;
    for (int i = 0; i < interfaces; ++i) {
        const std::string name = "eth" + std::to_string(i);
        addInterface(name, "fd0" + std::to_string(i) + "::1");
        network.here.tc("qdisc add dev " + name + " root tbf rate 1mbit burst 1600 limit 10000000");
    }
    const LongList datagrams;
    sender->sendMulticast(datagrams.list, {});  // fills the queues

    constexpr double longest = 100;
    const Sender::MulticastData few(16, datagrams.list.front());
    const auto send = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // until each has room for one
        SDClock::turn(1000000);
        sender->sendMulticast(few, {});
    };

    EXPECT_LT(shortestTime(send, longest), longest) << "not 20 milliseconds for each";
}

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
    fill("5mbit");  // a datagram every 2 ms

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

}  // namespace Nubo::ServiceDiscovery::Testing
