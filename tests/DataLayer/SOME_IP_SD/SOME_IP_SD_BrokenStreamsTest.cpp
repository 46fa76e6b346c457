#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/Wire.h"

#include <ios>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// Payloads on streams that end too early, fail, or take nothing.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

/// State of a stream and the reason reported for it.
struct BrokenStream
{
    const char* name;
    std::ios::iostate state;
    const char* reason;
};

struct BrokenStreamTest : ::testing::TestWithParam<BrokenStream>
{
    BrokenStreamTest()
    {
        stream.setstate(GetParam().state);
        payload.setEntriesLength(16);
        payload.setOptionsLength(8);
    }

    LogCatcher log;
    SOME_IP_SD_Types::MetaData metaData{1000};
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
    std::istringstream stream{Packets::Entry().bytes() + Packets::loadBalancingOption()};
    bool error = false;
};

struct SOME_IP_SD_BrokenStreamsTest : ::testing::Test
{
    LogCatcher log;
    SOME_IP_SD_Types::MetaData metaData{1000};
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
};

}  // namespace

TEST_P(BrokenStreamTest, IsReportedWithTheEntries)
{
    EXPECT_EQ(deserialiseEntries(stream, payload, error), 0);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(), Contains(std::string("Error: Failed to deserialise Entries due to ") +
                                       GetParam().reason + " after ~'0' Byte(s) of Entries!"));
}

TEST_P(BrokenStreamTest, IsReportedWithTheOptions)
{
    EXPECT_EQ(deserialiseOptions(stream, payload, error), 0);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(), ElementsAre(std::string("Error: Failed to deserialise Options due to ") +
                                              GetParam().reason + " after ~'0' Byte(s) of Options!",
                                          "Error: Option deserialisation read '0', but expected '8' Bytes!"));
}

INSTANTIATE_TEST_SUITE_P(
    States, BrokenStreamTest,
    ::testing::Values(
        BrokenStream{"End", std::ios::eofbit, "prematurely reading EOF"},
        BrokenStream{"EndAndFailure", std::ios::eofbit | std::ios::failbit, "prematurely reading EOF"},
        BrokenStream{"EndAndLoss", std::ios::eofbit | std::ios::badbit, "prematurely reading EOF"},
        BrokenStream{"Failure", std::ios::failbit, "failed reading of inputstream"},
        BrokenStream{"Loss", std::ios::badbit, "failed reading of inputstream"}),
    [](const auto& row) { return row.param.name; });

TEST_F(SOME_IP_SD_BrokenStreamsTest, EntryThatWasCutShortIsInTheArrayAndInvalid)
{
    const std::string entry = Packets::Entry().bytes();
    std::istringstream stream(entry + entry.substr(0, 10));
    payload.setEntriesLength(32);
    bool error = false;

    deserialiseEntries(stream, payload, error);

    ASSERT_THAT(payload.getEntries(), SizeIs(2));
    EXPECT_TRUE(payload.getEntries()[0]->isValid());
    EXPECT_FALSE(payload.getEntries()[1]->isValid());
}

TEST_F(SOME_IP_SD_BrokenStreamsTest, OptionThatWasCutShortIsInTheArrayAndInvalid)
{
    const std::string option = Packets::loadBalancingOption();
    std::istringstream stream(option + option.substr(0, 6));
    payload.setOptionsLength(16);
    bool error = false;

    deserialiseOptions(stream, payload, error);

    ASSERT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_TRUE(payload.getOptions()[0]->isValid());
    EXPECT_FALSE(payload.getOptions()[1]->isValid());
}

TEST_F(SOME_IP_SD_BrokenStreamsTest, LossAloneIsNamedAlone)
{
    struct ThrowingBuffer : std::streambuf
    {
        int_type underflow() override { throw std::runtime_error("lost"); }
    } buffer;
    std::istream stream(&buffer);
    SOME_IP_SD_Header packet(28);

    stream >> packet;

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP-SD message too short, length=0, which is <12!",
                            "Error: SOME_IP - SD message length-error: stream state not good after reading "
                            "SOME/IP Header: [bad]"));
}

TEST_F(SOME_IP_SD_BrokenStreamsTest, PayloadOnAStreamThatTakesNothingIsReported)
{
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);

    stream << payload;

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD payload size=12, but 0 written by serialisation!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
