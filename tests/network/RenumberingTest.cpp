#include "InterfacesFixture.h"

#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::Values;

namespace {

/// A way to replace an address by another.
struct Renumbering
{
    std::string name;
    std::vector<std::string> steps;

    friend std::ostream& operator<<(std::ostream& stream, const Renumbering& row)
    {
        return stream << row.name;
    }
};

struct RenumberingTest : InterfacesFixture, ::testing::WithParamInterface<Renumbering>
{
    void renumber() const
    {
        for (const std::string& step : GetParam().steps)
            ip(step);
    }
};

constexpr auto rowName = [](const auto& row) { return row.param.name; };

}  // namespace

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

/// Between the two addresses only one interface is left, which sends packets as they were built. They are
/// built with its own address here. Otherwise the peer would sometimes discover the service a fourth time.
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

}  // namespace Nubo::ServiceDiscovery::Testing
