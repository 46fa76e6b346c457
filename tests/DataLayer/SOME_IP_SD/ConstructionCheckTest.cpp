#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "support/LogCatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// How a class names itself in the two kinds of check, and the texts that make of it.
struct Texts
{
    const char* name;
    const char* emptyKind;
    const char* form;
    const char* valuesKind;
    const char* validEmpty;
    const char* emptyOfWrongClass;
    const char* invalidValues;
    const char* valuesOfWrongClass;
};

struct ConstructionCheckTest : ::testing::TestWithParam<Texts>
{};

}  // namespace

TEST_P(ConstructionCheckTest, GoodObjectsHaveNoFault)
{
    EXPECT_EQ(faultOfEmpty(GetParam().emptyKind, false, true), "");
    EXPECT_EQ(faultOfValues(GetParam().form, GetParam().valuesKind, true, true), "");
}

TEST_P(ConstructionCheckTest, ObjectToBeFilledMustNotBeValid)
{
    EXPECT_EQ(faultOfEmpty(GetParam().emptyKind, true, true), GetParam().validEmpty);
}

TEST_P(ConstructionCheckTest, ObjectToBeFilledMustHaveTheRightClass)
{
    EXPECT_EQ(faultOfEmpty(GetParam().emptyKind, false, false), GetParam().emptyOfWrongClass);
}

TEST_P(ConstructionCheckTest, ObjectOfValuesMustBeValid)
{
    EXPECT_EQ(faultOfValues(GetParam().form, GetParam().valuesKind, false, true), GetParam().invalidValues);
}

TEST_P(ConstructionCheckTest, ObjectOfValuesMustHaveTheRightClass)
{
    EXPECT_EQ(faultOfValues(GetParam().form, GetParam().valuesKind, true, false),
              GetParam().valuesOfWrongClass);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ConstructionCheckTest,
    ::testing::Values(
        Texts{"Service", "Service Entry", "", "Service Entry",
              "Service Entry data should not be valid in default Constructor!",
              "Implementation of Service Entry has wrong type in default Constructor!",
              "Service Entry data invalid!", "Implementation of Service Entry has wrong type!"},
        Texts{"Eventgroup", "Eventgroup Entry", "", "Eventgroup Entry",
              "Eventgroup Entry data should not be valid in default Constructor!",
              "Implementation of Eventgroup Entry has wrong type in default Constructor!",
              "Eventgroup Entry data invalid!", "Implementation of Eventgroup Entry has wrong type!"},
        Texts{"IPv4Array", "IPv4 Option", "Array ", "IP4-Option",
              "IPv4 Option data should not be valid in default Constructor!",
              "Implementation of IPv4 Option has wrong type in default Constructor!",
              "Array IP4-Option data invalid!", "Implementation of IP4-Option has wrong type!"},
        Texts{"IPv6String", "IPv6 Option", "String ", "IP6-Option",
              "IPv6 Option data should not be valid in default Constructor!",
              "Implementation of IPv6 Option has wrong type in default Constructor!",
              "String IP6-Option data invalid!", "Implementation of IP6-Option has wrong type!"},
        Texts{"LoadBalancing", "LoadBalancing Option", "", "LoadBalancing Option",
              "LoadBalancing Option data should not be valid in default Constructor!",
              "Implementation of LoadBalancing Option has wrong type in default Constructor!",
              "LoadBalancing Option data invalid!", "Implementation of LoadBalancing Option has wrong type!"},
        Texts{"Configuration", "Configuration Option", "Pair ", "Configuration-Option",
              "Configuration Option data should not be valid in default Constructor!",
              "Implementation of Configuration Option has wrong type in default Constructor!",
              "Pair Configuration-Option data invalid!",
              "Implementation of Configuration-Option has wrong type!"}),
    [](const auto& row) { return row.param.name; });

TEST(ConstructionFaultTest, FaultIsLoggedAsAnError)
{
    const LogCatcher log;

    logFault("Placeholder Option data should not be valid in default Constructor!");

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Placeholder Option data should not be valid in default Constructor!"));
}

TEST(ConstructionFaultTest, NoFaultIsNotLogged)
{
    const LogCatcher log;

    logFault("");

    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
