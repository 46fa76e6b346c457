#include "DataLayer/SOME_IP_SD/ConfigurationOptions.h"
#include "support/FailingAllocations.h"
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

struct SOME_IP_SD_Option_ConfigurationTest : ConfigurationOptionTest
{};

}  // namespace

// Construction from pairs

TEST_F(SOME_IP_SD_Option_ConfigurationTest, PairsAreWrittenInKeyOrderAndEmptyValuesAsBareKeys)
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

TEST_F(SOME_IP_SD_Option_ConfigurationTest, PairsWithEqualKeysAreWrittenInTheirOrder)
{
    const Option option(ConfigurationPairs{{"k", "2"}, {"k", "1"}});

    EXPECT_EQ(written(option), "00 0a 01 00 03 6b 3d 32 03 6b 3d 31 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, PairsAreKeptAsGiven)
{
    const ConfigurationPairs pairs{{"b", "2"}, {"a", ""}, {"b", "1"}};

    EXPECT_EQ(Option(pairs).getConfigurationPairs(), pairs);
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, NoPairsAreAnEmptyString)
{
    const Option option(ConfigurationPairs{});

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getConfigurationStringLength(), 0);
    EXPECT_EQ(written(option), "00 02 01 00 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, NameWithoutAValueCanBeGivenAsAPair)
{
    EXPECT_TRUE(Option(ConfigurationPairs{{"otherserv", ""}}).isValid());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, TextsOf255CharactersFit)
{
    const Option keyOnly(ConfigurationPairs{{std::string(255, 'k'), ""}});
    const Option keyAndValue(ConfigurationPairs{{std::string(100, 'k'), std::string(154, 'v')}});

    EXPECT_EQ(toHex(keyOnly.getConfigurationString(), 2), "ff 6b");
    EXPECT_EQ(toHex(keyAndValue.getConfigurationString(), 2), "ff 6b");
    EXPECT_EQ(keyAndValue.getConfigurationStringLength(), 256);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringOf65533BytesFillsTheOption)
{
    const Option option(pairsOfSize(65533));

    EXPECT_EQ(option.getLength(), 65535);
    EXPECT_EQ(option.getConfigurationStringLength(), 65533);
    EXPECT_EQ(fromHex(written(option)).size(), 65538u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringOf65534BytesIsRefused)
{
    const std::string failure = failureOf([] { Option option(pairsOfSize(65534)); });

    EXPECT_EQ(failure, "Pair Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(), ElementsAre("Error: copyConfigurationString: generated Configuration-string is "
                                          "too long, length of '65535' exceeds Option length field!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringThatIsTooLongIsKeptWithAWrappedLength)
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

// Construction from a string

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringIsTakenApartIntoPairs)
{
    const Option option = optionOf(configText("b=2") + configText("a") + configText("c="));

    EXPECT_TRUE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", ""), Pair("b", "2"), Pair("c", "")));
    EXPECT_EQ(option.getConfigurationStringLength(), 9);
    EXPECT_EQ(option.getLength(), 11);
    EXPECT_EQ(written(option), "00 0b 01 00 03 62 3d 32 01 61 02 63 3d 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringIsCopied)
{
    std::string string = configText("a=1");

    const Option option = optionOf(string);
    string.assign(string.size(), 'x');

    EXPECT_EQ(toHex(option.getConfigurationString(), 5), "03 61 3d 31 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, TextsWithEqualKeysAreSeveralPairsInTheirOrder)
{
    const Option option = optionOf(configText("k=2") + configText("a=x") + configText("k=1"));
    std::vector<std::string> values{"before"};

    option.getAllValues("k", values);

    EXPECT_THAT(values, ElementsAre("before", "2", "1")) << "the vector is not cleared";
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", "x"), Pair("k", "2"), Pair("k", "1")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, EmptyStringIsAnEmptyConfiguration)
{
    const std::vector<std::uint8_t> onlyTerminator{0};

    const Option option(onlyTerminator.data(), 0);

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getConfigurationStringLength(), 0);
    EXPECT_THAT(option.getConfigurationPairs(), IsEmpty());
    EXPECT_EQ(written(option), "00 02 01 00 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, NameMayHaveAnEmptyValueAfterEquals)
{
    EXPECT_THAT(optionOf(configText("otherserv=")).getConfigurationPairs(),
                ElementsAre(Pair("otherserv", "")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringOf65534BytesCannotBeKept)
{
    std::string string;
    for (const auto& [key, value] : pairsOfSize(65534))
        string += configText(key);

    const std::string failure = failureOf([&] { optionOf(string); });

    EXPECT_EQ(failure, "String Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(), ElementsAre("Error: copyConfigurationString: generated Configuration-string is "
                                          "too long, length of '65535' exceeds Option length field!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, MissingStringIsRefused)
{
    const std::string failure = failureOf([] { Option option(nullptr, 4); });

    EXPECT_EQ(failure, "String Configuration-Option data invalid!");
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: Option cannot be initialised with nullptr!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, LengthOfAStringThatIsRefusedCountsNoTerminator)
{
    const Implementation implementation(nullptr, 4);

    EXPECT_FALSE(implementation.isValid());
    EXPECT_EQ(implementation.getLength(), 5);
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringWithoutTerminatorAtItsLengthIsRefused)
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

TEST_F(SOME_IP_SD_Option_ConfigurationTest, BlankInsideAValueIsValid)
{
    EXPECT_THAT(optionOf(configText("a=b c")).getConfigurationPairs(), ElementsAre(Pair("a", "b c")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, FirstAndLastPrintableCharactersAreValid)
{
    EXPECT_THAT(optionOf(configText("! =~ ")).getConfigurationPairs(), ElementsAre(Pair("! ", "~ ")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, PositionOfTheEqualsSignIsTold)
{
    std::uint8_t position = 99;

    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf("key=value"), 9, &position));
    EXPECT_EQ(position, 3);
    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf("key"), 3, &position));
    EXPECT_EQ(position, 0);
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, NoTextAtAllIsValid)
{
    std::uint8_t ofNull = 99;
    std::uint8_t ofNothing = 99;

    EXPECT_TRUE(Implementation::isValidSubstring(nullptr, 5, &ofNull));
    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf("=x"), 0, &ofNothing));

    EXPECT_EQ(ofNull, 0);
    EXPECT_EQ(ofNothing, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, TextIsSplitOnlyWithinItsLength)
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

TEST_F(SOME_IP_SD_Option_ConfigurationTest, TextOf255CharactersIsLookedAtToItsEnd)
{
    const std::string good(255, 'x');
    const std::string bad = std::string(254, 'x') + '\n';
    std::uint8_t position = 0;

    EXPECT_TRUE(Implementation::isValidSubstring(bytesOf(good), 255, &position));
    EXPECT_FALSE(Implementation::isValidSubstring(bytesOf(bad), 255, &position));

    EXPECT_THAT(log.errors(), ElementsAre("Error: isValidSubstring: given string contains out-of-range "
                                          "character '\n' = 0xa [0x20,0x7e]!"));
}

// Initialised once

TEST_F(SOME_IP_SD_Option_ConfigurationTest, SecondInitialisationIsRefused)
{
    const std::string other = configText("b=2");
    Implementation implementation(ConfigurationPairs{{"a", "1"}});

    EXPECT_FALSE(implementation.initFromString(bytesOf(other), 4));
    EXPECT_FALSE(implementation.initFromPairs({{"b", "2"}}));

    EXPECT_THAT(log.errors(), ElementsAre("Error: initFromString: Option is already initialised!",
                                          "Error: initFromPairs: Option is already initialised!"));
    EXPECT_THAT(implementation.pairs(), ElementsAre(Pair("a", "1")));
    EXPECT_EQ(toHex(implementation.string(), 5), "03 61 3d 31 00");
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, SecondInitialisationOfAnEmptyOneIsRefusedToo)
{
    const std::string other = configText("b=2");
    Implementation implementation(ConfigurationPairs{});

    EXPECT_FALSE(implementation.initFromString(bytesOf(other), 4));
    EXPECT_FALSE(implementation.initFromPairs({{"b", "2"}}));

    EXPECT_THAT(implementation.pairs(), IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, SecondStringIsRefusedWithAWarning)
{
    Implementation implementation(1);
    EXPECT_TRUE(implementation.copyConfigurationString(bytesOf(configText("a=1")), 4));

    EXPECT_FALSE(implementation.copyConfigurationString(bytesOf(configText("b=2")), 4));

    EXPECT_THAT(log.lines(), ElementsAre("Warning: copyConfigurationString: failed to set, "
                                         "m_configurationString is not a nullptr!"));
    EXPECT_EQ(toHex(implementation.string(), 5), "03 61 3d 31 00");
    EXPECT_EQ(implementation.getLength(), 6);
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringWithoutMemoryIsRefused)
{
    Implementation implementation(1);
    const FailingAllocation memory(1);

    EXPECT_FALSE(implementation.copyConfigurationString(bytesOf(configText("a=1")), 4));

    EXPECT_THAT(log.lines(), ElementsAre("Error: copyConfigurationString: failed to set, allocation of "
                                         "m_configurationString returned nullptr!"));
    EXPECT_EQ(implementation.string(), nullptr);
    EXPECT_EQ(implementation.getLength(), 6);
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, PairsFoundBeforeAFaultStay)
{
    const std::string string = configText("a=1") + configText("=b");
    Implementation implementation(1);

    EXPECT_FALSE(implementation.initFromString(bytesOf(string), static_cast<std::uint16_t>(string.size())));

    EXPECT_THAT(implementation.pairs(), ElementsAre(Pair("a", "1")));
    EXPECT_EQ(implementation.string(), nullptr);
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, PairsWithoutAStringAreAnInitialisationToo)
{
    const std::string faulty = configText("a=1") + configText("=b");
    const std::string other = configText("b=2");
    Implementation implementation(1);
    implementation.initFromString(bytesOf(faulty), static_cast<std::uint16_t>(faulty.size()));
    log.clear();

    EXPECT_FALSE(implementation.initFromString(bytesOf(other), 4));
    EXPECT_FALSE(implementation.initFromPairs({{"b", "2"}}));

    EXPECT_THAT(log.errors(), ElementsAre("Error: initFromString: Option is already initialised!",
                                          "Error: initFromPairs: Option is already initialised!"));
    EXPECT_THAT(implementation.pairs(), ElementsAre(Pair("a", "1")));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, NothingIsKeptOfPairsThatAreRefused)
{
    const Implementation implementation(ConfigurationPairs{{"a", "1"}, {"b", "=2"}});

    EXPECT_FALSE(implementation.isValid());
    EXPECT_EQ(implementation.getLength(), 1);
    EXPECT_THAT(implementation.pairs(), IsEmpty());
    EXPECT_EQ(implementation.string(), nullptr);
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, SecondReadMakesTheOptionInvalidAndKeepsThePairs)
{
    Option& option = read(6, "00 03 61 3d 31 00");
    stream = streamOf("00 03 62 3d 32 00");

    stream >> option;

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(option.getConfigurationPairs(), ElementsAre(Pair("a", "1")));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromString: Option is already initialised!",
                            "Error: SOME_IP_SD_Configuration_Option failed to parse Configuration during "
                            "deserialisation!"));
}

// Writing

TEST_F(SOME_IP_SD_Option_ConfigurationTest, OptionThatHoldsNoStringIsReportedWhenWritten)
{
    EXPECT_EQ(written(Option(7)), "00 07 01 00 00");

    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD_Option_Configuration size=6, but 1 written by serialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, ExpectedSizeOfAWrittenOptionIsItsStringLengthAndOne)
{
    const Option option(1);
    ASSERT_EQ(option.getConfigurationStringLength(), 65535) << "wrapped";

    EXPECT_EQ(written(option), "00 01 01 00 00");

    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD_Option_Configuration size=65536, but 1 written by serialisation!"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, StringIsWrittenUpToItsFirstZero)
{
    EXPECT_EQ(written(read(11, "00 03 61 3d 31 00 03 62 3d 32 00")), "00 0b 01 00 03 61 3d 31 00");
}

// Looking up

TEST_F(SOME_IP_SD_Option_ConfigurationTest, ValuesOfAKeyAreAppendedInThePairsOrder)
{
    const ConfigurationPairs pairs{{"a", "1"}, {"b", "3"}, {"b", "2"}, {"c", "4"}};
    std::vector<std::string> values{"before"};

    Option::extractAllValues(pairs, "b", values);

    EXPECT_THAT(values, ElementsAre("before", "3", "2"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, ValuesOfAnAbsentKeyAreNone)
{
    std::vector<std::string> values;

    Option::extractAllValues({{"a", "1"}}, "b", values);
    Option(ConfigurationPairs{{"a", "1"}}).getAllValues("", values);

    EXPECT_THAT(values, IsEmpty());
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, FirstPairWithAnAcceptedValueIsFound)
{
    const ConfigurationPairs pairs{{"a", "2"}, {"b", "1"}, {"b", "3"}, {"b", "2"}, {"c", "2"}};

    const auto found = Option::findFirstPair(pairs, "b", {"2", "3"});

    ASSERT_NE(found, pairs.end());
    EXPECT_THAT(*found, Pair("b", "3"));
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, NoPairIsFoundForAnotherKeyAnotherValueOrNoneAccepted)
{
    const ConfigurationPairs pairs{{"a", "2"}, {"b", "1"}, {"c", "2"}};

    EXPECT_EQ(Option::findFirstPair(pairs, "x", {"1", "2"}), pairs.end());
    EXPECT_EQ(Option::findFirstPair(pairs, "b", {"2"}), pairs.end());
    EXPECT_EQ(Option::findFirstPair(pairs, "b", {}), pairs.end());
}

// Texts for the log

TEST_F(SOME_IP_SD_Option_ConfigurationTest, TextShowsTheStringWithItsTerminator)
{
    EXPECT_EQ(Option(ConfigurationPairs{{"b", "2"}, {"a", ""}}).toString(1),
              "\tConfiguration Option: [1]a[3]b=2[0]");
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, TextOfAnOptionThatHoldsNoStringHasNoBody)
{
    EXPECT_EQ(Option(7).toString(0), "Configuration Option: ");
}

TEST_F(SOME_IP_SD_Option_ConfigurationTest, TextOfAMalformedOptionShowsWhatWasRead)
{
    EXPECT_EQ(read(8, "00 03 61 3d 31 ff 62 00").toString(0),
              literal("Configuration Option: [3]a=1[255]b\0"));
}

namespace {

struct Printed
{
    const char* name;
    std::string bytes;  ///< all that may be read
    std::uint32_t length;
    std::string text;
};

struct PrettyPrintTest : ::testing::TestWithParam<Printed>
{};

}  // namespace

TEST_P(PrettyPrintTest, StopsAtAZeroLengthOrAtTheEnd)
{
    const std::vector<std::uint8_t> exactly(GetParam().bytes.begin(), GetParam().bytes.end());

    EXPECT_EQ(prettyPrintConfigString(exactly.data(), GetParam().length), GetParam().text);
    const std::string longer = GetParam().bytes + "more";
    EXPECT_EQ(
        prettyPrintConfigString(reinterpret_cast<const std::uint8_t*>(longer.data()), GetParam().length),
        GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD_Option_Configuration, PrettyPrintTest,
    ::testing::Values(Printed{"Terminated", configText("a=1") + configText("b") + '\0', 7, "[3]a=1[1]b[0]"},
                      Printed{"NotTerminated", configText("a=1") + configText("b"), 6, "[3]a=1[1]b"},
                      Printed{"ZeroInTheMiddle", configText("a=1") + '\0' + configText("b"), 7, "[3]a=1[0]"},
                      Printed{"TextBeyondTheLength", configText("a=1") + "\x05" + "b", 6, "[3]a=1[5]b"},
                      Printed{"LengthByteAtTheEnd", configText("a=1") + "\x05", 5, "[3]a=1[5]"},
                      Printed{"LongText", configText(std::string(255, 'x')), 256,
                              "[255]" + std::string(255, 'x')},
                      Printed{"Nothing", "", 0, ""},
                      Printed{"TerminatorAlone", std::string(1, '\0'), 1, "[0]"}),
    [](const auto& row) { return row.param.name; });

TEST(PrettyPrintNullTest, NoStringHasNoText)
{
    EXPECT_EQ(prettyPrintConfigString(nullptr, 5), "");
}

}  // namespace Nubo::ServiceDiscovery::Testing
