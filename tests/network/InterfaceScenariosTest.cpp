#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <KELOEMInterfaceLib/NetlinkDispatcher.h>

#include <Poco/Exception.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::Values;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// A unit is to announce and to hear again at most so long after an address can be used.
constexpr milliseconds soon{3000};

/// Gives all that is waited for three seconds together, in steps of a millisecond. A longer step, for which
/// the machine had no processor to give, counts as `longestStep`: the units had none either.
class Deadline
{
public:
    template <class Condition>
    bool meets(Condition condition)
    {
        auto now = Clock::now();
        while (!condition()) {
            if (m_passed >= soon)
                return false;
            std::this_thread::sleep_for(milliseconds(1));
            const auto before = std::exchange(now, Clock::now());
            m_passed += std::min<Clock::duration>(now - before, longestStep);
        }
        return true;
    }

    milliseconds passed() const { return std::chrono::duration_cast<milliseconds>(m_passed); }

private:
    static constexpr milliseconds longestStep{20};

    Clock::duration m_passed{};
};

/// Goes into the test's XML report.
void record(const std::string& what, std::vector<milliseconds> times)
{
    ASSERT_FALSE(times.empty());
    std::sort(times.begin(), times.end());
    ::testing::Test::RecordProperty(what + "MedianMs", std::to_string(times[times.size() / 2].count()));
    ::testing::Test::RecordProperty(what + "WorstMs", std::to_string(times.back().count()));
}

std::map<std::string, unsigned> groupUsersIn(const Namespace& network)
{
    const InNamespace inside(network);
    return groupUsers();
}

unsigned indexOf(const Namespace& network, const std::string& interface)
{
    const InNamespace inside(network);
    return ::if_nametoindex(interface.c_str());
}

bool isTentative(const Namespace& network, const std::string& interface)
{
    return !shellOutput("ip -n " + network.name() + " -6 address show dev " + interface + " tentative")
                .empty();
}

/// Duplicate address detection takes a second or two on interfaces that are made from now on.
void detectDuplicates(const Namespace& network)
{
    network.setIPv6("default/accept_dad", "1");
    network.setIPv6("default/dad_transmits", "1");
}

/// Interfaces have only the addresses that they are given.
void makeNoAddresses(const Namespace& network)
{
    network.setIPv6("default/addr_gen_mode", "1");
}

/// Without what is logged at every interval.
std::vector<std::string> linesAboveTrace(const LogCatcher& log)
{
    std::vector<std::string> result;
    for (const Poco::Message& message : log.messages()) {
        if (message.getPriority() < Poco::Message::PRIO_TRACE)
            result.push_back(message.getText());
    }
    return result;
}

bool offers(const Listener::Datagram& datagram, const std::string& name)
{
    return datagram.bytes.find(configText("otherserv=" + name)) != std::string::npos;
}

/// Of a service at port 8080.
bool hasEndpoint(const Listener::Datagram& datagram, const std::string& address)
{
    return datagram.bytes.find(Packets::ipv6Option(address)) != std::string::npos;
}

bool hears(Listener& listener, const std::function<bool(const Listener::Datagram&)>& wanted)
{
    const std::vector<Listener::Datagram>& all = listener.datagrams();
    return std::any_of(all.begin(), all.end(), wanted);
}

bool hearsOffer(Listener& listener, const std::string& name)
{
    return hears(listener, [&](const Listener::Datagram& datagram) { return offers(datagram, name); });
}

/// Whether the unit discovers a service that is offered to it every 10 ms.
bool learns(const Registry& registry, const std::string& name, Speaker& speaker, Deadline& deadline)
{
    const std::string offer = Packets::offer(name);
    Clock::time_point next = Clock::now();
    return deadline.meets([&] {
        if (Clock::now() >= next) {
            try {
                speaker.send(offer);
            }
            catch (const Poco::Exception&) {
                // The link may not be ready yet.
            }
            next += milliseconds(10);
        }
        return registry.discovered(name) != 0;
    });
}

/// Whether each of two units discovers a fresh service of the other soon.
template <class Unit, class OtherUnit>
bool meet(Unit& one, const std::string& addressOfOne, OtherUnit& other, const std::string& addressOfOther)
{
    static int number = 0;
    const std::string name = "Fresh" + std::to_string(++number);
    const std::string otherName = "Other" + name;
    Deadline deadline;
    EXPECT_TRUE(one.discovery().addService(describe(name, addressOfOne, 8080, name)));
    EXPECT_TRUE(other.discovery().addService(describe(otherName, addressOfOther, 8080, otherName)));
    const bool isTwoWay = deadline.meets(
        [&] { return one.registry().discovered(otherName) != 0 && other.registry().discovered(name) != 0; });
    one.discovery().removeService(name);
    other.discovery().removeService(otherName);
    return isTwoWay;
}

/// Unit "one" is here and unit "other" there. What they took from the system they have given back when a
/// test is over.
struct InterfacesTest : ::testing::Test
{
    InterfacesTest()
    {
        // Makes the two ends of a link differ in index: if not, the kernel may take a second to use one that
        // has come up.
        network.there.ip("link add spare type bridge");
    }

    /// Both units, with a link between them.
    void startOnLink()
    {
        network.link("eth0", "fd00::1", "fd00::2");
        start();
        ASSERT_TRUE(meet());
    }

    void start(const std::string& addressOfOne = "fd00::1", const std::string& addressOfOther = "fd00::2")
    {
        one.emplace(network.here);
        other.emplace(network.there);
        ASSERT_TRUE(one->startup(addressOfOne));
        ASSERT_TRUE(other->startup(addressOfOther));
    }

    /// Whether both units still, or again, announce and hear.
    bool meet() { return Testing::meet(*one, "fd00::1", *other, "fd00::2"); }

    void offer(NetlinkUnit& unit, const std::string& name, const std::string& address)
    {
        ASSERT_TRUE(unit.discovery().addService(describe(name, address, 8080, name)));
    }

    /// Nothing is left of the interfaces that have gone. A report may still be at work.
    void expectLeft(std::size_t descriptorsOpen, const std::map<std::string, unsigned>& groupUsers) const
    {
        const bool isSettled = eventually(
            [&] { return openDescriptors() == descriptorsOpen && groupUsersIn(network.here) == groupUsers; });
        EXPECT_TRUE(isSettled) << openDescriptors() << " open, " << descriptorsOpen << " before; "
                               << ::testing::PrintToString(groupUsersIn(network.here));
    }

    /// The unit that eth0 there leads to, and that announces "Media", is heard soon and hears.
    void expectAtWork(const Registry& registry) const
    {
        Deadline deadline;
        Listener listener(network.there, "eth0");
        Speaker speaker(network.there, "eth0", "fd00::2");
        EXPECT_TRUE(learns(registry, "Navi", speaker, deadline));
        EXPECT_TRUE(deadline.meets([&] { return hearsOffer(listener, "Media"); }));
    }

    void ip(const std::string& arguments) const { network.here.ip(arguments); }

    /// Both units, of which one announces "Media", until nothing more happens than that.
    void startQuietly()
    {
        network.link("eth0", "fd00::1", "fd00::2");
        start();
        Listener listener(network.there, "eth0");
        offer(*one, "Media", "fd00::1");
        ASSERT_TRUE(listener.hears(6));
    }

    /// What is logged, but for datagrams that are received, until the unit here knows of everything that
    /// happened to its interfaces before.
    std::vector<std::string> logged(const LogCatcher& log) const
    {
        network.link("marker", "fd99::1");
        EXPECT_TRUE(eventually([&] {
            return log.has(
                "Notice: ServiceDiscovery adding Interface \"marker\" with IP \"fd99::1\" for sending.");
        }));
        std::vector<std::string> lines = linesAboveTrace(log);
        const auto isOther = [](const std::string& line) {
            return line.find("\"marker\"") != std::string::npos ||
                   line.rfind("Debug: run: processing ", 0) == 0;
        };
        lines.erase(std::remove_if(lines.begin(), lines.end(), isOther), lines.end());
        return lines;
    }

    void TearDown() override
    {
        one.reset();
        other.reset();
        EXPECT_THAT(groupUsersIn(network.here), IsEmpty());
        EXPECT_THAT(groupUsersIn(network.there), IsEmpty());
        EXPECT_EQ(openDescriptors(), descriptors);
    }

    NetworkPair network;
    std::size_t descriptors = openDescriptors();
    std::optional<NetlinkUnit> one;
    std::optional<NetlinkUnit> other;
};

const std::string hereDown = "ip -n here link set eth0 down;";
const std::string hereUp = "ip -n here link set eth0 up;";
const std::string thereDown = "ip -n there link set eth0 down;";
const std::string thereUp = "ip -n there link set eth0 up;";
const std::string addressGoes = "ip -n here address delete fd00::1/64 dev eth0;";
const std::string addressComes = "ip -n here address add fd00::1/64 dev eth0 nodad;";

/// A way for a link to go and to come back, as often as told.
struct Flap
{
    std::string name;
    std::string down;  ///< shell commands
    std::string up;
    int times;
    bool underTraffic = false;

    friend std::ostream& operator<<(std::ostream& stream, const Flap& row) { return stream << row.name; }
};

constexpr auto rowName = [](const auto& row) { return row.param.name; };

struct LinkFlapTest : InterfacesTest, ::testing::WithParamInterface<Flap>
{
    /// Each unit announces services that the other one is to know throughout.
    void startTraffic()
    {
        for (int i = 0; i < services; ++i) {
            offer(*one, "Here" + std::to_string(i), "fd00::1");
            offer(*other, "There" + std::to_string(i), "fd00::2");
        }
        ASSERT_TRUE(eventually([&] { return knowsEachService(); }));
    }

    /// Each once, and none gone.
    bool knowsEachService() const
    {
        for (int i = 0; i < services; ++i) {
            const std::string here = "Here" + std::to_string(i);
            const std::string there = "There" + std::to_string(i);
            if (one->registry().discovered(there) != 1 || one->registry().gone(there) != 0 ||
                other->registry().discovered(here) != 1 || other->registry().gone(here) != 0)
                return false;
        }
        return true;
    }

    static constexpr int services = 20;
};

/// While it exists, two interfaces go down and come up all the time, by the work of one process: one that is
/// being made holds every descriptor for a moment.
class Flapping
{
public:
    Flapping(const Namespace& network, const std::string& interface, const std::string& otherInterface)
        : m_process(::popen(("ip -n " + network.name() + " -batch -").c_str(), "w"))
        , m_thread([=] {
            for (int i = 0; !m_isOver; ++i) {
                const std::string& link = i % 2 == 0 ? interface : otherInterface;
                std::fputs(("link set " + link + " down\nlink set " + link + " up\n").c_str(), m_process);
                std::fflush(m_process);
                std::this_thread::sleep_for(milliseconds(1));
            }
        })
    {}
    ~Flapping()
    {
        m_isOver = true;
        m_thread.join();
        ::pclose(m_process);
    }

    Flapping(const Flapping&) = delete;
    Flapping& operator=(const Flapping&) = delete;

private:
    std::FILE* const m_process;
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

/// The unit here has two ports on a segment, the other unit one.
struct SegmentTest : InterfacesTest
{
    SegmentTest()
    {
        segment.plug(network.here, "eth0");
        segment.plug(network.here, "eth1");
        segment.plug(network.there, "eth0");
        descriptors = openDescriptors();
    }

    void addAddresses(const std::string& here0, const std::string& here1, const std::string& there0) const
    {
        network.here.addAddress("eth0", here0 + "/64");
        network.here.addAddress("eth1", here1 + "/64");
        network.there.addAddress("eth0", there0 + "/64");
    }

    Segment segment;
};

/// How an address is replaced by another.
struct Renumbering
{
    std::string name;
    std::vector<std::string> steps;

    friend std::ostream& operator<<(std::ostream& stream, const Renumbering& row)
    {
        return stream << row.name;
    }
};

struct RenumberingTest : InterfacesTest, ::testing::WithParamInterface<Renumbering>
{
    void renumber() const
    {
        for (const std::string& step : GetParam().steps)
            ip(step);
    }
};

/// The platform reports an address that is still being checked, of the only interface or of one of two.
struct TentativeReportTest : InterfacesTest, ::testing::WithParamInterface<bool>
{};

/// A link-local address as a platform reports it.
struct LinkLocalReport
{
    std::string name;
    std::string interface;
    std::string scope;

    friend std::ostream& operator<<(std::ostream& stream, const LinkLocalReport& row)
    {
        return stream << row.name;
    }
};

struct LinkLocalTest : ::testing::TestWithParam<LinkLocalReport>
{
    LinkLocalTest()
    {
        for (const TestUnit* unit : {&one, &other})
            makeNoAddresses(unit->network());
    }

    void link() const
    {
        connect(one.network(), interface, other.network(), interface);
        one.network().addAddress(interface, "fe80::1/64");
        other.network().addAddress(interface, "fe80::2/64");
    }
    void report()
    {
        one.addInterface(interface, "fe80::1" + scope);
        other.addInterface(interface, "fe80::2" + scope);
    }
    void start()
    {
        ASSERT_TRUE(one.startup("fe80::1" + scope));
        ASSERT_TRUE(other.startup("fe80::2" + scope));
    }
    bool meet() { return Testing::meet(one, "fe80::1", other, "fe80::2"); }

    const std::string interface = GetParam().interface;
    const std::string scope = GetParam().scope;
    TestUnit one{"one"};
    TestUnit other{"other"};
};

/// One unit here with several interfaces, "g" with a global and "l" with a link-local address, and a unit at
/// the other end of each.
struct PeersTest : InterfacesTest, ::testing::WithParamInterface<std::string>
{
    struct Peer
    {
        Peer(const Namespace& here, std::size_t number, bool isGlobal)
            : network("peer" + std::to_string(number))
            , isLinkLocal(!isGlobal)
            , prefix((isGlobal ? "fd00::" : "fe80::") + std::to_string(number) + ":")
            , name("Peer" + std::to_string(number))
        {
            makeNoAddresses(network);
            const std::string interface = "eth" + std::to_string(number);
            connect(here, interface, network, "eth0");
            here.addAddress(interface, ours() + "/112");
            network.addAddress("eth0", its() + "/112");
            listener.emplace(network, "eth0");
        }

        std::string ours() const { return prefix + "1"; }
        std::string its() const { return prefix + "2"; }

        /// Where it has discovered a service of that name.
        std::vector<std::string> addresses(const std::string& service) const
        {
            std::vector<std::string> result;
            for (const Registry::Event& event : unit->registry().events()) {
                if (event.name == service)
                    result.push_back(event.address);
            }
            return result;
        }

        Namespace network;
        const bool isLinkLocal;
        const std::string prefix;
        const std::string name;
        std::optional<NetlinkUnit> unit;
        std::optional<Listener> listener;
    };

    PeersTest()
    {
        for (const char kind : GetParam())
            peers.push_back(std::make_unique<Peer>(network.here, peers.size() + 1, kind == 'g'));
        descriptors = openDescriptors();
    }

    void startAll()
    {
        one.emplace(network.here);
        ASSERT_TRUE(one->startup(peers.front()->ours()));
        for (const auto& peer : peers) {
            peer->unit.emplace(peer->network);
            ASSERT_TRUE(peer->unit->startup(peer->its()));
            offer(*peer->unit, peer->name, peer->its());
        }
    }

    void TearDown() override
    {
        for (const auto& peer : peers)
            peer->unit.reset();
        InterfacesTest::TearDown();
    }

    std::vector<std::unique_ptr<Peer>> peers;
};

void addressIsAway(const NetworkPair& network)
{
    network.here.ip("address delete fd00::1/64 dev eth0");
    network.here.addAddress("eth0", "fd00::1/64");
}

void linkIsDown(const NetworkPair& network)
{
    network.here.ip("link set eth0 down");
    network.here.ip("link set eth0 up");
    network.here.addAddress("eth0", "fd00::1/64");
}

void ipv6IsOff(const NetworkPair& network)
{
    network.here.setIPv6("eth0/disable_ipv6", "1");
    network.here.setIPv6("eth0/disable_ipv6", "0");
    network.here.addAddress("eth0", "fd00::1/64");
}

/// The kernel takes IPv6 off an interface that cannot carry 1280 bytes, and the memberships with it.
void datagramsAreTooShortForIPv6(const NetworkPair& network)
{
    network.here.ip("link set eth0 mtu 1000");
    network.here.ip("link set eth0 mtu 1500");
    network.here.addAddress("eth0", "fd00::1/64");
}

void interfaceIsMadeAnew(const NetworkPair& network)
{
    network.here.ip("link delete eth0");
    network.link("eth0", "fd00::1", "fd00::2");
}

void interfaceIsMadeAnewWithItsIndex(const NetworkPair& network)
{
    const std::string index = std::to_string(indexOf(network.here, "eth0"));
    network.here.ip("link delete eth0");
    network.here.ip("link add eth0 index " + index + " type veth peer name eth0 netns there");
    network.here.ip("link set eth0 up");
    network.there.ip("link set eth0 up");
    network.here.addAddress("eth0", "fd00::1/64");
    network.there.addAddress("eth0", "fd00::2/64");
}

/// Something that happens to interface eth0 and is over before the dispatcher looks.
struct Interlude
{
    std::string name;
    void (*happen)(const NetworkPair&);

    friend std::ostream& operator<<(std::ostream& stream, const Interlude& row) { return stream << row.name; }
};

struct BusyDispatcherTest : InterfacesTest, ::testing::WithParamInterface<Interlude>
{};

}  // namespace

TEST_P(LinkFlapTest, UnitAnnouncesAndHearsAgainEachTime)
{
    const Flap& flap = GetParam();
    network.here.setIPv6("default/keep_addr_on_down", "1");
    network.there.setIPv6("default/keep_addr_on_down", "1");
    startOnLink();
    offer(*one, "Standing", "fd00::1");
    if (flap.underTraffic)
        startTraffic();
    Listener listener(network.there, "eth0");
    Speaker speaker(network.there, "eth0", "fd00::2");
    const std::size_t descriptorsBefore = openDescriptors();
    std::vector<milliseconds> hearing;
    std::vector<milliseconds> announcing;
    std::vector<milliseconds> repeating;

    for (int i = 1; i <= flap.times; ++i) {
        const std::string ours = "Ours" + std::to_string(i);
        const std::string theirs = "Theirs" + std::to_string(i);
        shell(flap.down);
        shell(flap.up);
        Deadline deadline;
        listener.clear();

        offer(*one, ours, "fd00::1");
        ASSERT_TRUE(learns(one->registry(), theirs, speaker, deadline)) << i;
        hearing.push_back(deadline.passed());
        ASSERT_TRUE(deadline.meets([&] { return hearsOffer(listener, ours); })) << i;
        announcing.push_back(deadline.passed());
        if (i % 10 == 0) {
            ASSERT_TRUE(deadline.meets([&] { return hearsOffer(listener, "Standing"); })) << i;
            repeating.push_back(deadline.passed());
        }
        one->discovery().removeService(ours);
    }

    expectLeft(descriptorsBefore, {{"eth0", 1}});
    EXPECT_TRUE(!flap.underTraffic || knowsEachService());
    record("hearing", hearing);
    record("announcing", announcing);
    record("repeating", repeating);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, LinkFlapTest,
    Values(Flap{"AddressesStay", hereDown, hereUp, 200},
           Flap{"AddressesStayUnderTraffic", hereDown, hereUp, 200, true},
           Flap{"AddressesComeLater", addressGoes + hereDown, hereUp + addressComes, 100},
           Flap{"AddressesComeLaterUnderTraffic", addressGoes + hereDown, hereUp + addressComes, 100, true},
           Flap{"CarrierComesLater", hereDown + thereDown, hereUp + thereUp, 50},
           Flap{"OtherEndGoesAndComes", thereDown, thereUp, 50},
           Flap{"AtOnce", "", "printf 'link set eth0 %s\n' down up | ip -n here -batch -", 100}),
    rowName);

TEST_P(RenumberingTest, OneInterfaceSendsWhatWasBuiltFromTheNewAddress)
{
    startOnLink();
    offer(*one, "Media", "fd00::1");
    ASSERT_TRUE(eventually([&] { return other->registry().discovered("Media") == 1; }));
    Listener listener(network.there, "eth0");
    const auto isFromNewAddress = [](const Listener::Datagram& datagram) {
        return datagram.source == "fd00::11" && offers(datagram, "Media");
    };

    renumber();

    Deadline deadline;
    EXPECT_TRUE(deadline.meets([&] { return hears(listener, isFromNewAddress); }));
    EXPECT_TRUE(meet());
    listener.clear();
    EXPECT_TRUE(listener.hears(3));
    for (const Listener::Datagram& datagram : listener.datagrams()) {
        EXPECT_EQ(datagram.source, "fd00::11");
        EXPECT_TRUE(hasEndpoint(datagram, "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"));
    }
    EXPECT_EQ(other->registry().discovered("Media"), 1u);
    EXPECT_THAT(groupUsersIn(network.here), ElementsAre(Pair("eth0", 1)));
}

/// Between the two addresses there is one interface, which sends what was built. That is with its own
/// address here, or the peer would discover the service a fourth time now and then.
TEST_P(RenumberingTest, WithTwoInterfacesOffersCarryTheNewAddress)
{
    network.link("eth0", "fd00::1", "fd00::2");
    network.link("eth1", "fd01::1", "fd01::2");
    start("fd01::1", "fd01::2");
    offer(*one, "Media", "fd01::1");
    ASSERT_TRUE(eventually([&] { return other->registry().discovered("Media") == 2; }));
    Listener listener(network.there, "eth0");
    Listener otherListener(network.there, "eth1");
    Speaker speaker(network.there, "eth0", "fd00::2");
    const auto isNew = [](const Listener::Datagram& datagram) {
        return datagram.source == "fd00::11" && offers(datagram, "Media");
    };

    renumber();

    Deadline deadline;
    EXPECT_TRUE(learns(one->registry(), "Navi", speaker, deadline));
    EXPECT_TRUE(deadline.meets([&] { return hears(listener, isNew); }));
    listener.clear();
    otherListener.clear();
    EXPECT_TRUE(listener.hears(2));
    EXPECT_TRUE(otherListener.hears(2));
    for (const Listener::Datagram& datagram : listener.datagrams())
        EXPECT_TRUE(hasEndpoint(datagram, "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 11"));
    for (const Listener::Datagram& datagram : otherListener.datagrams())
        EXPECT_TRUE(hasEndpoint(datagram, "fd 01 00 00 00 00 00 00 00 00 00 00 00 00 00 01"));
    EXPECT_TRUE(eventually([&] { return other->registry().discovered("Media") == 3; }));
    EXPECT_THAT(groupUsersIn(network.here), ElementsAre(Pair("eth0", 1), Pair("eth1", 1)));
}

INSTANTIATE_TEST_SUITE_P(
    Ways, RenumberingTest,
    Values(Renumbering{"OldAddressGoesFirst",
                       {"address delete fd00::1/64 dev eth0", "address add fd00::11/64 dev eth0 nodad"}},
           Renumbering{"NewAddressComesFirst",
                       {"address add fd00::11/64 dev eth0 nodad", "address delete fd00::1/64 dev eth0"}}),
    rowName);

TEST_F(InterfacesTest, SecondAddressChangesNothing)
{
    startQuietly();
    Listener listener(network.there, "eth0");
    const LogCatcher log;

    network.here.addAddress("eth0", "fd00::11/64");
    network.here.addAddress("eth0", "fe80::11/64");

    EXPECT_THAT(logged(log), IsEmpty());
    EXPECT_TRUE(listener.hears(2));
    for (const Listener::Datagram& datagram : listener.datagrams())
        EXPECT_EQ(datagram.source, "fd00::1");
    EXPECT_THAT(groupUsersIn(network.here), ElementsAre(Pair("eth0", 1), Pair("marker", 1)));
    EXPECT_TRUE(meet());
}

TEST_F(InterfacesTest, ThousandRenewedLifetimesAreNotReportedAndNotLogged)
{
    startQuietly();
    const LogCatcher log;
    OEMInterface::NetlinkDispatcher dispatcher({"eth0"});
    const Reports reports(dispatcher);

    shell(
        "seq 5000 5999 | sed 's|.*|address change fd00::1/64 dev eth0 valid_lft & preferred_lft &|' | "
        "ip -n here -batch -");

    EXPECT_THAT(logged(log), IsEmpty());
    EXPECT_THAT(reports.lines(), ElementsAre("+eth0 fd00::1"));
    EXPECT_TRUE(meet());
}

TEST_F(InterfacesTest, InterfaceMadeAnewUnderItsNameIsUsedAgain)
{
    startOnLink();
    const std::size_t descriptorsBefore = openDescriptors();

    for (int i = 0; i < 10; ++i) {
        const unsigned index = indexOf(network.here, "eth0");
        ip("link delete eth0");
        network.link("eth0", "fd00::1", "fd00::2");
        ASSERT_NE(indexOf(network.here, "eth0"), index);
        ASSERT_TRUE(meet()) << i;
    }

    expectLeft(descriptorsBefore, {{"eth0", 1}});
}

TEST_F(InterfacesTest, RenamedInterfaceIsUsedUnderItsNewName)
{
    network.here.setIPv6("default/keep_addr_on_down", "1");
    startOnLink();
    const std::size_t descriptorsBefore = openDescriptors();

    ip("link set eth0 down");
    ip("link set eth0 name lan0");
    ip("link set lan0 up");

    EXPECT_TRUE(meet());
    expectLeft(descriptorsBefore, {{"lan0", 1}});
}

TEST_F(InterfacesTest, InterfacesThatSwapTheirNamesAreBothUsed)
{
    network.here.setIPv6("default/keep_addr_on_down", "1");
    network.link("eth1", "fd01::1", "fd01::2");
    startOnLink();
    offer(*one, "Media", "fd00::1");
    Listener listener(network.there, "eth0");
    Listener otherListener(network.there, "eth1");
    Speaker speaker(network.there, "eth0", "fd00::2");
    Speaker otherSpeaker(network.there, "eth1", "fd01::2");
    const std::size_t descriptorsBefore = openDescriptors();

    shell(
        "printf 'link set %s\n' 'eth0 down' 'eth1 down' 'eth0 name swap' 'eth1 name eth0' 'swap name eth1' "
        "'eth0 up' 'eth1 up' | ip -n here -batch -");

    Deadline deadline;
    EXPECT_TRUE(learns(one->registry(), "Navi", speaker, deadline));
    EXPECT_TRUE(learns(one->registry(), "Radio", otherSpeaker, deadline));
    listener.clear();
    otherListener.clear();
    EXPECT_TRUE(deadline.meets([&] { return hearsOffer(listener, "Media"); }));
    EXPECT_TRUE(deadline.meets([&] { return hearsOffer(otherListener, "Media"); }));
    EXPECT_EQ(listener.datagrams().front().source, "fd00::1");
    EXPECT_EQ(otherListener.datagrams().front().source, "fd01::1");
    expectLeft(descriptorsBefore, {{"eth0", 1}, {"eth1", 1}});
}

TEST_F(InterfacesTest, TentativeAddressIsWaitedForWithoutAnError)
{
    const LogCatcher log;
    network.link("eth1", "fd01::1", "fd01::2");
    start();
    offer(*one, "Media", "fd00::1");
    detectDuplicates(network.here);

    network.link("eth0", "", "fd00::2");
    ip("address add fd00::1/64 dev eth0");

    ASSERT_TRUE(isTentative(network.here, "eth0"));
    ASSERT_TRUE(eventually([&] { return !isTentative(network.here, "eth0"); }));
    expectAtWork(one->registry());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_P(TentativeReportTest, IsNoErrorAndTheAddressIsUsedWhenItCanBe)
{
    const bool hasAnotherInterface = GetParam();
    const LogCatcher log;
    TestUnit unit("unit");
    detectDuplicates(unit.network());
    connect(unit.network(), "eth0", network.there, "eth0");
    connect(unit.network(), "eth1", network.there, "eth1");
    network.there.addAddress("eth0", "fd00::2/64");
    unit.network().addAddress("eth1", "fd01::1/64");
    if (hasAnotherInterface)
        unit.addInterface("eth1", "fd01::1");

    unit.network().ip("address add fd00::1/64 dev eth0");
    unit.addInterface("eth0", "fd00::1");
    ASSERT_TRUE(isTentative(unit.network(), "eth0"));
    ASSERT_TRUE(unit.startup("fd00::1"));
    EXPECT_TRUE(unit.discovery().addService(describe("Media")));

    ASSERT_TRUE(eventually([&] { return !isTentative(unit.network(), "eth0"); }));
    expectAtWork(unit.registry());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Units, TentativeReportTest, Values(false, true), [](const auto& row) {
    return row.param ? "WithAnotherInterface" : "WithoutAnother";
});

TEST_F(InterfacesTest, UnitsWithoutInterfacesMeetWhenOneComes)
{
    constexpr int services = 20;
    start();
    NuboServiceDescription wanted;
    for (int i = 0; i < services; ++i) {
        offer(*one, "Here" + std::to_string(i), "fd00::1");
        offer(*other, "There" + std::to_string(i), "fd00::2");
        wanted.setName("There" + std::to_string(i));
        EXPECT_TRUE(one->discovery().findService(wanted));
    }
    wanted.setName("Here0");
    EXPECT_TRUE(other->discovery().findService(wanted));
    EXPECT_TRUE(keeps([&] { return one->registry().events().empty(); }, milliseconds(1500)));

    network.link("eth0", "fd00::1", "fd00::2");

    Deadline deadline;
    EXPECT_TRUE(deadline.meets([&] {
        return one->registry().eventCount() == services && other->registry().eventCount() == services;
    }));
    for (int i = 0; i < services; ++i) {
        EXPECT_EQ(one->registry().discovered("There" + std::to_string(i)), 1u) << i;
        EXPECT_EQ(other->registry().discovered("Here" + std::to_string(i)), 1u) << i;
    }
}

TEST_F(InterfacesTest, InterfacesMayComeAndGoWhileUnitsStartAndStop)
{
    network.here.setIPv6("default/keep_addr_on_down", "1");
    network.link("eth0", "fd00::1", "fd00::2");
    network.link("eth1", "fd01::1", "fd01::2");
    auto flapping = std::make_optional<Flapping>(network.here, "eth0", "eth1");

    for (int i = 0; i < 50; ++i) {
        one.emplace(network.here);
        ASSERT_TRUE(one->startup("fd00::1"));
        offer(*one, "Media", "fd00::1");
        one->shutdown();
        ASSERT_TRUE(one->startup("fd00::1"));
    }
    flapping.reset();

    one.reset();
    EXPECT_EQ(openDescriptors(), descriptors);
    start();
    EXPECT_TRUE(eventually([&] { return groupUsersIn(network.here).size() == 2; }));
    EXPECT_TRUE(meet());
}

TEST_F(InterfacesTest, ShutdownLeavesTheGroupAndAStartJoinsItAgain)
{
    network.link("eth1", "fd01::1", "fd01::2");
    startOnLink();

    for (int i = 0; i < 10; ++i) {
        one->shutdown();
        EXPECT_THAT(groupUsersIn(network.here), IsEmpty());
        EXPECT_TRUE(one->startup("fd00::1"));
        EXPECT_THAT(groupUsersIn(network.here), ElementsAre(Pair("eth0", 1), Pair("eth1", 1)));
    }
    EXPECT_TRUE(one->discovery().addService(describe("Media")));

    EXPECT_TRUE(eventually([&] { return other->registry().discovered("Media") == 2; }));
}

TEST_F(InterfacesTest, ProcessMadeMeanwhileDoesNotHoldThePort)
{
    startOnLink();
    std::FILE* const process = ::popen("cat", "w");

    one->shutdown();

    EXPECT_TRUE(one->startup("fd00::1"));
    EXPECT_TRUE(meet());
    ::pclose(process);
}

TEST_F(InterfacesTest, ReportsInQuickSuccessionLeaveNothingBehind)
{
    TestUnit unit("unit");
    connect(unit.network(), "eth0", network.there, "eth0");
    unit.network().addAddress("eth0", "fd00::1/64");
    network.there.addAddress("eth0", "fd00::2/64");
    other.emplace(network.there);
    ASSERT_TRUE(other->startup("fd00::2"));
    ASSERT_TRUE(unit.startup("fd00::1"));
    EXPECT_TRUE(unit.discovery().addService(describe("Media")));
    offer(*other, "Navi", "fd00::2");
    const std::size_t descriptorsWithout = openDescriptors();

    for (int i = 0; i < 100; ++i) {
        unit.addInterface("eth0", "fd00::1");
        EXPECT_THAT(groupUsersIn(unit.network()), ElementsAre(Pair("eth0", 1)));
        unit.removeInterface("eth0", "fd00::1");
        EXPECT_THAT(groupUsersIn(unit.network()), IsEmpty());
    }

    // A run of sending may still have a socket.
    EXPECT_TRUE(eventually([&] { return openDescriptors() == descriptorsWithout; }));
    unit.addInterface("eth0", "fd00::1");
    EXPECT_TRUE(Testing::meet(unit, "fd00::1", *other, "fd00::2"));
    EXPECT_EQ(openDescriptors(), descriptorsWithout + 1);
}

TEST_P(LinkLocalTest, UnitsDiscoverEachOther)
{
    link();
    report();
    start();

    EXPECT_TRUE(meet());
    for (const Registry::Event& event : other.registry().events())
        EXPECT_EQ(event.address, "fe80::1");
}

TEST_P(LinkLocalTest, InterfaceThatIsGoneIsLetGoAndUsedAgainWhenItIsBack)
{
    link();
    report();
    start();
    const std::size_t descriptors = openDescriptors();
    const LogCatcher log;

    one.network().ip("link delete " + interface);
    one.removeInterface(interface, "fe80::1" + scope);
    other.removeInterface(interface, "fe80::2" + scope);

    EXPECT_EQ(openDescriptors(), descriptors - 2);
    EXPECT_THAT(log.complaints(), IsEmpty());
    link();
    report();
    EXPECT_TRUE(meet());
}

INSTANTIATE_TEST_SUITE_P(Reports, LinkLocalTest,
                         Values(LinkLocalReport{"WithoutScope", "eth0", ""},
                                LinkLocalReport{"WithScope", "eth0", "%eth0"},
                                LinkLocalReport{"WithScopeOfMixedCase", "Lan0", "%Lan0"}),
                         rowName);

TEST_F(SegmentTest, UnitWithTwoPortsIsDiscoveredAtEachAddressOnceAndNeverByItself)
{
    addAddresses("fd00::1", "fd00::11", "fd00::2");
    start();
    Listener listener(network.here, "eth0");

    offer(*one, "Media", "fd00::1");
    EXPECT_TRUE(listener.hears(6)) << "from the other port";

    EXPECT_TRUE(eventually([&] { return other->registry().discovered("Media") == 2; }));
    EXPECT_EQ(other->registry().eventCount(), 2u);
    EXPECT_THAT(one->registry().events(), IsEmpty());
}

TEST_F(SegmentTest, UnitWithOneAddressOnTwoPortsIsDiscoveredOnceAndNeverByItself)
{
    addAddresses("fe80::1", "fe80::1", "fe80::2");
    start("fe80::1", "fe80::2");
    Listener listener(network.there, "eth0");

    offer(*one, "Media", "fe80::1");
    EXPECT_TRUE(listener.hears(12)) << "from both ports";

    EXPECT_TRUE(eventually([&] { return other->registry().discovered("Media") == 1; }));
    EXPECT_EQ(other->registry().eventCount(), 1u);
    EXPECT_THAT(one->registry().events(), IsEmpty());
}

/// What it sent from one port may come back on the other one when the first is closed already.
TEST_F(SegmentTest, UnitNeverDiscoversItselfWhileAPortComesAndGoes)
{
    network.here.setIPv6("eth1/keep_addr_on_down", "1");
    addAddresses("fd00::1", "fd00::11", "fd00::2");
    start();
    Listener listener(network.here, "eth0");

    for (int i = 0; i < 50; ++i) {
        offer(*one, "Media" + std::to_string(i), "fd00::1");
        ip("link set eth1 down");
        ip("link set eth1 up");
    }

    listener.clear();
    EXPECT_TRUE(eventually([&] { return hearsOffer(listener, "Media49"); }));
    EXPECT_THAT(one->registry().events(), IsEmpty());
}

TEST_P(PeersTest, EachPeerSeesTheAddressOfItsSideAndInternalServicesOnlyOnLinkLocalOnes)
{
    startAll();
    const std::string placeholder = peers.front()->ours();
    const std::map<std::string, unsigned short> ports{
        {"Media", 8080}, {"Below", 46999}, {"Lowest", 47000}, {"Highest", 49151}, {"Above", 49152}};

    for (const auto& [name, port] : ports)
        EXPECT_TRUE(one->discovery().addService(describe(name, placeholder, port, name)));

    for (const auto& peer : peers) {
        EXPECT_TRUE(peer->listener->hears(4 * 3 + 2)) << "the first offers alone, then all together";
        EXPECT_TRUE(eventually([&] { return one->registry().discovered(peer->name) != 0; })) << peer->name;
        for (const auto& [name, port] : ports) {
            const bool isSeen = peer->isLinkLocal || port < 47000 || port > 49151;
            const std::vector<std::string> seen(isSeen ? 1 : 0, peer->ours());
            EXPECT_TRUE(eventually([&] { return peer->addresses(name) == seen; }))
                << name << " at " << peer->name;
        }
    }
    for (const Registry::Event& event : one->registry().events())
        EXPECT_EQ(event.address.back(), '2') << event.name;
    EXPECT_EQ(one->registry().eventCount(), peers.size());
}

INSTANTIATE_TEST_SUITE_P(Sides, PeersTest, Values("gg", "gl", "lg", "ll", "ggl", "glg", "lgg", "lll"),
                         [](const auto& row) { return row.param; });

TEST_P(BusyDispatcherTest, UnitGoesOnAfterwards)
{
    startOnLink();
    offer(*one, "Media", "fd00::1");
    Gate gate;
    Reports reports(one->dispatcher());
    reports.onReport([&] { gate.pass(); });
    network.link("marker", "fd99::1");
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));

    GetParam().happen(network);
    gate.open();

    expectAtWork(one->registry());
    EXPECT_THAT(groupUsersIn(network.here), ElementsAre(Pair("eth0", 1), Pair("marker", 1)));
    reports.unbind();
}

INSTANTIATE_TEST_SUITE_P(Interludes, BusyDispatcherTest,
                         Values(Interlude{"AddressWasAway", addressIsAway},
                                Interlude{"LinkWasDown", linkIsDown}, Interlude{"IPv6WasOff", ipv6IsOff},
                                Interlude{"DatagramsWereTooShortForIPv6", datagramsAreTooShortForIPv6},
                                Interlude{"InterfaceWasMadeAnew", interfaceIsMadeAnew},
                                Interlude{"InterfaceWasMadeAnewWithItsIndex",
                                          interfaceIsMadeAnewWithItsIndex}),
                         rowName);

/// Its report finds no address, and both its going and its coming back are told to the dispatcher at once.
TEST_F(InterfacesTest, AddressThatWasAwayWhenItWasReportedIsUsedWhenItIsBack)
{
    Gate gateBefore;
    Gate gateAfter;
    NetlinkScope platform;
    Reports before(platform.dispatcher());
    ServiceDiscovery discovery;
    const Registry registry(discovery);
    Reports after(platform.dispatcher());
    before.onReport([&] { gateBefore.pass(); });
    after.onReport([&] { gateAfter.pass(); });
    ASSERT_TRUE(discovery.startup(Poco::Net::IPAddress("fd00::1")));
    EXPECT_TRUE(discovery.addService(describe("Media")));
    network.link("eth0", "fd00::1", "fd00::2");
    ASSERT_TRUE(eventually([&] { return gateBefore.isReached(); }));

    ip("address delete fd00::1/64 dev eth0");
    gateBefore.open();
    ASSERT_TRUE(eventually([&] { return gateAfter.isReached(); }));
    network.here.addAddress("eth0", "fd00::1/64");
    gateAfter.open();

    expectAtWork(registry);
    after.unbind();
    before.unbind();
}

}  // namespace Nubo::ServiceDiscovery::Testing
