#include "OpenSender.h"
#include "ReceiverFixture.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>

#include <Poco/Net/IPAddress.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The sender and the receiver add and remove interfaces by the same rules.
namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

/// The interfaces of a test, with their addresses.
using Addresses = std::map<std::string, std::string>;

struct SenderUse
{
    static constexpr auto name = "Sender";

    explicit SenderUse(HubUnit&) { user.init(IPAddress("fd00::1")); }

    void add(const std::string& interface, const std::string& ip) { user.addInterface_byIP(interface, ip); }
    void remove(const std::string& interface, const std::string& ip)
    {
        user.removeInterface_byIP(interface, ip);
    }
    bool uses(const Addresses::value_type& interface) const
    {
        return user.isOwnAddress(IPAddress(interface.second));
    }
    /// Checks that it sends if it uses any interface.
    void expectWorksOn(const std::vector<std::string>& interfaces)
    {
        Datagrams datagrams{"01"};
        EXPECT_EQ(user.sendMulticast(datagrams.list(), {}), !interfaces.empty());
    }

    static std::string added(const std::string& interface, const std::string& ip)
    {
        return "Notice: ServiceDiscovery adding Interface \"" + interface + "\" with IP \"" + ip +
               "\" for sending.";
    }
    static std::string withoutMulticast(const std::string& interface, const std::string& ip)
    {
        return "Warning: ServiceDiscovery failed to add Interface \"" + interface + "\" with IP \"" + ip +
               "\" for sending: does not support Multicast.";
    }
    static std::string removed(const std::string& interface, const std::string& ip)
    {
        return "Notice: ServiceDiscovery removing Interface \"" + interface + "\" for given IP \"" + ip +
               "\" for sending.";
    }
    static std::string removedWithAll(const std::string& interface)
    {
        return "Notice: ServiceDiscovery removing Interface \"" + interface + "\" for sending.";
    }
    static constexpr auto removingAll = "Notice: ServiceDiscovery all Interfaces for sending.";
    static std::string withoutAddresses(const std::string& interface)
    {
        return "Notice: ServiceDiscovery part of Interface \"" + interface +
               "\" for sending with currently no IPs.";
    }
    static std::string wasWithoutAddresses(const std::string& interface)
    {
        return "Notice: ServiceDiscovery (was) part of Interface \"" + interface +
               "\" for sending with currently no IPs.";
    }
    static std::string notRemoved(const std::string& interface, const std::string& ip)
    {
        return "Warning: Failed to remove Interface \"" + interface + "\" with IP \"" + ip +
               "\" for sending: not connected(?)";
    }
    static constexpr auto unparsable =
        "Error: ServiceDiscovery failed to remove Interface \"eth0\" with IP \"no address\" for sending: "
        "Invalid address: no address";

    Sender user{discoveryGroup, discoveryPort};
};

struct ReceiverUse
{
    static constexpr auto name = "Receiver";

    explicit ReceiverUse(HubUnit& unit) : user(unit.hub, discoveryGroup, discoveryPort) {}

    void add(const std::string& interface, const std::string& ip)
    {
        user.joinGroupOnInterface_byIP(interface, ip);
    }
    void remove(const std::string& interface, const std::string& ip)
    {
        user.leaveGroupOnInterface_byIP(interface, ip);
    }
    bool uses(const Addresses::value_type& interface) const { return user.isJoinedOn(interface.first); }
    /// Checks that the kernel has joined the group on these and no other interfaces.
    void expectWorksOn(const std::vector<std::string>& interfaces)
    {
        EXPECT_THAT(joinedInterfaces(), ElementsAreArray(interfaces));
    }

    static std::string added(const std::string& interface, const std::string&)
    {
        return "Notice: ServiceDiscovery joining IPv6 Multicast Group for Interface \"" + interface + "\".";
    }
    static std::string withoutMulticast(const std::string& interface, const std::string& ip)
    {
        return "Warning: ServiceDiscovery failed to join IPv6 Multicast Group on Interface \"" + interface +
               "\" with IP \"" + ip + "\": does not support Multicast.";
    }
    static std::string removed(const std::string& interface, const std::string& ip)
    {
        return "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"" + interface +
               "\" \"" + interface + "\" for given IP \"" + ip + "\".";
    }
    static std::string removedWithAll(const std::string& interface)
    {
        return "Notice: ServiceDiscovery leaving IPv6 Multicast Group for Interface \"" + interface +
               "\" \"" + interface + "\".";
    }
    static constexpr auto removingAll =
        "Notice: ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.";
    static std::string withoutAddresses(const std::string& interface)
    {
        return "Notice: ServiceDiscovery part of IPv6 Multicast Group for Interface \"" + interface +
               "\" with currently no IPs.";
    }
    static std::string wasWithoutAddresses(const std::string& interface)
    {
        return "Notice: ServiceDiscovery (was) part of IPv6 Multicast Group for Interface \"" + interface +
               "\" with currently no IPs.";
    }
    static std::string notRemoved(const std::string& interface, const std::string& ip)
    {
        return "Warning: Failed to leave IPv6 Multicast Group on Interface \"" + interface + "\" with IP \"" +
               ip + "\": not joined(?)";
    }
    static constexpr auto unparsable =
        "Error: ServiceDiscovery failed to leave IPv6 Multicast Group on Interface \"eth0\" with IP \"no "
        "address\": Invalid address: no address";

    Receiver user;
};

/// A sender or a receiver, on a unit whose eth0 and eth1 have the addresses fd01::1 and fd02::1.
template <class Use>
struct InterfaceUseTest : ::testing::Test
{
    InterfaceUseTest()
    {
        link("eth0", "fd01::1");
        link("eth1", "fd02::1");
    }

    void link(const std::string& interface, const std::string& address)
    {
        network.link(interface, address);
        addresses[interface] = address;
    }

    void add(const std::string& interface) { use.add(interface, addresses.at(interface)); }
    void addBoth()
    {
        add("eth0");
        add("eth1");
        log.clear();
    }

    std::vector<std::string> used() const
    {
        std::vector<std::string> result;
        for (const auto& interface : addresses) {
            if (use.uses(interface))
                result.push_back(interface.first);
        }
        return result;
    }

    /// Checks that these interfaces, in alphabetical order, and no others are used.
    void expectUsed(const std::vector<std::string>& interfaces)
    {
        EXPECT_EQ(used(), interfaces);
        use.expectWorksOn(interfaces);
    }

    NetworkPair network;
    HubUnit unit;
    LogCatcher log;
    Use use{unit};
    Addresses addresses;
};

struct UseNames
{
    template <class Use>
    static std::string GetName(int)
    {
        return Use::name;
    }
};

using Uses = ::testing::Types<SenderUse, ReceiverUse>;
TYPED_TEST_SUITE(InterfaceUseTest, Uses, UseNames);

}  // namespace

TYPED_TEST(InterfaceUseTest, ReportsOfThePlatformAddAndRemoveTheInterface)
{
    OEMInterface::AddServiceDiscoveryInterfacePayload added{{"eth0", "fd01::1"}};
    OEMInterface::RemoveServiceDiscoveryInterfacePayload removed{{"eth0", "fd01::1"}};

    this->use.user.onInterfaceAdded(added);
    this->expectUsed({"eth0"});
    this->use.user.onInterfaceRemoved(removed);
    EXPECT_THAT(this->used(), IsEmpty());

    EXPECT_THAT(this->log.lines(),
                ElementsAre(TypeParam::added("eth0", "fd01::1"), TypeParam::removed("eth0", "fd01::1")));
    this->expectUsed({});
}

TYPED_TEST(InterfaceUseTest, UnknownInterfaceOrAddressIsNotAdded)
{
    this->use.add("eth7", "fd01::1");
    this->use.add("eth0", "fd01::2");

    EXPECT_THAT(this->log.complaints(), IsEmpty());
    EXPECT_THAT(this->log.notices(), IsEmpty());
    this->expectUsed({});
}

TYPED_TEST(InterfaceUseTest, InterfaceWithoutMulticastIsNotAdded)
{
    this->network.here.ip("link set eth0 multicast off");

    this->add("eth0");

    EXPECT_THAT(this->log.lines(), ElementsAre(TypeParam::withoutMulticast("eth0", "fd01::1")));
    this->expectUsed({});
}

TYPED_TEST(InterfaceUseTest, AnyAddressOfTheInterfaceRemovesIt)
{
    this->network.here.addAddress("eth0", "fd01::2/64");
    this->addBoth();

    this->use.remove("eth0", "fd01::2");

    EXPECT_THAT(this->log.lines(), ElementsAre(TypeParam::removed("eth0", "fd01::2")));
    this->expectUsed({"eth1"});
}

TYPED_TEST(InterfaceUseTest, LinkLocalAddressIsTakenWithAndWithoutScope)
{
    this->link("eth2", "fe80::1");
    this->link("ETH3", "fe80::3");

    this->use.add("eth2", "fe80::1");
    this->use.add("ETH3", "fe80::3%ETH3");
    this->expectUsed({"ETH3", "eth2"});
    this->use.remove("eth2", "fe80::1%eth2");
    this->use.remove("ETH3", "fe80::3");

    EXPECT_THAT(this->log.complaints(), IsEmpty());
    this->expectUsed({});
}

TYPED_TEST(InterfaceUseTest, InterfaceThatWasNotAddedCannotBeRemoved)
{
    this->add("eth0");
    this->log.clear();

    this->use.remove("eth1", "fd02::1");
    this->use.remove("eth0", "fd02::1");
    this->use.remove("eth7", "fd01::1");

    EXPECT_THAT(this->log.lines(), ElementsAre(TypeParam::notRemoved("eth1", "fd02::1"),
                                               TypeParam::notRemoved("eth0", "fd02::1"),
                                               TypeParam::notRemoved("eth7", "fd01::1")));
    this->expectUsed({"eth0"});
}

TYPED_TEST(InterfaceUseTest, UnparsableAddressCannotBeRemoved)
{
    this->add("eth0");
    this->log.clear();

    this->use.remove("eth0", "no address");

    EXPECT_THAT(this->log.lines(), ElementsAre(TypeParam::unparsable));
    this->expectUsed({"eth0"});
}

TYPED_TEST(InterfaceUseTest, WildcardRemovesEveryInterface)
{
    this->add("eth1");
    this->add("eth0");
    this->network.here.ip("address flush dev eth1");
    this->log.clear();

    this->use.remove("", "::");

    EXPECT_THAT(this->log.lines(),
                ElementsAre(TypeParam::removingAll, TypeParam::removedWithAll("eth0"),
                            TypeParam::wasWithoutAddresses("eth1"), TypeParam::removedWithAll("eth1")));
    this->expectUsed({});
}

TYPED_TEST(InterfaceUseTest, InterfaceIsRemovedWhenItsAddressHasGone)
{
    this->network.here.addAddress("eth0", "fd01::2/64");
    this->add("eth0");
    this->network.here.ip("address delete fd01::1/64 dev eth0");
    this->log.clear();

    this->use.remove("eth0", "fd01::1");

    EXPECT_THAT(this->log.lines(), ElementsAre(TypeParam::removed("eth0", "fd01::1")));
    this->expectUsed({});
}

TYPED_TEST(InterfaceUseTest, InterfaceIsRemovedWhenAllItsAddressesHaveGone)
{
    this->link("eth2", "fe80::1");
    for (const std::string name : {"eth0", "eth2"}) {
        const std::string address = this->addresses.at(name);
        this->add(name);
        this->network.here.ip("address flush dev " + name);
        this->log.clear();

        this->use.remove(name, address);

        EXPECT_THAT(this->log.lines(),
                    ElementsAre(TypeParam::withoutAddresses(name), TypeParam::removed(name, address)));
        this->expectUsed({});
    }
}

TYPED_TEST(InterfaceUseTest, InterfaceIsRemovedWhenItsLinkHasGone)
{
    this->addBoth();
    this->network.here.ip("link delete eth0");
    this->log.clear();

    this->use.remove("eth0", "fd01::1");

    EXPECT_THAT(this->log.complaints(), IsEmpty());
    EXPECT_THAT(this->log.notices(),
                ElementsAre(TypeParam::withoutAddresses("eth0"), TypeParam::removed("eth0", "fd01::1")));
    this->expectUsed({"eth1"});
}

TYPED_TEST(InterfaceUseTest, InterfaceWithoutAddressesIsPassedOverInTheWalk)
{
    this->addBoth();
    this->network.here.ip("address flush dev eth0");
    this->log.clear();

    this->use.remove("eth1", "fd02::1");
    this->use.remove("eth0", "fd99::1");

    EXPECT_THAT(this->log.lines(),
                ElementsAre(TypeParam::withoutAddresses("eth0"), TypeParam::removed("eth1", "fd02::1"),
                            TypeParam::withoutAddresses("eth0"), TypeParam::notRemoved("eth0", "fd99::1")));
    EXPECT_THAT(this->used(), ElementsAre("eth0"));
}

TYPED_TEST(InterfaceUseTest, InterfacesComeAndGoOnTwoThreads)
{
    constexpr int changes = 200;

    const auto flap = [&](const std::string& interface) {
        for (int i = 0; i < changes; ++i) {
            this->add(interface);
            this->use.remove(interface, this->addresses.at(interface));
        }
        this->add(interface);
    };
    std::thread other([&] { flap("eth1"); });
    flap("eth0");
    other.join();

    EXPECT_THAT(this->log.complaints(), IsEmpty()) << "no change of one is undone by the other";
    this->expectUsed({"eth0", "eth1"});
}

}  // namespace Nubo::ServiceDiscovery::Testing
