#include "DataLayer/SOME_IP_SD/ConfigurationOptions.h"
#include "support/FailingAllocations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

namespace {

struct SOME_IP_SD_Option_ConfigurationReadingTest : ConfigurationOptionTest
{};

}  // namespace

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, OptionToBeReadIsInvalidAndHoldsNothing)
{
    const Option option(7);

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(option.getType(), OptionType::CONFIGURATION);
    EXPECT_EQ(option.getLength(), 7);
    EXPECT_EQ(option.getConfigurationStringLength(), 5);
    EXPECT_EQ(option.getConfigurationString(), nullptr);
    EXPECT_THAT(option.getConfigurationPairs(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, ReceivedOptionIsTakenApartIntoPairs)
{
    const Option& option = read(8, "55 01 61 03 62 3d 32 00 ff");

    EXPECT_TRUE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", ""), Pair("b", "2")));
    EXPECT_EQ(option.getConfigurationStringLength(), 6);
    EXPECT_EQ(toHex(option.getConfigurationString(), 7), "01 61 03 62 3d 32 00");
    EXPECT_EQ(unread(stream), 1);
    EXPECT_EQ(written(option), "00 08 01 55 01 61 03 62 3d 32 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, OptionThatEndsTheStreamIsGood)
{
    const Option& option = read(8, "00 01 61 03 62 3d 32 00");

    EXPECT_TRUE(option.isValid());
    EXPECT_TRUE(stream.good());
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, ReceivedTerminatorAloneIsAnEmptyConfiguration)
{
    const Option& option = read(2, "00 00");

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getConfigurationStringLength(), 0);
    EXPECT_THAT(option.getConfigurationPairs(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, ValueOfTheReceivedTerminatorIsNotLookedAt)
{
    const Option& option = read(6, "00 03 61 3d 31 42");

    EXPECT_TRUE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", "1")));
    EXPECT_EQ(written(option), "00 06 01 00 03 61 3d 31 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, WhiteSpaceIsReadLikeAnyOtherByte)
{
    const Option& option = read(6, "20 03 61 3d 20 0a");

    EXPECT_TRUE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", " ")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, LargestReceivedOptionIsRead)
{
    std::string string;
    for (const auto& [key, value] : pairsOfSize(65533))
        string += configText(key);

    const Option& option = read(65535, "00 " + toHex(string) + " 00");

    EXPECT_TRUE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), SizeIs(256));
    EXPECT_TRUE(stream.good());
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, LengthOneHasNoRoomForATerminator)
{
    const Option& option = read(1, "00 ff");

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(unread(stream), 1) << "the stream is at the option's end";
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Configuration_Option string length '65535' found during "
                            "deserialisation, exceeds length field of Option!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest,
       ZeroBeforeTheEndOfTheStringIsAMismatchAndTheOptionIsPassedOver)
{
    const Option& option = read(11, "00 03 61 3d 31 00 03 62 3d 32 00 ff");

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), IsEmpty());
    EXPECT_EQ(unread(stream), 1);
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD_Configuration_Option size=10, but 5 read by deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, NothingBehindAnInnerZeroIsKept)
{
    const Option& option = read(11, "00 03 61 3d 31 00 03 62 3d 32 00");

    EXPECT_EQ(toHex(option.getConfigurationString(), 10), "03 61 3d 31 00 00 00 00 00 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, InnerZeroAtOnceLeavesAnEmptyString)
{
    const Option& option = read(6, "00 00 61 3d 31 00");

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(toHex(option.getConfigurationString(), 5), "00 00 00 00 00");
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Configuration_Option size=5, but 1 read by deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, MismatchMakesAValidOptionInvalid)
{
    for (const std::string hex : {"00 03 61 00 31 00", "00 03 61 3d", "00 03 61 3d 31", ""}) {
        Option option(ConfigurationPairs{{"a", "1"}});
        ASSERT_TRUE(option.isValid());

        streamOf(hex) >> option;

        EXPECT_FALSE(option.isValid()) << hex;
    }
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, LengthOneMakesAValidOptionInvalid)
{
    Implementation option(1);
    option.setValid(true);
    stream = streamOf("00");

    option.deserialise(stream);

    EXPECT_FALSE(option.isValid());
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, MissingMemoryMakesAValidOptionInvalid)
{
    Option option(ConfigurationPairs{{"a", "1"}});
    stream = streamOf("00 03 62 3d 32 00");
    const FailingAllocation memory(1);

    stream >> option;

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(log.lines(), ElementsAre("Error: deserialise: failed, allocation of m_configurationString "
                                         "returned nullptr!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, StringCutShortIsAMismatch)
{
    const Option& option = read(8, "00 01 61 03 62");

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Configuration_Option size=7, but 4 read by deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, MissingTerminatorIsAMismatch)
{
    const Option& option = read(8, "00 01 61 03 62 3d 32");

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Configuration_Option size=7, but 6 read by deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, ReceivedStringWithoutMemoryIsPassedOver)
{
    Option option(6);
    std::istringstream bytes = streamOf("00 03 61 3d 31 00 ff");
    const FailingAllocation memory(1);

    bytes >> option;

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(option.getConfigurationString(), nullptr);
    EXPECT_EQ(unread(bytes), 1);
    EXPECT_THAT(log.lines(), ElementsAre("Error: deserialise: failed, allocation of m_configurationString "
                                         "returned nullptr!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, EmptyStreamLacksTheReservedByteToo)
{
    const Option& option = read(8, "");

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Option size=1, but 0 read by deserialisation",
                            "Error: SOME_IP_SD_Configuration_Option size=7, but 0 read by deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, MalformedReceivedStringLeavesTheStreamAtTheOptionsEnd)
{
    const Option& option = read(10, "00 03 61 3d 31 03 3d 61 62 00 ff");

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(unread(stream), 1);
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: isValidSubstring: given string starts with forbidden character '=' = 0x3d!",
                    "Error: initFromString: found invalid substring: '=ab'!",
                    "Error: SOME_IP_SD_Configuration_Option failed to parse Configuration during "
                    "deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, ReceivedTextBeyondTheStringIsMalformed)
{
    const Option& option = read(6, "00 04 61 3d 31 00");

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: input string substring lengths don't add up to given "
                            "overall length!",
                            "Error: SOME_IP_SD_Configuration_Option failed to parse Configuration during "
                            "deserialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, ReadingReturnsTheBytesUpToTheFirstZero)
{
    const auto readBytes = [](std::uint16_t length, const std::string& hex) {
        std::istringstream bytes = streamOf(hex);
        return Implementation(length).deserialise(bytes);
    };

    EXPECT_EQ(readBytes(8, "00 01 61 03 62 3d 32 00"), 7);
    EXPECT_EQ(readBytes(8, "00 01 61 00 62 3d 32 00"), 3);
    EXPECT_EQ(readBytes(8, "00 01 61"), 2);
    EXPECT_EQ(readBytes(1, "00"), 0);
}

TEST_F(SOME_IP_SD_Option_ConfigurationReadingTest, ReceivedNameWithoutValueMakesTheWholeOptionInvalid)
{
    const Option& option = read(16, "00 03 61 3d 31 09 6f 74 68 65 72 73 65 72 76 00");

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: Error while parsing input string, keyword 'otherserv' is "
                            "not allowed to be empty!",
                            "Error: SOME_IP_SD_Configuration_Option failed to parse Configuration during "
                            "deserialisation!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
