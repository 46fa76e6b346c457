#include "DataLayer/SOME_IP_SD/ConfigurationOptions.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Option = SOME_IP_SD_Option_Configuration;

namespace {

struct SOME_IP_SD_Option_ConfigurationFromPairsTest : ConfigurationOptionTest
{};

}  // namespace

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, PairsAreWrittenInKeyOrderAndEmptyValuesAsBareKeys)
{
    const Option option(ConfigurationPairs{{"b", "2"}, {"a", ""}});

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getType(), OptionType::CONFIGURATION);
    EXPECT_EQ(option.getLength(), 8) << "the reserved byte, six of the string, the terminator";
    EXPECT_EQ(option.getSize(), 11u);
    EXPECT_EQ(option.getConfigurationStringLength(), 6);
    EXPECT_EQ(toHex(option.getConfigurationString(), 7), "01 61 03 62 3d 32 00");
    EXPECT_EQ(written(option), "00 08 01 00 01 61 03 62 3d 32 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, PairsWithEqualKeysAreWrittenInTheirOrder)
{
    const Option option(ConfigurationPairs{{"k", "2"}, {"k", "1"}});

    EXPECT_EQ(written(option), "00 0a 01 00 03 6b 3d 32 03 6b 3d 31 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, PairsAreKeptAsGiven)
{
    const ConfigurationPairs pairs{{"b", "2"}, {"a", ""}, {"b", "1"}};

    EXPECT_EQ(Option(pairs).getConfigurationPairs(), pairs);
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, NoPairsAreAnEmptyString)
{
    const Option option(ConfigurationPairs{});

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getConfigurationStringLength(), 0);
    EXPECT_EQ(written(option), "00 02 01 00 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, NameWithoutAValueCanBeGivenAsAPair)
{
    EXPECT_TRUE(Option(ConfigurationPairs{{"otherserv", ""}}).isValid());
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, TextsOf255CharactersFit)
{
    const Option keyOnly(ConfigurationPairs{{std::string(255, 'k'), ""}});
    const Option keyAndValue(ConfigurationPairs{{std::string(100, 'k'), std::string(154, 'v')}});

    EXPECT_EQ(toHex(keyOnly.getConfigurationString(), 2), "ff 6b");
    EXPECT_EQ(toHex(keyAndValue.getConfigurationString(), 2), "ff 6b");
    EXPECT_EQ(keyAndValue.getConfigurationStringLength(), 256);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, StringOf65533BytesFillsTheOption)
{
    const Option option(pairsOfSize(65533));

    EXPECT_EQ(option.getLength(), 65535);
    EXPECT_EQ(option.getConfigurationStringLength(), 65533);
    EXPECT_EQ(fromHex(written(option)).size(), 65538u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, StringOf65534BytesIsRefused)
{
    const std::string failure = failureOf([] { Option option(pairsOfSize(65534)); });

    EXPECT_EQ(failure, "Pair Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(), ElementsAre("Error: copyConfigurationString: generated Configuration-string is "
                                          "too long, length of '65535' exceeds Option length field!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationFromPairsTest, StringThatIsTooLongIsKeptWithAWrappedLength)
{
    const ConfigurationPairs pairs = pairsOfSize(65534);
    Implementation implementation(1);

    EXPECT_FALSE(implementation.initFromPairs(pairs));

    EXPECT_EQ(implementation.getLength(), 0);
    EXPECT_EQ(implementation.pairs(), pairs);
    EXPECT_EQ(implementation.string()[65534], 0);
    EXPECT_EQ(implementation.string()[0], 255);
}

namespace {

struct RefusedPair
{
    const char* name;
    std::string key;
    std::string value;
    std::vector<std::string> lines;
};

struct RefusedPairTest : ::testing::TestWithParam<RefusedPair>
{};

}  // namespace

TEST_P(RefusedPairTest, IsLoggedAndThrows)
{
    const LogCatcher log;
    const ConfigurationPairs pairs{{"a", "good"}, {GetParam().key, GetParam().value}};

    const std::string failure = failureOf([&] { Option option(pairs); });

    EXPECT_EQ(failure, "Pair Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(), ElementsAreArray(GetParam().lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD_Option_Configuration, RefusedPairTest,
    ::testing::Values(
        RefusedPair{"EmptyKey", "", "v", {"Error: initFromPairs: invalid Configuration-key detected: ''!"}},
        RefusedPair{"KeyWithBlankInFront",
                    " k",
                    "v",
                    {"Error: isValidSubstring: given string starts with forbidden character ' ' = 0x20!",
                     "Error: initFromPairs: invalid Configuration-key detected: ' k'!"}},
        RefusedPair{"KeyWithEqualsInFront",
                    "=k",
                    "v",
                    {"Error: isValidSubstring: given string starts with forbidden character '=' = 0x3d!",
                     "Error: initFromPairs: invalid Configuration-key detected: '=k'!"}},
        RefusedPair{"KeyWithEquals",
                    "k=k",
                    "v",
                    {"Error: initFromPairs: invalid Configuration-key detected: 'k=k'!"}},
        RefusedPair{"KeyOutOfRange",
                    "k\x7f",
                    "v",
                    {"Error: isValidSubstring: given string contains out-of-range character '\x7f' = 0x7f "
                     "[0x20,0x7e]!",
                     "Error: initFromPairs: invalid Configuration-key detected: 'k\x7f'!"}},
        RefusedPair{"KeyWithZero",
                    literal("k\0k"),
                    "v",
                    {"Error: isValidSubstring: given string is '0' terminated!",
                     literal("Error: initFromPairs: invalid Configuration-key detected: 'k\0k'!")}},
        RefusedPair{
            "KeyTooLong",
            std::string(256, 'k'),
            "",
            {"Error: initFromPairs: invalid Configuration-key detected: '" + std::string(256, 'k') + "'!"}},
        RefusedPair{"ValueWithBlankInFront",
                    "k",
                    " v",
                    {"Error: isValidSubstring: given string starts with forbidden character ' ' = 0x20!",
                     "Error: initFromPairs: invalid Configuration-value detected: ' v'!"}},
        RefusedPair{"ValueWithEqualsInFront",
                    "k",
                    "=v",
                    {"Error: isValidSubstring: given string starts with forbidden character '=' = 0x3d!",
                     "Error: initFromPairs: invalid Configuration-value detected: '=v'!"}},
        RefusedPair{"ValueWithEquals",
                    "k",
                    "v=v",
                    {"Error: initFromPairs: invalid Configuration-value detected: 'v=v'!"}},
        RefusedPair{"ValueOutOfRange",
                    "k",
                    "\x1fv",
                    {"Error: isValidSubstring: given string contains out-of-range character '\x1f' = 0x1f "
                     "[0x20,0x7e]!",
                     "Error: initFromPairs: invalid Configuration-value detected: '\x1fv'!"}},
        RefusedPair{
            "ValueTooLong",
            "k",
            std::string(256, 'v'),
            {"Error: initFromPairs: invalid Configuration-value detected: '" + std::string(256, 'v') + "'!"}},
        RefusedPair{"PairTooLong",
                    std::string(100, 'k'),
                    std::string(155, 'v'),
                    {"Error: initFromPairs: detected too long Configuration-pair, length of '256' exceeds "
                     "per substring length field!"}}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
