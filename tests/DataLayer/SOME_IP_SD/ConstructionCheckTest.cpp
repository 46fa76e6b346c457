#include "DataLayer/SOME_IP_SD/ConstructionCheck.h"
#include "support/LogCatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(ConstructionCheckTest, GoodObjectsHaveNoFault)
{
    EXPECT_EQ(faultOfEmpty("IPv4 Option", false, true), "");
    EXPECT_EQ(faultOfValues("Array ", "IP4-Option", true, true), "");
}

TEST(ConstructionCheckTest, ObjectToBeFilledMustNotBeValid)
{
    EXPECT_EQ(faultOfEmpty("Service Entry", true, true),
              "Service Entry data should not be valid in default Constructor!");
}

TEST(ConstructionCheckTest, ObjectToBeFilledMustHaveTheRightClass)
{
    EXPECT_EQ(faultOfEmpty("IPv4 Option", false, false),
              "Implementation of IPv4 Option has wrong type in default Constructor!");
}

TEST(ConstructionCheckTest, ObjectOfValuesMustBeValid)
{
    EXPECT_EQ(faultOfValues("", "Service Entry", false, true), "Service Entry data invalid!");
    EXPECT_EQ(faultOfValues("Array ", "IP4-Option", false, true), "Array IP4-Option data invalid!");
}

TEST(ConstructionCheckTest, ObjectOfValuesMustHaveTheRightClass)
{
    EXPECT_EQ(faultOfValues("Array ", "IP4-Option", true, false),
              "Implementation of IP4-Option has wrong type!");
}

TEST(ConstructionCheckTest, FaultIsLoggedAsAnError)
{
    const LogCatcher log;

    logFault("Placeholder Option data should not be valid in default Constructor!");

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Placeholder Option data should not be valid in default Constructor!"));
}

TEST(ConstructionCheckTest, NoFaultIsNotLogged)
{
    const LogCatcher log;

    logFault("");

    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
