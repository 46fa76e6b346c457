#include "DataLayer/SOME_IP_SD/Payloads.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

std::string repeated(const std::string& text, std::size_t number)
{
    std::string all;
    all.reserve(text.size() * number);
    for (std::size_t i = 0; i < number; ++i)
        all += text;
    return all;
}

struct SOME_IP_SD_ReadingTest : PayloadTest
{};

}  // namespace

TEST_F(SOME_IP_SD_ReadingTest, EmptyPayloadIsRead)
{
    read("e0 00 00 00 00 00 00 00 00 00 00 00");

    EXPECT_TRUE(payload.isValid());
    EXPECT_EQ(payload.getFlags(), 0xe0);
    EXPECT_EQ(payload.getSize(), 12u);
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_THAT(payload.getOptions(), IsEmpty());
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(unread(stream), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_ReadingTest, EveryKindOfElementIsReadInOrder)
{
    read(
        "a0 00 00 00 00 00 00 40 "
        "00 00 00 00 12 34 00 01 01 00 00 03 00 00 00 04 "
        "01 00 00 00 12 35 00 01 01 00 00 03 00 00 00 05 "
        "06 00 00 00 12 36 00 01 01 00 00 03 00 85 00 06 "
        "07 00 00 00 12 37 00 01 01 00 00 03 00 85 00 07 "
        "00 00 00 7d "
        "00 06 01 00 03 61 3d 31 00 "
        "00 05 02 00 00 01 00 02 "
        "00 09 04 00 0a 01 02 03 00 06 00 01 "
        "00 09 14 00 0a 01 02 03 00 06 00 02 "
        "00 09 24 00 0a 01 02 03 00 06 00 03 "
        "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 00 04 "
        "00 15 16 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 00 05 "
        "00 15 26 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 00 06");

    EXPECT_TRUE(payload.isValid());
    EXPECT_TRUE(payload.areArraysValid());
    EXPECT_EQ(payload.getFlags(), 0xa0);
    EXPECT_EQ(payload.getEntriesLength(), 64u);
    EXPECT_EQ(payload.getOptionsLength(), 125u);
    ASSERT_THAT(payload.getEntries(), SizeIs(4));
    EXPECT_EQ(payload.getEntries()[0]->getType(), EntryType::FIND_SERVICE);
    EXPECT_EQ(payload.getEntries()[1]->getType(), EntryType::OFFER_SERVICE);
    EXPECT_EQ(payload.getEntries()[2]->getType(), EntryType::SUBSCRIBE);
    EXPECT_EQ(payload.getEntries()[3]->getType(), EntryType::SUBSCRIBE_ACK);
    const auto& offered = dynamic_cast<const SOME_IP_SD_Entry_Service&>(*payload.getEntries()[1]);
    EXPECT_EQ(offered.getServiceID(), 0x1235);
    EXPECT_EQ(offered.getMinorVersion(), 5u);
    const auto& acknowledged = dynamic_cast<const SOME_IP_SD_Entry_Eventgroup&>(*payload.getEntries()[3]);
    EXPECT_EQ(acknowledged.getServiceID(), 0x1237);
    EXPECT_EQ(acknowledged.getEventgroupID(), 7);
    ASSERT_THAT(payload.getOptions(), SizeIs(8));
    EXPECT_EQ(payload.getOptions()[0]->getType(), OptionType::CONFIGURATION);
    EXPECT_EQ(payload.getOptions()[1]->getType(), OptionType::LOAD_BALANCING);
    EXPECT_EQ(payload.getOptions()[2]->getType(), OptionType::IP4_ENDPOINT);
    EXPECT_EQ(payload.getOptions()[3]->getType(), OptionType::IP4_MULTICAST);
    EXPECT_EQ(payload.getOptions()[4]->getType(), OptionType::IP4_SD_ENDPOINT);
    EXPECT_EQ(payload.getOptions()[5]->getType(), OptionType::IP6_ENDPOINT);
    EXPECT_EQ(payload.getOptions()[6]->getType(), OptionType::IP6_MULTICAST);
    EXPECT_EQ(payload.getOptions()[7]->getType(), OptionType::IP6_SD_ENDPOINT);
    EXPECT_EQ(dynamic_cast<const SOME_IP_SD_Option_IPv4&>(*payload.getOptions()[4]).getPort(), 3);
    EXPECT_EQ(dynamic_cast<const SOME_IP_SD_Option_IPv6&>(*payload.getOptions()[7]).getPort(), 6);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_ReadingTest, PayloadThatEndsTheDatagramIsGood)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    EXPECT_TRUE(payload.isValid());
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(unread(stream), 0);
}

TEST_F(SOME_IP_SD_ReadingTest, WhatFollowsThePayloadIsNotRead)
{
    read(payloadOf(offer, ipv6) + "ff ff 81 00");

    EXPECT_TRUE(payload.isValid());
    EXPECT_EQ(unread(stream), 4);
}

TEST_F(SOME_IP_SD_ReadingTest, RemainingLengthIsLoweredByEightAndFourOnly)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    EXPECT_EQ(metaData.remainingPacketLength,
              static_cast<std::streamsize>(sizeOf(offer + find + ipv6 + configuration)));
}

TEST_F(SOME_IP_SD_ReadingTest, RemainingLengthIsLoweredByEightWhenTheEntriesFail)
{
    read("e0 00 00 00 00 00 00 11 00 00 00 00");

    EXPECT_EQ(metaData.remainingPacketLength, 12 - 8);
}

TEST_F(SOME_IP_SD_ReadingTest, SecondReadReplacesTheFirst)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    read(payloadOf(find, loadBalancing));

    EXPECT_TRUE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), SizeIs(1));
    EXPECT_THAT(payload.getOptions(), SizeIs(1));
}

TEST_F(SOME_IP_SD_ReadingTest, ReadThatFailsKeepsNothingOfTheReadBefore)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    read("e0 00 00 00 00 00 00 11 00 00 00 00");

    EXPECT_EQ(payload.getEntriesLength(), 17u);
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_EQ(payload.getOptionsLength(), 0u);
    EXPECT_THAT(payload.getOptions(), IsEmpty());
}

TEST_F(SOME_IP_SD_ReadingTest, PayloadThatWasReadIsWrittenAsItWas)
{
    const std::string hex = payloadOf(offer + find + subscribe, ipv6 + configuration + loadBalancing);

    read(hex);

    EXPECT_EQ(written(payload) + " ", hex);
}

// Reserved bits that look like white space

TEST_F(SOME_IP_SD_ReadingTest, WhiteSpaceInTheReservedBitsMakesAnEmptyPayloadOneByteShort)
{
    read("e0 00 00 20 00 00 00 00 00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(log.errors(), ElementsAre(sizeLine(0, 0)));
}

TEST_F(SOME_IP_SD_ReadingTest, WhiteSpaceInTheReservedBitsPutsTheEntriesOutOfStep)
{
    read("e0 00 20 00 " + arrayOf(offer) + arrayOf(""));

    EXPECT_FALSE(payload.isValid());
    EXPECT_EQ(payload.getEntriesLength(), 0x1001u) << "read one byte late";
}

// Arrays above 16 bits

TEST_F(SOME_IP_SD_ReadingTest, ArraysAboveSixteenBitsAreReadWhole)
{
    constexpr std::size_t entries = 0x10000 / 16 + 1;
    constexpr std::size_t options = 0x10000 / 8 + 1;

    read(payloadOf(repeated(offer, entries), repeated(loadBalancing, options)));

    EXPECT_TRUE(payload.isValid());
    EXPECT_TRUE(payload.areArraysValid());
    EXPECT_THAT(payload.getEntries(), SizeIs(entries));
    EXPECT_THAT(payload.getOptions(), SizeIs(options));
    EXPECT_EQ(payload.getEntriesLength(), entries * 16);
    EXPECT_EQ(payload.getOptionsLength(), options * 8);
    EXPECT_EQ(payload.getSize(), 12 + entries * 16 + options * 8);
    EXPECT_EQ(unread(stream), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_ReadingTest, PacketAboveSixteenBitsIsReadWhole)
{
    const std::string bytes = Packets::packet(repeated(Packets::Entry().bytes(), 0x10000 / 16), "");
    SOME_IP_SD_Header packet(bytes.size());
    stream.str(bytes);

    stream >> packet;

    EXPECT_TRUE(packet.getSomeIP().isValid());
    EXPECT_TRUE(packet.getSomeIP_SD().isValid());
    EXPECT_EQ(packet.getNumOfEntries(), 0x10000u / 16);
    EXPECT_EQ(packet.getSize(), bytes.size());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_ReadingTest, WithoutMetaDataNoByteIsLeft)
{
    SOME_IP_SD orphan(nullptr, SOME_IP_SD::NONE);
    stream = streamOf(payloadOf(offer, ""));

    stream >> orphan;

    EXPECT_THAT(log.errors(), Contains("Error: SOME_IP_SD header length of entries error '16' expected, but "
                                       "only 0 Bytes left!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
