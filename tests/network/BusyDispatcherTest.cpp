#include "InterfacesFixture.h"

#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::Values;

namespace {

using LateReportTest = InterfacesFixture;

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

/// The kernel disables IPv6, and drops the memberships, on an interface that cannot carry 1280 bytes.
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

/// A change of interface eth0 that is over before the dispatcher looks.
struct Interlude
{
    std::string name;
    void (*happen)(const NetworkPair&);

    friend std::ostream& operator<<(std::ostream& stream, const Interlude& row) { return stream << row.name; }
};

struct BusyDispatcherTest : InterfacesFixture, ::testing::WithParamInterface<Interlude>
{};

constexpr auto rowName = [](const auto& row) { return row.param.name; };

}  // namespace

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

/// The first report finds no address. The dispatcher learns of both changes, the removal and the return, at
/// once.
TEST_F(LateReportTest, AddressThatWasAwayWhenItWasReportedIsUsedWhenItIsBack)
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
