#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/LinkedFixture.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Platform.h"
#include "support/Registry.h"
#include "support/TestUnit.h"
#include "support/Times.h"
#include "support/Waiting.h"

#include <chrono>
#include <cstddef>
#include <future>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Guarantees for a registry that shuts down while datagrams arrive.
namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::milliseconds;
using ::testing::Contains;

namespace {

/// A unit on eth0, and another one that sends there.
struct FacadeLifecycleTest : LinkedFixture
{
    FacadeLifecycleTest() { platform.dispatcher().addInterface("eth0", "fd00::1"); }

    bool startup() { return discovery.startup(Poco::Net::IPAddress("fd00::1")); }

    bool discovers(const std::string& name)
    {
        return eventually([&] {
            speaker.send(Packets::offer(name));
            return eventually([&] { return registry.discovered(name) != 0; }, milliseconds(20));
        });
    }

    PlatformScope platform;
    ServiceDiscovery discovery;
    Registry registry{discovery};
    Speaker speaker{network.there, "eth0", "fd00::2"};
};

/// A datagram with `count` packets, each of which offers a service.
std::string offersOf(std::size_t count)
{
    std::string bytes;
    for (std::size_t i = 0; i < count; ++i)
        bytes += Packets::offer("Service" + std::to_string(i));
    return bytes;
}

}  // namespace

TEST_F(FacadeLifecycleTest, NoEventBeginsOnceShutdownHasReturned)
{
    registry.onEvent = [](auto&) { std::this_thread::sleep_for(milliseconds(20)); };
    ASSERT_TRUE(startup());
    speaker.send(offersOf(450));
    ASSERT_TRUE(eventually([&] { return registry.eventCount() >= 3; }));

    EXPECT_TRUE(discovery.shutdown());
    const std::size_t events = registry.eventCount();

    EXPECT_LT(events, 450u);
    EXPECT_TRUE(keeps([&] { return registry.eventCount() == events; }, milliseconds(500)));
    EXPECT_TRUE(startup());
    EXPECT_TRUE(discovers("Last"));
    EXPECT_LE(registry.eventCount(), events + 1) << "of a datagram from before the shutdown";
}

TEST_F(FacadeLifecycleTest,
       StartupIsRefusedAfterThreeSecondsWhileASubscriberHoldsTheShutdownUpAndWorksAfterwards)
{
    const LogCatcher log;
    Gate gate;
    registry.onEvent = [&](auto&) { gate.pass(); };
    ASSERT_TRUE(startup());
    speaker.send(Packets::offer("Far"));
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));
    std::future<bool> stopped = std::async(std::launch::async, [&] { return discovery.shutdown(); });
    ASSERT_TRUE(eventually([] { return joinedInterfaces().empty(); })) << "it has begun";

    constexpr double longest = 3300;  // milliseconds
    const double duration = shortestTime([&] { EXPECT_FALSE(startup()); }, longest);

    EXPECT_GE(duration, 2990);
    EXPECT_LE(duration, longest);
    EXPECT_THAT(log.errors(),
                Contains("Error: SDCommunicationHub - a subscriber still holds up the engine, which is "
                         "being stopped."));
    gate.open();
    EXPECT_TRUE(stopped.get());
    EXPECT_FALSE(discovery.running());
    EXPECT_TRUE(startup());
    EXPECT_TRUE(discovers("Last"));
}

/// A log channel blocks the request handler's thread, which holds no lock.
TEST_F(FacadeLifecycleTest, DoesNotSayThatItRunsWhileAStartupWaits)
{
    LogCatcher log;
    Gate gate;
    ASSERT_TRUE(startup());
    log.onLine([&](const std::string& line) {
        if (line.find("length-error detected") != std::string::npos)
            gate.pass();
    });
    speaker.send("no packet, but as long as one");
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));
    EXPECT_TRUE(discovery.shutdown());

    std::future<bool> starting = std::async(std::launch::async, [&] { return startup(); });

    EXPECT_TRUE(keeps([&] { return !discovery.running(); }, milliseconds(500)));
    EXPECT_FALSE(starting.get());
    gate.open();
    log.onLine(nullptr);
    EXPECT_TRUE(startup());
    EXPECT_TRUE(discovers("Last"));
}

TEST_F(FacadeLifecycleTest, RestartHandlesNoDatagramThatCameInBetween)
{
    ASSERT_TRUE(startup());
    ASSERT_TRUE(discovers("First"));
    ASSERT_TRUE(discovery.shutdown());

    for (int i = 0; i < 10; ++i)
        speaker.send(Packets::offer("Between"));
    ASSERT_TRUE(startup());

    EXPECT_TRUE(discovers("Last"));
    EXPECT_EQ(registry.discovered("Between"), 0u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
