#include "soak/Resources.h"

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

TEST(ResourcesTest, DriftIsTheRiseInPercentOfTheMean)
{
    EXPECT_DOUBLE_EQ(driftOf({{0, 9}, {5, 10}, {10, 11}}), 20);
    EXPECT_DOUBLE_EQ(driftOf({{0, 11}, {5, 10}, {10, 9}}), -20);
    EXPECT_DOUBLE_EQ(driftOf({{0, 10}, {5, 13}, {10, 10}}), 0);
}

TEST(ResourcesTest, TooFewSamplesDoNotDrift)
{
    EXPECT_DOUBLE_EQ(driftOf({}), 0);
    EXPECT_DOUBLE_EQ(driftOf({{0, 10}}), 0);
}

TEST(ResourcesTest, WarmUpIsTheFirstQuarter)
{
    const std::vector<Sample> rest = afterWarmUp({{0, 1}, {1, 1}, {2, 7}, {3, 7}, {4, 7}});

    EXPECT_EQ(rest.size(), 3u);
    EXPECT_DOUBLE_EQ(meanOf(rest), 7);
}

TEST(ResourcesTest, AProcessHasAThreadDescriptorsAndMemory)
{
    const Resources current = Resources::current();

    EXPECT_GE(current.threads, 1u);
    EXPECT_GE(current.descriptors, 3u);
    EXPECT_GT(current.resident, current.allocated);
    EXPECT_GT(current.allocated, 0);
}

}  // namespace Nubo::ServiceDiscovery::Testing
