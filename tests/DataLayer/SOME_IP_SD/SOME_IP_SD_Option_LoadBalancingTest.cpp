#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct SOME_IP_SD_Option_LoadBalancingTest : ::testing::Test
{
    /// Reads the bytes behind the type byte into an option of a received length.
    SOME_IP_SD_Option::Ptr read(std::uint16_t length, const std::string& hex)
    {
        SOME_IP_SD_Option::Ptr option = SOME_IP_SD_Option::makeReceived(OptionType::LOAD_BALANCING, length);
        stream = streamOf(hex);
        stream >> *option;
        return option;
    }

    LogCatcher log;
    std::istringstream stream;
};

}  // namespace

TEST_F(SOME_IP_SD_Option_LoadBalancingTest, DefaultIsZeroAndInvalidUntilRead)
{
    const SOME_IP_SD_Option_LoadBalancing option;

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(option.getType(), OptionType::LOAD_BALANCING);
    EXPECT_EQ(option.getLength(), 5);
    EXPECT_EQ(option.getPriority(), 0);
    EXPECT_EQ(option.getWeight(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_LoadBalancingTest, PriorityAndWeightAreWrittenInTheirPlaces)
{
    const SOME_IP_SD_Option_LoadBalancing option(0x0102, 0xfffe);

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getSize(), 8u);
    EXPECT_EQ(written(option), "00 05 02 00 01 02 ff fe");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_LoadBalancingTest, PriorityAndWeightAreReadFromTheirPlaces)
{
    SOME_IP_SD_Option_LoadBalancing option;
    stream = streamOf("55 01 02 03 04");

    stream >> option;

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getPriority(), 0x0102);
    EXPECT_EQ(option.getWeight(), 0x0304);
    EXPECT_TRUE(stream.good()) << "the stream ends with the option";
    EXPECT_EQ(written(option), "00 05 02 55 01 02 03 04");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_LoadBalancingTest, MismatchTakesNothingOver)
{
    const SOME_IP_SD_Option::Ptr cut = read(5, "00 01 02 03");
    const SOME_IP_SD_Option::Ptr tooLong = read(6, "00 01 02 03 04 05");

    for (const SOME_IP_SD_Option::Ptr& option : {cut, tooLong}) {
        const auto& loadBalancing = dynamic_cast<const SOME_IP_SD_Option_LoadBalancing&>(*option);
        EXPECT_EQ(loadBalancing.getPriority(), 0);
        EXPECT_EQ(loadBalancing.getWeight(), 0);
    }
}

TEST_F(SOME_IP_SD_Option_LoadBalancingTest, ReadThatIsCutShortLeavesAValidOptionAsItWas)
{
    SOME_IP_SD_Option_LoadBalancing option(7, 8);

    streamOf("00 01 02 03") >> option;

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getPriority(), 7);
    EXPECT_EQ(option.getWeight(), 8);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Option_LoadBalancing size=4, but 3 read by deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_LoadBalancingTest, TextHoldsPriorityAndWeight)
{
    EXPECT_EQ(SOME_IP_SD_Option_LoadBalancing(7, 65535).toString(1),
              "\tLoadBalancing Option: Priority(7), Weight(65535)");
}

}  // namespace Nubo::ServiceDiscovery::Testing
