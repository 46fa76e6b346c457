#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using SOME_IP_SD_Types::OptionRun;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

SOME_IP_SD_Entry::CommonFields offerFields()
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::OFFER_SERVICE;
    fields.fstOptionRunNum = 2;
    fields.serviceID = 0xFFFE;
    fields.instanceID = 1;
    fields.majorVersion = 1;
    fields.ttl = 3;
    return fields;
}

struct SOME_IP_SD_Entry_ServiceTest : ::testing::Test
{
    /// Reads the bytes that follow the type byte.
    std::istringstream read(const std::string& hex)
    {
        std::istringstream stream = streamOf(hex);
        stream >> entry;
        return stream;
    }

    LogCatcher log;
    SOME_IP_SD_Entry_Service entry{EntryType::OFFER_SERVICE};
};

}  // namespace

TEST_F(SOME_IP_SD_Entry_ServiceTest, OfferIsWrittenInSixteenBytes)
{
    const SOME_IP_SD_Entry_Service offer(offerFields(), 0);

    EXPECT_TRUE(offer.isValid());
    EXPECT_EQ(written(offer), "01 00 00 20 ff fe 00 01 01 00 00 03 00 00 00 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_ServiceTest, FindIsWrittenWithEveryFieldInItsPlace)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::FIND_SERVICE;
    fields.fstOptionRunIndex = 0x01;
    fields.sndOptionRunIndex = 0x02;
    fields.fstOptionRunNum = 0x0a;
    fields.sndOptionRunNum = 0x0b;
    fields.serviceID = 0x0304;
    fields.instanceID = 0x0506;
    fields.majorVersion = 0x07;
    fields.ttl = 0x08090a;

    const SOME_IP_SD_Entry_Service find(fields, 0x0b0c0d0e);

    EXPECT_TRUE(find.isValid());
    EXPECT_EQ(find.getMinorVersion(), 0x0b0c0d0eu);
    EXPECT_EQ(written(find), "00 01 02 ab 03 04 05 06 07 08 09 0a 0b 0c 0d 0e");
}

TEST_F(SOME_IP_SD_Entry_ServiceTest, EveryFieldIsReadFromItsPlaceAfterTheType)
{
    std::istringstream stream = read("01 02 ab 03 04 05 06 07 00 08 0e 0f 10 11 12 ff");

    EXPECT_TRUE(entry.isValid());
    EXPECT_EQ(entry.getType(), EntryType::OFFER_SERVICE);
    EXPECT_EQ(entry.getFstOptionRun(), OptionRun(0x01, 0x0a));
    EXPECT_EQ(entry.getSndOptionRun(), OptionRun(0x02, 0x0b));
    EXPECT_EQ(entry.getServiceID(), 0x0304);
    EXPECT_EQ(entry.getInstanceID(), 0x0506);
    EXPECT_EQ(entry.getMajorVersion(), 0x07);
    EXPECT_EQ(entry.getTTL(), 0x00080eu);
    EXPECT_EQ(entry.getMinorVersion(), 0x0f101112u);
    EXPECT_EQ(unread(stream), 1);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_ServiceTest, EntryIsInvalidUntilRead)
{
    EXPECT_FALSE(entry.isValid());
    EXPECT_EQ(entry.getMinorVersion(), 0u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_ServiceTest, MinorVersionCanBeSet)
{
    EXPECT_TRUE(entry.setMinorVersion(0xffffffff));

    EXPECT_EQ(entry.getMinorVersion(), 0xffffffffu);
}

TEST_F(SOME_IP_SD_Entry_ServiceTest, WhiteSpaceInTheTTLPutsWhatFollowsOutOfStep)
{
    std::istringstream stream = read("00 00 20 ff fe 00 01 01 00 00 20 00 00 00 07 08");

    EXPECT_TRUE(entry.isValid());
    EXPECT_EQ(entry.getTTL(), 0u);
    EXPECT_EQ(entry.getMinorVersion(), 0x00000708u);
    EXPECT_EQ(unread(stream), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_ServiceTest, TextHoldsEveryField)
{
    SOME_IP_SD_Entry::CommonFields fields = offerFields();
    fields.fstOptionRunIndex = 0x1a;
    fields.sndOptionRunIndex = 0x1b;
    fields.fstOptionRunNum = 0x0c;
    fields.sndOptionRunNum = 0x0d;
    fields.majorVersion = 65;
    fields.ttl = 120;
    const SOME_IP_SD_Entry_Service offer(fields, 17);

    EXPECT_EQ(offer.toString(1),
              "\tService Entry: Type(OFFER_SERVICE), ServiceID(0xfffe), InstanceID(0x1), "
              "FstOptionRun(0x1a|0xc), SndOptionRun(0x1b|0xd), TTL(120), MajorVersion(65), "
              "MinorVersion(17)");
}

TEST_F(SOME_IP_SD_Entry_ServiceTest, TextOfAFindNamesItsType)
{
    EXPECT_EQ(SOME_IP_SD_Entry_Service(EntryType::FIND_SERVICE).toString(0),
              "Service Entry: Type(FIND_SERVICE), ServiceID(0x0), InstanceID(0x0), FstOptionRun(0x0|0x0), "
              "SndOptionRun(0x0|0x0), TTL(0), MajorVersion(0), MinorVersion(0)");
}

namespace {

struct UnusedIndex
{
    const char* name;
    const char* start;  ///< the two indices and the numbers
    std::vector<std::string> lines;
};

struct UnusedIndexTest : ::testing::TestWithParam<UnusedIndex>
{};

}  // namespace

TEST_P(UnusedIndexTest, IsLoggedAndTheEntryIsAccepted)
{
    const LogCatcher log;
    SOME_IP_SD_Entry_Service entry(EntryType::OFFER_SERVICE);
    std::istringstream stream =
        streamOf(std::string(GetParam().start) + " ff fe 00 01 01 00 00 03 00 00 00 00");

    stream >> entry;

    EXPECT_TRUE(entry.isValid());
    EXPECT_THAT(log.errors(), ElementsAreArray(GetParam().lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD_Entry_Service, UnusedIndexTest,
    ::testing::Values(UnusedIndex{"First",
                                  "05 00 01",
                                  {"Error: SOME_IP_SD_Entry_Service syntactically incorrect, 1st OptionRun "
                                   "number ==0, but index != 0 (\x05)!"}},
                      UnusedIndex{"Second",
                                  "00 41 10",
                                  {"Error: SOME_IP_SD_Entry_Service syntactically incorrect, 2nd OptionRun "
                                   "number ==0, but index != 0 (A)!"}},
                      UnusedIndex{"Both",
                                  "42 43 00",
                                  {"Error: SOME_IP_SD_Entry_Service syntactically incorrect, 1st OptionRun "
                                   "number ==0, but index != 0 (B)!",
                                   "Error: SOME_IP_SD_Entry_Service syntactically incorrect, 2nd OptionRun "
                                   "number ==0, but index != 0 (C)!"}},
                      UnusedIndex{"NoneWhereTheRunsAreUsed", "05 06 11", {}},
                      UnusedIndex{"NoneWhereTheIndicesAreZero", "00 00 00", {}}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
