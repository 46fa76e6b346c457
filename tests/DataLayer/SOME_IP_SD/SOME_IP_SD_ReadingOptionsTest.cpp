#include "DataLayer/SOME_IP_SD/Payloads.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using SOME_IP_SD_Types::MetaData;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

struct SOME_IP_SD_ReadingOptionsTest : PayloadTest
{};

}  // namespace

// Lengths of the options array

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionsLengthBeyondTheDatagramIsRefused)
{
    read("e0 00 00 00 " + arrayOf(offer) + "00 00 00 09 " + loadBalancing);

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), IsEmpty());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD header length of options error '9' expected, but only 8 Bytes "
                            "left!",
                            sizeLine(16, 9)));
    EXPECT_EQ(payload.getOptionsLength(), 9u) << "as received";
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, LargestOptionsLengthIsRefused)
{
    read("e0 00 00 00 00 00 00 00 ff ff ff ff");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD header length of options error '4294967295' expected, but only "
                    "0 Bytes left!",
                    sizeLine(0, 0xffffffff)));
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, BytesThatAreNoWholeOptionMakeThePayloadInvalid)
{
    for (const std::string rest : {"00 ", "00 05 ", "00 05 02 "}) {
        MetaData all(1000);
        SOME_IP_SD ragged(&all, 0);
        stream = streamOf(payloadOf("", loadBalancing + rest));
        log.clear();

        stream >> ragged;

        const std::size_t size = 8 + sizeOf(rest);
        EXPECT_FALSE(ragged.isValid());
        EXPECT_THAT(ragged.getOptions(), SizeIs(1));
        EXPECT_THAT(log.errors(), ElementsAre("Error: Option deserialisation read '8', but expected '" +
                                                  std::to_string(size) + "' Bytes!",
                                              sizeLine(0, size)));
    }
}

// Options

TEST_F(SOME_IP_SD_ReadingOptionsTest, UnknownOptionBecomesAPlaceholderAtItsIndex)
{
    read(payloadOf("", ipv6 + "00 04 55 01 02 03 04 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    ASSERT_THAT(payload.getOptions(), SizeIs(3));
    EXPECT_TRUE(payload.getOptions()[0]->isValid());
    EXPECT_TRUE(payload.getOptions()[2]->isValid());
    const auto* placeholder =
        dynamic_cast<const SOME_IP_SD_Option_Placeholder*>(payload.getOptions()[1].get());
    ASSERT_NE(placeholder, nullptr);
    EXPECT_EQ(placeholder->getLength(), 4);
    EXPECT_FALSE(payload.areArraysValid());
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Option due to unknown type 0x'55'! "
                                          "(Adding placeholder instead.)"));
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, UnknownOptionMayEndTheDatagram)
{
    read(payloadOf("", "00 01 03 00 "));

    EXPECT_TRUE(payload.isValid());
    EXPECT_TRUE(stream.good());
    EXPECT_THAT(payload.getOptions(), SizeIs(1));
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Option due to unknown type 0x'3'! "
                                          "(Adding placeholder instead.)"));
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionTypeZeroIsUnknown)
{
    read(payloadOf("", "00 02 00 00 00 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Option due to unknown type 0x'0'! "
                                          "(Adding placeholder instead.)"));
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionWithABadValueKeepsItsIndex)
{
    read(payloadOf("", "00 09 04 00 0a 01 02 03 00 00 00 50 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    ASSERT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_FALSE(payload.getOptions()[0]->isValid());
    EXPECT_TRUE(payload.getOptions()[1]->isValid());
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, MalformedConfigurationKeepsItsIndexAndTheNextOptionIsRead)
{
    read(payloadOf("", "00 06 01 00 03 3d 61 62 00 00 06 01 00 01 61 00 62 00 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    ASSERT_THAT(payload.getOptions(), SizeIs(3));
    EXPECT_FALSE(payload.getOptions()[0]->isValid());
    EXPECT_FALSE(payload.getOptions()[1]->isValid());
    EXPECT_TRUE(payload.getOptions()[2]->isValid());
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionsOfAStreamThatEndsWithinOneAreReported)
{
    bool error = false;
    stream = streamOf(loadBalancing + "00 05 02 00 00 01");
    payload.setOptionsLength(16);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 8);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Option_LoadBalancing size=4, but 2 read by deserialisation!",
                            "Error: Failed to deserialise Options due to prematurely reading EOF after ~'8' "
                            "Byte(s) of Options!",
                            "Error: Option deserialisation read '8', but expected '16' Bytes!"));
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionsOfAStreamThatEndsBeforeOneAreReported)
{
    for (const std::string rest : {"", "00 ", "00 05 "}) {
        SOME_IP_SD cut(&metaData, 0);
        bool error = false;
        stream = streamOf(loadBalancing + rest);
        cut.setOptionsLength(16);
        log.clear();

        EXPECT_EQ(deserialiseOptions(stream, cut, error), 8);

        EXPECT_TRUE(error);
        EXPECT_THAT(cut.getOptions(), SizeIs(1));
        EXPECT_THAT(log.errors(),
                    ElementsAre("Error: Failed to deserialise Options due to prematurely reading EOF after "
                                "~'8' Byte(s) of Options!",
                                "Error: Option deserialisation read '8', but expected '16' Bytes!"));
    }
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionsOfAStreamThatFailsAreReported)
{
    bool error = false;
    stream = streamOf(loadBalancing);
    stream.setstate(std::ios::failbit);
    payload.setOptionsLength(8);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 0);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Failed to deserialise Options due to failed reading of inputstream after "
                            "~'0' Byte(s) of Options!",
                            "Error: Option deserialisation read '0', but expected '8' Bytes!"));
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, ReadOptionsAreCountedInBytes)
{
    bool error = false;
    stream = streamOf(ipv6 + "00 04 55 01 02 03 04 " + configuration);
    payload.setOptionsLength(42);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 42);

    EXPECT_FALSE(error);
}

namespace {

/// An option whose announced length is not that of its kind, between two good ones.
struct OddOption
{
    const char* name;
    std::string hex;
    std::vector<std::string> lines;
};

struct OddOptionTest : ::testing::TestWithParam<OddOption>
{
    OddOptionTest()
    {
        stream = streamOf(payloadOf(offer, loadBalancing + GetParam().hex + loadBalancing));
        metaData.remainingPacketLength = unread(stream);
    }

    const std::size_t optionsLength = 8 + sizeOf(GetParam().hex) + 8;
    LogCatcher log;
    MetaData metaData;
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
    std::istringstream stream;
};

std::string oddName(const ::testing::TestParamInfo<OddOption>& row)
{
    return row.param.name;
}

struct TooLongOptionTest : OddOptionTest
{};

struct TooShortOptionTest : OddOptionTest
{};

struct EndingOptionTest : OddOptionTest
{};

}  // namespace

TEST_P(TooLongOptionTest, HasItsMismatchAndTheNextOptionIsFoundAtItsPlace)
{
    stream >> payload;

    EXPECT_TRUE(payload.isValid());
    EXPECT_EQ(unread(stream), 0);
    ASSERT_THAT(payload.getOptions(), SizeIs(3));
    EXPECT_TRUE(payload.getOptions()[0]->isValid());
    EXPECT_FALSE(payload.getOptions()[1]->isValid());
    EXPECT_EQ(payload.getOptions()[1]->getSize(), sizeOf(GetParam().hex));
    EXPECT_TRUE(payload.getOptions()[2]->isValid());
    EXPECT_EQ(payload.getOptionsLength(), optionsLength);
    EXPECT_THAT(log.errors(), ElementsAreArray(GetParam().lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD, TooLongOptionTest,
    ::testing::Values(
        OddOption{"IPv4ByOne",
                  "00 0a 04 00 0a 01 02 03 00 11 77 1a ee ",
                  {"Error: SOME_IP_SD_IPv4_Option size=9, but 8 read by deserialisation!"}},
        OddOption{"IPv4ByThirteen",
                  "00 16 14 00 0a 01 02 03 00 11 77 1a ee ee ee ee ee ee ee ee ee ee ee ee ee ",
                  {"Error: SOME_IP_SD_IPv4_Option size=21, but 8 read by deserialisation!"}},
        OddOption{"IPv6ByTwo",
                  "00 17 26 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 1a ee ee ",
                  {"Error: SOME_IP_SD_IPv6_Option size=22, but 20 read by deserialisation!"}},
        OddOption{"LoadBalancingByOne",
                  "00 06 02 00 00 01 00 02 ee ",
                  {"Error: SOME_IP_SD_Option_LoadBalancing size=5, but 4 read by deserialisation!"}},
        OddOption{"Configuration",
                  "00 09 01 00 03 61 3d 31 00 ee ee 00 ",
                  {"Error: SOME_IP_SD_Configuration_Option size=8, but 5 read by deserialisation!"}},
        OddOption{"ConfigurationWithoutRoomForATerminator",
                  "00 01 01 00 ",
                  {"Error: SOME_IP_SD_Configuration_Option string length '65535' found during "
                   "deserialisation, exceeds length field of Option!"}}),
    oddName);

TEST_P(TooShortOptionTest, HasItsMismatchAndMakesThePayloadInvalid)
{
    stream >> payload;

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_TRUE(payload.getOptions()[0]->isValid());
    EXPECT_FALSE(payload.getOptions()[1]->isValid());
    std::vector<std::string> lines = GetParam().lines;
    lines.push_back("Error: Option deserialisation read '8', but expected '" + std::to_string(optionsLength) +
                    "' Bytes!");
    lines.push_back(sizeLine(16, optionsLength));
    EXPECT_THAT(log.errors(), ElementsAreArray(lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD, TooShortOptionTest,
    ::testing::Values(OddOption{"IPv4ByOne",
                                "00 08 04 00 0a 01 02 03 00 11 77 ",
                                {"Error: SOME_IP_SD_IPv4_Option size=7, but 8 read by deserialisation!"}},
                      OddOption{"IPv4ReservedByteOnly",
                                "00 01 24 00 ",
                                {"Error: SOME_IP_SD_IPv4_Option size=0, but 8 read by deserialisation!"}},
                      OddOption{"IPv6ByOne",
                                "00 14 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 ",
                                {"Error: SOME_IP_SD_IPv6_Option size=19, but 20 read by deserialisation!"}},
                      OddOption{"IPv6LikeIPv4",
                                "00 0f 16 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 ",
                                {"Error: SOME_IP_SD_IPv6_Option size=14, but 20 read by deserialisation!"}},
                      OddOption{
                          "LoadBalancingByOne",
                          "00 04 02 00 00 01 00 ",
                          {"Error: SOME_IP_SD_Option_LoadBalancing size=3, but 4 read by deserialisation!"}}),
    oddName);

TEST_P(EndingOptionTest, EndsTheArrayWithItsError)
{
    stream >> payload;

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), SizeIs(1));
    EXPECT_EQ(payload.getOptionsLength(), optionsLength);
    EXPECT_THAT(log.errors(), ElementsAre("Error: Option deserialisation read '8', but expected '" +
                                              std::to_string(optionsLength) + "' Bytes!",
                                          sizeLine(16, optionsLength)));
}

INSTANTIATE_TEST_SUITE_P(SOME_IP_SD, EndingOptionTest,
                         ::testing::Values(OddOption{"LengthZero", "00 00 06 00 00 00 ", {}},
                                           OddOption{"LengthZeroOfAnUnknownType", "00 00 55 00 ", {}},
                                           OddOption{"LengthZeroOfAConfiguration", "00 00 01 00 ", {}},
                                           OddOption{"IPv4BeyondTheArrayByOne", "00 0a 04 00 ", {}},
                                           OddOption{"IPv6BeyondTheArray", "00 15 06 00 fd 00 ", {}},
                                           OddOption{"ConfigurationBeyondTheArray", "ff ff 01 00 ", {}},
                                           OddOption{"UnknownTypeBeyondTheArray", "00 0a 55 00 ", {}}),
                         oddName);

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionThatEndsTheArrayIsCountedAsNotRead)
{
    bool error = false;
    stream = streamOf(loadBalancing + "00 00 06 00 ");
    payload.setOptionsLength(12);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 8);

    EXPECT_TRUE(error);
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, OptionBeyondTheArrayIsNotReadFromWhatFollows)
{
    read("e0 00 00 00 00 00 00 00 00 00 00 08 00 06 01 00 03 61 3d 31 00 ff ff ff");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), IsEmpty());
    EXPECT_EQ(unread(stream), 9);
}

TEST_F(SOME_IP_SD_ReadingOptionsTest, TooShortOptionAtTheEndOfTheDatagramMakesThePayloadInvalid)
{
    // 18 bytes are what the option's address, reserved byte and protocol need: only its port is missing.
    read(payloadOf("", "00 13 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 "));

    EXPECT_FALSE(payload.isValid());
    EXPECT_TRUE(
        log.has("Error: Failed to deserialise Options due to prematurely reading EOF after ~'0' "
                "Byte(s) of Options!"));
    EXPECT_TRUE(log.has("Error: Option deserialisation read '0', but expected '22' Bytes!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
