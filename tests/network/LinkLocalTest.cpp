#include "InterfacesFixture.h"

#include <cstddef>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::IsEmpty;
using ::testing::Values;

namespace {

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

constexpr auto rowName = [](const auto& row) { return row.param.name; };

}  // namespace

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

}  // namespace Nubo::ServiceDiscovery::Testing
