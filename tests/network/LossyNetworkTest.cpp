#include "DataLayer/SDClock.h"
#include "support/Descriptions.h"
#include "support/DiscoveryStopwatch.h"
#include "support/Listener.h"
#include "support/LossyLink.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Timespan.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Each;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint32_t usualSeed = 2;
constexpr Poco::Clock::ClockDiff microsecondsPerSecond = 1000000;

/// Two namespaces on a lossy link, "one" with fd00::1 and "other" with fd00::2.
struct LossyPair
{
    explicit LossyPair(std::uint32_t seed = usualSeed) : link(one, "eth0", other, "eth0", seed)
    {
        one.addAddress("eth0", "fd00::1/64");
        other.addAddress("eth0", "fd00::2/64");
    }

    Namespace one{"one"};
    Namespace other{"other"};
    LossyLink link;
};

/// The same with a speaker in one and a listener in the other.
struct SpokenPair : LossyPair
{
    using LossyPair::LossyPair;

    /// Sends that many datagrams; returns whether each of them passed or was lost.
    bool send(std::uint64_t count)
    {
        for (std::uint64_t i = 0; i < count; ++i)
            speaker.send(std::to_string(i));
        return eventually([&] { return link.count().passed + link.count().lost == count; });
    }

    Speaker speaker{one, "eth0", "fd00::1"};
    Listener listener{other, "eth0"};
};

struct LossyLinkTest : ::testing::Test, SpokenPair
{};

/// Two units on a lossy link; the parameter is the percentage of datagrams lost each way.
struct LossyNetworkTest : ::testing::TestWithParam<int>
{
    LossyNetworkTest()
    {
        one.useInterface("eth0", "fd00::1");
        other.useInterface("eth0", "fd00::2");
        link.lose(loss);
    }

    void startBoth()
    {
        ASSERT_TRUE(one.startup("fd00::1"));
        ASSERT_TRUE(other.startup("fd00::2"));
    }

    /// Starts both and announces the services; returns whether the other unit learns of all of them.
    bool startAndMeet(const std::vector<std::string>& names)
    {
        startBoth();
        announce(names);
        return allAreDiscovered(names);
    }

    void announce(const std::vector<std::string>& names)
    {
        for (const std::string& name : names)
            ASSERT_TRUE(one.discovery().addService(describe(name, "fd00::1", 8080, name)));
    }

    /// Waits until the other unit knows all services; returns whether it does.
    bool allAreDiscovered(const std::vector<std::string>& names) const
    {
        return eventually([&] { return other.registry().eventCount() >= names.size(); }, seconds(30));
    }

    /// Number of such events for each service.
    std::vector<std::size_t> counts(ServiceDiscovery::EventType type,
                                    const std::vector<std::string>& names) const
    {
        std::vector<std::size_t> result;
        for (const std::string& name : names)
            result.push_back(other.registry().count(type, name));
        return result;
    }

    const double loss = GetParam() / 100.0;
    TestUnit one{"one"};
    TestUnit other{"other"};
    LossyLink link{one.network(), "eth0", other.network(), "eth0", usualSeed};
};

/// "Service000", "Service001", …: none is the beginning of another.
std::vector<std::string> serviceNames(std::size_t number)
{
    std::vector<std::string> names;
    for (std::size_t i = 0; i < number; ++i) {
        const std::string digits = std::to_string(i);
        names.push_back("Service" + std::string(3 - digits.size(), '0') + digits);
    }
    return names;
}

bool holds(const Listener::Datagram& datagram, const std::string& name)
{
    return datagram.bytes.find("otherserv=" + name) != std::string::npos;
}

bool allAreHeard(Listener& listener, const std::vector<std::string>& names)
{
    const std::vector<Listener::Datagram>& heard = listener.datagrams();
    return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        return std::any_of(heard.begin(), heard.end(),
                           [&](const Listener::Datagram& datagram) { return holds(datagram, name); });
    });
}

/// Number of offers of each service until the first one got through. The session IDs make each datagram
/// unique.
std::map<std::string, std::size_t> neededOffers(const std::vector<std::string>& names, Listener& sent,
                                                Listener& arrived)
{
    const std::vector<std::string> arrivals = arrived.bytes();
    const std::set<std::string> passed(arrivals.begin(), arrivals.end());
    std::map<std::string, std::size_t> needed;
    for (const std::string& name : names) {
        for (const Listener::Datagram& datagram : sent.datagrams()) {
            if (!holds(datagram, name))
                continue;
            ++needed[name];
            if (passed.count(toHex(datagram.bytes)) != 0)
                break;
        }
    }
    return needed;
}

/// Which of a hundred datagrams pass over a link of that seed.
std::vector<std::string> survivors(std::uint32_t seed)
{
    SpokenPair network(seed);
    network.link.lose(0.5);
    EXPECT_TRUE(network.send(100));
    EXPECT_TRUE(network.listener.hears(network.link.count().passed));
    return network.listener.bytes();
}

}  // namespace

TEST_F(LossyLinkTest, EverythingPassesWhenNothingIsToBeLost)
{
    ASSERT_TRUE(send(100));

    EXPECT_TRUE(listener.hears(100));
    EXPECT_EQ(link.count().passed, 100u);
    EXPECT_EQ(link.count().lost, 0u);
}

TEST_F(LossyLinkTest, TheShareIsLost)
{
    link.lose(0.3);

    ASSERT_TRUE(send(200));

    EXPECT_NEAR(static_cast<double>(link.count().lost), 60, 33) << "five standard deviations";
    EXPECT_TRUE(listener.hears(link.count().passed));
    EXPECT_EQ(listener.datagrams().size(), link.count().passed);
}

TEST_F(LossyLinkTest, FramesThatPassToTheFirstSideAreTold)
{
    std::mutex mutex;
    std::vector<std::string> frames;
    LossyLink told(one, "eth1", other, "eth1", usualSeed, [&](const std::string& frame) {
        const std::lock_guard<std::mutex> lock(mutex);
        frames.push_back(frame);
    });
    one.addAddress("eth1", "fd01::1/64");
    other.addAddress("eth1", "fd01::2/64");

    Speaker(one, "eth1", "fd01::1").send("to other");
    Speaker(other, "eth1", "fd01::2").send("to one");

    ASSERT_TRUE(eventually([&] { return told.count().passed == 2; }));
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return frames.size() == 1;
    }));
    const std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(frames.at(0).substr(14 + 40 + 8), "to one");
}

TEST_F(LossyLinkTest, OtherDatagramsAndNeighbourDiscoveryPass)
{
    link.lose(1);
    const auto bound = [](const Namespace& network, const std::string& address) {
        const InNamespace inside(network);
        return Poco::Net::DatagramSocket(Poco::Net::SocketAddress(address, discoveryPort + 1));
    };
    Poco::Net::DatagramSocket sender = bound(one, "fd00::1");
    Poco::Net::DatagramSocket receiver = bound(other, "fd00::2");

    sender.sendTo("Media", 5, receiver.address());

    EXPECT_TRUE(receiver.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ));
    EXPECT_EQ(link.count().passed + link.count().lost, 0u);
}

TEST_F(LossyLinkTest, NothingPassesWhileItIsCut)
{
    link.cut();
    speaker.send("before");
    ASSERT_TRUE(eventually([&] { return link.count().lost == 1; }));
    link.mend();
    speaker.send("after");

    ASSERT_TRUE(listener.hears(1));
    EXPECT_EQ(listener.datagrams().front().bytes, "after");
}

TEST(LossyLinksTest, SameSeedLosesTheSameDatagrams)
{
    EXPECT_EQ(survivors(42), survivors(42));
    EXPECT_NE(survivors(42), survivors(43));
}

TEST_P(LossyNetworkTest, EveryServiceIsDiscoveredOnce)
{
    const std::vector<std::string> names = serviceNames(50);

    ASSERT_TRUE(startAndMeet(names));

    EXPECT_THAT(counts(ServiceDiscovery::EventType::SERVICE_DISCOVERED, names), Each(1));
    EXPECT_THAT(counts(ServiceDiscovery::EventType::SERVICE_GONE, names), Each(0));
}

/// Either round is shorter than the time to live of 120 s, both together are longer.
TEST_P(LossyNetworkTest, NothingIsGoneWhileItsOffersComeThroughNowAndThen)
{
    const std::vector<std::string> names = serviceNames(50);
    ASSERT_TRUE(startAndMeet(names));
    Listener listener(other.network(), "eth0");

    for (int round = 0; round < 2; ++round) {
        listener.clear();
        ASSERT_TRUE(eventually([&] { return allAreHeard(listener, names); }, seconds(18)));
        SDClock::turn(100 * microsecondsPerSecond);
    }

    EXPECT_EQ(other.registry().eventCount(), names.size()) << "all discovered and none gone";
}

/// At first, a service is offered and withdrawn in separate datagrams; all three that withdraw it may be
/// lost.
TEST_P(LossyNetworkTest, RemovedServicesAreGoneOnceWhenTheTimeToLiveIsOverAtTheLatest)
{
    const std::vector<std::string> names = serviceNames(50);
    ASSERT_TRUE(startAndMeet(names));
    const auto allAreGone = [&] { return other.registry().eventCount() >= 2 * names.size(); };

    for (const std::string& name : names)
        EXPECT_TRUE(one.discovery().removeService(name));
    if (!eventually(allAreGone, seconds(5)))
        SDClock::turn(121 * microsecondsPerSecond);

    ASSERT_TRUE(eventually(allAreGone));
    EXPECT_THAT(counts(ServiceDiscovery::EventType::SERVICE_GONE, names), Each(1));
}

/// The first four offers of a service have separate datagrams, so that losses are independent: after n
/// offers, 1 - loss^n of the services are known. Later offers share datagrams.
TEST_P(LossyNetworkTest, ServicesAreDiscoveredWithTheOffersThatChanceLetsPass)
{
    constexpr std::size_t alone = 4;
    constexpr std::array<milliseconds, alone + 1> earliest{
        milliseconds(0), milliseconds(100), milliseconds(300), milliseconds(700), milliseconds(700)};
    const std::vector<std::string> names = serviceNames(100);
    DiscoveryStopwatch stopwatch(other.discovery());
    Listener sent(link.relay(), "one");
    Listener arrived(other.network(), "eth0");
    startBoth();

    for (const std::string& name : names) {
        stopwatch.start(name);
        announce({name});
    }
    ASSERT_TRUE(eventually([&] { return stopwatch.stopped() == names.size(); }, seconds(30)));

    const std::map<std::string, std::size_t> needed = neededOffers(names, sent, arrived);
    for (const auto& [name, offers] : needed)
        EXPECT_GE(stopwatch.time(name), earliest.at(std::min(offers, alone + 1) - 1))
            << name << " with offer " << offers;
    for (std::size_t offers = 1; offers <= alone; ++offers) {
        const auto known = std::count_if(needed.begin(), needed.end(),
                                         [&](const auto& service) { return service.second <= offers; });
        const double number = static_cast<double>(names.size());
        const double share = 1 - std::pow(loss, offers);
        const double deviation = std::sqrt(number * share * (1 - share));
        EXPECT_NEAR(static_cast<double>(known), number * share, 5 * deviation + 2) << offers << " offers";
    }
}

INSTANTIATE_TEST_SUITE_P(Loss, LossyNetworkTest, ::testing::Values(10, 30, 50),
                         [](const auto& test) { return std::to_string(test.param) + "Percent"; });

}  // namespace Nubo::ServiceDiscovery::Testing
