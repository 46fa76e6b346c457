#include "DataLayer/SOME_IP_SD/PayloadElements.h"
#include "DataLayer/SOME_IP_SD/Payloads.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct SOME_IP_SD_WritingTest : PayloadTest
{};

}  // namespace

TEST_F(SOME_IP_SD_WritingTest, EmptyPayloadIsWrittenInTwelveBytes)
{
    payload.overrideFlags(0xe0);

    EXPECT_EQ(written(payload), "e0 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_WritingTest, EveryKindOfElementIsWrittenInOrder)
{
    payload.overrideFlags(0x80);
    payload.addEntry(serviceEntry(EntryType::FIND_SERVICE), false);
    payload.addEntry(serviceEntry(EntryType::OFFER_SERVICE), false);
    payload.addEntry(eventgroupEntry(EntryType::SUBSCRIBE), false);
    payload.addEntry(eventgroupEntry(EntryType::SUBSCRIBE_ACK), false);
    payload.addOption(new SOME_IP_SD_Option_Configuration(ConfigurationPairs{{"a", "1"}}), false);
    payload.addOption(new SOME_IP_SD_Option_LoadBalancing(1, 2), false);
    payload.addOption(ipv4Option(OptionType::IP4_ENDPOINT), false);
    payload.addOption(ipv4Option(OptionType::IP4_MULTICAST), false);
    payload.addOption(ipv4Option(OptionType::IP4_SD_ENDPOINT), false);
    payload.addOption(ipv6Option(OptionType::IP6_ENDPOINT), false);
    payload.addOption(ipv6Option(OptionType::IP6_MULTICAST), false);
    payload.addOption(ipv6Option(OptionType::IP6_SD_ENDPOINT), false);

    EXPECT_EQ(written(payload),
              "80 00 00 00 00 00 00 40 "
              "00 00 00 00 12 34 00 01 01 00 00 03 00 00 00 00 "
              "01 00 00 00 12 34 00 01 01 00 00 03 00 00 00 00 "
              "06 00 00 00 12 34 00 01 01 00 00 03 00 85 00 07 "
              "07 00 00 00 12 34 00 01 01 00 00 03 00 85 00 07 "
              "00 00 00 7d "
              "00 06 01 00 03 61 3d 31 00 "
              "00 05 02 00 00 01 00 02 "
              "00 09 04 00 0a 01 02 03 00 06 00 50 "
              "00 09 14 00 0a 01 02 03 00 06 00 50 "
              "00 09 24 00 0a 01 02 03 00 06 00 50 "
              "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 00 50 "
              "00 15 16 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 00 50 "
              "00 15 26 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 00 50");
    EXPECT_EQ(payload.getSize(), 12u + 64u + 125u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_WritingTest, ReservedBitsAreKeptFromReadingToWriting)
{
    read("e0 01 02 03 00 00 00 00 00 00 00 00");

    EXPECT_EQ(written(payload), "e0 01 02 03 00 00 00 00 00 00 00 00");
}

TEST_F(SOME_IP_SD_WritingTest, EntriesThatDoNotFitTheirTypeAreNotWritten)
{
    payload.addEntry(serviceEntry(static_cast<EntryType::Type_t>(0x05)), true);
    payload.addEntry(serviceEntry(EntryType::SUBSCRIBE), true);
    payload.addEntry(eventgroupEntry(EntryType::OFFER_SERVICE), true);
    log.clear();

    EXPECT_EQ(written(payload), "00 00 00 00 00 00 00 30 00 00 00 00");

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Failed to serialise Entry due to unknown type '5'",
                            "Error: Failed to serialise Entry due to type<>implementation mismatch, type='6'",
                            "Error: Failed to serialise Entry due to type<>implementation mismatch, type='1'",
                            "Error: SOME_IP_SD payload size=60, but 12 written by serialisation!"));
}

TEST_F(SOME_IP_SD_WritingTest, OptionsThatDoNotFitTheirTypeAreNotWritten)
{
    payload.addOption(ipv4Option(static_cast<OptionType::Type_t>(0x55)), true);
    payload.addOption(ipv4Option(OptionType::IP6_ENDPOINT), true);
    payload.addOption(ipv6Option(OptionType::IP4_MULTICAST), true);
    payload.addOption(ipv4Option(OptionType::CONFIGURATION), true);
    payload.addOption(ipv4Option(OptionType::LOAD_BALANCING), true);
    log.clear();

    EXPECT_EQ(written(payload), "00 00 00 00 00 00 00 00 00 00 00 48");

    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: Failed to serialise Option due to unknown type '85'",
                    "Error: Failed to serialise Option due to type<>implementation mismatch, type='6'",
                    "Error: Failed to serialise Option due to type<>implementation mismatch, type='20'",
                    "Error: Failed to serialise Option due to type<>implementation mismatch, type='1'",
                    "Error: Failed to serialise Option due to type<>implementation mismatch, type='2'",
                    "Error: SOME_IP_SD payload size=84, but 12 written by serialisation!"));
}

TEST_F(SOME_IP_SD_WritingTest, MissingElementsAreReportedAndNotWritten)
{
    payload.setEntries({nullptr});
    payload.setOptions({nullptr});

    EXPECT_EQ(written(payload), "00 00 00 00 00 00 00 00 00 00 00 00");

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Failed to serialise Entry due to unknown type (nullptr)!",
                            "Error: Failed to serialise Option due to unknown type (nullptr)!"));
}

TEST_F(SOME_IP_SD_WritingTest, PlaceholderAddsNoBytes)
{
    payload.setOptions({new SOME_IP_SD_Option_Placeholder(5)});

    EXPECT_EQ(written(payload), "00 00 00 00 00 00 00 00 00 00 00 00");

    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to serialise Option due to unknown type '0'"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
