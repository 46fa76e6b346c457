#include "DataLayer/SDClock.h"
#include "HubFixture.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/Times.h"

#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::DatagramSocket;
using Poco::Net::SocketAddress;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

using SDCommunicationHubMessagesTest = HubFixture;
using RunningHubMessagesTest = RunningHubFixture;

Multicast::MulticastDataPtr datagram(const std::string& bytes)
{
    return new Multicast::MulticastReceiver::MulticastData(bytes.data(), bytes.size(),
                                                           SocketAddress("fd00::2", 1234));
}

/// A running hub whose request handler is held up at an offer, right after its first log line.
struct HeldHandlerTest : RunningHubFixture
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
        unit.reset();  // waits until the handler has passed the gate
    }

    Gate gate;
};

}  // namespace

TEST_F(RunningHubMessagesTest, MessageIsTracedAndHandledOnTheRequestHandlersThread)
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

TEST_F(RunningHubMessagesTest, EmptyMessageIsWarnedOfAndNeverHandled)
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

TEST_F(SDCommunicationHubMessagesTest, LastDropsOfAFloodAreReportedWithoutAFurtherMessage)
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

TEST_F(SDCommunicationHubMessagesTest, MessagesOf4MiBWaitAndFurtherOnesAreDropped)
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

TEST_F(SDCommunicationHubMessagesTest, MessagesThatWaitAreHandledAfterTheStart)
{
    Multicast::MulticastDataPtr message = datagram(fromHex(offerOfFar));

    hub().onMessageReceived(message);
    start();

    EXPECT_TRUE(discovers(1));
}

TEST_F(SDCommunicationHubMessagesTest, RegistryThatDoesNotReturnDoesNotKeepTheReceiverFromBeingStopped)
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

TEST_F(SDCommunicationHubMessagesTest, RegistryThatThrowsDoesNotEndTheHandling)
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

/// Compares with a thread that waits as often and as long: on a busy machine, both wait longer.
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

TEST_F(RunningHubMessagesTest, DatagramThatIsBeingHandedOverAtTheStopIsNotHandledAfterTheNextStart)
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

}  // namespace Nubo::ServiceDiscovery::Testing
