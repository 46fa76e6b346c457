#include "DataLayer/SOME_IP_SD/Payloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

struct SOME_IP_SD_ReadingEntriesTest : PayloadTest
{};

}  // namespace

// Lengths of the entries array

TEST_F(SOME_IP_SD_ReadingEntriesTest, EntriesLengthThatIsNoMultipleOf16IsRefused)
{
    read("e0 00 00 00 00 00 00 11 " + offer + "00 00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD header length of entries '17' not a multiple of expected size '16'",
                    sizeLine(17, 0)));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, EntriesLengthBeyondTheDatagramIsRefused)
{
    read("e0 00 00 00 00 00 00 20 " + offer + "00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD header length of entries error '32' expected, but only 20 "
                            "Bytes left!",
                            sizeLine(32, 0)));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, LargestEntriesLengthIsRefused)
{
    read("e0 00 00 00 ff ff ff f0 00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD header length of entries error '4294967280' expected, but only "
                    "4 Bytes left!",
                    sizeLine(0xfffffff0, 0)));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, EntriesThatLeaveNoRoomForTheOptionsLengthAreTooLong)
{
    read("e0 00 00 00 00 00 00 10 " + offer);

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(log.errors(), ElementsAre(sizeLine(16, 0)));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, NothingIsReadOfArraysWhoseLengthIsRefused)
{
    for (const std::uint32_t length : {17u, 1008u}) {
        bool entriesError = false;
        bool optionsError = false;
        stream = streamOf(offer + offer);
        payload.setEntriesLength(length);
        payload.setOptionsLength(1000);

        EXPECT_EQ(deserialiseEntries(stream, payload, entriesError), 0);
        EXPECT_EQ(deserialiseOptions(stream, payload, optionsError), 0);

        EXPECT_TRUE(entriesError);
        EXPECT_TRUE(optionsError);
        EXPECT_EQ(unread(stream), 32);
    }
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, RemainingLengthBelowZeroIsNothingLeft)
{
    stream = streamOf(payloadOf(offer, ""));
    metaData.remainingPacketLength = 5;

    stream >> payload;

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD header length of entries error '16' expected, but only 0 "
                            "Bytes left!",
                            sizeLine(16, 0)));
}

// Entries

TEST_F(SOME_IP_SD_ReadingEntriesTest, UnknownEntryCostsItsSixteenBytesAndTheOthersAreRead)
{
    read(payloadOf(offer + unknownEntry + find, loadBalancing));

    EXPECT_TRUE(payload.isValid());
    ASSERT_THAT(payload.getEntries(), SizeIs(2));
    EXPECT_EQ(payload.getEntries()[0]->getType(), EntryType::OFFER_SERVICE);
    EXPECT_EQ(payload.getEntries()[1]->getType(), EntryType::FIND_SERVICE);
    EXPECT_EQ(payload.getEntriesLength(), 48u) << "as received";
    EXPECT_THAT(payload.getOptions(), SizeIs(1));
    EXPECT_TRUE(payload.areArraysValid());
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Entry due to unknown type 0x'5' @ "
                                          "Byte '16', trying to skip to next Entry!"));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, UnknownEntryMayBeTheLastOrTheOnlyOne)
{
    read(payloadOf("ff " + unknownEntry.substr(3), ""));

    EXPECT_TRUE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_TRUE(stream.good());
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Entry due to unknown type 0x'ff' @ "
                                          "Byte '0', trying to skip to next Entry!"));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, EntriesCutShortAreTooFew)
{
    bool error = false;
    stream = streamOf(offer + "01 00 00 20");
    payload.setEntriesLength(32);

    EXPECT_EQ(deserialiseEntries(stream, payload, error), 16);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Entry size=12, but 6 read by deserialisation",
                            "Error: SOME_IP_SD_Entry_Service size=4, but 0 read by deserialisation!",
                            "Error: Failed to deserialise Entries due to prematurely reading EOF after ~'16' "
                            "Byte(s) of Entries!",
                            "Error: Entry deserialisation read '16', but expected only '32' Bytes!"));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, UnknownEntryCutShortIsTooFewToo)
{
    bool error = false;
    stream = streamOf("05 00 00");
    payload.setEntriesLength(16);

    EXPECT_EQ(deserialiseEntries(stream, payload, error), 0);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Failed to deserialise Entry due to unknown type 0x'5' @ Byte '0', trying "
                            "to skip to next Entry!",
                            "Error: Failed to deserialise Entries due to prematurely reading EOF after ~'0' "
                            "Byte(s) of Entries!",
                            "Error: Entry deserialisation read '0', but expected only '16' Bytes!"));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, EntriesOfAStreamThatFailsAreReported)
{
    bool error = false;
    stream = streamOf(offer);
    stream.setstate(std::ios::failbit);
    payload.setEntriesLength(16);

    EXPECT_EQ(deserialiseEntries(stream, payload, error), 0);

    EXPECT_TRUE(error);
    EXPECT_TRUE(
        log.has("Error: Failed to deserialise Entries due to failed reading of inputstream after "
                "~'0' Byte(s) of Entries!"));
    EXPECT_TRUE(log.has("Error: Entry deserialisation read '0', but expected only '16' Bytes!"));
}

TEST_F(SOME_IP_SD_ReadingEntriesTest, ReadEntriesAreCountedInBytes)
{
    bool error = false;
    stream = streamOf(offer + unknownEntry + subscribe);
    payload.setEntriesLength(48);

    EXPECT_EQ(deserialiseEntries(stream, payload, error), 48);

    EXPECT_FALSE(error);
}

}  // namespace Nubo::ServiceDiscovery::Testing
