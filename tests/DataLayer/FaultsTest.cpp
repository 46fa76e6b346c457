#include "DataLayer/Faults.h"
#include "DataLayer/SDService.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"

#include <Poco/Exception.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery {

static bool operator==(const Fault& one, const Fault& other)
{
    return one.field == other.field && one.element == other.element && one.text == other.text &&
           one.step == other.step;
}

static void PrintTo(const Fault& fault, std::ostream* stream)
{
    *stream << '"' << fault.field << '"';
    if (fault.element)
        *stream << '[' << *fault.element << ']';
    *stream << " \"" << fault.text << "\" " << (fault.step == Fault::Step::Record ? "Record" : "Packet");
}

namespace Testing {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using Step = Fault::Step;
using Description = NuboServiceDescription;

namespace {

constexpr std::size_t largestPacket = 1212;

Description good()
{
    Description description = describe("Media", "fd00::1", 8080, "an id", "1.0.0");
    description.addVersion("~2.10");
    description.addCategory("audio");
    return description;
}

/// The pairs of good(), but for categories, take 67 bytes of the configuration string, an offer's packet
/// without that string 73.
constexpr std::size_t sizeWithoutCategories = 140;

/// A category that makes the packet that large.
std::string categoryForPacketOf(std::size_t size)
{
    constexpr std::size_t lengthByteAndKey = sizeof("?category=") - 1;
    return std::string(size - sizeWithoutCategories - lengthByteAndKey, 'c');
}

/// Categories that make the packet that large.
std::vector<std::string> categoriesForPacketOf(std::size_t size)
{
    constexpr std::size_t pair = 110;
    std::vector<std::string> categories;
    std::size_t sum = sizeWithoutCategories;
    for (; sum + 2 * pair < size; sum += pair)
        categories.push_back(categoryForPacketOf(sizeWithoutCategories + pair));
    categories.push_back(categoryForPacketOf(sizeWithoutCategories + size - sum));
    return categories;
}

/// The offer of a record, as it is sent.
SOME_IP_SD_Header packetOf(const SDService& service)
{
    const Description& description = service.getNuboDescription();
    const Poco::Net::IPAddress& ip = description.getIpAddress();
    const auto endpoint = OptionType::IP6_ENDPOINT;
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::OFFER_SERVICE;
    SOME_IP_SD_Header packet(0);
    packet.addEntry(new SOME_IP_SD_Entry_Service(fields, 0), false);
    if (ip.family() == Poco::Net::IPAddress::IPv6)
        packet.addOption(new SOME_IP_SD_Option_IPv6(endpoint, static_cast<const std::uint8_t*>(ip.addr()),
                                                    description.getPort(), description.getL4Proto()),
                         false);
    else
        packet.addOption(new SOME_IP_SD_Option_IPv6(endpoint, ip.toString(), description.getPort(),
                                                    description.getL4Proto()),
                         false);
    packet.addOption(new SOME_IP_SD_Option_Configuration(service.getConfiguration()), false);
    return packet;
}

const auto noSemanticVersion =
    "ServiceDiscovery failed to create SD Service \"Media\" with given Version(s), not in semVer - "
    "format([~]major.minor.patch) ";
const std::string tooLongText(256, 'x');

/// A change that makes a good description one that cannot be announced.
struct Reason
{
    const char* name;
    void (*spoil)(Description&);
    Fault fault;

    friend void PrintTo(const Reason& reason, std::ostream* stream) { *stream << reason.name; }
};

struct FaultsTest : ::testing::Test
{
    const LogCatcher log;
    Description description = good();
};

/// Reasons why no record can be made.
struct RecordFaultTest : ::testing::TestWithParam<Reason>
{};

/// Reasons why no packet can be made, in the words of the class that fails.
struct PacketFaultTest : ::testing::TestWithParam<Reason>
{};

std::string nameOf(const ::testing::TestParamInfo<Reason>& row)
{
    return row.param.name;
}

}  // namespace

TEST_F(FaultsTest, GoodDescriptionHasNone)
{
    EXPECT_THAT(faultsOf(description), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FaultsTest, WhatIsNotSentHasNone)
{
    description.setLocalUuid("\x07");
    description.setUri("=\n");
    description.setPort(0);

    EXPECT_THAT(faultsOf(description), IsEmpty());
}

TEST_P(RecordFaultTest, IsFoundWithoutALineInTheLog)
{
    const LogCatcher log;
    Description description = good();
    GetParam().spoil(description);

    EXPECT_THAT(faultsOf(description), ElementsAre(GetParam().fault));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(RecordFaultTest, IsTheLineWithWhichTheRecordIsRefused)
{
    const LogCatcher log;
    Description description = good();
    GetParam().spoil(description);

    EXPECT_THROW(SDService{description}, Poco::InvalidArgumentException);

    EXPECT_THAT(log.lines(), ElementsAre("Error: " + GetParam().fault.text));
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, RecordFaultTest,
    ::testing::Values(
        Reason{"NoVersions", [](Description& description) { description.setVersions({}); },
               Fault{"versions",
                     {},
                     "ServiceDiscovery failed to create SD Service \"Media\" due to invalid Version(s)",
                     Step::Record}},
        Reason{"VersionThatIsNotSemantic",
               [](Description& description) {
                   description.setVersions({"1.0.0", "1.x.0"});
               },
               Fault{"versions", 1, std::string(noSemanticVersion) + "(1.x.0)", Step::Record}},
        Reason{
            "VersionWithoutAMinor", [](Description& description) { description.setVersions({"1"}); },
            Fault{"versions", 0,
                  "ServiceDiscovery failed to create SD Service \"Media\" with given Version(s): (1) Out of "
                  "range",
                  Step::Record}}),
    nameOf);

TEST_P(PacketFaultTest, IsFoundWithoutALineInTheLog)
{
    const LogCatcher log;
    Description description = good();
    GetParam().spoil(description);

    EXPECT_THAT(faultsOf(description), ElementsAre(GetParam().fault));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(PacketFaultTest, IsTheFirstLineWithWhichThePacketIsRefused)
{
    const LogCatcher log;
    Description description = good();
    GetParam().spoil(description);
    const SDService record(description);

    try {
        packetOf(record);
    }
    catch (const Poco::Exception&) {
        // the configuration option's way to refuse
    }

    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines().front(), "Error: " + GetParam().fault.text);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, PacketFaultTest,
    ::testing::Values(
        Reason{"NameWithEquals", [](Description& description) { description.setName("A=B"); },
               Fault{"name", {}, "initFromPairs: invalid Configuration-value detected: 'A=B'!"}},
        Reason{
            "NameWithBlankInFront", [](Description& description) { description.setName(" A"); },
            Fault{"name", {}, "isValidSubstring: given string starts with forbidden character ' ' = 0x20!"}},
        Reason{"NameWithZero", [](Description& description) { description.setName(std::string(1, '\0')); },
               Fault{"name", {}, "isValidSubstring: given string is '0' terminated!"}},
        Reason{
            "NameTooLong", [](Description& description) { description.setName(tooLongText); },
            Fault{"name", {}, "initFromPairs: invalid Configuration-value detected: '" + tooLongText + "'!"}},
        Reason{"NameTooLongForItsKey",
               [](Description& description) { description.setName(std::string(246, 'x')); },
               Fault{"name",
                     {},
                     "initFromPairs: detected too long Configuration-pair, length of '256' exceeds per "
                     "substring length field!"}},
        Reason{"VersionWithEquals",
               [](Description& description) {
                   description.setVersions({"1.0.0", "1.0.=x"});
               },
               Fault{"versions", 1, "initFromPairs: invalid Configuration-value detected: '1.0.=x'!"}},
        Reason{"CategoryOutOfRange", [](Description& description) { description.addCategory("a\x07"); },
               Fault{"categories", 1,
                     "isValidSubstring: given string contains out-of-range character '\x07' = 0x7 "
                     "[0x20,0x7e]!"}},
        Reason{"CategoryWithTwoEquals", [](Description& description) { description.addCategory("a=b="); },
               Fault{"categories", 1,
                     "isValidSubstring: given string contains at least two '=' signs, first at \x01, second "
                     "at \x03!"}},
        Reason{"AddressOfAnotherFamily",
               [](Description& description) { description.setIpAddress(Poco::Net::IPAddress("10.0.0.1")); },
               Fault{"address", {}, "SOME_IP_SD_Option_IPv6: given IP is not a IPv6 address!"}},
        Reason{"NoProtocol", [](Description& description) { description.setL4Proto(OptionL4Protocol::NONE); },
               Fault{"protocol",
                     {},
                     "IPv6 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), but 0x00 given!"}},
        Reason{"StringTooLongForAnOption",
               [](Description& description) { description.setCategories(categoriesForPacketOf(65607)); },
               Fault{"",
                     {},
                     "copyConfigurationString: generated Configuration-string is too long, length of '65535' "
                     "exceeds Option length field!"}}),
    nameOf);

TEST_F(FaultsTest, MissingNameIsOne)
{
    description.setName("");

    EXPECT_THAT(faultsOf(description),
                ElementsAre(Fault{
                    "name", {}, "SDCommunicationHub - a Service without a name cannot be put on the wire!"}));
}

TEST_F(FaultsTest, PacketOfTheLargestSizeHasNone)
{
    description.setCategories(categoriesForPacketOf(largestPacket));

    EXPECT_THAT(faultsOf(description), IsEmpty());
    EXPECT_EQ(packetOf(SDService(description)).getSize(), largestPacket);
}

TEST_F(FaultsTest, LargerPacketIsOne)
{
    description.setCategories(categoriesForPacketOf(largestPacket + 1));

    EXPECT_THAT(faultsOf(description),
                ElementsAre(Fault{"",
                                  {},
                                  "SDCommunicationHub - Service \"Media\" cannot be put on the wire: its "
                                  "packet of 1213 Bytes exceeds the MTU of 1212 Bytes!"}));
    EXPECT_EQ(packetOf(SDService(description)).getSize(), largestPacket + 1);
}

TEST_F(FaultsTest, EmptyCategoryTakesAKeyOnly)
{
    std::vector<std::string> categories = categoriesForPacketOf(largestPacket - 9);
    categories.emplace_back();
    description.setCategories(categories);

    EXPECT_THAT(faultsOf(description), IsEmpty());
    EXPECT_EQ(packetOf(SDService(description)).getSize(), largestPacket);
}

TEST_F(FaultsTest, FaultyElementsDoNotCountInTheSizeOfThePacket)
{
    std::vector<std::string> categories = categoriesForPacketOf(largestPacket);
    categories.emplace_back("=");
    description.setCategories(categories);
    EXPECT_EQ(faultsOf(description).size(), 1u);

    categories.emplace_back("a");
    description.setCategories(categories);

    EXPECT_EQ(faultsOf(description).size(), 2u);
    EXPECT_EQ(faultsOf(description).back().field, "");
}

TEST_F(FaultsTest, SizeOfThePacketIsNotCheckedForAFaultyName)
{
    description.setCategories(categoriesForPacketOf(2 * largestPacket));
    description.setName("");

    EXPECT_EQ(faultsOf(description).size(), 1u);
}

TEST_F(FaultsTest, AllAreFoundInTheOrderOfTheFields)
{
    description.setName("A=B");
    description.setVersions({"x", "1.0.0", "2.0.=", "3"});
    description.setCategories({"ok", "=", "also ok", "\x7f"});
    description.setIpAddress(Poco::Net::IPAddress("10.0.0.1"));
    description.setL4Proto(static_cast<OptionL4Protocol::L4Protocol_t>(0x0a));

    EXPECT_THAT(
        faultsOf(description),
        ElementsAreArray(
            {Fault{"name", {}, "initFromPairs: invalid Configuration-value detected: 'A=B'!"},
             Fault{
                 "versions", 0,
                 "ServiceDiscovery failed to create SD Service \"A=B\" with given Version(s), not in semVer "
                 "- format([~]major.minor.patch) (x)",
                 Step::Record},
             Fault{"versions", 2, "initFromPairs: invalid Configuration-value detected: '2.0.='!"},
             Fault{"versions", 3,
                   "ServiceDiscovery failed to create SD Service \"A=B\" with given Version(s): (3) Out of "
                   "range",
                   Step::Record},
             Fault{"categories", 1,
                   "isValidSubstring: given string starts with forbidden character '=' = 0x3d!"},
             Fault{"categories", 3,
                   "isValidSubstring: given string contains out-of-range character '\x7f' = 0x7f "
                   "[0x20,0x7e]!"},
             Fault{"address", {}, "SOME_IP_SD_Option_IPv6: given IP is not a IPv6 address!"},
             Fault{"protocol",
                   {},
                   "IPv6 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), but 0x0a given!"}}));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FaultsTest, RecordIsRefusedForItsFirstFaultAlone)
{
    description.setName("A=B");
    description.setVersions({"1.0.=", "x.0.0", "2"});

    EXPECT_THROW(SDService{description}, Poco::InvalidArgumentException);

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: ServiceDiscovery failed to create SD Service \"A=B\" with given "
                            "Version(s), not in semVer - format([~]major.minor.patch) (x.0.0)"));
}

}  // namespace Testing

}  // namespace Nubo::ServiceDiscovery
