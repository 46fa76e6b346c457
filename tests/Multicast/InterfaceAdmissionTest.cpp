#include "Multicast/InterfaceAdmission.h"
#include "support/Namespace.h"
#include "support/UnsuitableAddress.h"

#include <Poco/Net/IPAddress.h>

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

namespace Nubo::ServiceDiscovery::Testing {

using Multicast::Admission;
using Multicast::AdmittedInterface;
using Poco::Net::IPAddress;
using Poco::Net::NetworkInterface;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// eth0 with a global and a link-local address, and eth1 with a link-local one.
struct InterfaceAdmissionTest : ::testing::Test
{
    InterfaceAdmissionTest()
    {
        network.link("eth0", "fd00::1");
        network.here.addAddress("eth0", "fe80::1/64");
        network.link("eth1", "fe80::2");
    }

    Admission admit(const std::string& name, const std::string& ip)
    {
        return Multicast::admitInterface(name, ip, admitted);
    }

    NetworkPair network;
    AdmittedInterface admitted;
};

struct UnsuitableAddressTest : InterfaceAdmissionTest, ::testing::WithParamInterface<UnsuitableAddress>
{};

/// The table of a user of interfaces: each with the address with which it was admitted.
using Table = std::map<NetworkInterface, IPAddress>;

struct RemovalTest : InterfaceAdmissionTest
{
    RemovalTest()
    {
        admitInto("eth0", "fd00::1");
        admitInto("eth1", "fe80::2");
    }

    void admitInto(const std::string& name, const std::string& ip)
    {
        ASSERT_EQ(admit(name, ip), Admission::Good);
        table.emplace(admitted.interface, admitted.address);
    }

    /// The name of the entry that is found, or "none".
    std::string find(const std::string& name, const std::string& ip)
    {
        const auto found = Multicast::findForRemoval(
            table, name, IPAddress(ip), [](const IPAddress& address) { return address; },
            [&](const NetworkInterface& interface) { withoutAddresses.push_back(interface.name()); });
        return found == table.end() ? "none" : found->first.name();
    }

    Table table;
    std::vector<std::string> withoutAddresses;
};

}  // namespace

TEST_F(InterfaceAdmissionTest, GlobalAddressIsAdmittedWithoutScope)
{
    EXPECT_EQ(admit("eth0", "fd00::1"), Admission::Good);
    EXPECT_EQ(admitted.interface.name(), "eth0");
    EXPECT_EQ(admitted.interface.index(), ::if_nametoindex("eth0"));
    EXPECT_EQ(admitted.address.toString(), "fd00::1");
    EXPECT_EQ(admitted.address.scope(), 0u);
}

TEST_F(InterfaceAdmissionTest, LinkLocalAddressIsAdmittedWithTheInterfaceAsScope)
{
    EXPECT_EQ(admit("eth1", "fe80::2"), Admission::Good);
    EXPECT_EQ(admitted.address.toString(), "fe80::2%eth1");
    EXPECT_EQ(admitted.address.scope(), ::if_nametoindex("eth1"));
}

TEST_F(InterfaceAdmissionTest, LinkLocalAddressMayBringItsScope)
{
    EXPECT_EQ(admit("eth0", "fe80::1%eth0"), Admission::Good);
    EXPECT_EQ(admitted.address.toString(), "fe80::1%eth0");
}

TEST_F(InterfaceAdmissionTest, ScopeOfAnotherInterfaceIsNotItsAddress)
{
    EXPECT_EQ(admit("eth0", "fe80::1%eth1"), Admission::NotPresent);
}

TEST_F(InterfaceAdmissionTest, InterfaceNameMayHaveCapitalLetters)
{
    network.link("ETH2", "fe80::3");

    EXPECT_EQ(admit("ETH2", "fe80::3"), Admission::Good);
    EXPECT_EQ(admit("ETH2", "fe80::3%ETH2"), Admission::Good);
    EXPECT_EQ(admitted.interface.name(), "ETH2");
}

TEST_F(InterfaceAdmissionTest, NameIsComparedWithItsCase)
{
    EXPECT_EQ(admit("ETH0", "fd00::1"), Admission::NotPresent);
}

TEST_F(InterfaceAdmissionTest, EverySpellingOfTheAddressIsAccepted)
{
    EXPECT_EQ(admit("eth0", "FD00:0:0:0:0:0:0:1"), Admission::Good);
    EXPECT_EQ(admitted.address.toString(), "fd00::1");
}

TEST_F(InterfaceAdmissionTest, UnknownInterfaceIsNotPresent)
{
    EXPECT_EQ(admit("eth7", "fd00::1"), Admission::NotPresent);
    EXPECT_EQ(admit("", "fd00::1"), Admission::NotPresent);
}

TEST_F(InterfaceAdmissionTest, AddressMustBeOneOfTheInterface)
{
    EXPECT_EQ(admit("eth0", "fd00::99"), Admission::NotPresent);
    EXPECT_EQ(admit("eth1", "fd00::1"), Admission::NotPresent) << "it is that of eth0";
}

TEST_F(InterfaceAdmissionTest, InterfaceMustSupportMulticast)
{
    network.here.ip("link set eth0 multicast off");

    EXPECT_EQ(admit("eth0", "fd00::1"), Admission::NoMulticast);
    EXPECT_EQ(admitted.interface.name(), "") << "only what can be used is filled in";
}

TEST_P(UnsuitableAddressTest, IsNotAppropriate)
{
    EXPECT_EQ(admit("eth0", GetParam().ip), Admission::NotAppropriate);
}

INSTANTIATE_TEST_SUITE_P(Addresses, UnsuitableAddressTest, ::testing::ValuesIn(unsuitableAddresses),
                         [](const auto& row) { return row.param.name; });

TEST_F(InterfaceAdmissionTest, ListingHasTheAddressesOfItsMoment)
{
    ASSERT_EQ(admit("eth1", "fe80::2"), Admission::Good);
    const auto before = Multicast::InterfaceListing::take();

    network.here.addAddress("eth1", "fd00::2/64");

    EXPECT_EQ(before->addressesOf(admitted.interface).size(), 1u);
    EXPECT_EQ(Multicast::listingIfAny()->addressesOf(admitted.interface).size(), 2u);
    network.here.ip("address flush dev eth1");
    EXPECT_THAT(Multicast::listingIfAny()->addressesOf(admitted.interface), IsEmpty());
    network.here.ip("link delete eth1");
    EXPECT_THAT(Multicast::listingIfAny()->addressesOf(admitted.interface), IsEmpty());
}

TEST_F(InterfaceAdmissionTest, InterfaceIsAdmittedByTheListing)
{
    const auto before = Multicast::InterfaceListing::take();
    network.here.addAddress("eth1", "fd00::2/64");

    EXPECT_EQ(Multicast::admitInterface("eth1", "fd00::2", *before, admitted), Admission::NotPresent);
    EXPECT_EQ(Multicast::admitInterface("eth1", "fd00::2", *Multicast::InterfaceListing::take(), admitted),
              Admission::Good);
}

TEST_F(InterfaceAdmissionTest, ScopeOfTheInterfaceItselfNeedsNoInterface)
{
    EXPECT_EQ(admit("eth7", "fe80::1%eth7"), Admission::NotPresent);
}

TEST_F(InterfaceAdmissionTest, TenBitsMakeAnAddressLinkLocal)
{
    network.here.addAddress("eth1", "febf::3/64");

    EXPECT_TRUE(Multicast::isLinkLocal(IPAddress("fe80::1")));
    EXPECT_TRUE(Multicast::isLinkLocal(IPAddress("fea0::1")));
    EXPECT_TRUE(Multicast::isLinkLocal(IPAddress("febf:ffff::1")));
    EXPECT_FALSE(Multicast::isLinkLocal(IPAddress("fec0::1")));
    EXPECT_FALSE(Multicast::isLinkLocal(IPAddress("fe7f::1")));
    EXPECT_FALSE(Multicast::isLinkLocal(IPAddress("254.128.0.1")));
    EXPECT_EQ(admit("eth1", "febf::3"), Admission::Good);
    EXPECT_EQ(admitted.address.scope(), ::if_nametoindex("eth1"));
}

TEST_F(InterfaceAdmissionTest, SameAddressIsToldByItsBytesAlone)
{
    EXPECT_TRUE(Multicast::isSameAddress(IPAddress("fe80::1%eth0"), IPAddress("fe80::1%eth1")));
    EXPECT_TRUE(Multicast::isSameAddress(IPAddress("fe80::1"), IPAddress("fe80::1%eth1")));
    EXPECT_FALSE(Multicast::isSameAddress(IPAddress("fe80::1"), IPAddress("fe80::2")));
    EXPECT_FALSE(Multicast::isSameAddress(IPAddress("10.0.0.1"), IPAddress("::ffff:10.0.0.1")));
}

TEST_F(InterfaceAdmissionTest, InterfaceIsStillThereUnderItsNameAndIndexOnly)
{
    ASSERT_EQ(admit("eth0", "fd00::1"), Admission::Good);
    const NetworkInterface former = admitted.interface;
    const auto isStillOneOf = [&](const std::set<std::string>& names) {
        return Multicast::isStillOneOf(names, former, *Multicast::InterfaceListing::take());
    };
    EXPECT_TRUE(isStillOneOf({"eth0", "eth9"}));
    EXPECT_FALSE(isStillOneOf({"eth1", "eth9"})) << "it is not among the names";

    network.here.ip("link set eth0 down");
    network.here.ip("link set eth0 name eth9");
    EXPECT_FALSE(isStillOneOf({"eth0", "eth9"})) << "it has another name";
    network.link("eth5", "fd00::1");
    network.here.ip("link set eth5 down");
    network.here.ip("link set eth5 name eth0");
    EXPECT_FALSE(isStillOneOf({"eth0", "eth9"})) << "another one has its name";
    network.here.ip("link delete eth9");
    EXPECT_FALSE(isStillOneOf({"eth0", "eth9"})) << "it has gone";
}

TEST_F(RemovalTest, EntryIsFoundByNameAndAddress)
{
    EXPECT_EQ(find("eth0", "fd00::1"), "eth0");
    EXPECT_EQ(find("eth1", "fe80::2"), "eth1");
    EXPECT_EQ(find("eth1", "fe80::2%eth1"), "eth1");
    EXPECT_EQ(find("eth0", "fe80::2"), "none") << "the address is that of eth1";
    EXPECT_EQ(find("eth7", "fd00::1"), "none");
    EXPECT_EQ(find("ETH0", "fd00::1"), "none") << "names are told apart by their case";
    EXPECT_THAT(withoutAddresses, IsEmpty());
}

TEST_F(RemovalTest, AnyPresentAddressOfTheInterfaceNamesIt)
{
    EXPECT_EQ(find("eth0", "fe80::1"), "eth0");
}

TEST_F(RemovalTest, EntryIsFoundByTheAddressItWasAdmittedWithWhenThatHasGone)
{
    network.here.ip("address delete fd00::1/64 dev eth0");

    EXPECT_EQ(find("eth0", "fd00::1"), "eth0");
    EXPECT_EQ(find("eth0", "fd00::99"), "none");
    EXPECT_THAT(withoutAddresses, IsEmpty()) << "it has another one";
}

TEST_F(RemovalTest, InterfacesWithoutAddressesAreToldOnTheWay)
{
    network.here.ip("address flush dev eth0");
    network.here.ip("link delete eth1");

    EXPECT_EQ(find("eth1", "fe80::2"), "eth1");
    EXPECT_THAT(withoutAddresses, ElementsAre("eth0", "eth1"));
}

TEST_F(RemovalTest, WalkEndsAtTheEntryItFinds)
{
    network.here.ip("address flush dev eth1");

    EXPECT_EQ(find("eth0", "fd00::1"), "eth0");
    EXPECT_THAT(withoutAddresses, IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
