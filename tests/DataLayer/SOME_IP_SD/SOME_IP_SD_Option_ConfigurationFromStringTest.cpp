#include "DataLayer/SOME_IP_SD/ConfigurationOptions.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Pair;
using Option = SOME_IP_SD_Option_Configuration;

namespace {

struct SOME_IP_SD_Option_ConfigurationFromStringTest : ConfigurationOptionTest
{};

}  // namespace

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, StringIsTakenApartIntoPairs)
{
    const Option option = optionOf(configText("b=2") + configText("a") + configText("c="));

    EXPECT_TRUE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", ""), Pair("b", "2"), Pair("c", "")));
    EXPECT_EQ(option.getConfigurationStringLength(), 9);
    EXPECT_EQ(option.getLength(), 11);
    EXPECT_EQ(written(option), "00 0b 01 00 03 62 3d 32 01 61 02 63 3d 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, StringIsCopied)
{
    std::string string = configText("a=1");

    const Option option = optionOf(string);
    string.assign(string.size(), 'x');

    EXPECT_EQ(toHex(option.getConfigurationString(), 5), "03 61 3d 31 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, TextsWithEqualKeysAreSeveralPairsInTheirOrder)
{
    const Option option = optionOf(configText("k=2") + configText("a=x") + configText("k=1"));
    std::vector<std::string> values{"before"};

    option.getAllValues("k", values);

    EXPECT_THAT(values, ElementsAre("before", "2", "1")) << "the vector is not cleared";
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", "x"), Pair("k", "2"), Pair("k", "1")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, EmptyStringIsAnEmptyConfiguration)
{
    const std::vector<std::uint8_t> onlyTerminator{0};

    const Option option(onlyTerminator.data(), 0);

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getConfigurationStringLength(), 0);
    EXPECT_THAT(option.getConfigurationPairs(), IsEmpty());
    EXPECT_EQ(written(option), "00 02 01 00 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, NameMayHaveAnEmptyValueAfterEquals)
{
    EXPECT_THAT(optionOf(configText("otherserv=")).getConfigurationPairs(),
                ElementsAre(Pair("otherserv", "")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, StringOf65534BytesCannotBeKept)
{
    std::string string;
    for (const auto& [key, value] : pairsOfSize(65534))
        string += configText(key);

    const std::string failure = failureOf([&] { optionOf(string); });

    EXPECT_EQ(failure, "String Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(), ElementsAre("Error: copyConfigurationString: generated Configuration-string is "
                                          "too long, length of '65535' exceeds Option length field!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, MissingStringIsRefused)
{
    const std::string failure = failureOf([] { Option option(nullptr, 4); });

    EXPECT_EQ(failure, "String Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: Option cannot be initialised with nullptr!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, LengthOfAStringThatIsRefusedCountsNoTerminator)
{
    const Implementation implementation(nullptr, 4);

    EXPECT_FALSE(implementation.isValid());
    EXPECT_EQ(implementation.getLength(), 5);
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, StringWithoutTerminatorAtItsLengthIsRefused)
{
    const std::string string = configText("a=1") + "x";

    const std::string failure = failureOf([&] { Option option(bytesOf(string), 4); });

    EXPECT_EQ(failure, "String Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: input string not 0-terminated or length mismatch!"));
}

namespace {

struct RefusedString
{
    const char* name;
    std::string string;
    std::vector<std::string> lines;
};

struct RefusedStringTest : ::testing::TestWithParam<RefusedString>
{};

}  // namespace

TEST_P(RefusedStringTest, IsLoggedAndThrows)
{
    const LogCatcher log;

    const std::string failure = failureOf([] { optionOf(GetParam().string); });

    EXPECT_EQ(failure, "String Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(), ElementsAreArray(GetParam().lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD_Option_Configuration, RefusedStringTest,
    ::testing::Values(
        RefusedString{"ZeroAtTheEnd",
                      configText("a=1") + '\0',
                      {"Error: initFromString: input string not 0-terminated or length mismatch!"}},
        RefusedString{"ZeroAlone",
                      literal("\0"),
                      {"Error: initFromString: input string not 0-terminated or length mismatch!"}},
        RefusedString{"ZeroLengthInTheMiddle",
                      configText("a=1") + '\0' + configText("b=2"),
                      {"Error: initFromString: found invalid substring: ''!"}},
        RefusedString{"TextBeyondTheEnd",
                      configText("a=1") + "\x04" + "b=2",
                      {"Error: initFromString: input string substring lengths don't add up to given overall "
                       "length!"}},
        RefusedString{"LengthByteAlone",
                      "\x01",
                      {"Error: initFromString: input string substring lengths don't add up to given overall "
                       "length!"}},
        RefusedString{"BlankInFront",
                      configText(" a=b"),
                      {"Error: isValidSubstring: given string starts with forbidden character ' ' = 0x20!",
                       "Error: initFromString: found invalid substring: ' a=b'!"}},
        RefusedString{"EqualsInFront",
                      configText("=ab"),
                      {"Error: isValidSubstring: given string starts with forbidden character '=' = 0x3d!",
                       "Error: initFromString: found invalid substring: '=ab'!"}},
        RefusedString{"TwoEquals",
                      configText("a=b="),
                      {"Error: isValidSubstring: given string contains at least two '=' signs, first at "
                       "\x01, second at \x03!",
                       "Error: initFromString: found invalid substring: 'a=b='!"}},
        RefusedString{"ZeroInside",
                      configText(literal("a\0b")),
                      {"Error: isValidSubstring: given string is '0' terminated!",
                       literal("Error: initFromString: found invalid substring: 'a\0b'!")}},
        RefusedString{"BelowTheRange",
                      configText("a\x1f"),
                      {"Error: isValidSubstring: given string contains out-of-range character '\x1f' = 0x1f "
                       "[0x20,0x7e]!",
                       "Error: initFromString: found invalid substring: 'a\x1f'!"}},
        RefusedString{"AboveTheRange",
                      configText("a\x7f"),
                      {"Error: isValidSubstring: given string contains out-of-range character '\x7f' = 0x7f "
                       "[0x20,0x7e]!",
                       "Error: initFromString: found invalid substring: 'a\x7f'!"}},
        RefusedString{"NotASCII",
                      configText("\xe4"),
                      {"Error: isValidSubstring: given string contains out-of-range character '\xe4' = 0xe4 "
                       "[0x20,0x7e]!",
                       "Error: initFromString: found invalid substring: '\xe4'!"}},
        RefusedString{"NameWithoutValue",
                      configText("otherserv"),
                      {"Error: initFromString: Error while parsing input string, keyword 'otherserv' is not "
                       "allowed to be empty!"}}),
    [](const auto& row) { return row.param.name; });

// The rules of one text

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, BlankInsideAValueIsValid)
{
    EXPECT_THAT(optionOf(configText("a=b c")).getConfigurationPairs(), ElementsAre(Pair("a", "b c")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, FirstAndLastPrintableCharactersAreValid)
{
    EXPECT_THAT(optionOf(configText("! =~ ")).getConfigurationPairs(), ElementsAre(Pair("! ", "~ ")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, PositionOfTheEqualsSignIsReturned)
{
    std::uint8_t position = 99;

    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf("key=value"), 9, &position));
    EXPECT_EQ(position, 3);
    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf("key"), 3, &position));
    EXPECT_EQ(position, 0);
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, NoTextAtAllIsValid)
{
    std::uint8_t ofNull = 99;
    std::uint8_t ofNothing = 99;

    EXPECT_TRUE(Implementation::isValidSubstring(nullptr, 5, &ofNull));
    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf("=x"), 0, &ofNothing));

    EXPECT_EQ(ofNull, 0);
    EXPECT_EQ(ofNothing, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, TextIsSplitOnlyWithinItsLength)
{
    EXPECT_TRUE(Implementation::isValidSplit(4, 3));
    EXPECT_TRUE(Implementation::isValidSplit(255, 1));
    EXPECT_THAT(log.lines(), IsEmpty());

    EXPECT_FALSE(Implementation::isValidSplit(3, 3));
    EXPECT_FALSE(Implementation::isValidSplit(256, 1));
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: initFromString: Error while parsing input string, '=' sign supposedly detecting "
                    "after string-length! length: \x03 vs. '='-Position: \x03",
                    "Error: initFromString: detected too long Configuration-substring, length of '256' "
                    "exceeds per substring length field!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromStringTest, TextOf255CharactersIsLookedAtToItsEnd)
{
    const std::string good(255, 'x');
    const std::string bad = std::string(254, 'x') + '\n';
    std::uint8_t position = 0;

    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf(good), 255, &position));
    EXPECT_FALSE(Implementation::isValidSubstring(bytesOf(bad), 255, &position));

    EXPECT_THAT(log.errors(), ElementsAre("Error: isValidSubstring: given string contains out-of-range "
                                          "character '\n' = 0xa [0x20,0x7e]!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
