#include "ReportedInterfaces.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using OEMInterface::AddressKeys;
using OEMInterface::ChosenInterface;
using OEMInterface::Selection;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct ReportedInterfacesTest : ::testing::Test
{
    void follow(const Selection& selection)
    {
        interfaces.follow(
            selection, gone, [&](const ChosenInterface& one) { report("-", one); },
            [&](const ChosenInterface& one) { report("+", one); });
    }

    /// Throws for the report that equals `failing`.
    void report(const std::string& sign, const ChosenInterface& one)
    {
        const std::string line = sign + one.name + " " + one.ip;
        if (line == failing)
            throw std::runtime_error("no memory");
        lines.push_back(line);
    }

    std::vector<std::string> takeLines() { return std::exchange(lines, {}); }

    OEMInterface::ReportedInterfaces interfaces;
    AddressKeys gone;
    std::string failing;
    std::vector<std::string> lines;
};

const ChosenInterface eth0{"eth0", "fd00::1"};
const ChosenInterface eth1{"eth1", "fd01::1"};
const ChosenInterface eth2{"eth2", "fd02::1"};

}  // namespace

TEST_F(ReportedInterfacesTest, DifferencesAreReportedRemovalsFirst)
{
    follow({{2, eth0}, {3, eth1}});
    EXPECT_THAT(takeLines(), ElementsAre("+eth0 fd00::1", "+eth1 fd01::1"));

    follow({{1, eth2}, {3, eth1}});
    EXPECT_THAT(takeLines(), ElementsAre("-eth0 fd00::1", "+eth2 fd02::1"));

    follow({{1, eth2}, {3, eth1}});
    EXPECT_THAT(takeLines(), IsEmpty());
    EXPECT_EQ(interfaces.present(), (Selection{{1, eth2}, {3, eth1}}));
}

TEST_F(ReportedInterfacesTest, InterfaceWithAnotherNameOrAddressIsReportedGoneAndThere)
{
    follow({{2, eth0}, {3, eth1}});
    takeLines();

    follow({{2, {"lan0", "fd00::1"}}, {3, {"eth1", "fd01::2"}}});

    EXPECT_THAT(takeLines(), ElementsAre("-eth0 fd00::1", "-eth1 fd01::1", "+lan0 fd00::1", "+eth1 fd01::2"));
}

TEST_F(ReportedInterfacesTest, InterfaceWhoseAddressWasGoneMeanwhileIsReportedGoneAndThere)
{
    follow({{2, eth0}, {3, eth1}});
    takeLines();
    gone = {{3, "fd01::1"}, {4, "fd00::1"}};

    follow({{2, eth0}, {3, eth1}});

    EXPECT_THAT(takeLines(), ElementsAre("-eth1 fd01::1", "+eth1 fd01::1"));
    EXPECT_THAT(gone, IsEmpty());
}

TEST_F(ReportedInterfacesTest, AdditionThatFailsIsRepeatedAndNoOther)
{
    failing = "+eth1 fd01::1";
    EXPECT_THROW(follow({{2, eth0}, {3, eth1}, {4, eth2}}), std::runtime_error);
    EXPECT_THAT(takeLines(), ElementsAre("+eth0 fd00::1"));

    failing.clear();
    follow({{2, eth0}, {3, eth1}, {4, eth2}});
    EXPECT_THAT(takeLines(), ElementsAre("+eth1 fd01::1", "+eth2 fd02::1"));
}

TEST_F(ReportedInterfacesTest, AdditionThatFailsIsNotRepeatedWhenTheInterfaceIsGone)
{
    failing = "+eth0 fd00::1";
    EXPECT_THROW(follow({{2, eth0}}), std::runtime_error);

    failing.clear();
    follow({});
    EXPECT_THAT(takeLines(), IsEmpty());
}

TEST_F(ReportedInterfacesTest, RemovalThatFailsIsRepeatedAndNoOther)
{
    follow({{2, eth0}, {3, eth1}, {4, eth2}});
    takeLines();
    failing = "-eth1 fd01::1";
    EXPECT_THROW(follow({}), std::runtime_error);
    EXPECT_THAT(takeLines(), ElementsAre("-eth0 fd00::1"));

    failing.clear();
    follow({});
    EXPECT_THAT(takeLines(), ElementsAre("-eth1 fd01::1", "-eth2 fd02::1"));
}

TEST_F(ReportedInterfacesTest, GoneAddressIsRememberedUntilItsRemovalIsReported)
{
    follow({{2, eth0}, {3, eth1}});
    takeLines();
    gone = {{2, "fd00::1"}, {3, "fd01::1"}};
    failing = "-eth1 fd01::1";
    EXPECT_THROW(follow({{2, eth0}, {3, eth1}}), std::runtime_error);
    EXPECT_THAT(takeLines(), ElementsAre("-eth0 fd00::1"));

    failing.clear();
    follow({{2, eth0}, {3, eth1}});
    EXPECT_THAT(takeLines(), ElementsAre("-eth1 fd01::1", "+eth0 fd00::1", "+eth1 fd01::1"));
}

TEST_F(ReportedInterfacesTest, GoneAddressIsForgottenOnceItsRemovalIsReported)
{
    follow({{2, eth0}});
    takeLines();
    gone = {{2, "fd00::1"}};
    failing = "+eth0 fd00::1";
    EXPECT_THROW(follow({{2, eth0}}), std::runtime_error);
    EXPECT_THAT(takeLines(), ElementsAre("-eth0 fd00::1"));

    failing.clear();
    follow({{2, eth0}});
    EXPECT_THAT(takeLines(), ElementsAre("+eth0 fd00::1"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
