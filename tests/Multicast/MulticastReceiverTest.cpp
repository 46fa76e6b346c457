#include "ReceiverFixture.h"
#include "support/Process.h"
#include "support/RawSpeaker.h"

#include <Poco/Exception.h>
#include <Poco/NObserver.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketNotification.h>
#include <Poco/Net/SocketReactor.h>

#include <cstddef>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using MulticastReceiverTest = ReceiverFixture;
using RunningReceiverTest = RunningReceiverFixture;

struct Thrown
{
    const char* name;
    void (*raise)();
    const char* text;

    friend std::ostream& operator<<(std::ostream& stream, const Thrown& row) { return stream << row.text; }
};

struct ThrowingSubscriberTest : RunningReceiverFixture, ::testing::WithParamInterface<Thrown>
{};

std::string nameOfAReceiversThread(const NetworkPair& network)
{
    HubUnit unit;
    Receiver receiver(unit.hub, discoveryGroup, discoveryPort);
    ReceiverSubscriber subscriber(receiver);
    std::string name;
    subscriber.onDatagram([&] { name = threadName(); });
    receiver.start();
    receiver.joinGroupOnInterface_byIP("eth0", "fd00::1");
    Speaker(network.there, "eth0", "fd00::2").send("01"_bytes);
    subscriber.gets(1);
    receiver.stop();
    return name;
}

/// Threads are named once per process, so this needs a process to itself.
int namedOnlyOnce()
{
    const NetworkPair network;
    network.link("eth0", "fd00::1", "fd00::2");
    const std::string first = nameOfAReceiversThread(network);
    const std::string second = nameOfAReceiversThread(network);
    const bool namedOnce = first == "SdSockReact" && !second.empty() && second != first;
    return namedOnce ? EXIT_SUCCESS : EXIT_FAILURE;
}

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

/// The test has its own reactor, because the receiver's one seldom raises this.
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
            return false;  // the previous error was still set
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

}  // namespace Nubo::ServiceDiscovery::Testing
