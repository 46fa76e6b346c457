#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct SOME_IP_SD_Option_PlaceholderTest : ::testing::Test
{
    LogCatcher log;
    SOME_IP_SD_Option_Placeholder placeholder{300};
};

}  // namespace

TEST_F(SOME_IP_SD_Option_PlaceholderTest, KeepsTheLengthItWasGivenAndIsNeverValid)
{
    EXPECT_EQ(placeholder.getType(), OptionType::NONE);
    EXPECT_EQ(placeholder.getLength(), 300);
    EXPECT_EQ(placeholder.getSize(), 303u);
    EXPECT_FALSE(placeholder.isValid());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_PlaceholderTest, WritesNothingButAWarning)
{
    EXPECT_EQ(written(placeholder), "");
    EXPECT_THAT(log.lines(), ElementsAre("Warning: Trying to serialise Placeholder-Option!"));
}

TEST_F(SOME_IP_SD_Option_PlaceholderTest, ReadsNothingAndWarns)
{
    std::istringstream stream = streamOf("01 02 03");

    stream >> placeholder;

    EXPECT_EQ(unread(stream), 3);
    EXPECT_FALSE(placeholder.isValid());
    EXPECT_THAT(log.lines(), ElementsAre("Warning: Trying to deserialise Placeholder-Option!"));
}

TEST_F(SOME_IP_SD_Option_PlaceholderTest, ReadingReturnsZero)
{
    EXPECT_EQ(Opened<SOME_IP_SD_Option_Placeholder>(300).readBytes("01 02 03"), 0);
}

TEST_F(SOME_IP_SD_Option_PlaceholderTest, TextNamesTheKind)
{
    EXPECT_EQ(placeholder.toString(2), "\t\tPlaceholder Option: ");
}

}  // namespace Nubo::ServiceDiscovery::Testing
