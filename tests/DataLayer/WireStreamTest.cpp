#include "DataLayer/WireStream.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <Poco/MemoryStream.h>

#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(WireReaderTest, IntegersAreBigEndianAndCounted)
{
    std::istringstream stream = streamOf("01 02 03 04 05 06 07");
    WireReader reader(stream);
    std::uint8_t one = 0;
    std::uint16_t two = 0;
    std::uint32_t four = 0;

    reader.read(one, two, four);

    EXPECT_EQ(one, 0x01);
    EXPECT_EQ(two, 0x0203);
    EXPECT_EQ(four, 0x04050607u);
    EXPECT_EQ(reader.count(), 7);
    EXPECT_TRUE(stream.good()) << "the end itself is not looked at";
}

TEST(WireReaderTest, FieldThatIsCutShortCountsWhatWasDelivered)
{
    std::istringstream stream = streamOf("01 02 03");
    WireReader reader(stream);
    std::uint32_t four = 0;

    reader.read(four);

    EXPECT_EQ(reader.count(), 3);
    EXPECT_FALSE(stream.good());
}

TEST(WireReaderTest, BytesThatAFieldLacksAreZero)
{
    std::istringstream stream = streamOf("01 02 03 04 05");
    WireReader reader(stream);
    std::array<std::uint8_t, 4> bytes{0xff, 0xff, 0xff, 0xff};
    std::uint16_t cutShort = 0xffff;
    std::uint32_t missing = 0xffffffff;

    reader.read(bytes, cutShort, missing);

    EXPECT_THAT(bytes, ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(cutShort, 0x0500);
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(reader.count(), 5);
    EXPECT_TRUE(stream.eof());
}

TEST(WireReaderTest, FieldsAfterAFailureAreZeroAndCountNothing)
{
    std::istringstream stream = streamOf("01");
    WireReader reader(stream);
    std::uint16_t missing = 0xffff;
    std::uint8_t one = 0xff;
    std::uint32_t four = 0xffffffff;
    std::string bytes(2, 'x');

    reader.read(missing).read(one, four);
    reader.readBytes(bytes.data(), bytes.size());

    EXPECT_EQ(one, 0);
    EXPECT_EQ(four, 0u);
    EXPECT_EQ(bytes, "xx");
    EXPECT_EQ(reader.count(), 1);
}

TEST(WireReaderTest, WhiteSpaceIsAByteLikeAnyOtherInIntegersAndRawBytes)
{
    std::istringstream stream = streamOf("20 09 0a 0d 0b 0c");
    WireReader reader(stream);
    std::uint8_t one = 0;
    std::uint16_t two = 0;
    std::string bytes(3, 'x');

    reader.read(one, two);
    reader.readBytes(bytes.data(), bytes.size());

    EXPECT_EQ(one, 0x20);
    EXPECT_EQ(two, 0x090a);
    EXPECT_EQ(toHex(bytes), "0d 0b 0c");
    EXPECT_EQ(reader.count(), 6);
}

TEST(WireReaderTest, SkippedBytesAreCountedAndTheEndIsNotLookedAt)
{
    std::istringstream stream(std::string(600, 'x') + "ab");
    WireReader reader(stream);

    reader.skip(600);

    EXPECT_EQ(reader.count(), 600);
    EXPECT_EQ(unread(stream), 2);
    reader.skip(2);
    EXPECT_EQ(reader.count(), 602);
    EXPECT_TRUE(stream.good());
}

TEST(WireReaderTest, SkippingNothingDoesNothing)
{
    std::istringstream stream = streamOf("01");
    WireReader reader(stream);

    reader.skip(0).skip(-1);

    EXPECT_EQ(reader.count(), 0);
    EXPECT_EQ(unread(stream), 1);
    EXPECT_TRUE(stream.good());
}

TEST(WireReaderTest, SkippingBeyondTheEndCountsWhatWasThereAndFails)
{
    std::istringstream stream = streamOf("01 02 03");
    WireReader reader(stream);

    reader.skip(1000000);

    EXPECT_EQ(reader.count(), 3);
    EXPECT_TRUE(stream.eof());
    EXPECT_TRUE(stream.fail());
}

TEST(WireReaderTest, ExpectedNumberOfBytesIsNotLogged)
{
    const LogCatcher log;
    std::istringstream stream = streamOf("01 02 03");
    WireReader reader(stream);
    std::uint16_t two = 0;
    reader.read(two);

    EXPECT_TRUE(reader.checkRead("Something", 2));
    EXPECT_TRUE(reader.checkRead("Something", 2, 3, "?"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(WireReaderTest, AnyOtherNumberOfBytesIsAnError)
{
    const LogCatcher log;
    std::istringstream stream = streamOf("01 02 03");
    WireReader reader(stream);
    std::uint32_t four = 0;
    reader.read(four);

    EXPECT_FALSE(reader.checkRead("Something", 4));
    EXPECT_FALSE(reader.checkRead("Something", 2));
    EXPECT_FALSE(reader.checkRead("Something", 4, 5, " and more"));
    EXPECT_FALSE(WireReader::checkCount(7, "Something", 8, 8));

    EXPECT_THAT(log.errors(), ElementsAre("Error: Something size=4, but 3 read by deserialisation!",
                                          "Error: Something size=2, but 3 read by deserialisation!",
                                          "Error: Something size=5, but 3 read by deserialisation and more",
                                          "Error: Something size=8, but 7 read by deserialisation!"));
}

TEST(WireReaderTest, TwentyFourBitsAreReadMostSignificantByteFirst)
{
    std::istringstream stream = streamOf("01 80 ff");
    WireReader reader(stream);
    std::uint32_t value = 0;

    reader.readFormatted24(value);

    EXPECT_EQ(value, 0x0180ffu);
    EXPECT_EQ(reader.count(), 3);
    EXPECT_TRUE(stream.good());
}

TEST(WireReaderTest, TwentyFourBitsCountThreeBytesEvenWhereTheStreamEnds)
{
    std::istringstream stream = streamOf("01 02");
    WireReader reader(stream);
    std::uint32_t value = 0;

    reader.readFormatted24(value);

    EXPECT_EQ(value, 0x010200u);
    EXPECT_EQ(reader.count(), 3);
    EXPECT_FALSE(stream.good());
}

namespace {

struct WhiteSpaceTest : ::testing::TestWithParam<std::string>
{};

}  // namespace

TEST_P(WhiteSpaceTest, TwentyFourBitsPassOverWhiteSpaceAndStillCountThree)
{
    std::istringstream stream = streamOf("01 " + GetParam() + " 02 03 04");
    WireReader reader(stream);
    std::uint32_t value = 0;

    reader.readFormatted24(value);

    EXPECT_EQ(value, 0x010203u);
    EXPECT_EQ(reader.count(), 3);
    EXPECT_EQ(unread(stream), 1);
}

TEST_P(WhiteSpaceTest, TwentyFourBitsTakeWhiteSpaceWhileTheStreamDoesNotSkipIt)
{
    std::istringstream stream = streamOf("01 " + GetParam() + " 02 03");
    stream >> std::noskipws;
    WireReader reader(stream);
    std::uint32_t value = 0;

    reader.readFormatted24(value);

    EXPECT_EQ(value, 0x010002u | static_cast<std::uint32_t>(fromHex(GetParam()).front()) << 8);
    EXPECT_EQ(unread(stream), 1);
}

INSTANTIATE_TEST_SUITE_P(Bytes, WhiteSpaceTest, ::testing::Values("09", "0a", "0b", "0c", "0d", "20"),
                         [](const auto& row) { return "x" + row.param; });

TEST(WireReaderTest, NoOtherByteIsWhiteSpace)
{
    for (const char* byte : {"00", "08", "0e", "1f", "21", "7f", "80", "85", "a0", "ff"}) {
        std::istringstream stream = streamOf("01 " + std::string(byte) + " 02");
        WireReader reader(stream);
        std::uint32_t value = 0;

        reader.readFormatted24(value);

        EXPECT_EQ(unread(stream), 0) << byte;
        EXPECT_TRUE(stream.good()) << byte;
    }
}

TEST(WireWriterTest, IntegersAreBigEndianAndCountedFromWhereTheWriterBegan)
{
    std::ostringstream stream;
    stream << "xyz";
    WireWriter writer(stream);

    writer.write(std::uint8_t{0x01}, std::uint16_t{0x0203}, std::uint32_t{0x04050607});
    writer.writeBytes("\x08\x00\x20", 3);
    writer.write(std::array<std::uint8_t, 2>{0x0d, 0x0a}, Low24{0x80}, std::uint8_t{0xff});

    EXPECT_EQ(toHex(stream.str()), "78 79 7a 01 02 03 04 05 06 07 08 00 20 0d 0a 00 00 80 ff");
    EXPECT_EQ(writer.written(), 16);
}

TEST(WireWriterTest, StreamThatIsFullKeepsWhatFittedAndCountsAsFailed)
{
    const LogCatcher log;
    std::array<char, 3> memory{};
    Poco::MemoryOutputStream stream(memory.data(), memory.size());
    WireWriter writer(stream);

    writer.write(std::uint16_t{0x0102}, std::uint16_t{0x0304});
    writer.checkWritten("Something", 4);

    EXPECT_THAT(memory, ElementsAre(1, 2, 3));
    EXPECT_THAT(log.errors(), ElementsAre("Error: Something size=4, but -1 written by serialisation!"));
}

TEST(WireWriterTest, TwentyFourBitsAreTheLowOnesOfTheValue)
{
    std::ostringstream stream;
    WireWriter writer(stream);

    writer.write(Low24{0xab010203});

    EXPECT_EQ(toHex(stream.str()), "01 02 03");
    EXPECT_EQ(writer.written(), 3);
}

TEST(WireWriterTest, ExpectedNumberOfBytesIsNotLogged)
{
    const LogCatcher log;
    std::ostringstream stream;
    WireWriter writer(stream);
    writer.write(std::uint32_t{0});

    writer.checkWritten("Something", 4);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(WireWriterTest, AnyOtherNumberOfBytesIsAnError)
{
    const LogCatcher log;
    std::ostringstream stream;
    WireWriter writer(stream);
    writer.write(std::uint16_t{0});

    writer.checkWritten("Something", 4);
    writer.checkWritten("Other", 1);
    writer.checkWritten("Another", 4, 5);

    EXPECT_THAT(log.errors(), ElementsAre("Error: Something size=4, but 2 written by serialisation!",
                                          "Error: Other size=1, but 2 written by serialisation!",
                                          "Error: Another size=5, but 2 written by serialisation!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
