#include "DataLayer/SOME_IP/SOME_IP.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using SOME_IP_SD_Types::MetaData;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct SOME_IPTest : ::testing::Test
{
    /// Reads a header from a datagram of that many bytes.
    std::istringstream read(const std::string& hex, std::streamsize datagramSize)
    {
        metaData.remainingPacketLength = datagramSize;
        std::istringstream stream = streamOf(hex);
        stream >> header;
        return stream;
    }

    LogCatcher log;
    MetaData metaData;
    SOME_IP header{&metaData};
};

constexpr auto defaultHeader = "ff ff 81 00 00 00 00 08 00 00 00 01 01 01 02 00";

}  // namespace

TEST_F(SOME_IPTest, DefaultHeaderHasTheSixteenBytesOfAServiceDiscoveryMessage)
{
    EXPECT_EQ(written(header), defaultHeader);
    EXPECT_TRUE(header.isValid());
    EXPECT_EQ(header.getSize(), 16u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IPTest, EveryFieldIsWrittenInItsPlace)
{
    EXPECT_TRUE(header.setServiceID(0x0102));
    EXPECT_TRUE(header.setMethodID(0x0304));
    EXPECT_TRUE(header.setLength(0x05060708));
    EXPECT_TRUE(header.setClientID(0x090a));
    EXPECT_TRUE(header.setSessionID(0x0b0c));
    EXPECT_TRUE(header.setProtocolVersion(0x0d));
    EXPECT_TRUE(header.setInterfaceVersion(0x0e));
    EXPECT_TRUE(header.setMessageType(0x0f));
    EXPECT_TRUE(header.setReturnCode(0x10));

    EXPECT_EQ(written(header), "01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10");
}

TEST_F(SOME_IPTest, EveryFieldIsReadFromItsPlaceAndNoValueOfTheLastFourIsRefused)
{
    read("01 02 03 04 00 00 00 0c 09 0a 0b 0c 0d 0e 0f 10", 20);

    EXPECT_TRUE(header.isValid());
    EXPECT_EQ(header.getMessageID(), 0x01020304u);
    EXPECT_EQ(header.getServiceID(), 0x0102);
    EXPECT_EQ(header.getMethodID(), 0x0304);
    EXPECT_EQ(header.getLength(), 12u);
    EXPECT_EQ(header.getSize(), 20u);
    EXPECT_EQ(header.getRequestID(), 0x090a0b0cu);
    EXPECT_EQ(header.getClientID(), 0x090a);
    EXPECT_EQ(header.getSessionID(), 0x0b0c);
    EXPECT_EQ(header.getProtocolVersion(), 0x0d);
    EXPECT_EQ(header.getInterfaceVersion(), 0x0e);
    EXPECT_EQ(header.getMessageType(), 0x0f);
    EXPECT_EQ(header.getReturnCode(), 0x10);
    EXPECT_EQ(metaData.remainingPacketLength, 4);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IPTest, RequestAndMessageIDsAreSplitAndJoined)
{
    EXPECT_TRUE(header.setRequestID(0x12345678));
    EXPECT_TRUE(header.setMessageID(0x9abcdef0));

    EXPECT_EQ(header.getClientID(), 0x1234);
    EXPECT_EQ(header.getSessionID(), 0x5678);
    EXPECT_EQ(header.getRequestID(), 0x12345678u);
    EXPECT_EQ(header.getServiceID(), 0x9abc);
    EXPECT_EQ(header.getMethodID(), 0xdef0);
    EXPECT_EQ(header.getMessageID(), 0x9abcdef0u);
}

TEST_F(SOME_IPTest, LengthElevenIsTooShort)
{
    std::istringstream stream = read("ff ff 81 00 00 00 00 0b 00 00 00 01 01 01 02 00", 16);

    EXPECT_FALSE(header.isValid());
    EXPECT_THAT(log.lines(), ElementsAre("Error: SOME_IP-SD message too short, length=11, which is <12!"));
    EXPECT_EQ(unread(stream), 8) << "the rest of the header is not read";
    EXPECT_EQ(metaData.remainingPacketLength, 16);
}

TEST_F(SOME_IPTest, LengthTwelvePassesTheFirstCheck)
{
    read("ff ff 81 00 00 00 00 0c 00 00 00 01 01 01 02 00", 20);

    EXPECT_TRUE(header.isValid());
}

namespace {

struct LengthBeyond
{
    const char* name;
    const char* length;
    std::streamsize datagramSize;
    const char* line;
};

struct LengthBeyondTest : SOME_IPTest, ::testing::WithParamInterface<LengthBeyond>
{};

}  // namespace

TEST_P(LengthBeyondTest, TheDatagramIsAnError)
{
    const std::string hex =
        std::string("ff ff 81 00 ") + GetParam().length + " 00 00 00 01 01 01 02 00 e0 00 00 00";

    std::istringstream stream = read(hex, GetParam().datagramSize);

    EXPECT_FALSE(header.isValid());
    EXPECT_EQ(unread(stream), 12) << "the rest of the header is not read";
    EXPECT_EQ(metaData.remainingPacketLength, GetParam().datagramSize);
    EXPECT_THAT(log.lines(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP, LengthBeyondTest,
    ::testing::Values(
        LengthBeyond{"ByTheEightBytesBeforeIt", "00 00 00 14", 20,
                     "Error: SOME_IP-SD message length-error, message size=28, but only 20 Bytes left!"},
        LengthBeyond{"ByOne", "00 00 00 14", 27,
                     "Error: SOME_IP-SD message length-error, message size=28, but only 27 Bytes left!"},
        LengthBeyond{
            "AsFarAsCanBe", "ff ff ff ff", 20,
            "Error: SOME_IP-SD message length-error, message size=4294967303, but only 20 Bytes left!"}),
    [](const auto& row) { return row.param.name; });

TEST_F(SOME_IPTest, HeaderCutShortIsAnError)
{
    read("ff ff 81 00 00 00 00 0c 00 00 00 01 01", 20);

    EXPECT_FALSE(header.isValid());
    EXPECT_THAT(log.lines(), ElementsAre("Error: SOME_IP header size=20, but 13 read by deserialisation and "
                                         "length field contains '12'!"));
    EXPECT_EQ(metaData.remainingPacketLength, 20);
}

TEST_F(SOME_IPTest, StreamThatTakesNoBytesIsReportedWhenWriting)
{
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);

    stream << header;

    EXPECT_THAT(log.errors(), ElementsAre("Error: SOME_IP header size=16, but 0 written by serialisation!"));
}

TEST_F(SOME_IPTest, WithoutMetaDataTheHeaderIsInvalid)
{
    const SOME_IP orphan(nullptr);

    EXPECT_FALSE(orphan.isValid());
    EXPECT_THAT(log.lines(), ElementsAre("Error: SOME_IP: received nullptr as metaData!"));
}

TEST_F(SOME_IPTest, WithoutMetaDataTheHeaderIsReadUnmeasuredAndStaysInvalid)
{
    SOME_IP orphan(nullptr);
    std::istringstream stream = streamOf("01 02 03 04 ff ff ff ff 09 0a 0b 0c 0d 0e 0f 10");
    log.clear();

    stream >> orphan;

    EXPECT_FALSE(orphan.isValid());
    EXPECT_EQ(orphan.getMessageID(), 0x01020304u);
    EXPECT_EQ(orphan.getRequestID(), 0x090a0b0cu);
    EXPECT_EQ(orphan.getReturnCode(), 0x10);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IPTest, MakeInvalidIsFinal)
{
    header.makeInvalid();
    read("ff ff 81 00 00 00 00 0c 00 00 00 01 01 01 02 00", 20);

    EXPECT_FALSE(header.isValid());
}

TEST_F(SOME_IPTest, HeadersAreMovedAndAssignedButNotMadeOfNothing)
{
    EXPECT_TRUE(std::is_move_constructible_v<SOME_IP>);
    EXPECT_TRUE(std::is_copy_assignable_v<SOME_IP>);
    EXPECT_FALSE(std::is_default_constructible_v<SOME_IP>);
}

TEST_F(SOME_IPTest, UpdateLengthCountsThePayloadAndEightHeaderBytes)
{
    EXPECT_TRUE(header.updateLength(12));

    EXPECT_EQ(header.getLength(), 20u);
    EXPECT_EQ(header.getSize(), 28u);

    header.updateLength(0xfffffff7);

    EXPECT_EQ(header.getLength(), 0xffffffffu);
}

TEST_F(SOME_IPTest, SizeOfTheLargestLengthDoesNotWrap)
{
    header.setLength(0xffffffff);

    EXPECT_EQ(header.getSize(), 0x100000007u);
}

TEST(SOME_IPReservedTest, ServiceIDsAreReservedAtZeroAndInOneRange)
{
    EXPECT_TRUE(SOME_IP::isReservedServiceID(0x0000));
    EXPECT_FALSE(SOME_IP::isReservedServiceID(0xfeff));
    EXPECT_TRUE(SOME_IP::isReservedServiceID(0xff00));
    EXPECT_TRUE(SOME_IP::isReservedServiceID(0xff5f));
    EXPECT_FALSE(SOME_IP::isReservedServiceID(0xff60));
    EXPECT_FALSE(SOME_IP::isReservedServiceID(0xffff));
}

TEST(SOME_IPReservedTest, FourMethodIDsAreReserved)
{
    EXPECT_TRUE(SOME_IP::isReservedMethodID(0x0000));
    EXPECT_TRUE(SOME_IP::isReservedMethodID(0x7fff));
    EXPECT_TRUE(SOME_IP::isReservedMethodID(0x8000));
    EXPECT_TRUE(SOME_IP::isReservedMethodID(0xffff));
    EXPECT_FALSE(SOME_IP::isReservedMethodID(0x8100));
}

TEST_F(SOME_IPTest, TextHasTabsThenHexadecimalFieldsAndADecimalLength)
{
    read("ab cd 12 34 00 00 00 1c 56 78 9a bc de f0 0f 41", 36);

    EXPECT_EQ(header.toString(2),
              "\t\tSOME/IP: ServiceID(0xabcd), MethodID(0x1234), Length(28), ClientID(0x5678), "
              "SessionID(0x9abc), ProtocolVersion(0xde), InterfaceVersion(0xf0), MessageType(0xf), "
              "ReturnCode(0x41)");
}

TEST_F(SOME_IPTest, TextWithoutIndentBeginsWithItsName)
{
    EXPECT_EQ(header.toString(0),
              "SOME/IP: ServiceID(0xffff), MethodID(0x8100), Length(8), ClientID(0x0), SessionID(0x1), "
              "ProtocolVersion(0x1), InterfaceVersion(0x1), MessageType(0x2), ReturnCode(0x0)");
}

TEST(SOME_IPBytesTest, SessionIDIsPutIntoAHeaderThatWasWritten)
{
    std::string bytes = fromHex("ff ff 81 00 00 00 00 1c 00 00 00 01 01 01 02 00 aa");

    SOME_IP::overwriteSessionID(bytes.data(), 0x9abc);

    EXPECT_EQ(toHex(bytes), "ff ff 81 00 00 00 00 1c 00 00 9a bc 01 01 02 00 aa");
}

}  // namespace Nubo::ServiceDiscovery::Testing
