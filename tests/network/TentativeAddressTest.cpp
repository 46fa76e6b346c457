#include "InterfacesFixture.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::IsEmpty;
using ::testing::Values;

namespace {

using TentativeAddressTest = InterfacesFixture;

bool isTentative(const Namespace& network, const std::string& interface)
{
    return !shellOutput("ip -n " + network.name() + " -6 address show dev " + interface + " tentative")
                .empty();
}

/// Makes duplicate address detection take a second or two on new interfaces.
void detectDuplicates(const Namespace& network)
{
    network.setIPv6("default/accept_dad", "1");
    network.setIPv6("default/dad_transmits", "1");
}

/// The platform reports an address that is still being checked, of the only interface or of one of two.
struct TentativeReportTest : InterfacesFixture, ::testing::WithParamInterface<bool>
{};

}  // namespace

TEST_F(TentativeAddressTest, TentativeAddressIsWaitedForWithoutAnError)
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

}  // namespace Nubo::ServiceDiscovery::Testing
