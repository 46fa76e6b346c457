#include "support/Descriptions.h"
#include "support/LinkedFixture.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/Repeating.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// Registries may call the library in any order and from any number of threads.
namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

/// A unit on eth0, and another one that sends and listens there.
struct CallersTest : LinkedFixture
{
    CallersTest() { platform.dispatcher().addInterface("eth0", "fd00::1"); }

    bool startup() const { return discovery->startup(Poco::Net::IPAddress("fd00::1")); }

    /// Checks that the unit still announces, discovers and withdraws.
    void expectToWork()
    {
        if (!discovery->running()) {
            EXPECT_TRUE(startup());
        }
        listener.clear();
        EXPECT_TRUE(discovery->addService(describe("Last", "fd00::1", 8080, "last")));
        EXPECT_TRUE(listener.hears(1));
        EXPECT_TRUE(eventually([&] {
            speaker.send(Packets::offer("Far"));
            return registry->discovered("Far") == 1;
        }));
        EXPECT_TRUE(discovery->removeService("last"));
    }

    PlatformScope platform;
    std::unique_ptr<ServiceDiscovery> discovery = std::make_unique<ServiceDiscovery>();
    std::optional<Registry> registry{std::in_place, *discovery};
    Speaker speaker{network.there, "eth0", "fd00::2"};
    Listener listener{network.there, "eth0"};
};

/// The longest of many durations.
class Longest
{
public:
    template <class Action>
    void time(Action action)
    {
        const auto start = steady_clock::now();
        action();
        m_longest = std::max(m_longest, steady_clock::now() - start);
    }

    steady_clock::duration value() const { return m_longest; }

private:
    steady_clock::duration m_longest{0};
};

NuboServiceDescription withCategories(int count)
{
    NuboServiceDescription description = describe("Large");
    for (int i = 0; i < count; ++i)
        description.addCategory(std::string(100, 'c') + std::to_string(i));
    return description;
}

}  // namespace

TEST_F(CallersTest, DescriptionsThatCannotBeSentDoNotDisturbTheOthers)
{
    const std::vector<NuboServiceDescription> unsendable{
        describe(""),
        describe("a=b"),
        describe("tab\t"),
        describe("M\xc3\xbcnchen"),
        describe(std::string(300, 'x')),
        withCategories(20),
    };
    ASSERT_TRUE(startup());
    ASSERT_TRUE(discovery->addService(describe("Good", "fd00::1", 8080, "good")));
    ASSERT_TRUE(listener.hears(5)) << "the first cyclic offer";
    const std::string offer = listener.bytes().back().substr(12 * 3);  // behind the session ID
    LogCatcher log;
    listener.clear();

    for (const NuboServiceDescription& description : unsendable) {
        log.clear();
        EXPECT_FALSE(discovery->addService(description));
        ASSERT_THAT(log.errors(), Not(IsEmpty()));
        EXPECT_THAT(log.errors().back(), HasSubstr("cannot be put on the wire"));
        if (description.getName() != "Large") {
            EXPECT_FALSE(discovery->findService(description));
        }
    }

    log.clear();
    EXPECT_TRUE(listener.hears(2));
    EXPECT_THAT(listener.bytes(), Each(HasSubstr(offer)));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(CallersTest, AnyCallMayComeFromAnyThreadAtAnyTime)
{
    constexpr int callers = 6;
    constexpr int calls = 150;
    std::vector<std::thread> threads;
    for (int caller = 0; caller < callers; ++caller)
        threads.emplace_back([&, caller] {
            std::mt19937 random(static_cast<unsigned>(caller));
            for (int i = 0; i < calls; ++i) {
                const std::string name = "Service" + std::to_string(random() % 8);
                switch (random() % 8) {
                    case 0:
                        startup();
                        break;
                    case 1:
                        EXPECT_TRUE(discovery->shutdown());
                        break;
                    case 2:
                    case 3:
                        discovery->addService(describe(name, "fd00::1", 8080, name));
                        break;
                    case 4:
                        EXPECT_TRUE(discovery->findService(describe("Wanted" + name)));
                        break;
                    case 5:
                        discovery->running();
                        break;
                    default:
                        discovery->removeService(name);
                        break;
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();

    expectToWork();
}

TEST_F(CallersTest, ThousandsOfLivesLeaveNothingBehind)
{
    constexpr int lives = isSanitized ? 2000 : 10000;
    constexpr int warmUp = 100;
    Longest shutdown;
    const auto live = [&] {
        ASSERT_TRUE(startup());
        shutdown.time([&] { ASSERT_TRUE(discovery->shutdown()); });
    };
    for (int i = 0; i < warmUp; ++i)
        live();
    const std::size_t descriptors = openDescriptors();
    const std::size_t threads = runningThreads();
    const std::size_t heap = heapInUse();

    for (int i = 0; i < lives; ++i)
        live();

    EXPECT_LT(shutdown.value(), milliseconds(1500));
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(runningThreads(), threads);
    EXPECT_NEAR(static_cast<double>(heapInUse()), static_cast<double>(heap), lives) << "a byte a life";
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    expectToWork();
}

TEST_F(CallersTest, FacadesComeAndGoUnderAFlood)
{
    constexpr int lives = 40;
    Longest end;
    {
        const std::string bytes = Packets::offer("Flood");
        const Repeating flood([&] { speaker.send(bytes); });
        for (int i = 0; i < lives; ++i) {
            ASSERT_TRUE(startup());
            discovery->addService(describe("Media", "fd00::1", 8080, "media"));
            EXPECT_TRUE(eventually([&] { return registry->discovered("Flood") != 0; }));
            end.time([&] {
                registry.reset();
                discovery.reset();
            });
            discovery = std::make_unique<ServiceDiscovery>();
            registry.emplace(*discovery);
        }
    }

    EXPECT_LT(end.value(), milliseconds(1500));
    expectToWork();
}

TEST_F(CallersTest, InterfacesChangeWhileItSendsAndWhileItShutsDown)
{
    constexpr int lives = 20;
    network.link("eth1", "fd01::1");
    Longest shutdown;
    {
        const Repeating platformReports([&] {
            platform.dispatcher().addInterface("eth1", "fd01::1");
            platform.dispatcher().removeInterface("eth1", "fd01::1");
        });
        for (int i = 0; i < lives; ++i) {
            ASSERT_TRUE(startup());
            for (int service = 0; service < 20; ++service)
                discovery->addService(
                    describe("Service" + std::to_string(service), "fd00::1", 8080, std::to_string(service)));
            listener.clear();
            EXPECT_TRUE(listener.hears(20));
            shutdown.time([&] { EXPECT_TRUE(discovery->shutdown()); });
            for (int service = 0; service < 20; ++service)
                discovery->removeService(std::to_string(service));
        }
    }

    EXPECT_LT(shutdown.value(), milliseconds(1500));
    expectToWork();
    EXPECT_THAT(joinedInterfaces(), Contains("eth0"));
}

TEST_F(CallersTest, ReactorThatHangsDelaysTheShutdownByTwoSeconds)
{
    ASSERT_TRUE(startup());
    Gate gate;
    LogCatcher log;
    log.onLine([&](const std::string& line) {
        if (line == "Trace: MulticastReceiver onSocketReadable")
            gate.pass();
    });
    speaker.send(Packets::offer("Far"));
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));
    Longest shutdown;

    shutdown.time([&] { EXPECT_TRUE(discovery->shutdown()); });

    EXPECT_LT(shutdown.value(), milliseconds(2500));
    EXPECT_GE(shutdown.value(), milliseconds(2000));
    EXPECT_THAT(joinedInterfaces(), IsEmpty());
    gate.open();
    EXPECT_TRUE(eventually([&] { return startup(); }));
    expectToWork();
}

TEST_F(CallersTest, SubscriberThatThrowsEveryTimeEndsNoThread)
{
    registry->onEvent = [](auto& payload) {
        if (payload.getServiceDescription()->getName() == "Bad")
            throw Poco::NotFoundException("registry");
    };
    ASSERT_TRUE(startup());
    const std::size_t threads = runningThreads();
    LogCatcher log;

    for (int i = 0; i < 100; ++i)
        speaker.send(Packets::offer("Bad"));
    EXPECT_TRUE(eventually([&] { return log.errors().size() >= 100; }));

    EXPECT_EQ(runningThreads(), threads);
    EXPECT_THAT(log.errors(),
                Each("Error: ServiceDiscovery failed to add Service due to Not found: registry"));
    expectToWork();
}

}  // namespace Nubo::ServiceDiscovery::Testing
