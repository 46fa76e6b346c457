#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using SOME_IP_SD_Types::OptionRun;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

SOME_IP_SD_Entry::CommonFields subscribeFields()
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::SUBSCRIBE;
    fields.fstOptionRunIndex = 0x01;
    fields.sndOptionRunIndex = 0x02;
    fields.fstOptionRunNum = 0x0a;
    fields.sndOptionRunNum = 0x0b;
    fields.serviceID = 0x0304;
    fields.instanceID = 0x0506;
    fields.majorVersion = 0x07;
    fields.ttl = 0x08090a;
    return fields;
}

struct SOME_IP_SD_Entry_EventgroupTest : ::testing::Test
{
    LogCatcher log;
    SOME_IP_SD_Entry_Eventgroup entry{EntryType::SUBSCRIBE};
};

}  // namespace

TEST_F(SOME_IP_SD_Entry_EventgroupTest, SubscriptionIsWrittenInSixteenBytes)
{
    const SOME_IP_SD_Entry_Eventgroup subscription(subscribeFields(), true, 0x0c, 0x0d0e);

    EXPECT_TRUE(subscription.isValid());
    EXPECT_EQ(written(subscription), "06 01 02 ab 03 04 05 06 07 08 09 0a 00 8c 0d 0e");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, AnswerWithoutRequestFlagIsWrittenInSixteenBytes)
{
    SOME_IP_SD_Entry::CommonFields fields = subscribeFields();
    fields.type = EntryType::SUBSCRIBE_ACK;

    const SOME_IP_SD_Entry_Eventgroup answer(fields, false, 0, 0xffff);

    EXPECT_TRUE(answer.isValid());
    EXPECT_EQ(written(answer), "07 01 02 ab 03 04 05 06 07 08 09 0a 00 00 ff ff");
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, EveryFieldIsReadFromItsPlaceAfterTheType)
{
    std::istringstream stream = streamOf("01 02 ab 03 04 05 06 07 00 08 0e 55 85 10 11 ff");

    stream >> entry;

    EXPECT_TRUE(entry.isValid());
    EXPECT_EQ(entry.getType(), EntryType::SUBSCRIBE);
    EXPECT_EQ(entry.getFstOptionRun(), OptionRun(0x01, 0x0a));
    EXPECT_EQ(entry.getSndOptionRun(), OptionRun(0x02, 0x0b));
    EXPECT_EQ(entry.getServiceID(), 0x0304);
    EXPECT_EQ(entry.getInstanceID(), 0x0506);
    EXPECT_EQ(entry.getMajorVersion(), 0x07);
    EXPECT_EQ(entry.getTTL(), 0x00080eu);
    EXPECT_TRUE(entry.getInitialDataRequest());
    EXPECT_EQ(entry.getCounter(), 5);
    EXPECT_EQ(entry.getEventgroupID(), 0x1011);
    EXPECT_EQ(unread(stream), 1);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, ReadingMakesAnEntryWithARefusedCounterValid)
{
    SOME_IP_SD_Entry_Eventgroup refused(subscribeFields(), false, 16, 1);

    streamOf("01 02 ab 03 04 05 06 07 00 08 0e 00 00 00 01") >> refused;

    EXPECT_TRUE(refused.isValid());
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, ReservedByteIsKeptAndUnnamedBitsAreDropped)
{
    std::istringstream stream = streamOf("01 02 ab 03 04 05 06 07 00 08 0e 55 75 10 11");

    stream >> entry;

    EXPECT_EQ(written(entry), "06 01 02 ab 03 04 05 06 07 00 08 0e 55 05 10 11");
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, FlagByte0xFFIsCounter15AndARequest)
{
    std::istringstream stream = streamOf("00 00 00 00 01 00 01 01 00 00 03 00 ff 00 01");

    stream >> entry;

    EXPECT_EQ(entry.getCounter(), 15);
    EXPECT_TRUE(entry.getInitialDataRequest());
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, FlagByte0x7FIsCounter15AndNoRequest)
{
    std::istringstream stream = streamOf("00 00 00 00 01 00 01 01 00 00 03 00 7f 00 01");

    stream >> entry;

    EXPECT_EQ(entry.getCounter(), 15);
    EXPECT_FALSE(entry.getInitialDataRequest());
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, IndexOfAnUnusedRunIsNotLogged)
{
    std::istringstream stream = streamOf("05 06 00 00 01 00 01 01 00 00 03 00 00 00 01");

    stream >> entry;

    EXPECT_TRUE(entry.isValid());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, EntryIsInvalidUntilRead)
{
    EXPECT_FALSE(entry.isValid());
    EXPECT_FALSE(entry.getInitialDataRequest());
    EXPECT_EQ(entry.getCounter(), 0);
    EXPECT_EQ(entry.getEventgroupID(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, FieldsCanBeSet)
{
    EXPECT_TRUE(entry.setInitialDataRequest(true));
    EXPECT_TRUE(entry.setCounter(15));
    EXPECT_TRUE(entry.setEventgroupID(0x1234));

    EXPECT_TRUE(entry.getInitialDataRequest());
    EXPECT_EQ(entry.getCounter(), 15);
    EXPECT_EQ(entry.getEventgroupID(), 0x1234);
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, CounterAbove15IsRefusedAndChangesNothing)
{
    entry.setCounter(3);

    EXPECT_FALSE(entry.setCounter(16));

    EXPECT_EQ(entry.getCounter(), 3);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Eventgroup counter too large, given value '16' exceeds 4 Bit!"));
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, EntryMadeWithACounterOf15IsValid)
{
    const SOME_IP_SD_Entry_Eventgroup largest(subscribeFields(), false, 15, 1);

    EXPECT_TRUE(largest.isValid());
    EXPECT_EQ(largest.getCounter(), 15);
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, EntryMadeWithACounterAbove15IsInvalid)
{
    const SOME_IP_SD_Entry_Eventgroup tooLarge(subscribeFields(), false, 255, 1);

    EXPECT_FALSE(tooLarge.isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Eventgroup counter too large, given value '255' exceeds 4 Bit!",
                            "Error: Eventgroup Entry data invalid!"));
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, TextHoldsEveryField)
{
    const SOME_IP_SD_Entry_Eventgroup subscription(subscribeFields(), true, 12, 4711);

    EXPECT_EQ(subscription.toString(1),
              "\tEventgroup Entry: Type(SUBSCRIBE), ServiceID(0x304), InstanceID(0x506), "
              "FstOptionRun(0x1|0xa), SndOptionRun(0x2|0xb), TTL(526602), MajorVersion(7), Counter(12), "
              "InitialDataRequest(true), EventgroupID(4711)");
}

TEST_F(SOME_IP_SD_Entry_EventgroupTest, TextOfAnAnswerNamesItsType)
{
    EXPECT_EQ(SOME_IP_SD_Entry_Eventgroup(EntryType::SUBSCRIBE_ACK).toString(0),
              "Eventgroup Entry: Type(SUBSCRIBE_ACK), ServiceID(0x0), InstanceID(0x0), "
              "FstOptionRun(0x0|0x0), SndOptionRun(0x0|0x0), TTL(0), MajorVersion(0), Counter(0), "
              "InitialDataRequest(false), EventgroupID(0)");
}

}  // namespace Nubo::ServiceDiscovery::Testing
