#include "InterfaceSelection.h"

#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace OEMInterface {

/// For the messages of failing tests.
std::ostream& operator<<(std::ostream& stream, const ChosenInterface& chosen);
std::ostream& operator<<(std::ostream& stream, const ChosenInterface& chosen)
{
    return stream << chosen.name << " " << chosen.ip;
}

}  // namespace OEMInterface

namespace Nubo::ServiceDiscovery::Testing {

using OEMInterface::LinkAddress;
using OEMInterface::Links;
using OEMInterface::selectInterfaces;
using OEMInterface::Selection;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

namespace {

LinkAddress address(const std::string& text)
{
    LinkAddress result;
    result.text = text;
    result.isLinkLocal = text.rfind("fe80", 0) == 0;
    return result;
}

LinkAddress tentative(const std::string& text)
{
    LinkAddress result = address(text);
    result.isTentative = true;
    return result;
}

LinkAddress duplicate(const std::string& text)
{
    LinkAddress result = tentative(text);
    result.isDuplicate = true;
    return result;
}

LinkAddress deprecated(const std::string& text)
{
    LinkAddress result = address(text);
    result.isDeprecated = true;
    return result;
}

struct Choice
{
    const char* name;
    std::vector<LinkAddress> addresses;
    const char* previous;
    const char* chosen;  ///< none if empty

    friend std::ostream& operator<<(std::ostream& stream, const Choice& row)
    {
        return stream << '"' << row.chosen << '"';
    }
};

struct AddressChoiceTest : ::testing::TestWithParam<Choice>
{};

}  // namespace

TEST_P(AddressChoiceTest, IsMadeFromTheAddressesAndThePreviousChoice)
{
    const Choice& row = GetParam();
    Selection previous;
    if (*row.previous)
        previous[2] = {"eth0", row.previous};

    const Selection selection = selectInterfaces({{2, {"eth0", row.addresses}}}, previous);

    if (*row.chosen)
        EXPECT_THAT(selection, ElementsAre(Pair(2, OEMInterface::ChosenInterface{"eth0", row.chosen})));
    else
        EXPECT_THAT(selection, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    NewInterface, AddressChoiceTest,
    ::testing::Values(
        Choice{"NoAddress", {}, "", ""},  //
        Choice{"Global", {address("fd00::1")}, "", "fd00::1"},
        Choice{"LinkLocal", {address("fe80::1")}, "", "fe80::1"},
        Choice{"GlobalBeforeLinkLocal", {address("fe80::1"), address("fd00::1")}, "", "fd00::1"},
        Choice{"FirstOfSeveral", {address("fd00::2"), address("fd00::1")}, "", "fd00::2"},
        Choice{"Tentative", {tentative("fd00::1")}, "", ""},
        Choice{"TentativeLinkLocal", {tentative("fe80::1")}, "", ""},
        Choice{"Duplicate", {duplicate("fd00::1")}, "", ""},
        Choice{"LinkLocalWaitsForATentativeGlobal", {address("fe80::1"), tentative("fd00::1")}, "", ""},
        Choice{
            "LinkLocalDoesNotWaitForADuplicate", {address("fe80::1"), duplicate("fd00::1")}, "", "fe80::1"},
        Choice{
            "LinkLocalDoesNotWaitForALinkLocal", {address("fe80::1"), tentative("fe80::2")}, "", "fe80::1"},
        Choice{"GlobalDoesNotWait", {tentative("fd00::2"), address("fd00::1")}, "", "fd00::1"},
        Choice{"DeprecatedAsTheOnlyOne", {deprecated("fd00::1")}, "", "fd00::1"},
        Choice{"DeprecatedAfterOthers", {deprecated("fd00::1"), address("fd00::2")}, "", "fd00::2"},
        Choice{
            "DeprecatedGlobalBeforeLinkLocal", {address("fe80::1"), deprecated("fd00::1")}, "", "fd00::1"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    InterfaceInUse, AddressChoiceTest,
    ::testing::Values(
        Choice{"Stays", {address("fd00::1"), address("fd00::2")}, "fd00::2", "fd00::2"},
        Choice{"DeprecatedStays", {address("fd00::1"), deprecated("fd00::2")}, "fd00::2", "fd00::2"},
        Choice{"GlobalReplacesLinkLocal", {address("fe80::1"), address("fd00::1")}, "fe80::1", "fd00::1"},
        Choice{"DeprecatedGlobalReplacesLinkLocal",
               {address("fe80::1"), deprecated("fd00::1")},
               "fe80::1",
               "fd00::1"},
        Choice{"LinkLocalStaysWhileAGlobalIsTentative",
               {address("fe80::1"), tentative("fd00::1")},
               "fe80::1",
               "fe80::1"},
        Choice{"GoneAddressIsReplaced", {address("fd00::3")}, "fd00::2", "fd00::3"},
        Choice{"GoneGlobalIsReplacedByLinkLocal", {address("fe80::1")}, "fd00::2", "fe80::1"},
        Choice{"GoneGlobalWaitsForATentativeOne", {address("fe80::1"), tentative("fd00::3")}, "fd00::2", ""},
        Choice{"TentativeAgain", {tentative("fd00::2")}, "fd00::2", ""},
        Choice{"DuplicateAgain", {duplicate("fd00::2"), address("fe80::1")}, "fd00::2", "fe80::1"},
        Choice{"NoAddressLeft", {}, "fd00::2", ""}),
    [](const auto& row) { return row.param.name; });

TEST(InterfaceSelectionTest, NothingIsChosenWithoutLinks)
{
    EXPECT_THAT(selectInterfaces({}, {{2, {"eth0", "fd00::1"}}}), IsEmpty());
}

TEST(InterfaceSelectionTest, EachLinkIsChosenForByItself)
{
    const Links links{{2, {"eth0", {address("fd00::1")}}},
                      {3, {"eth1", {}}},
                      {4, {"eth2", {address("fe80::1"), address("fe80::2")}}}};

    const Selection selection = selectInterfaces(links, {{4, {"eth2", "fe80::2"}}});

    EXPECT_THAT(selection, ElementsAre(Pair(2, OEMInterface::ChosenInterface{"eth0", "fd00::1"}),
                                       Pair(4, OEMInterface::ChosenInterface{"eth2", "fe80::2"})));
}

TEST(InterfaceSelectionTest, RenamedLinkHasNoHistory)
{
    const Links links{{2, {"lan0", {address("fd00::1"), address("fd00::2")}}}};

    const Selection selection = selectInterfaces(links, {{2, {"eth0", "fd00::2"}}});

    EXPECT_THAT(selection, ElementsAre(Pair(2, OEMInterface::ChosenInterface{"lan0", "fd00::1"})));
}

TEST(InterfaceSelectionTest, LinkWithAnotherIndexHasNoHistory)
{
    const Links links{{5, {"eth0", {address("fd00::1"), address("fd00::2")}}}};

    const Selection selection = selectInterfaces(links, {{2, {"eth0", "fd00::2"}}});

    EXPECT_THAT(selection, ElementsAre(Pair(5, OEMInterface::ChosenInterface{"eth0", "fd00::1"})));
}

}  // namespace Nubo::ServiceDiscovery::Testing
