#include "DataLayer/SOME_IP_SD/ConfigurationOptions.h"
#include "support/FailingAllocations.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Option = SOME_IP_SD_Option_Configuration;

namespace {

struct SOME_IP_SD_Option_ConfigurationTest : ConfigurationOptionTest
{};

}  // namespace

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
