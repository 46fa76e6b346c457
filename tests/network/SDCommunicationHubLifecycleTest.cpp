#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/Repeating.h"
#include "support/TestUnit.h"
#include "support/Times.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::DatagramSocket;
using Poco::Net::IPAddress;
using Poco::Net::SocketAddress;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

constexpr auto joining0 = "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"eth0\".";
constexpr auto adding0 =
    "Notice: ServiceDiscovery adding Interface \"eth0\" with IP \"fd00::1\" for sending.";
constexpr auto leaving0 =
    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\" for given IP "
    "\"fd00::1\".";
constexpr auto removing0 =
    "Notice: ServiceDiscovery removing Interface \"eth0\" for given IP \"fd00::1\" for sending.";

/// Another unit's offer of the service "Far" at [fd00::2]:8080, version 1.0.0, for 120 s.
const std::string offerOfFar =
    "ff ff 81 00 00 00 00 74 00 00 00 01 01 01 02 00 e0 00 00 00 "
    "00 00 00 10 "
    "01 00 01 11 ff fe 00 01 01 00 00 78 00 00 00 00 "
    "00 00 00 50 "
    "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 02 00 06 1f 90 "
    "00 35 01 00 "
    "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
    "0d 6f 74 68 65 72 73 65 72 76 3d 46 61 72 "
    "09 74 78 74 76 65 72 73 3d 31 "
    "0d 76 65 72 73 69 6f 6e 3d 31 2e 30 2e 30 "
    "00";

constexpr std::size_t atTTL = 16 + 8 + 9;  // in a datagram with one entry

Multicast::MulticastDataPtr datagram(const std::string& bytes)
{
    return new Multicast::MulticastReceiver::MulticastData(bytes.data(), bytes.size(),
                                                           SocketAddress("fd00::2", 1234));
}

struct LinkedTest : ::testing::Test
{
    LinkedTest() { network.link("eth0", "fd00::1", "fd00::2"); }

    NetworkPair network;
};

/// A hub as yet without interfaces and not started, and another unit that speaks on eth0.
struct SDCommunicationHubLifecycleTest : LinkedTest
{
    ~SDCommunicationHubLifecycleTest() override
    {
        if (unit)
            unit->hub.stop();
    }

    SDCommunicationHub& hub() { return unit->hub; }
    OEMInterface::ManualDispatcher& dispatcher() { return unit->platform.dispatcher(); }
    bool start() { return hub().start(IPAddress("fd00::1")); }

    /// Waits for that many discoveries of the service that is offered by offerOfFar.
    bool discovers(std::size_t count)
    {
        return eventually([&] { return unit->registry.discovered("Far") >= count; });
    }

    /// How many packets with TTL 0 the listener has heard, when each datagram has one packet.
    std::size_t stopOffers()
    {
        const auto& heard = listener.datagrams();
        return static_cast<std::size_t>(std::count_if(heard.begin(), heard.end(), [](const auto& datagram) {
            return datagram.bytes.substr(atTTL, 3) == "00 00 00"_bytes;
        }));
    }

    LogCatcher log;
    std::optional<HubUnit> unit{std::in_place};
    Speaker speaker{network.there, "eth0", "fd00::2"};
    Listener listener{network.there, "eth0"};
};

/// The same with the hub started on eth0.
struct RunningHubTest : SDCommunicationHubLifecycleTest
{
    RunningHubTest()
    {
        dispatcher().addInterface("eth0", "fd00::1");
        EXPECT_TRUE(start());
        log.clear();
    }
};

/// The same with the request handler held up at an offer, by what follows its first line.
struct HeldHandlerTest : RunningHubTest
{
    HeldHandlerTest()
    {
        log.onLine([this](const std::string& line) {
            if (line.rfind("Trace: onOfferServiceReceived", 0) == 0)
                gate.pass();
        });
        speaker.send(fromHex(offerOfFar));
        EXPECT_TRUE(eventually([&] { return gate.isReached(); }));
        log.clear();
    }
    ~HeldHandlerTest() override
    {
        gate.open();
        unit.reset();  // which waits until the gate is passed
    }

    Gate gate;
};

}  // namespace

TEST_F(SDCommunicationHubLifecycleTest, WithoutADispatcherThereIsNoHub)
{
    PlatformScope::withdraw();
    const std::size_t before = openDescriptors();

    try {
        SDCommunicationHub second(unit->facade);
        ADD_FAILURE() << "a hub without a platform";
    }
    catch (const Poco::Exception& exception) {
        EXPECT_EQ(exception.message(), "Can not start MulticastReceiver, OEM-Dispatcher is not available!");
        EXPECT_STREQ(exception.name(), "Exception");
    }

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SDCommunicationHubLifecycleTest, NothingIsBoundBeforeTheStart)
{
    EXPECT_FALSE(hub().isRunning());
    EXPECT_NO_THROW(DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), false));
}

TEST_F(SDCommunicationHubLifecycleTest, StartRunsTheReceiverAndThenTheStateMachine)
{
    log.clear();

    EXPECT_TRUE(start());

    EXPECT_TRUE(hub().isRunning());
    EXPECT_THAT(log.debugs(), ElementsAre("Debug: SDCommunicationHub::start",
                                          MatchesRegex("Debug: MulticastReceiver receive buffer: .*"),
                                          "Debug: SDStateMachine::start"));
    EXPECT_THROW(DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), false), Poco::Exception);
}

TEST_F(RunningHubTest, StopEndsTheReceiverAndThenTheStateMachine)
{
    hub().stop();

    EXPECT_FALSE(hub().isRunning());
    std::vector<std::string> lines;
    for (const std::string& line : log.lines()) {
        if (line.rfind("Trace: ", 0) != 0)
            lines.push_back(line);
    }
    EXPECT_THAT(
        lines,
        ElementsAre("Debug: SDCommunicationHub::stop",
                    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.",
                    "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"eth0\" \"eth0\".",
                    "Debug: SDStateMachine::stop"));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_NO_THROW(DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), false));
}

TEST_F(SDCommunicationHubLifecycleTest, BeforeTheFirstStartNothingIsSent)
{
    dispatcher().addInterface("eth0", "fd00::1");
    SDService::Ptr service = makeService("Media");
    service->setType(SDService::Type::ANNOUNCED);

    hub().announce(service);

    EXPECT_THAT(log.errors(), ElementsAre("Error: MulticastSender failed to send package, external IP "
                                          "address was not initialised!"));
    EXPECT_THAT(listener.datagrams(), IsEmpty());
}

TEST_F(SDCommunicationHubLifecycleTest, HubStartedOnAnAddressThatIsNotIPv6HearsButCannotSend)
{
    dispatcher().addInterface("eth0", "fd00::1");
    SDService::Ptr service = makeService("Media");
    service->setType(SDService::Type::ANNOUNCED);

    EXPECT_TRUE(hub().start(IPAddress("10.0.0.1")));
    speaker.send(fromHex(offerOfFar));
    EXPECT_TRUE(discovers(1));
    hub().announce(service);

    EXPECT_THAT(listener.datagrams(), IsEmpty());
    EXPECT_THAT(log.errors(), ElementsAre("Error: MulticastSender failed to send package, external IP "
                                          "address was not initialised!"));
}

TEST_F(RunningHubTest, SecondStartChangesNothing)
{
    const std::size_t threads = runningThreads();

    EXPECT_TRUE(hub().start(IPAddress("fd00::7")));

    EXPECT_TRUE(hub().isRunning());
    EXPECT_EQ(runningThreads(), threads);
    EXPECT_THAT(log.debugs(), ElementsAre("Debug: SDCommunicationHub::start"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningHubTest, HubRunsUntilEverythingHasStopped)
{
    std::vector<std::string> linesWhenNotRunning;
    log.onLine([&](const std::string& line) {
        if (!hub().isRunning())
            linesWhenNotRunning.push_back(line);
    });

    hub().stop();
    log.onLine(nullptr);

    EXPECT_THAT(linesWhenNotRunning, IsEmpty());
    EXPECT_TRUE(log.has("Debug: SDStateMachine::stop"));
    EXPECT_FALSE(hub().isRunning());
}

TEST_F(SDCommunicationHubLifecycleTest, StopOfAHubThatDoesNotRunDoesNothing)
{
    dispatcher().addInterface("eth0", "fd00::1");
    log.clear();

    hub().stop();

    EXPECT_THAT(log.lines(), ElementsAre("Debug: SDCommunicationHub::stop"));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(SDCommunicationHubLifecycleTest, PortInUseMakesTheStartFail)
{
    std::optional<DatagramSocket> other{std::in_place, SocketAddress("::", discoveryPort), false};
    const std::size_t threads = runningThreads();

    EXPECT_FALSE(start());

    EXPECT_FALSE(hub().isRunning());
    EXPECT_EQ(runningThreads(), threads);
    EXPECT_THAT(log.errors(), ElementsAre("Error: MultiCast binding failed: Net Exception: Address already "
                                          "in use: [ff14::4:0]:30491"));
    EXPECT_THAT(log.debugs(), Not(Contains("Debug: SDStateMachine::start")));
}

TEST_F(SDCommunicationHubLifecycleTest, PortThatIsHeldForAMomentIsWaitedFor)
{
    const auto startsBesideAHolder = [&] {
        std::optional<DatagramSocket> holder{std::in_place, SocketAddress("::", discoveryPort), false};
        std::thread end([&] {
            Poco::Thread::sleep(30);
            holder.reset();
        });
        const bool isStarted = start();
        end.join();
        return isStarted;
    };

    EXPECT_TRUE(inSomeRun(startsBesideAHolder));
}

TEST_F(SDCommunicationHubLifecycleTest, FailedStartLeavesTheSenderInitialised)
{
    const DatagramSocket other(SocketAddress("::", discoveryPort), false);
    dispatcher().addInterface("eth0", "fd00::1");
    SDService::Ptr service = makeService("Media");
    service->setType(SDService::Type::ANNOUNCED);
    ASSERT_FALSE(start());

    hub().announce(service);

    EXPECT_TRUE(listener.hears(1));
}

TEST_F(SDCommunicationHubLifecycleTest, LaterStartWorksWhenThePortIsFree)
{
    std::optional<DatagramSocket> other{std::in_place, SocketAddress("::", discoveryPort), false};
    dispatcher().addInterface("eth0", "fd00::1");
    ASSERT_FALSE(start());
    other.reset();

    EXPECT_TRUE(start());
    speaker.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
}

TEST_F(SDCommunicationHubLifecycleTest, ReportsReachTheReceiverFirst)
{
    dispatcher().addInterface("eth0", "fd00::1");
    dispatcher().removeInterface("eth0", "fd00::1");

    EXPECT_THAT(log.lines(), ElementsAre(joining0, adding0, leaving0, removing0));
}

TEST_F(SDCommunicationHubLifecycleTest, InterfaceThatStandsReportedIsTakenInWhenTheHubIsBuilt)
{
    dispatcher().addInterface("eth0", "fd00::1");
    log.clear();

    const SDCommunicationHub second(unit->facade);

    EXPECT_THAT(log.lines(), ElementsAre(joining0, adding0));
}

TEST_F(SDCommunicationHubLifecycleTest, InterfaceReportedBeforeTheStartIsHeardAfterIt)
{
    dispatcher().addInterface("eth0", "fd00::1");
    start();

    speaker.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
    EXPECT_EQ(log.count(joining0), 1u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningHubTest, InterfaceThatComesLaterIsHeardAndSentOn)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Speaker other(network.there, "eth1", "fd01::2");
    Listener beyond(network.there, "eth1");
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");

    dispatcher().addInterface("eth1", "fd01::1");
    hub().addService(service);
    other.send(fromHex(offerOfFar));

    EXPECT_TRUE(beyond.hears(1));
    EXPECT_TRUE(discovers(1));
}

TEST_F(RunningHubTest, OpeningOfAnAwaitedInterfaceHoldsUpNoRequestAndNoOffer)
{
    Gate gate;
    network.link("eth1");
    dispatcher().addInterface("eth1", "fd01::1");
    log.onLine([&](const std::string& line) {
        if (line == "Notice: ServiceDiscovery can use Interface \"eth1\" with IP \"fd01::1\" for sending.")
            gate.pass();
    });
    network.here.addAddress("eth1", "fd01::1/64");
    ASSERT_TRUE(eventually([&] { return gate.isReached(); })) << "it is being opened";

    std::atomic<bool> isDone{false};
    std::thread registry([&] {
        SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
        EXPECT_TRUE(hub().addService(service));
        EXPECT_THAT(hub().getServices(), SizeIs(1));
        isDone = true;
    });

    EXPECT_TRUE(eventually([&] { return isDone.load(); }));
    EXPECT_TRUE(listener.hears(5)) << "four offers at the beginning, then one a second";
    gate.open();
    registry.join();
    hub().stop();
}

TEST_F(RunningHubTest, AwaitedInterfaceIsOpenedWhileASubscriberHoldsTheStateMachineUp)
{
    Gate gate;
    unit->registry.onEvent = [&](auto&) { gate.pass(); };
    network.link("eth1");
    dispatcher().addInterface("eth1", "fd01::1");
    speaker.send(fromHex(offerOfFar));
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));

    network.here.addAddress("eth1", "fd01::1/64");

    EXPECT_TRUE(eventually([&] {
        return log.has(
            "Notice: ServiceDiscovery can use Interface \"eth1\" with IP \"fd01::1\" for sending.");
    }));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
    gate.open();
    hub().stop();
}

TEST_F(RunningHubTest, RestartedHubHearsOnTheInterfacesThatStandReported)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Speaker other(network.there, "eth1", "fd01::2");
    dispatcher().addInterface("eth1", "fd01::1");
    for (int i = 0; i < 3; ++i) {
        hub().stop();
        ASSERT_TRUE(start());
    }
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));

    other.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningHubTest, RestartedHubSendsOnTheInterfacesThatStandReported)
{
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    hub().stop();
    start();

    hub().addService(service);

    EXPECT_TRUE(listener.hears(1));
}

TEST_F(RunningHubTest, InterfaceAddedWhileStoppedIsHeardAfterTheStart)
{
    network.link("eth1", "fd01::1", "fd01::2");
    Speaker other(network.there, "eth1", "fd01::2");
    hub().stop();

    dispatcher().addInterface("eth1", "fd01::1");
    start();
    other.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0", "eth1"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(RunningHubTest, InterfaceRemovedWhileStoppedIsNotJoinedAgain)
{
    network.link("eth1", "fd01::1");
    dispatcher().addInterface("eth1", "fd01::1");
    hub().stop();

    dispatcher().removeInterface("eth0", "fd00::1");
    start();

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth1"));
}

TEST_F(RunningHubTest, RemovalOfAllInterfacesWhileStoppedLeavesNoneToJoin)
{
    hub().stop();

    dispatcher().removeInterface("", "::");
    start();

    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(RunningHubTest, NumberingGoesOnOverARestart)
{
    SDService::Ptr service = makeService("Media");
    service->setType(SDService::Type::ANNOUNCED);
    hub().announce(service);
    hub().announce(service);

    hub().stop();
    start();
    hub().announce(service);

    ASSERT_TRUE(listener.hears(3));
    EXPECT_EQ(toHex(listener.datagrams().back().bytes.substr(10, 2)), "00 03");
}

TEST_F(RunningHubTest, StopSendsOneStopOfferForEachServiceInItsMainPhase)
{
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    hub().addService(service);
    ASSERT_TRUE(listener.hears(5)) << "four offers at the beginning, then one a second";

    hub().stop();

    EXPECT_TRUE(eventually([&] { return stopOffers() == 1; }));
    const std::size_t heard = listener.datagrams().size();
    EXPECT_TRUE(keeps([&] { return listener.datagrams().size() == heard; }, std::chrono::milliseconds(1500)));
    EXPECT_TRUE(
        log.has("Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
                "stopped, due to shutdown of ServiceRegistry."));
}

TEST_F(SDCommunicationHubLifecycleTest, ServiceAddedBeforeTheStartIsAnnouncedAfterIt)
{
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    dispatcher().addInterface("eth0", "fd00::1");

    EXPECT_TRUE(hub().addService(service));
    EXPECT_THAT(listener.datagrams(), IsEmpty());
    start();

    EXPECT_TRUE(listener.hears(1));
}

TEST_F(RunningHubTest, RequestsBecomeEventsOfTheStateMachine)
{
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    SDService::Ptr wanted = new SDService("Navi");

    EXPECT_TRUE(hub().addService(service));
    EXPECT_TRUE(hub().findService(wanted));
    EXPECT_TRUE(hub().removeService("media"));
    EXPECT_FALSE(hub().removeService("other"));
    EXPECT_FALSE(hub().removeService(""));

    EXPECT_TRUE(
        log.has("Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
                "startet, due to addition by ServiceRegistry."));
    EXPECT_TRUE(
        log.has("Notice: SD Finding of Service Navi startet, due to GET request to ServiceRegistry."));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SD failed to delete Service with local UUID \"other\", none found!",
                            "Error: SDStateMachine::onExternalEvent: received nullptr Service or empty "
                            "UUID."));
}

TEST_F(RunningHubTest, MessageIsTracedAndHandledOnTheRequestHandlersThread)
{
    std::thread::id thread;
    unit->registry.onEvent = [&](auto&) { thread = std::this_thread::get_id(); };
    Multicast::MulticastDataPtr message = datagram(fromHex(offerOfFar));

    hub().onMessageReceived(message);

    EXPECT_TRUE(discovers(1));
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_TRUE(
        log.has("Trace: SDCommunicationHub::onMessageReceived - message received from [fd00::2]:1234"));
}

TEST_F(RunningHubTest, EmptyMessageIsWarnedOfAndNeverHandled)
{
    Multicast::MulticastDataPtr none;
    Multicast::MulticastDataPtr empty = datagram("");
    Multicast::MulticastDataPtr good = datagram(fromHex(offerOfFar));

    hub().onMessageReceived(none);
    hub().onMessageReceived(empty);
    hub().onMessageReceived(good);

    EXPECT_TRUE(discovers(1));
    const auto line = "Warning: SDCommunicationHub - empty message received!";
    EXPECT_THAT(log.complaints(), ElementsAre(line, line));
    EXPECT_THAT(log.debugs(), Not(Contains(HasSubstr("processing 0 Message(s)"))));
}

TEST_F(SDCommunicationHubLifecycleTest, TenThousandMessagesWaitAndFurtherOnesAreDroppedAndCounted)
{
    const std::string line = " received Message(s), at most 10000 with 4194304 Bytes can wait!";
    Multicast::MulticastDataPtr message = datagram(fromHex(offerOfFar));
    for (int i = 0; i < 10000; ++i)
        hub().onMessageReceived(message);
    EXPECT_THAT(log.complaints(), IsEmpty());

    hub().onMessageReceived(message);
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDCommunicationHub - dropped 1" + line));
    for (int i = 0; i < 4; ++i)
        hub().onMessageReceived(message);
    EXPECT_EQ(log.complaints().size(), 1u) << "one line a second at most";
    SDClock::turn(1100000);
    hub().onMessageReceived(message);
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDCommunicationHub - dropped 1" + line,
                                              "Warning: SDCommunicationHub - dropped 5" + line));
}

TEST_F(SDCommunicationHubLifecycleTest, LastDropsOfAFloodAreReportedWithoutAFurtherMessage)
{
    const std::string line = " received Message(s), at most 10000 with 4194304 Bytes can wait!";
    Multicast::MulticastDataPtr message = datagram(fromHex(offerOfFar));
    for (int i = 0; i < 10005; ++i)
        hub().onMessageReceived(message);
    ASSERT_THAT(log.complaints(), ElementsAre("Warning: SDCommunicationHub - dropped 1" + line));

    start();
    SDClock::turn(1100000);

    EXPECT_TRUE(eventually([&] { return log.has("Warning: SDCommunicationHub - dropped 4" + line); }));
}

TEST_F(SDCommunicationHubLifecycleTest, MessagesOf4MiBWaitAndFurtherOnesAreDropped)
{
    Multicast::MulticastDataPtr quarter = datagram(std::string(1024 * 1024, 'x'));
    Multicast::MulticastDataPtr message = datagram(fromHex(offerOfFar));
    for (int i = 0; i < 4; ++i)
        hub().onMessageReceived(quarter);
    EXPECT_THAT(log.complaints(), IsEmpty());

    hub().onMessageReceived(message);

    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDCommunicationHub - dropped 1 received Message(s), "
                                              "at most 10000 with 4194304 Bytes can wait!"));
    start();
    EXPECT_TRUE(eventually([&] {
        hub().onMessageReceived(message);
        return unit->registry.discovered("Far") == 1;
    })) << "what has been handled makes room";
}

TEST_F(SDCommunicationHubLifecycleTest, MessagesThatWaitAreHandledAfterTheStart)
{
    Multicast::MulticastDataPtr message = datagram(fromHex(offerOfFar));

    hub().onMessageReceived(message);
    start();

    EXPECT_TRUE(discovers(1));
}

TEST_F(SDCommunicationHubLifecycleTest, RegistryThatDoesNotReturnDoesNotKeepTheReceiverFromBeingStopped)
{
    Gate gate;
    unit->registry.onEvent = [&](auto&) { gate.pass(); };
    dispatcher().addInterface("eth0", "fd00::1");
    start();
    speaker.send(fromHex(offerOfFar));
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));

    std::thread stopping([&] { hub().stop(); });
    EXPECT_TRUE(eventually([] { return joinedInterfaces().empty(); }));
    gate.open();
    stopping.join();

    EXPECT_FALSE(hub().isRunning());
    EXPECT_TRUE(start());
}

TEST_F(HeldHandlerTest, StopWaitsASecondForTheHandlerAndEndsEverythingElse)
{
    const auto begin = std::chrono::steady_clock::now();

    hub().stop();

    const auto duration = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(duration, std::chrono::milliseconds(1000));
    EXPECT_LT(duration, std::chrono::milliseconds(2500));
    EXPECT_FALSE(hub().isRunning());
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_TRUE(log.has("Debug: SDStateMachine::stop"));
}

/// Against a thread that waits as often and as long: a busy machine makes both wait longer.
TEST_F(HeldHandlerTest, StopWaitsFiftyTimesTwentyMillisecondsForTheHandler)
{
    double reference = 0;
    std::thread waiter([&] {
        Poco::Event never;
        reference = shortestTime(
            [&] {
                for (int i = 0; i < 50; ++i)
                    never.tryWait(20);
            },
            5000);
    });

    const double duration = shortestTime([&] { hub().stop(); }, 5000);
    waiter.join();

    EXPECT_GT(duration / reference, 0.93);
    EXPECT_LT(duration / reference, 1.1);
}

TEST_F(HeldHandlerTest, StopWaitsForAHandlerThatReturnsInTime)
{
    std::atomic<bool> isStopped{false};

    std::thread stopping([&] {
        hub().stop();
        isStopped = true;
    });
    EXPECT_TRUE(keeps([&] { return !isStopped; }, std::chrono::milliseconds(100)));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0")) << "the handler ends before the receiver";
    gate.open();
    stopping.join();

    EXPECT_TRUE(start());
}

TEST_F(HeldHandlerTest, StartIsRefusedUntilTheHandlerReturns)
{
    hub().stop();

    EXPECT_FALSE(start());
    EXPECT_FALSE(hub().isRunning());
    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDCommunicationHub - a subscriber still holds up the "
                                              "request handler's thread."));
    EXPECT_NO_THROW(DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), false));

    gate.open();
    EXPECT_TRUE(eventually([&] { return start(); }));
    EXPECT_EQ(unit->registry.discovered("Far"), 0u) << "it was received before the stop";
    speaker.send(fromHex(offerOfFar));
    EXPECT_TRUE(discovers(1));
    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
}

TEST_F(HeldHandlerTest, NothingThatWaitsAtTheStopIsHandledAfterTheNextStart)
{
    Multicast::MulticastDataPtr waiting = datagram(Packets::offer("Waiting"));
    hub().onMessageReceived(waiting);
    hub().stop();

    gate.open();
    ASSERT_TRUE(eventually([&] { return start(); }));
    speaker.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
    EXPECT_EQ(unit->registry.discovered("Waiting"), 0u);
}

TEST_F(RunningHubTest, DatagramThatIsBeingHandedOverAtTheStopIsNotHandledAfterTheNextStart)
{
    const int socket = socketAt(discoveryPort);
    Gate gate;
    log.onLine([&](const std::string& line) {
        if (line.rfind("Trace: SDCommunicationHub::onMessageReceived", 0) == 0)
            gate.pass();
    });
    speaker.send(fromHex(offerOfFar));
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));

    std::thread stopping([&] { hub().stop(); });
    EXPECT_TRUE(eventually([&] {
        pollfd state{socket, 0, 0};
        return ::poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
    })) << "the receiver is being stopped";
    gate.open();
    stopping.join();
    ASSERT_TRUE(start());
    speaker.send(Packets::offer("Later"));

    EXPECT_TRUE(eventually([&] { return unit->registry.discovered("Later") == 1; }));
    EXPECT_EQ(unit->registry.discovered("Far"), 0u);
}

TEST_F(HeldHandlerTest, DestructionWaitsForTheHandler)
{
    std::atomic<bool> isDestroyed{false};

    std::thread destroying([&] {
        unit.reset();
        isDestroyed = true;
    });
    EXPECT_TRUE(keeps([&] { return !isDestroyed; }, std::chrono::milliseconds(1500)))
        << "for longer than a stop waits";
    gate.open();
    destroying.join();

    EXPECT_THAT(joinedInterfaces(), IsEmpty());
}

TEST_F(SDCommunicationHubLifecycleTest, RegistryThatThrowsDoesNotEndTheHandling)
{
    std::atomic<int> calls{0};
    unit->registry.onEvent = [&](auto&) {
        if (++calls == 1)
            throw Poco::NotFoundException("registry");
    };
    dispatcher().addInterface("eth0", "fd00::1");
    start();

    speaker.send(fromHex(offerOfFar));
    EXPECT_TRUE(eventually([&] { return calls == 1; }));
    speaker.send(fromHex(offerOfFar));

    EXPECT_TRUE(discovers(1));
}

TEST_F(RunningHubTest, DestructionStopsAndLeavesNothingBehind)
{
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    {
        PlatformScope platform;
        platform.dispatcher().addInterface("eth0", "fd00::1");
        hub().stop();
        auto second = std::make_unique<SDCommunicationHub>(unit->facade);
        ASSERT_TRUE(second->start(IPAddress("fd00::1")));
        second->addService(service);
        ASSERT_TRUE(listener.hears(5)) << "four offers at the beginning, then one a second";

        second.reset();
        EXPECT_EQ(stopOffers(), 1u);
        log.clear();
        platform.dispatcher().removeInterface("eth0", "fd00::1");
        platform.dispatcher().addInterface("eth0", "fd00::1");
    }

    EXPECT_THAT(log.lines(), IsEmpty()) << "no delegate is bound any more";
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    EXPECT_NO_THROW(DatagramSocket(SocketAddress(discoveryGroup, discoveryPort), false));
}

TEST_F(SDCommunicationHubLifecycleTest, NoDescriptorAndNoThreadIsLostOverALife)
{
    dispatcher().addInterface("eth0", "fd00::1");
    const std::size_t descriptors = openDescriptors();
    const std::size_t threads = runningThreads();
    const std::vector<std::string> joined = joinedInterfaces();

    for (int i = 0; i < 3; ++i) {
        SDCommunicationHub second(unit->facade);
        ASSERT_TRUE(second.start(IPAddress("fd00::1")));
        second.stop();
        ASSERT_TRUE(second.start(IPAddress("fd00::1")));
    }

    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(eventually([&] { return runningThreads() == threads; }));
    EXPECT_EQ(joinedInterfaces(), joined);
}

TEST_F(RunningHubTest, StartsAndStopsWhileInterfacesComeAndGo)
{
    network.link("eth1", "fd01::1");
    SDService::Ptr service = makeService("Media", "fd00::1", 8080, "media");
    hub().addService(service);
    {
        const Repeating platformReports([&] {
            dispatcher().addInterface("eth1", "fd01::1");
            dispatcher().removeInterface("eth1", "fd01::1");
        });
        for (int i = 0; i < 10; ++i) {
            hub().stop();
            EXPECT_TRUE(start());
        }
    }

    EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
    speaker.send(fromHex(offerOfFar));
    EXPECT_TRUE(discovers(1));
}

}  // namespace Nubo::ServiceDiscovery::Testing
