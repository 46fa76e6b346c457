#include "DataLayer/SOME_IP_SD/SOME_IP_SD.h"

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Pimpl.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Placeholder.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using SOME_IP_SD_Types::MetaData;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

// Elements on the wire; what a test does to one of them stands in the test.
const std::string offer = "01 00 00 20 ff fe 00 01 01 00 00 03 00 00 00 00 ";
const std::string find = "00 00 00 00 ff fe ff ff ff 00 00 03 ff ff ff ff ";
const std::string subscribe = "06 00 00 00 12 34 00 01 01 00 00 03 00 85 00 07 ";
const std::string unknownEntry = "05 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 ";
const std::string ipv6 = "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 1a ";
const std::string configuration = "00 08 01 00 01 61 03 62 3d 32 00 ";
const std::string loadBalancing = "00 05 02 00 00 01 00 02 ";

std::size_t sizeOf(const std::string& hex)
{
    return fromHex(hex).size();
}

/// An array with its length in front.
std::string arrayOf(const std::string& hex)
{
    const std::size_t size = sizeOf(hex);
    const unsigned char length[] = {0, 0, static_cast<unsigned char>(size >> 8),
                                    static_cast<unsigned char>(size)};
    return toHex(length, sizeof length) + " " + hex;
}

std::string payloadOf(const std::string& entries, const std::string& options)
{
    return "e0 00 00 00 " + arrayOf(entries) + arrayOf(options);
}

SOME_IP_SD_Entry::CommonFields fieldsOf(EntryType::Type_t type)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = type;
    fields.serviceID = 0x1234;
    fields.instanceID = 1;
    fields.majorVersion = 1;
    fields.ttl = 3;
    return fields;
}

SOME_IP_SD_Entry::Ptr serviceEntry(EntryType::Type_t type)
{
    return new SOME_IP_SD_Entry_Service(fieldsOf(type), 0);
}

SOME_IP_SD_Entry::Ptr eventgroupEntry(EntryType::Type_t type)
{
    return new SOME_IP_SD_Entry_Eventgroup(fieldsOf(type), true, 5, 7);
}

SOME_IP_SD_Option::Ptr ipv4Option(OptionType::Type_t type)
{
    return new SOME_IP_SD_Option_IPv4(type, "10.1.2.3", 80, OptionL4Protocol::TCP);
}

SOME_IP_SD_Option::Ptr ipv6Option(OptionType::Type_t type)
{
    return new SOME_IP_SD_Option_IPv6(type, "fd00::1", 80, OptionL4Protocol::UDP);
}

/// The line that tells how the array lengths contradict what could be read.
std::string sizeLine(std::size_t entries, std::size_t options)
{
    return "Error: SOME_IP_SD header size>=" + std::to_string(12 + entries + options) +
           " read by deserialisation and length fields contain '" + std::to_string(entries) + "|" +
           std::to_string(options) + "' (Entries|Options)!";
}

struct SOME_IP_SD_Test : ::testing::Test
{
    /// Reads a payload that is all that is left of its datagram.
    void read(const std::string& hex)
    {
        stream = streamOf(hex);
        metaData.remainingPacketLength = unread(stream);
        stream >> payload;
    }

    LogCatcher log;
    MetaData metaData{1000};
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
    std::istringstream stream;
};

}  // namespace

// The object

TEST_F(SOME_IP_SD_Test, NewPayloadIsEmptyAndValid)
{
    const SOME_IP_SD flagged(&metaData, 0xc0);

    EXPECT_TRUE(flagged.isValid());
    EXPECT_TRUE(flagged.areArraysValid());
    EXPECT_EQ(flagged.getFlags(), 0xc0);
    EXPECT_EQ(flagged.getEntriesLength(), 0u);
    EXPECT_EQ(flagged.getOptionsLength(), 0u);
    EXPECT_THAT(flagged.getEntries(), IsEmpty());
    EXPECT_THAT(flagged.getOptions(), IsEmpty());
    EXPECT_EQ(flagged.getSize(), 12u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Test, WithoutMetaDataThePayloadIsInvalid)
{
    const SOME_IP_SD orphan(nullptr, 0);

    EXPECT_FALSE(orphan.isValid());
    EXPECT_THAT(log.errors(), ElementsAre("Error: SOME_IP_SD: received nullptr as metaData!"));
}

TEST_F(SOME_IP_SD_Test, WithoutMetaDataNothingReadIsValid)
{
    SOME_IP_SD orphan(nullptr, 0);
    stream = streamOf(payloadOf(offer, loadBalancing));

    stream >> orphan;

    EXPECT_FALSE(orphan.isValid());
    EXPECT_THAT(orphan.getEntries(), IsEmpty());
}

TEST_F(SOME_IP_SD_Test, WithoutMetaDataAnEmptyPayloadIsNotValidEither)
{
    SOME_IP_SD orphan(nullptr, 0);
    stream = streamOf(payloadOf("", ""));

    stream >> orphan;

    EXPECT_FALSE(orphan.isValid());
    EXPECT_EQ(unread(stream), 4) << "the options array is not looked at";
}

TEST_F(SOME_IP_SD_Test, MakeInvalidIsFinal)
{
    payload.makeInvalid();
    read(payloadOf("", ""));

    EXPECT_FALSE(payload.isValid());
}

TEST_F(SOME_IP_SD_Test, FlagsAreSetUnsetAndOverridden)
{
    payload.setFlag(SOME_IP_SD::REBOOT);
    payload.setFlag(SOME_IP_SD::REBOOT);
    payload.setFlag(SOME_IP_SD::UNICAST);
    EXPECT_EQ(payload.getFlags(), 0xc0);

    payload.unsetFlag(SOME_IP_SD::REBOOT);
    payload.unsetFlag(SOME_IP_SD::EIDCF);
    EXPECT_EQ(payload.getFlags(), 0x40);

    payload.overrideFlags(0x21);
    EXPECT_EQ(payload.getFlags(), 0x21);
}

TEST_F(SOME_IP_SD_Test, SizeFollowsTheArrayLengths)
{
    payload.setEntriesLength(0xffffffff);
    payload.setOptionsLength(0xfffffffe);

    EXPECT_EQ(payload.getEntriesLength(), 0xffffffffu);
    EXPECT_EQ(payload.getOptionsLength(), 0xfffffffeu);
    EXPECT_EQ(payload.getSize(), 0x200000009u);
}

TEST_F(SOME_IP_SD_Test, ArraysAreReplacedWithoutTheirLengths)
{
    payload.setEntries({serviceEntry(EntryType::FIND_SERVICE)});
    payload.setOptions({ipv6Option(OptionType::IP6_ENDPOINT), ipv6Option(OptionType::IP6_ENDPOINT)});

    EXPECT_THAT(payload.getEntries(), SizeIs(1));
    EXPECT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_EQ(payload.getSize(), 12u);
    EXPECT_TRUE(payload.areArraysValid());
}

TEST_F(SOME_IP_SD_Test, ArraysAreValidOnlyIfEveryElementIs)
{
    const SOME_IP_SD_Entry::Ptr unreadEntry = new SOME_IP_SD_Entry_Service(EntryType::OFFER_SERVICE);
    const SOME_IP_SD_Option::Ptr unreadOption = new SOME_IP_SD_Option_LoadBalancing;

    payload.setEntries({serviceEntry(EntryType::FIND_SERVICE), unreadEntry});
    EXPECT_FALSE(payload.areArraysValid());
    payload.setEntries({nullptr});
    EXPECT_FALSE(payload.areArraysValid());
    payload.setEntries({});
    payload.setOptions({ipv6Option(OptionType::IP6_ENDPOINT), unreadOption});
    EXPECT_FALSE(payload.areArraysValid());
    payload.setOptions({nullptr});
    EXPECT_FALSE(payload.areArraysValid());
}

// Adding elements

TEST_F(SOME_IP_SD_Test, AddedElementsLengthenTheirArrays)
{
    const SOME_IP_SD_Entry::Ptr entry = serviceEntry(EntryType::OFFER_SERVICE);
    const SOME_IP_SD_Option::Ptr option = ipv6Option(OptionType::IP6_ENDPOINT);

    EXPECT_TRUE(payload.addEntry(entry, false));
    EXPECT_TRUE(payload.addOption(option, false));
    EXPECT_TRUE(payload.addOption(ipv4Option(OptionType::IP4_ENDPOINT), false));

    EXPECT_THAT(payload.getEntries(), ElementsAre(entry));
    EXPECT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_EQ(payload.getOptions().front(), option);
    EXPECT_EQ(payload.getEntriesLength(), 16u);
    EXPECT_EQ(payload.getOptionsLength(), 24u + 12u);
    EXPECT_EQ(payload.getSize(), 64u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Test, InvalidElementsAreRefusedUnlessTheyAreAccepted)
{
    const SOME_IP_SD_Entry::Ptr entry = new SOME_IP_SD_Entry_Service(EntryType::OFFER_SERVICE);
    const SOME_IP_SD_Option::Ptr option = new SOME_IP_SD_Option_LoadBalancing;

    EXPECT_FALSE(payload.addEntry(entry, false));
    EXPECT_FALSE(payload.addOption(option, false));

    EXPECT_THAT(log.errors(), ElementsAre("Error: addEntry: failed due to invalid Entry",
                                          "Error: addOption: failed due to invalid Option"));
    EXPECT_EQ(payload.getSize(), 12u);
    EXPECT_TRUE(payload.addEntry(entry, true));
    EXPECT_TRUE(payload.addOption(option, true));
    EXPECT_EQ(payload.getSize(), 36u);
}

TEST_F(SOME_IP_SD_Test, NothingIsRefusedWhateverIsAccepted)
{
    for (const bool acceptInvalid : {false, true}) {
        EXPECT_FALSE(payload.addEntry(nullptr, acceptInvalid));
        EXPECT_FALSE(payload.addOption(nullptr, acceptInvalid));
    }

    EXPECT_THAT(log.errors(), ElementsAre("Error: addEntry: failed due to invalid Entry",
                                          "Error: addOption: failed due to invalid Option",
                                          "Error: addEntry: failed due to invalid Entry",
                                          "Error: addOption: failed due to invalid Option"));
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_THAT(payload.getOptions(), IsEmpty());
}

TEST_F(SOME_IP_SD_Test, ArraysGrowUpToTheirLengthFields)
{
    payload.setEntriesLength(0xffffffff - 16);
    payload.setOptionsLength(0xffffffff - 24);

    EXPECT_TRUE(payload.addEntry(serviceEntry(EntryType::OFFER_SERVICE), false));
    EXPECT_TRUE(payload.addOption(ipv6Option(OptionType::IP6_ENDPOINT), false));

    EXPECT_EQ(payload.getEntriesLength(), 0xffffffffu);
    EXPECT_EQ(payload.getOptionsLength(), 0xffffffffu);
}

TEST_F(SOME_IP_SD_Test, ArraysDoNotGrowBeyondTheirLengthFields)
{
    payload.setEntriesLength(0xffffffff - 15);
    payload.setOptionsLength(0xffffffff - 22);

    EXPECT_FALSE(payload.addEntry(serviceEntry(EntryType::OFFER_SERVICE), false));
    EXPECT_FALSE(payload.addOption(ipv6Option(OptionType::IP6_ENDPOINT), false));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: addEntry: failed due to too many Entries, consolidated length "
                            "'4294967296' exceeds length field!",
                            "Error: addOption: failed due to too many Options, consolidated length "
                            "'4294967297' exceeds length field!"));
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_THAT(payload.getOptions(), IsEmpty());
    EXPECT_EQ(payload.getEntriesLength(), 0xfffffff0u);
    EXPECT_EQ(payload.getOptionsLength(), 0xffffffe9u);
}

// Writing

TEST_F(SOME_IP_SD_Test, EmptyPayloadIsWrittenInTwelveBytes)
{
    payload.overrideFlags(0xe0);

    EXPECT_EQ(written(payload), "e0 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_Test, EveryKindOfElementIsWrittenInOrder)
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

TEST_F(SOME_IP_SD_Test, ReservedBitsAreKeptFromReadingToWriting)
{
    read("e0 01 02 03 00 00 00 00 00 00 00 00");

    EXPECT_EQ(written(payload), "e0 01 02 03 00 00 00 00 00 00 00 00");
}

TEST_F(SOME_IP_SD_Test, EntriesThatDoNotFitTheirTypeAreNotWritten)
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

TEST_F(SOME_IP_SD_Test, OptionsThatDoNotFitTheirTypeAreNotWritten)
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

TEST_F(SOME_IP_SD_Test, MissingElementsAreReportedAndNotWritten)
{
    payload.setEntries({nullptr});
    payload.setOptions({nullptr});

    EXPECT_EQ(written(payload), "00 00 00 00 00 00 00 00 00 00 00 00");

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Failed to serialise Entry due to unknown type (nullptr)!",
                            "Error: Failed to serialise Option due to unknown type (nullptr)!"));
}

TEST_F(SOME_IP_SD_Test, PlaceholderAddsNoBytes)
{
    payload.setOptions({new SOME_IP_SD_Option_Placeholder(5)});

    EXPECT_EQ(written(payload), "00 00 00 00 00 00 00 00 00 00 00 00");

    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to serialise Option due to unknown type '0'"));
}

// Reading

TEST_F(SOME_IP_SD_Test, EmptyPayloadIsRead)
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

TEST_F(SOME_IP_SD_Test, EveryKindOfElementIsReadInOrder)
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

TEST_F(SOME_IP_SD_Test, PayloadThatEndsTheDatagramIsGood)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    EXPECT_TRUE(payload.isValid());
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(unread(stream), 0);
}

TEST_F(SOME_IP_SD_Test, WhatFollowsThePayloadIsNotRead)
{
    read(payloadOf(offer, ipv6) + "ff ff 81 00");

    EXPECT_TRUE(payload.isValid());
    EXPECT_EQ(unread(stream), 4);
}

TEST_F(SOME_IP_SD_Test, RemainingLengthIsLoweredByEightAndFourOnly)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    EXPECT_EQ(metaData.remainingPacketLength,
              static_cast<std::streamsize>(sizeOf(offer + find + ipv6 + configuration)));
}

TEST_F(SOME_IP_SD_Test, RemainingLengthIsLoweredByEightWhenTheEntriesFail)
{
    read("e0 00 00 00 00 00 00 11 00 00 00 00");

    EXPECT_EQ(metaData.remainingPacketLength, 12 - 8);
}

TEST_F(SOME_IP_SD_Test, SecondReadReplacesTheFirst)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    read(payloadOf(find, loadBalancing));

    EXPECT_TRUE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), SizeIs(1));
    EXPECT_THAT(payload.getOptions(), SizeIs(1));
}

TEST_F(SOME_IP_SD_Test, ReadThatFailsKeepsNothingOfTheReadBefore)
{
    read(payloadOf(offer + find, ipv6 + configuration));

    read("e0 00 00 00 00 00 00 11 00 00 00 00");

    EXPECT_EQ(payload.getEntriesLength(), 17u);
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_EQ(payload.getOptionsLength(), 0u);
    EXPECT_THAT(payload.getOptions(), IsEmpty());
}

TEST_F(SOME_IP_SD_Test, PayloadThatWasReadIsWrittenAsItWas)
{
    const std::string hex = payloadOf(offer + find + subscribe, ipv6 + configuration + loadBalancing);

    read(hex);

    EXPECT_EQ(written(payload) + " ", hex);
}

// Reserved bits that look like white space

TEST_F(SOME_IP_SD_Test, WhiteSpaceInTheReservedBitsMakesAnEmptyPayloadOneByteShort)
{
    read("e0 00 00 20 00 00 00 00 00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(log.errors(), ElementsAre(sizeLine(0, 0)));
}

TEST_F(SOME_IP_SD_Test, WhiteSpaceInTheReservedBitsPutsTheEntriesOutOfStep)
{
    read("e0 00 20 00 " + arrayOf(offer) + arrayOf(""));

    EXPECT_FALSE(payload.isValid());
    EXPECT_EQ(payload.getEntriesLength(), 0x1001u) << "read one byte late";
}

// Lengths of the entries array

TEST_F(SOME_IP_SD_Test, EntriesLengthThatIsNoMultipleOf16IsRefused)
{
    read("e0 00 00 00 00 00 00 11 " + offer + "00 00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD header length of entries '17' not a multiple of expected size '16'",
                    sizeLine(17, 0)));
}

TEST_F(SOME_IP_SD_Test, EntriesLengthBeyondTheDatagramIsRefused)
{
    read("e0 00 00 00 00 00 00 20 " + offer + "00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD header length of entries error '32' expected, but only 20 "
                            "Bytes left!",
                            sizeLine(32, 0)));
}

TEST_F(SOME_IP_SD_Test, LargestEntriesLengthIsRefused)
{
    read("e0 00 00 00 ff ff ff f0 00 00 00 00");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD header length of entries error '4294967280' expected, but only "
                    "4 Bytes left!",
                    sizeLine(0xfffffff0, 0)));
}

TEST_F(SOME_IP_SD_Test, EntriesThatLeaveNoRoomForTheOptionsLengthAreTooLong)
{
    read("e0 00 00 00 00 00 00 10 " + offer);

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(log.errors(), ElementsAre(sizeLine(16, 0)));
}

TEST_F(SOME_IP_SD_Test, NothingIsReadOfArraysWhoseLengthIsRefused)
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

TEST_F(SOME_IP_SD_Test, RemainingLengthBelowZeroIsNothingLeft)
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

TEST_F(SOME_IP_SD_Test, UnknownEntryCostsItsSixteenBytesAndTheOthersAreRead)
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

TEST_F(SOME_IP_SD_Test, UnknownEntryMayBeTheLastOrTheOnlyOne)
{
    read(payloadOf("ff " + unknownEntry.substr(3), ""));

    EXPECT_TRUE(payload.isValid());
    EXPECT_THAT(payload.getEntries(), IsEmpty());
    EXPECT_TRUE(stream.good());
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Entry due to unknown type 0x'ff' @ "
                                          "Byte '0', trying to skip to next Entry!"));
}

TEST_F(SOME_IP_SD_Test, EntriesCutShortAreTooFew)
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

TEST_F(SOME_IP_SD_Test, UnknownEntryCutShortIsTooFewToo)
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

TEST_F(SOME_IP_SD_Test, EntriesOfAStreamThatFailsAreReported)
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

TEST_F(SOME_IP_SD_Test, ReadEntriesAreCountedInBytes)
{
    bool error = false;
    stream = streamOf(offer + unknownEntry + subscribe);
    payload.setEntriesLength(48);

    EXPECT_EQ(deserialiseEntries(stream, payload, error), 48);

    EXPECT_FALSE(error);
}

// Lengths of the options array

TEST_F(SOME_IP_SD_Test, OptionsLengthBeyondTheDatagramIsRefused)
{
    read("e0 00 00 00 " + arrayOf(offer) + "00 00 00 09 " + loadBalancing);

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), IsEmpty());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD header length of options error '9' expected, but only 8 Bytes "
                            "left!",
                            sizeLine(16, 9)));
    EXPECT_EQ(payload.getOptionsLength(), 9u) << "as received";
}

TEST_F(SOME_IP_SD_Test, LargestOptionsLengthIsRefused)
{
    read("e0 00 00 00 00 00 00 00 ff ff ff ff");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD header length of options error '4294967295' expected, but only "
                    "0 Bytes left!",
                    sizeLine(0, 0xffffffff)));
}

TEST_F(SOME_IP_SD_Test, BytesThatAreNoWholeOptionMakeThePayloadInvalid)
{
    for (const std::string rest : {"00 ", "00 05 ", "00 05 02 "}) {
        MetaData all(1000);
        SOME_IP_SD ragged(&all, 0);
        stream = streamOf(payloadOf("", loadBalancing + rest));
        log.clear();

        stream >> ragged;

        const std::size_t size = 8 + sizeOf(rest);
        EXPECT_FALSE(ragged.isValid());
        EXPECT_THAT(ragged.getOptions(), SizeIs(1));
        EXPECT_THAT(log.errors(), ElementsAre("Error: Option deserialisation read '8', but expected '" +
                                                  std::to_string(size) + "' Bytes!",
                                              sizeLine(0, size)));
    }
}

// Options

TEST_F(SOME_IP_SD_Test, UnknownOptionBecomesAPlaceholderAtItsIndex)
{
    read(payloadOf("", ipv6 + "00 04 55 01 02 03 04 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    ASSERT_THAT(payload.getOptions(), SizeIs(3));
    EXPECT_TRUE(payload.getOptions()[0]->isValid());
    EXPECT_TRUE(payload.getOptions()[2]->isValid());
    const auto* placeholder =
        dynamic_cast<const SOME_IP_SD_Option_Placeholder*>(payload.getOptions()[1].get());
    ASSERT_NE(placeholder, nullptr);
    EXPECT_EQ(placeholder->getLength(), 4);
    EXPECT_FALSE(payload.areArraysValid());
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Option due to unknown type 0x'55'! "
                                          "(Adding placeholder instead.)"));
}

TEST_F(SOME_IP_SD_Test, UnknownOptionMayEndTheDatagram)
{
    read(payloadOf("", "00 01 03 00 "));

    EXPECT_TRUE(payload.isValid());
    EXPECT_TRUE(stream.good());
    EXPECT_THAT(payload.getOptions(), SizeIs(1));
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Option due to unknown type 0x'3'! "
                                          "(Adding placeholder instead.)"));
}

TEST_F(SOME_IP_SD_Test, OptionTypeZeroIsUnknown)
{
    read(payloadOf("", "00 02 00 00 00 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to deserialise Option due to unknown type 0x'0'! "
                                          "(Adding placeholder instead.)"));
}

TEST_F(SOME_IP_SD_Test, OptionWithABadValueKeepsItsIndex)
{
    read(payloadOf("", "00 09 04 00 0a 01 02 03 00 00 00 50 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    ASSERT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_FALSE(payload.getOptions()[0]->isValid());
    EXPECT_TRUE(payload.getOptions()[1]->isValid());
}

TEST_F(SOME_IP_SD_Test, MalformedConfigurationKeepsItsIndexAndTheNextOptionIsRead)
{
    read(payloadOf("", "00 06 01 00 03 3d 61 62 00 00 06 01 00 01 61 00 62 00 " + loadBalancing));

    EXPECT_TRUE(payload.isValid());
    ASSERT_THAT(payload.getOptions(), SizeIs(3));
    EXPECT_FALSE(payload.getOptions()[0]->isValid());
    EXPECT_FALSE(payload.getOptions()[1]->isValid());
    EXPECT_TRUE(payload.getOptions()[2]->isValid());
}

TEST_F(SOME_IP_SD_Test, OptionsOfAStreamThatEndsWithinOneAreReported)
{
    bool error = false;
    stream = streamOf(loadBalancing + "00 05 02 00 00 01");
    payload.setOptionsLength(16);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 8);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP_SD_Option_LoadBalancing size=4, but 2 read by deserialisation!",
                            "Error: Failed to deserialise Options due to prematurely reading EOF after ~'8' "
                            "Byte(s) of Options!",
                            "Error: Option deserialisation read '8', but expected '16' Bytes!"));
}

TEST_F(SOME_IP_SD_Test, OptionsOfAStreamThatEndsBeforeOneAreReported)
{
    for (const std::string rest : {"", "00 ", "00 05 "}) {
        SOME_IP_SD cut(&metaData, 0);
        bool error = false;
        stream = streamOf(loadBalancing + rest);
        cut.setOptionsLength(16);
        log.clear();

        EXPECT_EQ(deserialiseOptions(stream, cut, error), 8);

        EXPECT_TRUE(error);
        EXPECT_THAT(cut.getOptions(), SizeIs(1));
        EXPECT_THAT(log.errors(),
                    ElementsAre("Error: Failed to deserialise Options due to prematurely reading EOF after "
                                "~'8' Byte(s) of Options!",
                                "Error: Option deserialisation read '8', but expected '16' Bytes!"));
    }
}

TEST_F(SOME_IP_SD_Test, OptionsOfAStreamThatFailsAreReported)
{
    bool error = false;
    stream = streamOf(loadBalancing);
    stream.setstate(std::ios::failbit);
    payload.setOptionsLength(8);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 0);

    EXPECT_TRUE(error);
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: Failed to deserialise Options due to failed reading of inputstream after "
                            "~'0' Byte(s) of Options!",
                            "Error: Option deserialisation read '0', but expected '8' Bytes!"));
}

TEST_F(SOME_IP_SD_Test, ReadOptionsAreCountedInBytes)
{
    bool error = false;
    stream = streamOf(ipv6 + "00 04 55 01 02 03 04 " + configuration);
    payload.setOptionsLength(42);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 42);

    EXPECT_FALSE(error);
}

namespace {

/// An option whose announced length is not that of its kind, between two good ones.
struct OddOption
{
    const char* name;
    std::string hex;
    std::vector<std::string> lines;
};

struct OddOptionTest : ::testing::TestWithParam<OddOption>
{
    OddOptionTest()
    {
        stream = streamOf(payloadOf(offer, loadBalancing + GetParam().hex + loadBalancing));
        metaData.remainingPacketLength = unread(stream);
    }

    const std::size_t optionsLength = 8 + sizeOf(GetParam().hex) + 8;
    LogCatcher log;
    MetaData metaData;
    SOME_IP_SD payload{&metaData, SOME_IP_SD::NONE};
    std::istringstream stream;
};

std::string oddName(const ::testing::TestParamInfo<OddOption>& row)
{
    return row.param.name;
}

struct TooLongOptionTest : OddOptionTest
{};

struct TooShortOptionTest : OddOptionTest
{};

struct EndingOptionTest : OddOptionTest
{};

}  // namespace

TEST_P(TooLongOptionTest, HasItsMismatchAndTheNextOptionIsFoundAtItsPlace)
{
    stream >> payload;

    EXPECT_TRUE(payload.isValid());
    EXPECT_EQ(unread(stream), 0);
    ASSERT_THAT(payload.getOptions(), SizeIs(3));
    EXPECT_TRUE(payload.getOptions()[0]->isValid());
    EXPECT_FALSE(payload.getOptions()[1]->isValid());
    EXPECT_EQ(payload.getOptions()[1]->getSize(), sizeOf(GetParam().hex));
    EXPECT_TRUE(payload.getOptions()[2]->isValid());
    EXPECT_EQ(payload.getOptionsLength(), optionsLength);
    EXPECT_THAT(log.errors(), ElementsAreArray(GetParam().lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD, TooLongOptionTest,
    ::testing::Values(
        OddOption{"IPv4ByOne",
                  "00 0a 04 00 0a 01 02 03 00 11 77 1a ee ",
                  {"Error: SOME_IP_SD_IPv4_Option size=9, but 8 read by deserialisation!"}},
        OddOption{"IPv4ByThirteen",
                  "00 16 14 00 0a 01 02 03 00 11 77 1a ee ee ee ee ee ee ee ee ee ee ee ee ee ",
                  {"Error: SOME_IP_SD_IPv4_Option size=21, but 8 read by deserialisation!"}},
        OddOption{"IPv6ByTwo",
                  "00 17 26 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 1a ee ee ",
                  {"Error: SOME_IP_SD_IPv6_Option size=22, but 20 read by deserialisation!"}},
        OddOption{"LoadBalancingByOne",
                  "00 06 02 00 00 01 00 02 ee ",
                  {"Error: SOME_IP_SD_Option_LoadBalancing size=5, but 4 read by deserialisation!"}},
        OddOption{"Configuration",
                  "00 09 01 00 03 61 3d 31 00 ee ee 00 ",
                  {"Error: SOME_IP_SD_Configuration_Option size=8, but 5 read by deserialisation!"}},
        OddOption{"ConfigurationWithoutRoomForATerminator",
                  "00 01 01 00 ",
                  {"Error: SOME_IP_SD_Configuration_Option string length '65535' found during "
                   "deserialisation, exceeds length field of Option!"}}),
    oddName);

TEST_P(TooShortOptionTest, HasItsMismatchAndMakesThePayloadInvalid)
{
    stream >> payload;

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), SizeIs(2));
    EXPECT_TRUE(payload.getOptions()[0]->isValid());
    EXPECT_FALSE(payload.getOptions()[1]->isValid());
    std::vector<std::string> lines = GetParam().lines;
    lines.push_back("Error: Option deserialisation read '8', but expected '" + std::to_string(optionsLength) +
                    "' Bytes!");
    lines.push_back(sizeLine(16, optionsLength));
    EXPECT_THAT(log.errors(), ElementsAreArray(lines));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD, TooShortOptionTest,
    ::testing::Values(OddOption{"IPv4ByOne",
                                "00 08 04 00 0a 01 02 03 00 11 77 ",
                                {"Error: SOME_IP_SD_IPv4_Option size=7, but 8 read by deserialisation!"}},
                      OddOption{"IPv4ReservedByteOnly",
                                "00 01 24 00 ",
                                {"Error: SOME_IP_SD_IPv4_Option size=0, but 8 read by deserialisation!"}},
                      OddOption{"IPv6ByOne",
                                "00 14 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 ",
                                {"Error: SOME_IP_SD_IPv6_Option size=19, but 20 read by deserialisation!"}},
                      OddOption{"IPv6LikeIPv4",
                                "00 0f 16 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 ",
                                {"Error: SOME_IP_SD_IPv6_Option size=14, but 20 read by deserialisation!"}},
                      OddOption{
                          "LoadBalancingByOne",
                          "00 04 02 00 00 01 00 ",
                          {"Error: SOME_IP_SD_Option_LoadBalancing size=3, but 4 read by deserialisation!"}}),
    oddName);

TEST_P(EndingOptionTest, EndsTheArrayWithItsError)
{
    stream >> payload;

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), SizeIs(1));
    EXPECT_EQ(payload.getOptionsLength(), optionsLength);
    EXPECT_THAT(log.errors(), ElementsAre("Error: Option deserialisation read '8', but expected '" +
                                              std::to_string(optionsLength) + "' Bytes!",
                                          sizeLine(16, optionsLength)));
}

INSTANTIATE_TEST_SUITE_P(SOME_IP_SD, EndingOptionTest,
                         ::testing::Values(OddOption{"LengthZero", "00 00 06 00 00 00 ", {}},
                                           OddOption{"LengthZeroOfAnUnknownType", "00 00 55 00 ", {}},
                                           OddOption{"LengthZeroOfAConfiguration", "00 00 01 00 ", {}},
                                           OddOption{"IPv4BeyondTheArrayByOne", "00 0a 04 00 ", {}},
                                           OddOption{"IPv6BeyondTheArray", "00 15 06 00 fd 00 ", {}},
                                           OddOption{"ConfigurationBeyondTheArray", "ff ff 01 00 ", {}},
                                           OddOption{"UnknownTypeBeyondTheArray", "00 0a 55 00 ", {}}),
                         oddName);

TEST_F(SOME_IP_SD_Test, OptionThatEndsTheArrayIsCountedAsNotRead)
{
    bool error = false;
    stream = streamOf(loadBalancing + "00 00 06 00 ");
    payload.setOptionsLength(12);

    EXPECT_EQ(deserialiseOptions(stream, payload, error), 8);

    EXPECT_TRUE(error);
}

TEST_F(SOME_IP_SD_Test, OptionBeyondTheArrayIsNotReadFromWhatFollows)
{
    read("e0 00 00 00 00 00 00 00 00 00 00 08 00 06 01 00 03 61 3d 31 00 ff ff ff");

    EXPECT_FALSE(payload.isValid());
    EXPECT_THAT(payload.getOptions(), IsEmpty());
    EXPECT_EQ(unread(stream), 9);
}

TEST_F(SOME_IP_SD_Test, TooShortOptionAtTheEndOfTheDatagramMakesThePayloadInvalid)
{
    // 18 bytes are what the option's address, reserved byte and protocol need: only its port is missing.
    read(payloadOf("", "00 13 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 "));

    EXPECT_FALSE(payload.isValid());
    EXPECT_TRUE(
        log.has("Error: Failed to deserialise Options due to prematurely reading EOF after ~'0' "
                "Byte(s) of Options!"));
    EXPECT_TRUE(log.has("Error: Option deserialisation read '0', but expected '22' Bytes!"));
}

// The text

TEST_F(SOME_IP_SD_Test, TextHoldsFlagsLengthsAndEveryElement)
{
    read("e0 12 34 56 " + arrayOf(offer) + arrayOf(ipv6 + loadBalancing));

    EXPECT_EQ(payload.toString(1),
              "\tSOME/IP-SD: Flags(0xe0), Reserved(0x123456), EntriesLength(16), OptionsLength(32)\n"
              "\t\tService Entry: Type(OFFER_SERVICE), ServiceID(0xfffe), InstanceID(0x1), "
              "FstOptionRun(0x0|0x2), SndOptionRun(0x0|0x0), TTL(3), MajorVersion(1), MinorVersion(0)\n"
              "\t\tIPv6 Option: Type(ENDPOINT), IP6([fd00::1]:30490), L4(UDP)\n"
              "\t\tLoadBalancing Option: Priority(1), Weight(2)");
}

TEST_F(SOME_IP_SD_Test, TextOfMissingElementsSaysSo)
{
    payload.setEntries({nullptr});
    payload.setOptions({nullptr});

    EXPECT_THAT(payload.toString(0), ::testing::EndsWith("\n\t<nullptr>\n\t<nullptr>"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
