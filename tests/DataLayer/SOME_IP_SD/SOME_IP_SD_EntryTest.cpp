#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using SOME_IP_SD_Types::OptionRun;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// An entry with any implementation, or without one.
struct BareEntry : SOME_IP_SD_Entry
{
    explicit BareEntry(SOME_IP_SD_Entry_Pimpl* implementation) : SOME_IP_SD_Entry(implementation) {}
};

/// The common part, in an entry whose implementation adds nothing to it.
struct SOME_IP_SD_EntryTest : ::testing::Test
{
    static SOME_IP_SD_Entry_Pimpl* makeImplementation()
    {
        SOME_IP_SD_Entry::CommonFields fields;
        fields.type = EntryType::OFFER_SERVICE;
        fields.fstOptionRunIndex = 0x02;
        fields.sndOptionRunIndex = 0x03;
        fields.fstOptionRunNum = 0x04;
        fields.sndOptionRunNum = 0x05;
        fields.serviceID = 0x0607;
        fields.instanceID = 0x0809;
        fields.majorVersion = 0x0a;
        fields.ttl = 0x0b0c0d;
        return new SOME_IP_SD_Entry_Pimpl(fields);
    }

    LogCatcher log;
    BareEntry entry{makeImplementation()};
};

}  // namespace

TEST_F(SOME_IP_SD_EntryTest, CommonFieldsStartAtZeroWithoutAType)
{
    const SOME_IP_SD_Entry::CommonFields fields;

    EXPECT_EQ(fields.type, EntryType::INVALID);
    EXPECT_EQ(fields.fstOptionRunIndex, 0);
    EXPECT_EQ(fields.sndOptionRunIndex, 0);
    EXPECT_EQ(fields.fstOptionRunNum, 0);
    EXPECT_EQ(fields.sndOptionRunNum, 0);
    EXPECT_EQ(fields.serviceID, 0);
    EXPECT_EQ(fields.instanceID, 0);
    EXPECT_EQ(fields.majorVersion, 0);
    EXPECT_EQ(fields.ttl, 0u);
}

TEST_F(SOME_IP_SD_EntryTest, CommonFieldsAreReturnedAsGiven)
{
    EXPECT_TRUE(entry.isValid());
    EXPECT_EQ(entry.getType(), EntryType::OFFER_SERVICE);
    EXPECT_EQ(entry.getFstOptionRun(), OptionRun(2, 4));
    EXPECT_EQ(entry.getSndOptionRun(), OptionRun(3, 5));
    EXPECT_EQ(entry.getServiceID(), 0x0607);
    EXPECT_EQ(entry.getInstanceID(), 0x0809);
    EXPECT_EQ(entry.getMajorVersion(), 0x0a);
    EXPECT_EQ(entry.getTTL(), 0x0b0c0du);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_EntryTest, EveryEntryHasSixteenBytes)
{
    EXPECT_EQ(SOME_IP_SD_Entry::EntrySize(), 16u);
    EXPECT_EQ(entry.getSize(), 16u);
}

TEST_F(SOME_IP_SD_EntryTest, CommonPartIsWrittenInTwelveBytes)
{
    EXPECT_EQ(written(entry), "01 02 03 45 06 07 08 09 0a 0b 0c 0d");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_EntryTest, CommonPartIsReadFromTheElevenBytesAfterTheType)
{
    std::istringstream stream = streamOf("12 13 ef 16 17 18 19 1a 1b 1c 1d ff");

    stream >> entry;

    EXPECT_EQ(entry.getType(), EntryType::OFFER_SERVICE);
    EXPECT_EQ(entry.getFstOptionRun(), OptionRun(0x12, 0x0e));
    EXPECT_EQ(entry.getSndOptionRun(), OptionRun(0x13, 0x0f));
    EXPECT_EQ(entry.getServiceID(), 0x1617);
    EXPECT_EQ(entry.getInstanceID(), 0x1819);
    EXPECT_EQ(entry.getMajorVersion(), 0x1a);
    EXPECT_EQ(entry.getTTL(), 0x1b1c1du);
    EXPECT_EQ(unread(stream), 1);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_EntryTest, CommonPartCutShortMakesTheEntryInvalid)
{
    std::istringstream stream = streamOf("12 13 ef 16 17");

    stream >> entry;

    EXPECT_FALSE(entry.isValid());
    EXPECT_THAT(log.errors(), ElementsAre("Error: SOME_IP_SD_Entry size=12, but 8 read by deserialisation"))
        << "the three bytes of the TTL count whatever became of them";
}

TEST_F(SOME_IP_SD_EntryTest, CommonPartCutShortTakesNothingOver)
{
    const std::string before = written(entry);

    streamOf("12 13 ef 16 17 18 19") >> entry;

    EXPECT_EQ(written(entry), before);
}

TEST_F(SOME_IP_SD_EntryTest, WhiteSpaceInTheTTLIsPassedOver)
{
    std::istringstream stream = streamOf("12 13 ef 16 17 18 19 1a 00 20 0d 03 04 ff");

    stream >> entry;

    EXPECT_TRUE(entry.isValid());
    EXPECT_EQ(entry.getTTL(), 0x000304u);
    EXPECT_EQ(unread(stream), 1);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_EntryTest, WhiteSpaceInTheTTLIsTakenWhileTheStreamDoesNotSkipIt)
{
    std::istringstream stream = streamOf("12 13 ef 16 17 18 19 1a 00 20 0d ff");
    stream >> std::noskipws;

    stream >> entry;

    EXPECT_EQ(entry.getTTL(), 0x00200du);
    EXPECT_EQ(unread(stream), 1);
}

TEST_F(SOME_IP_SD_EntryTest, WhiteSpaceOutsideTheTTLIsAValueLikeAnyOther)
{
    std::istringstream stream = streamOf("20 09 0a 0b 0c 0d 20 20 00 00 03");

    stream >> entry;

    EXPECT_EQ(entry.getFstOptionRun(), OptionRun(0x20, 0x00));
    EXPECT_EQ(entry.getSndOptionRun(), OptionRun(0x09, 0x0a));
    EXPECT_EQ(entry.getServiceID(), 0x0b0c);
    EXPECT_EQ(entry.getInstanceID(), 0x0d20);
    EXPECT_EQ(entry.getMajorVersion(), 0x20);
    EXPECT_EQ(entry.getTTL(), 3u);
}

TEST_F(SOME_IP_SD_EntryTest, StreamThatTakesNoBytesIsReportedWhenWriting)
{
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);

    stream << entry;

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Entry size=12, but 0 written by serialisation!"));
}

TEST_F(SOME_IP_SD_EntryTest, OnlyTheLow24BitsOfTheTTLAreWritten)
{
    EXPECT_TRUE(entry.setTTL(0x1000000));

    EXPECT_EQ(entry.getTTL(), 0x1000000u) << "it is kept as given";
    EXPECT_EQ(written(entry), "01 02 03 45 06 07 08 09 0a 00 00 00");
}

TEST_F(SOME_IP_SD_EntryTest, SettersTakeEveryValue)
{
    EXPECT_TRUE(entry.setServiceID(0xffff));
    EXPECT_TRUE(entry.setInstanceID(0xfffe));
    EXPECT_TRUE(entry.setMajorVersion(0xfd));
    EXPECT_TRUE(entry.setTTL(0xfcfbfa));

    EXPECT_EQ(written(entry), "01 02 03 45 ff ff ff fe fd fc fb fa");
}

TEST_F(SOME_IP_SD_EntryTest, OptionRunsOfUpTo15OptionsAreTaken)
{
    EXPECT_TRUE(entry.setFstOptionRun(OptionRun(255, 15)));
    EXPECT_TRUE(entry.setSndOptionRun(OptionRun(254, 14)));

    EXPECT_EQ(entry.getFstOptionRun(), OptionRun(255, 15));
    EXPECT_EQ(entry.getSndOptionRun(), OptionRun(254, 14));
    EXPECT_EQ(written(entry), "01 ff fe fe 06 07 08 09 0a 0b 0c 0d");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_EntryTest, FirstOptionRunOf16OptionsIsRefusedAndChangesNothing)
{
    EXPECT_FALSE(entry.setFstOptionRun(OptionRun(3, 16)));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: setFstOptionRun: OptionRun number '\x10' too large for 4 Bit!"));
    EXPECT_EQ(entry.getFstOptionRun(), OptionRun(2, 4));
    EXPECT_TRUE(entry.isValid());
}

TEST_F(SOME_IP_SD_EntryTest, SecondOptionRunAbove15IsRefusedAndChangesNothing)
{
    EXPECT_FALSE(entry.setSndOptionRun(OptionRun(7, 'A')));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: setSndOptionRun: OptionRun number 'A' too large for 4 Bit!"));
    EXPECT_EQ(entry.getSndOptionRun(), OptionRun(3, 5));
}

TEST_F(SOME_IP_SD_EntryTest, NumberOfTheFirstRunIsShiftedUnmaskedAndThatOfTheSecondMasked)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::FIND_SERVICE;
    fields.fstOptionRunNum = 0x12;
    fields.sndOptionRunNum = 0x34;
    const BareEntry tooLarge(new SOME_IP_SD_Entry_Pimpl(fields));

    EXPECT_EQ(written(tooLarge), "00 00 00 24 00 00 00 00 00 00 00 00");
}

TEST_F(SOME_IP_SD_EntryTest, OnlyInstanceIDZeroIsReserved)
{
    EXPECT_TRUE(SOME_IP_SD_Entry::isReservedInstanceID(0x0000));
    EXPECT_FALSE(SOME_IP_SD_Entry::isReservedInstanceID(0x0001));
    EXPECT_FALSE(SOME_IP_SD_Entry::isReservedInstanceID(0xffff));
}

TEST_F(SOME_IP_SD_EntryTest, TextOfAnUnknownClassSaysSo)
{
    EXPECT_EQ(entry.toString(2),
              "\t\t<UNKNOWN ENTRY TYPE>Type(OFFER_SERVICE), ServiceID(0x607), InstanceID(0x809), "
              "FstOptionRun(0x2|0x4), SndOptionRun(0x3|0x5), TTL(723981), MajorVersion(10), ");
}

TEST_F(SOME_IP_SD_EntryTest, TextOfAnUnknownTypeHoldsItsNumber)
{
    const BareEntry unknown(new SOME_IP_SD_Entry_Pimpl(static_cast<EntryType::Type_t>(0x1f)));

    EXPECT_THAT(unknown.toString(0), ::testing::HasSubstr("Type(UNKNOWN 0x1f), "));
}

TEST_F(SOME_IP_SD_EntryTest, WithoutImplementationTheEntryIsUnusable)
{
    BareEntry unusable(nullptr);

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Entry::SOME_IP_SD_Entry: given Implementation is nullptr!"));
    EXPECT_FALSE(unusable.isValid());
    EXPECT_EQ(unusable.getType(), EntryType::INVALID);
    EXPECT_EQ(unusable.getFstOptionRun(), OptionRun(0, 0));
    EXPECT_EQ(unusable.getSndOptionRun(), OptionRun(0, 0));
    EXPECT_FALSE(unusable.setFstOptionRun(OptionRun(1, 1)));
    EXPECT_FALSE(unusable.setSndOptionRun(OptionRun(1, 1)));
    EXPECT_FALSE(unusable.setServiceID(1));
    EXPECT_FALSE(unusable.setInstanceID(1));
    EXPECT_FALSE(unusable.setMajorVersion(1));
    EXPECT_FALSE(unusable.setTTL(1));
    EXPECT_EQ(unusable.getServiceID(), 0);
    EXPECT_EQ(unusable.getInstanceID(), 0);
    EXPECT_EQ(unusable.getMajorVersion(), 0);
    EXPECT_EQ(unusable.getTTL(), 0u);
    EXPECT_EQ(written(unusable), "");
    EXPECT_EQ(unusable.toString(0),
              "<UNKNOWN ENTRY TYPE>Type(UNKNOWN 0xff), ServiceID(0x0), InstanceID(0x0), "
              "FstOptionRun(0x0|0x0), SndOptionRun(0x0|0x0), TTL(0), MajorVersion(0), ");
}

TEST_F(SOME_IP_SD_EntryTest, WithoutImplementationNothingIsRead)
{
    BareEntry unusable(nullptr);
    std::istringstream stream = streamOf("01 02");

    stream >> unusable;

    EXPECT_EQ(unread(stream), 2);
    EXPECT_FALSE(unusable.isValid());
}

TEST_F(SOME_IP_SD_EntryTest, ReadingReturnsTheBytesOfTheCommonPart)
{
    const auto readBytes = [](const std::string& hex) {
        std::istringstream stream = streamOf(hex);
        return SOME_IP_SD_Entry_Pimpl(EntryType::OFFER_SERVICE).deserialise(stream);
    };

    EXPECT_EQ(readBytes("12 13 ef 16 17 18 19 1a 1b 1c 1d ff"), 11);
    EXPECT_EQ(readBytes("12 13 ef 16 17"), 8);
}

TEST_F(SOME_IP_SD_EntryTest, EntriesAreNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<SOME_IP_SD_Entry_Service>);
    EXPECT_FALSE(std::is_copy_assignable_v<SOME_IP_SD_Entry_Service>);
}

TEST_F(SOME_IP_SD_EntryTest, EntriesAreDestroyedThroughTheirBase)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<SOME_IP_SD_Entry>);
    EXPECT_TRUE(std::has_virtual_destructor_v<SOME_IP_SD_Entry_Pimpl>);
}

}  // namespace Nubo::ServiceDiscovery::Testing
