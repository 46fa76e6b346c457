#include "InterfacesFixture.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::IsEmpty;
using ::testing::Values;

namespace {

/// The unit here has two ports on a segment, the other unit one.
struct SegmentTest : InterfacesFixture
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

/// One unit here with several interfaces, "g" with a global and "l" with a link-local address, and a unit at
/// the other end of each.
struct PeersTest : InterfacesFixture, ::testing::WithParamInterface<std::string>
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

        /// The addresses at which it has discovered a service of that name.
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
        InterfacesFixture::TearDown();
    }

    std::vector<std::unique_ptr<Peer>> peers;
};

}  // namespace

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

/// A datagram sent from one port may come back on the other one when the first is closed already.
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

}  // namespace Nubo::ServiceDiscovery::Testing
