#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/Wire.h"

#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

std::string payloadOf(const std::string& entries, const std::string& options)
{
    return "e0 00 00 00"_bytes + Packets::bigEndian32(entries.size()) + entries +
           Packets::bigEndian32(options.size()) + options;
}

std::string repeated(const std::string& bytes, std::size_t number)
{
    std::string all;
    all.reserve(bytes.size() * number);
    for (std::size_t i = 0; i < number; ++i)
        all += bytes;
    return all;
}

struct SOME_IP_SD_ReadingTest : ::testing::Test
{
    LogCatcher log;
    SOME_IP_SD_Types::MetaData metaData;
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
};

}  // namespace

TEST_F(SOME_IP_SD_ReadingTest, ArraysAboveSixteenBitsAreReadWhole)
{
    constexpr std::size_t entries = 0x10000 / 16 + 1;
    constexpr std::size_t options = 0x10000 / 8 + 1;
    std::istringstream stream(payloadOf(repeated(Packets::Entry().bytes(), entries),
                                        repeated(Packets::loadBalancingOption(), options)));
    metaData.remainingPacketLength = unread(stream);

    stream >> payload;

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
    std::istringstream stream(bytes);

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
    std::istringstream stream(payloadOf(Packets::Entry().bytes(), ""));

    stream >> orphan;

    EXPECT_THAT(log.errors(), Contains("Error: SOME_IP_SD header length of entries error '16' expected, but "
                                       "only 0 Bytes left!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
