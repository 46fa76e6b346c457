#include "DataLayer/SDClock.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Event = Registry::Event;

/// l6proto=nubo, otherserv=Media, txtvers=1
const std::string findOfMedia =
    "ff ff 81 00 00 00 00 50 00 00 00 01 01 01 02 00 e0 00 00 00 "
    "00 00 00 10 "
    "00 00 00 01 ff fe ff ff ff 00 00 78 ff ff ff ff "
    "00 00 00 2c "
    "00 29 01 00 "
    "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
    "0f 6f 74 68 65 72 73 65 72 76 3d 4d 65 64 69 61 "
    "09 74 78 74 76 65 72 73 3d 31 "
    "00";

/// Two units on one segment, "one" with fd00::1 and "other" with fd00::2, both on eth0.
struct TwoUnitsTest : ::testing::Test
{
    TwoUnitsTest()
    {
        connect(one.network(), "eth0", other.network(), "eth0");
        one.useInterface("eth0", "fd00::1");
        other.useInterface("eth0", "fd00::2");
    }

    void startBoth()
    {
        ASSERT_TRUE(one.startup("fd00::1"));
        ASSERT_TRUE(other.startup("fd00::2"));
    }

    /// Waits for the first event about a service of that name and returns it.
    static std::optional<Event> discovery(const TestUnit& unit, const std::string& name)
    {
        if (!eventually([&] { return unit.registry().discovered(name) != 0; }))
            return std::nullopt;
        const std::vector<Event> events = unit.registry().events();
        return *std::find_if(events.begin(), events.end(),
                             [&](const Event& event) { return event.name == name; });
    }

    static bool isGone(const TestUnit& unit, const std::string& name)
    {
        return eventually([&] { return unit.registry().gone(name) != 0; });
    }

    TestUnit one{"one"};
    TestUnit other{"other"};
};

/// Numbers of offers of "Media" and of "Radio" in a datagram.
std::size_t count(const Listener::Datagram& datagram, const std::string& name)
{
    std::size_t result = 0;
    const std::string key = "otherserv=" + name;
    for (std::size_t at = 0; (at = datagram.bytes.find(key, at)) != std::string::npos; ++at)
        ++result;
    return result;
}

}  // namespace

TEST_F(TwoUnitsTest, ServiceIsDiscoveredAsItWasOffered)
{
    startBoth();
    NuboServiceDescription description = describe("Media", "fd00::1", 8080, "media", "1.0.0");
    description.addVersion("~2.1.0");
    description.addCategory("audio");
    description.addCategory("video");
    description.setL4Proto(OptionL4Protocol::UDP);

    EXPECT_TRUE(one.discovery().addService(description));

    const std::optional<Event> event = discovery(other, "Media");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->uuid, "uuid-1");
    const NuboServiceDescription& discovered = event->description;
    EXPECT_EQ(discovered.getName(), "Media");
    EXPECT_THAT(discovered.getVersions(), ElementsAre("1.0.0", "~2.1.0"));
    EXPECT_THAT(discovered.getCategories(), ElementsAre("audio", "video"));
    EXPECT_EQ(discovered.getIpAddressString(), "fd00::1");
    EXPECT_EQ(discovered.getPort(), 8080);
    EXPECT_EQ(discovered.getL4Proto(), OptionL4Protocol::UDP);
    EXPECT_EQ(discovered.getUri(), "http://[fd00::1]:8080/Media/");
    EXPECT_EQ(discovered.getLocalUuid(), "") << "that of the offering registry stays there";
}

TEST_F(TwoUnitsTest, BothDirectionsWorkAtOnce)
{
    startBoth();

    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    other.discovery().addService(describe("Navi", "fd00::2", 9090, "navi"));

    ASSERT_TRUE(discovery(other, "Media"));
    ASSERT_TRUE(discovery(one, "Navi"));
    EXPECT_EQ(discovery(one, "Navi")->description.getUri(), "http://[fd00::2]:9090/Navi/");
    EXPECT_EQ(one.registry().eventCount(), 1u) << "nothing of its own";
    EXPECT_EQ(other.registry().eventCount(), 1u);
}

TEST_F(TwoUnitsTest, RepeatedOffersAreReportedOnce)
{
    startBoth();
    Listener listener(other.network(), "eth0");

    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));

    EXPECT_TRUE(listener.hears(6));
    EXPECT_EQ(other.registry().eventCount(), 1u);
}

TEST_F(TwoUnitsTest, RemovedServiceIsGoneOnceWithTheRegistrysIdentifier)
{
    startBoth();
    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    ASSERT_TRUE(discovery(other, "Media"));
    Listener listener(other.network(), "eth0");

    EXPECT_TRUE(one.discovery().removeService("media"));

    ASSERT_TRUE(isGone(other, "Media"));
    EXPECT_EQ(other.registry().events().back().uuid, "uuid-1");
    EXPECT_TRUE(eventually([&] { return listener.datagrams().size() >= 3; })) << "stop-offers";
    EXPECT_TRUE(keeps([&] { return other.registry().eventCount() == 2; }, std::chrono::seconds(2)));
}

TEST_F(TwoUnitsTest, SameServiceAddedAgainIsDiscoveredAgain)
{
    startBoth();
    const NuboServiceDescription description = describe("Media", "fd00::1", 8080, "media");
    one.discovery().addService(description);
    ASSERT_TRUE(discovery(other, "Media"));
    one.discovery().removeService("media");
    ASSERT_TRUE(isGone(other, "Media"));

    EXPECT_TRUE(one.discovery().addService(description));

    EXPECT_TRUE(eventually([&] { return other.registry().discovered("Media") == 2; }));
}

TEST_F(TwoUnitsTest, UnitThatStartsLaterLearnsWhatIsAnnounced)
{
    ASSERT_TRUE(one.startup("fd00::1"));
    Listener listener(other.network(), "eth0");
    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    ASSERT_TRUE(listener.hears(5)) << "the beginning is over";

    ASSERT_TRUE(other.startup("fd00::2"));

    EXPECT_TRUE(discovery(other, "Media"));
}

TEST_F(TwoUnitsTest, InterfaceThatComesLaterBringsTheUnitsTogether)
{
    other.removeInterface("eth0", "fd00::2");
    startBoth();
    Listener listener(other.network(), "eth0");
    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    ASSERT_TRUE(listener.hears(1));
    EXPECT_THAT(other.registry().events(), IsEmpty());

    other.addInterface("eth0", "fd00::2");

    EXPECT_TRUE(discovery(other, "Media"));
}

TEST_F(TwoUnitsTest, ShutdownWithdrawsTheServicesInTheirMainPhase)
{
    startBoth();
    Listener listener(other.network(), "eth0");
    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    ASSERT_TRUE(listener.hears(5)) << "the main phase has begun";

    one.shutdown();

    EXPECT_TRUE(isGone(other, "Media"));
}

TEST_F(TwoUnitsTest, UnitThatStartsAgainAnnouncesAndHearsAgain)
{
    startBoth();
    one.shutdown();
    ASSERT_TRUE(one.startup("fd00::1"));

    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    other.discovery().addService(describe("Navi", "fd00::2", 9090, "navi"));

    EXPECT_TRUE(discovery(other, "Media"));
    EXPECT_TRUE(discovery(one, "Navi"));
}

TEST_F(TwoUnitsTest, UnitThatFallsSilentIsGoneWhenTheTimeToLiveIsOver)
{
    startBoth();
    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    ASSERT_TRUE(discovery(other, "Media"));

    one.removeInterface("eth0", "fd00::1");
    SDClock::turn(121 * 1000000);

    EXPECT_TRUE(isGone(other, "Media"));
    EXPECT_EQ(other.registry().eventCount(), 2u);
}

TEST_F(TwoUnitsTest, SearchIsSentFourTimesAndFindsTheService)
{
    startBoth();
    Listener listener(other.network(), "eth0");
    NuboServiceDescription wanted;
    wanted.setName("Media");

    EXPECT_TRUE(one.discovery().findService(wanted));

    ASSERT_TRUE(listener.hears(4));
    for (std::size_t i = 0; i < 4; ++i) {
        std::string find = findOfMedia;
        find.replace(3 * 11, 2, "0" + std::to_string(i + 1));
        EXPECT_EQ(listener.bytes().at(i), find);
    }
    EXPECT_TRUE(keeps([&] { return listener.datagrams().size() == 4; }, std::chrono::milliseconds(1500)));
}

TEST_F(TwoUnitsTest, SearchedServiceIsDiscovered)
{
    startBoth();
    NuboServiceDescription wanted;
    wanted.setName("Media");
    one.discovery().findService(wanted);

    other.discovery().addService(describe("Media", "fd00::2", 8080, "media"));

    EXPECT_TRUE(discovery(one, "Media"));
    EXPECT_EQ(one.registry().eventCount(), 1u);
}

/// The cyclic offers of two services share a datagram; an answer has a separate one.
TEST_F(TwoUnitsTest, SearchForAnAnnouncedServiceIsAnsweredOnceAfterFiftyMilliseconds)
{
    ASSERT_TRUE(one.startup("fd00::1"));
    Listener listener(other.network(), "eth0");
    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    one.discovery().addService(describe("Radio", "fd00::1", 8081, "radio"));
    const auto isCyclic = [](const Listener::Datagram& datagram) {
        return count(datagram, "Media") == 1 && count(datagram, "Radio") == 1;
    };
    const auto answers = [&] {
        return std::count_if(listener.datagrams().begin(), listener.datagrams().end(),
                             [&](const auto& datagram) { return !isCyclic(datagram); });
    };
    ASSERT_TRUE(
        eventually([&] { return !listener.datagrams().empty() && isCyclic(listener.datagrams().back()); }));
    listener.clear();
    Speaker speaker(other.network(), "eth0", "fd00::2");

    const auto begin = std::chrono::steady_clock::now();
    speaker.send(fromHex(findOfMedia));

    EXPECT_TRUE(eventually([&] { return answers() > 0; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_EQ(count(listener.datagrams().back(), "Media"), 1u);
    EXPECT_EQ(count(listener.datagrams().back(), "Radio"), 0u);
    EXPECT_TRUE(keeps([&] { return answers() == 1; }, std::chrono::milliseconds(500)));
}

TEST_F(TwoUnitsTest, FiftyServicesAtOnceAreAllDiscoveredAndAllGone)
{
    startBoth();
    constexpr std::size_t number = 50;
    for (std::size_t i = 0; i < number; ++i) {
        const std::string name = "Service" + std::to_string(i);
        EXPECT_TRUE(one.discovery().addService(
            describe(name, "fd00::1", static_cast<unsigned short>(8000 + i), name)));
    }

    EXPECT_TRUE(eventually([&] { return other.registry().eventCount() == number; }));
    for (std::size_t i = 0; i < number; ++i)
        EXPECT_EQ(other.registry().discovered("Service" + std::to_string(i)), 1u) << i;

    for (std::size_t i = 0; i < number; ++i)
        EXPECT_TRUE(one.discovery().removeService("Service" + std::to_string(i)));
    EXPECT_TRUE(eventually([&] { return other.registry().eventCount() == 2 * number; }));
    for (std::size_t i = 0; i < number; ++i)
        EXPECT_EQ(other.registry().gone("Service" + std::to_string(i)), 1u) << i;
}

TEST_F(TwoUnitsTest, NormalOperationLogsNoComplaint)
{
    const LogCatcher log;
    startBoth();
    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    ASSERT_TRUE(discovery(other, "Media"));
    one.discovery().removeService("media");
    ASSERT_TRUE(isGone(other, "Media"));
    one.shutdown();
    other.shutdown();

    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST(UnitsTest, UnitWithTwoPortsOnOneSegmentNeverDiscoversItself)
{
    Segment segment;
    TestUnit one("one");
    TestUnit other("other");
    segment.plug(one.network(), "eth0");
    segment.plug(one.network(), "eth1");
    segment.plug(other.network(), "eth0");
    one.useInterface("eth0", "fd00::1");
    one.useInterface("eth1", "fe80::1");
    other.useInterface("eth0", "fd00::2");
    ASSERT_TRUE(one.startup("fd00::1"));
    ASSERT_TRUE(other.startup("fd00::2"));
    Listener listener(one.network(), "eth0");

    one.discovery().addService(describe("Media", "fd00::1", 8080, "media"));
    EXPECT_TRUE(eventually([&] { return other.registry().discovered("Media") == 2; })) << "by each port";
    EXPECT_TRUE(listener.hears(5)) << "from the other port";
    other.discovery().addService(describe("Navi", "fd00::2", 9090, "navi"));
    EXPECT_TRUE(eventually([&] { return one.registry().discovered("Navi") == 1; }));

    EXPECT_EQ(one.registry().eventCount(), 1u);
}

TEST(UnitsTest, EachNeighbourLearnsTheAddressOfItsOwnLink)
{
    TestUnit middle("middle");
    TestUnit left("left");
    TestUnit right("right");
    connect(middle.network(), "eth0", left.network(), "eth0");
    connect(middle.network(), "eth1", right.network(), "eth0");
    middle.useInterface("eth0", "fd01::1");
    middle.useInterface("eth1", "fd02::1");
    left.useInterface("eth0", "fd01::2");
    right.useInterface("eth0", "fd02::2");
    ASSERT_TRUE(middle.startup("fd01::1"));
    ASSERT_TRUE(left.startup("fd01::2"));
    ASSERT_TRUE(right.startup("fd02::2"));

    middle.discovery().addService(describe("Media", "fd01::1", 8080, "media"));

    EXPECT_TRUE(eventually([&] { return left.registry().discovered("Media") == 1; }));
    EXPECT_TRUE(eventually([&] { return right.registry().discovered("Media") == 1; }));
    EXPECT_EQ(left.registry().events().front().address, "fd01::1");
    EXPECT_EQ(right.registry().events().front().address, "fd02::1");
    EXPECT_EQ(right.registry().events().front().description.getUri(), "http://[fd02::1]:8080/Media/");
}

TEST(UnitsTest, LinkLocalUnitsTellAddressesWithoutScopeAndInternalServicesToo)
{
    TestUnit one("one");
    TestUnit other("other");
    connect(one.network(), "eth0", other.network(), "eth0");
    one.network().addAddress("eth0", "fe80::1/64");
    other.network().addAddress("eth0", "fe80::2/64");
    one.addInterface("eth0", "fe80::1");
    other.addInterface("eth0", "fe80::2%eth0");
    ASSERT_TRUE(one.startup("fe80::1"));
    ASSERT_TRUE(other.startup("fe80::2"));

    one.discovery().addService(describe("Media", "fe80::1", 47000, "media"));

    EXPECT_TRUE(eventually([&] { return other.registry().discovered("Media") == 1; }));
    EXPECT_EQ(other.registry().events().front().address, "fe80::1");
    EXPECT_EQ(other.registry().events().front().description.getUri(), "http://[fe80::1]:47000/Media/");
}

}  // namespace Nubo::ServiceDiscovery::Testing
