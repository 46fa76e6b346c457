#include "DataLayer/SOME_IP_SD/ConfigurationOptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// Reach and order of the checks of a configuration option. The order shows in the fault that is reported
/// when several exist.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;

namespace {

struct SOME_IP_SD_Option_ConfigurationChecksTest : ConfigurationOptionTest
{
    const std::string unterminated = configText("a=1") + "x";
    Implementation initialised{ConfigurationPairs{{"a", "1"}}};
};

}  // namespace

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, MissingStringIsReportedBeforeAnEarlierInitialisation)
{
    EXPECT_FALSE(initialised.initFromString(nullptr, 4));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: Option cannot be initialised with nullptr!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, EarlierInitialisationIsReportedBeforeAMissingTerminator)
{
    EXPECT_FALSE(initialised.initFromString(bytesOf(unterminated), 4));

    EXPECT_THAT(log.errors(), ElementsAre("Error: initFromString: Option is already initialised!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, MissingTerminatorIsReportedBeforeTheTexts)
{
    const std::string string = configText("=") + "x";

    EXPECT_FALSE(Implementation(1).initFromString(bytesOf(string), 2));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: input string not 0-terminated or length mismatch!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, LengthBeyondTheStringIsReportedBeforeTheCharacters)
{
    const std::string string = "\x04=\n1";

    EXPECT_FALSE(Implementation(1).initFromString(bytesOf(string), 4));

    EXPECT_THAT(log.errors(), ElementsAre("Error: initFromString: input string substring lengths don't add "
                                          "up to given overall length!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, ZeroInsideIsReportedBeforeWhatFollowsIt)
{
    std::uint8_t position = 99;

    EXPECT_FALSE(Implementation::isValidSubstring(bytesOf(literal("\0\x01==")), 4, &position));

    EXPECT_THAT(log.errors(), ElementsAre("Error: isValidSubstring: given string is '0' terminated!"));
    EXPECT_EQ(position, 99) << "a refused text has no position";
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, FirstCharacterIsLookedAtBeforeTheSecond)
{
    EXPECT_FALSE(Implementation::isValidSubstring(bytesOf("=\x01"), 2, nullptr));

    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: isValidSubstring: given string starts with forbidden character '=' = 0x3d!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, KeyIsReportedBeforeItsValue)
{
    EXPECT_FALSE(Implementation(1).initFromPairs({{"k=", "v="}}));

    EXPECT_THAT(log.errors(), ElementsAre("Error: initFromPairs: invalid Configuration-key detected: 'k='!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, ValueIsReportedBeforeTheLengthOfThePair)
{
    const std::string value = std::string(254, 'v') + '=';

    EXPECT_FALSE(Implementation(1).initFromPairs({{"key", value}}));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromPairs: invalid Configuration-value detected: '" + value + "'!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, PairsAreCheckedInTheirOrder)
{
    EXPECT_FALSE(Implementation(1).initFromPairs({{"b=", "1"}, {"a", "2="}}));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromPairs: invalid Configuration-value detected: '2='!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, EarlierInitialisationIsReportedBeforeThePairs)
{
    EXPECT_FALSE(initialised.initFromPairs({{"=", "="}}));

    EXPECT_THAT(log.errors(), ElementsAre("Error: initFromPairs: Option is already initialised!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, StringFarBeyondTheLengthFieldIsRefused)
{
    EXPECT_FALSE(Implementation(1).initFromPairs(pairsOfSize(0x10004)));

    EXPECT_THAT(log.errors(), ElementsAre("Error: copyConfigurationString: generated Configuration-string is "
                                          "too long, length of '65541' exceeds Option length field!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, LengthOfAStringThatIsRefusedHasSixteenBits)
{
    EXPECT_EQ(Implementation(nullptr, 0x1234).getLength(), 0x1235);
}

TEST_F(SOME_IP_SD_Option_ConfigurationChecksTest, StringThatIsThereIsReportedBeforeTheLengthOfAnother)
{
    const std::string tooLong(65534, 'x');

    EXPECT_FALSE(initialised.copyConfigurationString(bytesOf(tooLong), 65534));

    EXPECT_THAT(log.lines(), ElementsAre("Warning: copyConfigurationString: failed to set, "
                                         "m_configurationString is not a nullptr!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
