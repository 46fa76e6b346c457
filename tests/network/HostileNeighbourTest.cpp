#include "support/CollidingNames.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Clock.h>
#include <Poco/Delegate.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// A neighbour that knows the source code, but no secret:
///
///     attacker ──eth0── unit ──eth1── other unit, observer
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::Not;

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;
using std::chrono::seconds;

// An optimised build must keep what the library promises; other builds are slower, and get less of
// everything.
#if defined(NDEBUG)
constexpr bool isFast = !isSanitized;
#else
constexpr bool isFast = false;
#endif
constexpr Milliseconds longestGap{isFast ? 1500 : 4000};  // between two cyclic offers
constexpr std::size_t placesOfAName = 4096;

/// An offer of the attacker, as a packet. A datagram can hold many.
std::string offerOf(const std::string& name, std::size_t port, const std::string& ttl = "00 00 78")
{
    Packets::Entry entry;
    entry.ttl = ttl;
    const std::string endpoint = "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 66 00 06"_bytes +
                                 Packets::bigEndian16(port);
    return Packets::packet(entry.bytes(), endpoint + Packets::offerConfiguration(name));
}

/// A datagram full of searches for one service.
std::string findsOf(const std::string& name, std::size_t count)
{
    const Packets::Entry entry{"00", "00 00 01", "ff ff", "00 00 78"};
    std::string entries;
    for (std::size_t i = 0; i < count; ++i)
        entries += entry.bytes();
    return Packets::packet(entries,
                           Packets::configurationOption({"l6proto=nubo", "otherserv=" + name, "txtvers=1"}));
}

/// Measures the time between the offers of a service that are heard.
class OfferWatch
{
public:
    OfferWatch(const Namespace& network, const std::string& interface, const std::string& name)
        : m_listener(network, interface)
        , m_text("otherserv=" + name)
        , m_thread([this] { run(); })
    {}
    ~OfferWatch() { end(); }

    OfferWatch(const OfferWatch&) = delete;
    OfferWatch& operator=(const OfferWatch&) = delete;

    /// The longest time without an offer so far.
    Milliseconds end()
    {
        m_isOver = true;
        if (m_thread.joinable())
            m_thread.join();
        return m_longest;
    }

private:
    void run()
    {
        auto last = std::chrono::steady_clock::now();
        for (bool isLast = false; !isLast;) {
            isLast = m_isOver;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            const auto now = std::chrono::steady_clock::now();
            m_longest = std::max<Milliseconds>(m_longest, now - last);
            const auto& heard = m_listener.datagrams();
            if (std::any_of(heard.begin(), heard.end(), [&](const Listener::Datagram& datagram) {
                    return datagram.bytes.find(m_text) != std::string::npos;
                }))
                last = now;
            m_listener.clear();
        }
    }

    Listener m_listener;
    const std::string m_text;
    std::atomic<bool> m_isOver{false};
    Milliseconds m_longest{0};
    std::thread m_thread;
};

/// A subscriber that is slow when a service is gone.
class SlowSubscriber
{
public:
    explicit SlowSubscriber(ServiceDiscovery& discovery) : m_discovery(discovery)
    {
        m_discovery.ServiceListChanged += Poco::delegate(this, &SlowSubscriber::onServiceListChanged);
    }
    ~SlowSubscriber()
    {
        m_discovery.ServiceListChanged -= Poco::delegate(this, &SlowSubscriber::onServiceListChanged);
    }

    SlowSubscriber(const SlowSubscriber&) = delete;
    SlowSubscriber& operator=(const SlowSubscriber&) = delete;

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_GONE)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    ServiceDiscovery& m_discovery;
};

struct HostileNeighbourTest : ::testing::Test
{
    HostileNeighbourTest()
    {
        connect(unit.network(), "eth0", network, "eth0");
        connect(unit.network(), "eth1", other.network(), "eth0");
        unit.useInterface("eth0", "fd00::1");
        unit.useInterface("eth1", "fd01::1");
        other.useInterface("eth0", "fd01::2");
        for (std::size_t i = 0; i < addresses; ++i) {
            network.addAddress("eth0", addressOf(i) + "/64");
            attackers.push_back(std::make_unique<Speaker>(network, "eth0", addressOf(i)));
        }
        EXPECT_TRUE(unit.startup("fd00::1"));
        EXPECT_TRUE(other.startup("fd01::2"));
        EXPECT_TRUE(unit.discovery().addService(describe("Own", "fd00::1", 8080, "own")));
        EXPECT_TRUE(other.discovery().addService(describe("Standing", "fd01::2", 8080, "standing")));
        EXPECT_TRUE(eventually([&] { return known("Standing") == 1 && ownIsCyclic(); }));
    }

    static std::string addressOf(std::size_t number) { return "fd00::" + std::to_string(6600 + number); }

    std::size_t known(const std::string& name) const
    {
        return unit.registry().discovered(name) - unit.registry().gone(name);
    }
    bool ownIsCyclic() { return other.registry().discovered("Own") == 1; }

    /// Sends the packets from that address until the unit has raised that many more events.
    void attack(const std::vector<std::string>& packets, std::size_t events, std::size_t from = 0)
    {
        constexpr std::size_t datagramSize = 1200;
        constexpr std::size_t datagramsAtOnce = 20;  // fit into the smallest buffer
        const std::size_t wanted = unit.registry().eventCount() + events;
        std::size_t next = 0;
        while (next < packets.size()) {
            const std::size_t begin = next;
            const std::size_t before = unit.registry().eventCount();
            for (std::size_t i = 0; i < datagramsAtOnce && next < packets.size(); ++i) {
                std::string datagram = packets[next++];
                while (next < packets.size() && datagram.size() + packets[next].size() <= datagramSize)
                    datagram += packets[next++];
                attackers[from]->send(datagram);
            }
            const std::size_t expected = std::min(wanted, before + next - begin);
            if (!eventually([&] { return unit.registry().eventCount() >= expected; }, seconds(2)))
                next = begin;  // some got lost on the way
            ASSERT_FALSE(clock.isElapsed(mostTime)) << "the attack itself";
        }
    }

    /// Waits until what has been sent so far has been handled.
    void settle()
    {
        const std::string name = "Mark" + std::to_string(++marks);
        EXPECT_TRUE(eventually([&] {
            attackers.front()->send(offerOf(name, 1));
            return eventually([&] { return known(name) == 1; }, std::chrono::milliseconds(200));
        }));
    }

    static constexpr std::size_t addresses = 14;
    static constexpr Poco::Clock::ClockDiff mostTime = 60'000'000;  // microseconds
    TestUnit unit{"unit"};
    TestUnit other{"other"};
    Namespace network{"attacker"};
    std::vector<std::unique_ptr<Speaker>> attackers;
    std::size_t marks = 0;
    Poco::Clock clock;
};

}  // namespace

TEST_F(HostileNeighbourTest, NamesThatWereChosenToCollideDoNoHarm)
{
    constexpr std::size_t count = isFast ? 9000 : 3000;
    std::vector<std::string> offers;
    for (const std::string& name : collidingNames(count))
        offers.push_back(offerOf(name, 8080));
    const std::size_t memoryBefore = heapInUse();
    OfferWatch watch(other.network(), "eth0", "Own");

    attack(offers, count);
    EXPECT_TRUE(other.discovery().addService(describe("New", "fd01::2", 8081)));
    EXPECT_TRUE(eventually([&] { return known("New") == 1; }));

    EXPECT_LE(watch.end().count(), longestGap.count());
    EXPECT_LE(heapInUse(), memoryBefore + count * 8192) << "events that this test keeps included";
    EXPECT_EQ(unit.registry().gone("Standing"), 0u);
}

TEST_F(HostileNeighbourTest, ManyInstancesAndSearchesForThemDeafenNoUnit)
{
    constexpr std::size_t instances = placesOfAName / 2;  // per address
    constexpr std::size_t datagrams = isFast ? 100 : 6;
    constexpr std::size_t findsEach = 3500;
    std::vector<std::string> offers;
    for (std::size_t port = 1; port <= instances; ++port)
        offers.push_back(offerOf("Own", port));
    OfferWatch watch(other.network(), "eth0", "Own");

    attack(offers, instances);
    for (std::size_t i = 0; i < datagrams; ++i) {
        attackers.front()->send(findsOf("Own", findsEach));
        if (i % 2 == 1)
            settle();
    }
    EXPECT_TRUE(other.discovery().addService(describe("New", "fd01::2", 8081)));
    EXPECT_TRUE(eventually([&] { return known("New") == 1; }));

    EXPECT_LE(watch.end().count(), longestGap.count());
    EXPECT_EQ(unit.registry().discovered("Own"), instances);
    EXPECT_EQ(unit.registry().gone("Own"), 0u);
    EXPECT_EQ(unit.registry().gone("Standing"), 0u);
}

TEST_F(HostileNeighbourTest, FullNameIsOpenAgainAfterTenSeconds)
{
    OfferWatch watch(other.network(), "eth0", "Own");
    const auto begin = std::chrono::steady_clock::now();
    std::size_t port = 0;
    std::size_t free = placesOfAName;
    // Each address gets half of what is free, and then what is left.
    for (std::size_t from = 0; free != 0; ++from) {
        const std::size_t share = std::max<std::size_t>(free / 2, 1);
        std::vector<std::string> offers;
        for (std::size_t i = 0; i < share; ++i)
            offers.push_back(offerOf("Media", ++port, "ff ff ff"));
        ASSERT_LT(from, addresses);
        attack(offers, share, from);
        free -= share;
    }
    ASSERT_EQ(known("Media"), placesOfAName);

    EXPECT_TRUE(other.discovery().addService(describe("Media", "fd01::2", 8081)));
    const auto isOthersKnown = [&] {
        const std::vector<Registry::Event> events = unit.registry().events(placesOfAName);
        return std::any_of(events.begin(), events.end(), [](const Registry::Event& event) {
            return event.name == "Media" && event.address == "fd01::2";
        });
    };
    EXPECT_TRUE(eventually(isOthersKnown, seconds(12)));

    EXPECT_GE(Milliseconds(std::chrono::steady_clock::now() - begin).count(), 9900.0)
        << "nothing is displaced before";
    EXPECT_TRUE(eventually([&] { return unit.registry().gone("Media") == 1; }));
    EXPECT_EQ(known("Media"), placesOfAName);
    EXPECT_LE(watch.end().count(), longestGap.count());
}

TEST_F(HostileNeighbourTest, FullTableIsOpenAgainAfterTenSeconds)
{
    if (!isFast)
        GTEST_SKIP() << "filling it takes too long";
    OfferWatch watch(other.network(), "eth0", "Own");
    std::size_t number = 0;
    std::size_t free = 131072 - 1;
    for (std::size_t from = 0; from < addresses; ++from) {
        std::vector<std::string> offers;
        for (std::size_t i = 0; i < free / 2; ++i)
            offers.push_back(offerOf("Service" + std::to_string(++number), 8080, "ff ff ff"));
        attack(offers, offers.size(), from);
        free -= offers.size();
    }
    ASSERT_LT(free, 20u);

    for (unsigned short port = 1; port <= 30; ++port)
        EXPECT_TRUE(other.discovery().addService(describe("New" + std::to_string(port), "fd01::2", port)));
    EXPECT_TRUE(eventually([&] { return known("New30") == 1; }, seconds(12)));

    for (unsigned short port = 1; port <= 30; ++port)
        EXPECT_EQ(known("New" + std::to_string(port)), 1u);
    EXPECT_LE(watch.end().count(), longestGap.count());
}

TEST_F(HostileNeighbourTest, ThousandsOfServicesThatRunOutAtOnceHoldNoOwnOfferUp)
{
    constexpr std::size_t count = isFast ? 6000 : 2000;
    const SlowSubscriber subscriber(unit.discovery());
    std::vector<std::string> offers;
    for (std::size_t i = 0; i < count; ++i)
        offers.push_back(offerOf("Service" + std::to_string(i), 8080, "00 00 05"));
    OfferWatch watch(other.network(), "eth0", "Own");

    attack(offers, count);
    EXPECT_TRUE(eventually([&] { return known("Service0") == 0; }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(unit.discovery().addService(describe("Added", "fd00::1", 8081)));
    EXPECT_LE(Milliseconds(std::chrono::steady_clock::now() - begin).count(), longestGap.count());
    EXPECT_TRUE(eventually([&] { return unit.registry().eventCount() >= 2 * count + 1; }, seconds(30)));

    EXPECT_LE(watch.end().count(), longestGap.count());
    EXPECT_EQ(unit.registry().gone("Standing"), 0u);
    EXPECT_EQ(unit.registry().eventCount(), 2 * count + 1) << "each is told once";
    EXPECT_EQ(other.registry().gone("Own"), 0u);
}

namespace {

/// A neighbour that sends back what the unit offers.
struct ReflectedOfferTest : HostileNeighbourTest
{
    ReflectedOfferTest()
    {
        EXPECT_TRUE(eventually([&] { return !ownOffers().empty(); }));
        log.clear();
    }

    /// What the attacker has heard of the unit's offers.
    std::vector<std::string> ownOffers()
    {
        std::vector<std::string> offers;
        for (const Listener::Datagram& datagram : listener.datagrams()) {
            if (datagram.bytes.find("otherserv=Own") != std::string::npos)
                offers.push_back(datagram.bytes);
        }
        return offers;
    }
    std::string ownOffer() { return ownOffers().back(); }

    Listener listener{network, "eth0"};
    LogCatcher log;
};

constexpr auto reflected =
    "Warning: SDStateMachine::handleOFFER: \"Own\" @ [fd00::1]:8080 is a Service of this unit, sent back to "
    "it. Such offers are not discovered; this is not logged again.";

}  // namespace

TEST_F(ReflectedOfferTest, IsNotDiscoveredAndLoggedOnce)
{
    for (int i = 0; i < 5; ++i)
        attackers.front()->send(ownOffer());
    settle();
    attackers[1]->send(ownOffer());
    settle();

    EXPECT_EQ(unit.registry().discovered("Own"), 0u);
    EXPECT_EQ(log.count(reflected), 1u);
}

TEST_F(ReflectedOfferTest, ThatWasDiscoveredBeforeTheServiceWasAddedGoesAndDoesNotComeBack)
{
    std::string replayed = ownOffer();
    const std::size_t name = replayed.find("otherserv=Own");
    ASSERT_NE(name, std::string::npos);
    replayed.replace(name, std::string("otherserv=Own").size(), "otherserv=New");
    attackers.front()->send(replayed);
    ASSERT_TRUE(eventually([&] { return known("New") == 1; }));

    EXPECT_TRUE(unit.discovery().addService(describe("New", "fd00::1", 8080, "new")));
    const bool isGone = eventually([&] {
        attackers.front()->send(replayed);
        return unit.registry().gone("New") == 1;
    });
    attackers.front()->send(replayed);
    settle();

    EXPECT_TRUE(isGone);
    EXPECT_EQ(unit.registry().discovered("New"), 1u) << "once";
}

TEST_F(ReflectedOfferTest, IsRecognisedByAnyOfTheUnitsAddresses)
{
    std::string offer = ownOffer();
    const std::string here = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"_bytes;
    const std::string there = "fd 01 00 00 00 00 00 00 00 00 00 00 00 00 00 01"_bytes;
    const std::size_t position = offer.find(here);
    ASSERT_NE(position, std::string::npos);
    attackers.front()->send(offer.replace(position, here.size(), there));
    settle();

    EXPECT_EQ(unit.registry().discovered("Own"), 0u);
}

TEST_F(ReflectedOfferTest, IsNoneWhenNameOrPortOrAddressIsAnother)
{
    const std::string address = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01";
    attackers.front()->send(offerOf("Own", 8080));                          // at the attacker's address
    attackers.front()->send(Packets::offer("Other", "00 00 78", address));  // a name that is not announced

    EXPECT_TRUE(eventually([&] { return known("Own") == 1 && known("Other") == 1; }));
    EXPECT_THAT(log.warnings(), Not(Contains(reflected)));
}

TEST_F(ReflectedOfferTest, LeavesNothingBehindWhenTheUnitShutsDown)
{
    for (int i = 0; i < 5; ++i)
        attackers.front()->send(ownOffer());
    settle();
    // Four offers, and then cyclic ones: only these are withdrawn.
    EXPECT_TRUE(eventually([&] { return ownOffers().size() >= 6; }));
    const std::size_t before = unit.registry().eventCount();

    unit.shutdown();

    EXPECT_EQ(unit.registry().eventCount(), before);
    EXPECT_TRUE(eventually([&] { return other.registry().gone("Own") == 1; }));
    EXPECT_EQ(unit.registry().discovered("Own"), 0u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
