#include "DataLayer/SOME_IP_SD/PayloadElements.h"
#include "DataLayer/SOME_IP_SD/Payloads.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

struct SOME_IP_SD_Test : PayloadTest
{};

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

TEST_F(SOME_IP_SD_Test, NullIsRefusedWhateverIsAccepted)
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
