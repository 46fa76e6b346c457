#include "DispatcherFixture.h"
#include "support/TestUnit.h"

#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using StandingInterfacesTest = DispatcherFixture;

namespace {

struct Addresses
{
    const char* name;
    const char* one;
    const char* other;

    friend std::ostream& operator<<(std::ostream& stream, const Addresses& row)
    {
        return stream << '"' << row.one << "\", \"" << row.other << '"';
    }
};

struct SameAddressTest : DispatcherFixture, ::testing::WithParamInterface<Addresses>
{};

struct DifferentAddressesTest : DispatcherFixture, ::testing::WithParamInterface<Addresses>
{};

struct WildcardAddressTest : DispatcherFixture, ::testing::WithParamInterface<Addresses>
{};

}  // namespace

TEST_F(StandingInterfacesTest, StandingInterfacesKeepTheOrderOfTheirReports)
{
    dispatcher.addInterface("eth1", "fd01::1");
    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth0", "fd00::2");
    EXPECT_THAT(standing(), ElementsAre("eth1 fd01::1", "eth0 fd00::1", "eth0 fd00::2"));

    dispatcher.removeInterface("eth0", "fd00::1");
    EXPECT_THAT(standing(), ElementsAre("eth1 fd01::1", "eth0 fd00::2"));

    dispatcher.removeInterface("eth1", "fd00::2");
    EXPECT_THAT(standing(), ElementsAre("eth1 fd01::1", "eth0 fd00::2"));
}

TEST_F(StandingInterfacesTest, InterfaceThatIsReportedAgainKeepsItsPlaceAndItsText)
{
    const Reports reports(dispatcher);

    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "fd01::1");
    dispatcher.addInterface("eth0", "FD00:0::1");
    dispatcher.addInterface("eth0", "fd00::1");

    EXPECT_THAT(reports.lines(),
                ElementsAre("+eth0 fd00::1", "+eth1 fd01::1", "+eth0 FD00:0::1", "+eth0 fd00::1"));
    EXPECT_THAT(standing(), ElementsAre("eth0 fd00::1", "eth1 fd01::1"));
}

TEST_F(StandingInterfacesTest, RemovedInterfaceIsReportedAgainLikeANewOne)
{
    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "fd01::1");

    dispatcher.removeInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth0", "fd00::1");

    EXPECT_THAT(standing(), ElementsAre("eth1 fd01::1", "eth0 fd00::1"));
}

TEST_F(StandingInterfacesTest, SameAddressOnAnotherInterfaceIsAnotherEntry)
{
    dispatcher.addInterface("eth0", "fe80::1");
    dispatcher.addInterface("eth1", "fe80::1");
    EXPECT_THAT(standing(), ElementsAre("eth0 fe80::1", "eth1 fe80::1"));

    dispatcher.removeInterface("eth0", "fe80::1");
    EXPECT_THAT(standing(), ElementsAre("eth1 fe80::1"));
}

TEST_P(SameAddressTest, IsOneEntry)
{
    dispatcher.addInterface("eth0", GetParam().one);
    dispatcher.addInterface("eth0", GetParam().other);

    EXPECT_THAT(standing(), ElementsAre(std::string("eth0 ") + GetParam().one));
}

TEST_P(SameAddressTest, IsRemovedByItsOtherText)
{
    const Reports reports(dispatcher);
    dispatcher.addInterface("eth0", GetParam().one);

    dispatcher.removeInterface("eth0", GetParam().other);

    EXPECT_THAT(standing(), IsEmpty());
    EXPECT_EQ(reports.lines().back(), std::string("-eth0 ") + GetParam().other);
}

INSTANTIATE_TEST_SUITE_P(Texts, SameAddressTest,
                         ::testing::Values(Addresses{"SameText", "fd00::1", "fd00::1"},
                                           Addresses{"Case", "fd00::a", "FD00::A"},
                                           Addresses{"Zeros", "fd00::1", "fd00:0:0:0::0001"},
                                           Addresses{"WithScope", "fe80::1", "fe80::1%eth0"},
                                           Addresses{"WithoutScope", "fe80::1%eth0", "fe80::1"},
                                           Addresses{"ScopeAsNumber", "fe80::1%eth0", "fe80::1%2"},
                                           Addresses{"ScopeAndZeros", "fe80::1%eth0", "FE80:0::1"},
                                           Addresses{"IPv4InIPv6", "::ffff:10.0.0.1", "::ffff:a00:1"},
                                           Addresses{"NoAddress", "no address", "no address"},
                                           Addresses{"NoAddressWithScope", "no%address", "no%address"}),
                         [](const auto& row) { return row.param.name; });

TEST_P(DifferentAddressesTest, AreTwoEntries)
{
    dispatcher.addInterface("eth0", GetParam().one);
    dispatcher.addInterface("eth0", GetParam().other);

    EXPECT_THAT(standing(), SizeIs(2));
}

TEST_P(DifferentAddressesTest, AreRemovedEachByItself)
{
    dispatcher.addInterface("eth0", GetParam().one);

    dispatcher.removeInterface("eth0", GetParam().other);

    EXPECT_THAT(standing(), ElementsAre(std::string("eth0 ") + GetParam().one));
}

INSTANTIATE_TEST_SUITE_P(Texts, DifferentAddressesTest,
                         ::testing::Values(Addresses{"OtherAddress", "fd00::1", "fd00::2"},
                                           Addresses{"OtherAddressWithScope", "fe80::1%eth0", "fe80::2%eth0"},
                                           Addresses{"NoAddressInOtherCase", "here", "HERE"},
                                           Addresses{"NoAddressBeforeThePercentSign", "here", "here%eth0"},
                                           Addresses{"AddressAndNone", "fd00::1", "fd00::1/64"},
                                           Addresses{"AddressAndNothing", "fd00::1", ""},
                                           Addresses{"NoneAndAddress", "eth0", "fd00::1"},
                                           Addresses{"WildcardOfIPv4", "fd00::1", "0.0.0.0"}),
                         [](const auto& row) { return row.param.name; });

TEST_P(WildcardAddressTest, RemovesAllInterfaces)
{
    const Reports reports(dispatcher);
    dispatcher.addInterface("eth0", "fd00::1");
    dispatcher.addInterface("eth1", "no address");

    dispatcher.removeInterface("eth7", GetParam().one);

    EXPECT_EQ(reports.lines().back(), std::string("-eth7 ") + GetParam().one);
    EXPECT_THAT(standing(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Texts, WildcardAddressTest,
                         ::testing::Values(Addresses{"Short", "::", ""},
                                           Addresses{"Long", "0:0:0:0:0:0:0:0", ""},
                                           Addresses{"Mixed", "0::0.0.0.0", ""},
                                           Addresses{"WithScope", "::%eth0", ""}),
                         [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
