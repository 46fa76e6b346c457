#include "HubFixture.h"
#include "support/Descriptions.h"
#include "support/Process.h"
#include "support/Times.h"

#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Thread.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
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
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

namespace {

using SDCommunicationHubLifecycleTest = HubFixture;
using RunningHubTest = RunningHubFixture;

}  // namespace

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

}  // namespace Nubo::ServiceDiscovery::Testing
