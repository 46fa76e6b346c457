#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <Poco/MemoryStream.h>

#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

/// A service offered with an endpoint and a configuration: SOME/IP header, flags, the entry, two options.
const std::string offerPacket =
    "ff ff 81 00 00 00 00 51 00 00 12 34 01 01 02 00 "
    "e0 00 00 00 00 00 00 10 "
    "01 00 00 20 ff fe 00 01 01 00 00 03 00 00 00 00 "
    "00 00 00 2d "
    "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 1a "
    "00 12 01 00 0f 6f 74 68 65 72 73 65 72 76 3d 4d 65 64 69 61 00";

constexpr std::size_t headerSize = 16;

SOME_IP_SD_Entry::Ptr entryWithRuns(SOME_IP_SD_Types::OptionRun first, SOME_IP_SD_Types::OptionRun second)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::OFFER_SERVICE;
    fields.fstOptionRunIndex = first.first;
    fields.fstOptionRunNum = first.second;
    fields.sndOptionRunIndex = second.first;
    fields.sndOptionRunNum = second.second;
    return new SOME_IP_SD_Entry_Service(fields, 0);
}

/// A datagram in memory of exactly its size, so that sanitizers detect every access beyond it.
class Datagram
{
public:
    explicit Datagram(const std::string& bytes)
        : m_bytes(bytes.begin(), bytes.end())
        , m_stream(m_bytes.data(), static_cast<std::streamsize>(m_bytes.size()))
    {}

    std::size_t size() const { return m_bytes.size(); }
    std::istream& stream() { return m_stream; }

private:
    std::vector<char> m_bytes;
    Poco::MemoryInputStream m_stream;
};

/// Whether a receiver would handle the packet read from the stream.
bool isGood(const SOME_IP_SD_Header& packet, const std::istream& stream)
{
    return stream.good() && packet.getSomeIP().isValid() && packet.getSomeIP_SD().isValid();
}

struct SOME_IP_SD_HeaderTest : ::testing::Test
{
    /// Reads a packet that fills its datagram.
    void read(const std::string& hex)
    {
        stream = streamOf(hex);
        packet = SOME_IP_SD_Header(static_cast<std::size_t>(unread(stream)));
        stream >> packet;
    }

    /// Gives the packet that many options; the priority of each is its index.
    void addOptions(std::uint16_t number)
    {
        for (std::uint16_t i = 0; i < number; ++i)
            packet.addOption(new SOME_IP_SD_Option_LoadBalancing(i, 0), false);
    }

    /// Gives the packet an option, a valid entry and, at index 1, an invalid one that refers to the option.
    void addInvalidEntryWithOneOption()
    {
        SOME_IP_SD_Entry::Ptr invalid = new SOME_IP_SD_Entry_Service(EntryType::OFFER_SERVICE);
        invalid->setFstOptionRun({0, 1});
        addOptions(1);
        packet.addEntry(entryWithRuns({0, 0}, {0, 0}), false);
        packet.addEntry(invalid, true);
    }

    static std::vector<int> indicesOf(const SOME_IP_SD_Header::EntryData& data)
    {
        std::vector<int> indices;
        for (const auto& option : data.options)
            indices.push_back(dynamic_cast<const SOME_IP_SD_Option_LoadBalancing&>(*option).getPriority());
        return indices;
    }

    LogCatcher log;
    SOME_IP_SD_Header packet{0};
    std::istringstream stream;
};

}  // namespace

// Building

TEST_F(SOME_IP_SD_HeaderTest, NewPacketHasTheDefaultsOfAServiceDiscoveryMessage)
{
    EXPECT_TRUE(packet.getSomeIP().isValid());
    EXPECT_TRUE(packet.getSomeIP_SD().isValid());
    EXPECT_EQ(packet.getSomeIP().getLength(), 8u);
    EXPECT_EQ(packet.getSomeIP_SD().getFlags(), 0xe0);
    EXPECT_EQ(packet.getNumOfEntries(), 0u);
    EXPECT_EQ(written(packet),
              "ff ff 81 00 00 00 00 08 00 00 00 01 01 01 02 00 e0 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_HeaderTest, LengthOfAnEmptyPacketIsTwenty)
{
    packet.updateLength();

    EXPECT_EQ(packet.getSomeIP().getLength(), 20u);
    EXPECT_EQ(packet.getSize(), 28u);
    EXPECT_EQ(written(packet),
              "ff ff 81 00 00 00 00 14 00 00 00 01 01 01 02 00 e0 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(SOME_IP_SD_HeaderTest, WholeOfferIsWrittenByteByByte)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::OFFER_SERVICE;
    fields.fstOptionRunNum = 2;
    fields.serviceID = 0xFFFE;
    fields.instanceID = 1;
    fields.majorVersion = 1;
    fields.ttl = 3;

    EXPECT_TRUE(packet.addEntry(new SOME_IP_SD_Entry_Service(fields, 0), false));
    EXPECT_TRUE(packet.addOption(
        new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, "fd00::1", 30490, OptionL4Protocol::UDP),
        false));
    EXPECT_TRUE(packet.addOption(
        new SOME_IP_SD_Option_Configuration(ConfigurationPairs{{"otherserv", "Media"}}), false));
    packet.setSessionID(0x1234);

    EXPECT_EQ(packet.getSize(), 89u);
    EXPECT_EQ(packet.getNumOfEntries(), 1u);
    EXPECT_EQ(written(packet), offerPacket);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_HeaderTest, AddingBringsTheLengthUpToDate)
{
    packet.addEntry(entryWithRuns({0, 0}, {0, 0}), false);
    EXPECT_EQ(packet.getSomeIP().getLength(), 36u);

    addOptions(1);
    EXPECT_EQ(packet.getSomeIP().getLength(), 44u);
}

TEST_F(SOME_IP_SD_HeaderTest, RefusedElementsAreReportedAndTheLengthIsUpdatedAllTheSame)
{
    SOME_IP_SD_Header other(0);

    EXPECT_FALSE(packet.addEntry(nullptr, true));
    EXPECT_FALSE(other.addOption(nullptr, true));

    EXPECT_EQ(packet.getSomeIP().getLength(), 20u);
    EXPECT_EQ(other.getSomeIP().getLength(), 20u);
}

TEST_F(SOME_IP_SD_HeaderTest, InvalidElementsAreAddedIfTheyAreAccepted)
{
    const SOME_IP_SD_Entry::Ptr entry = new SOME_IP_SD_Entry_Service(EntryType::FIND_SERVICE);
    const SOME_IP_SD_Option::Ptr option = new SOME_IP_SD_Option_LoadBalancing;

    EXPECT_FALSE(packet.addEntry(entry, false));
    EXPECT_FALSE(packet.addOption(option, false));
    EXPECT_TRUE(packet.addEntry(entry, true));
    EXPECT_TRUE(packet.addOption(option, true));

    EXPECT_EQ(packet.getSize(), 28u + 16u + 8u);
}

TEST_F(SOME_IP_SD_HeaderTest, PacketsAreMovedButNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<SOME_IP_SD_Header>);
    EXPECT_FALSE(std::is_copy_assignable_v<SOME_IP_SD_Header>);
    EXPECT_TRUE(std::is_move_constructible_v<SOME_IP_SD_Header>);
    EXPECT_TRUE(std::has_virtual_destructor_v<SOME_IP_SD_Header>);
}

TEST_F(SOME_IP_SD_HeaderTest, MovedPacketKeepsItsContents)
{
    addOptions(2);
    packet.addEntry(entryWithRuns({0, 1}, {0, 0}), false);
    packet.setSessionID(0x1234);
    const std::string hex = written(packet);

    SOME_IP_SD_Header moved(std::move(packet));
    EXPECT_EQ(written(moved), hex);

    SOME_IP_SD_Header assigned(0);
    assigned = std::move(moved);
    EXPECT_EQ(written(assigned), hex);
}

TEST_F(SOME_IP_SD_HeaderTest, MovedPacketReadsWithItsOwnCountOfRemainingBytes)
{
    const std::size_t size = fromHex(offerPacket).size();
    SOME_IP_SD_Header source(size);
    SOME_IP_SD_Header other(size);

    SOME_IP_SD_Header moved(std::move(source));
    SOME_IP_SD_Header assigned(0);
    assigned = std::move(other);
    source = SOME_IP_SD_Header(0);
    other = SOME_IP_SD_Header(0);
    streamOf(offerPacket) >> moved;
    streamOf(offerPacket) >> assigned;

    EXPECT_TRUE(moved.getSomeIP().isValid());
    EXPECT_TRUE(moved.getSomeIP_SD().isValid());
    EXPECT_TRUE(assigned.getSomeIP().isValid());
    EXPECT_TRUE(assigned.getSomeIP_SD().isValid());
    EXPECT_THAT(log.lines(), IsEmpty());
}

// Entries and their options

TEST_F(SOME_IP_SD_HeaderTest, OptionsOfAnEntryAreThoseOfItsFirstRunThenThoseOfItsSecond)
{
    addOptions(5);
    packet.addEntry(entryWithRuns({3, 2}, {0, 2}), false);

    const SOME_IP_SD_Header::EntryData data = packet.getEntryData(0);

    EXPECT_EQ(data.entry, packet.getSomeIP_SD().getEntries()[0]);
    EXPECT_THAT(indicesOf(data), ElementsAre(3, 4, 0, 1));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_HeaderTest, RunsWithoutOptionsGiveNoneWhateverTheirIndex)
{
    addOptions(2);
    packet.addEntry(entryWithRuns({9, 0}, {1, 1}), false);
    packet.addEntry(entryWithRuns({0, 1}, {9, 0}), false);
    packet.addEntry(entryWithRuns({0, 0}, {0, 0}), false);

    EXPECT_THAT(indicesOf(packet.getEntryData(0)), ElementsAre(1));
    EXPECT_THAT(indicesOf(packet.getEntryData(1)), ElementsAre(0));
    EXPECT_THAT(indicesOf(packet.getEntryData(2)), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_HeaderTest, OptionBeyondTheArrayIsLeftOutWithAWarning)
{
    addOptions(4);
    packet.addEntry(entryWithRuns({3, 2}, {0, 0}), false);

    const SOME_IP_SD_Header::EntryData data = packet.getEntryData(0);

    EXPECT_THAT(indicesOf(data), ElementsAre(3));
    EXPECT_THAT(log.lines(), ElementsAre("Warning: Cannot extract Option #1(=4/4): the Entry refers to an "
                                         "Option that is not there!"));
}

TEST_F(SOME_IP_SD_HeaderTest, LargestRunIsTakenWithoutWrapping)
{
    addOptions(1);
    packet.addEntry(entryWithRuns({255, 15}, {0, 1}), false);

    const SOME_IP_SD_Header::EntryData data = packet.getEntryData(0);

    EXPECT_THAT(indicesOf(data), ElementsAre(0));
    EXPECT_THAT(log.warnings(), SizeIs(15));
    EXPECT_EQ(log.warnings().back(),
              "Warning: Cannot extract Option #14(=269/1): the Entry refers to an Option that is not there!");
}

TEST_F(SOME_IP_SD_HeaderTest, IndexBeyondTheEntriesGivesNothing)
{
    packet.addEntry(entryWithRuns({0, 0}, {0, 0}), false);

    EXPECT_TRUE(packet.getEntryData(1).entry.isNull());
    EXPECT_TRUE(packet.getEntryData(65535).entry.isNull());
    EXPECT_THAT(packet.getEntryData(1).options, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_HeaderTest, InvalidEntryGivesNoOptionsAndAWarning)
{
    addInvalidEntryWithOneOption();

    const SOME_IP_SD_Header::EntryData data = packet.getEntryData(1);

    EXPECT_THAT(data.options, IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Warning: Entry #1 is not valid, skipping Option extraction!"));
}

TEST_F(SOME_IP_SD_HeaderTest, InvalidEntryIsNotGivenItself)
{
    addInvalidEntryWithOneOption();

    EXPECT_TRUE(packet.getEntryData(1).entry.isNull());
}

// Reading

TEST_F(SOME_IP_SD_HeaderTest, WholeOfferIsRead)
{
    read(offerPacket);

    EXPECT_TRUE(isGood(packet, stream)) << "a packet that ends the datagram is a good one";
    EXPECT_EQ(packet.getSomeIP().getServiceID(), 0xffff);
    EXPECT_EQ(packet.getSomeIP().getMethodID(), 0x8100);
    EXPECT_EQ(packet.getSomeIP().getSessionID(), 0x1234);
    EXPECT_EQ(packet.getSize(), 89u);
    EXPECT_EQ(packet.getSomeIP_SD().getFlags(), 0xe0);
    ASSERT_EQ(packet.getNumOfEntries(), 1u);
    const SOME_IP_SD_Header::EntryData data = packet.getEntryData(0);
    EXPECT_EQ(data.entry->getType(), EntryType::OFFER_SERVICE);
    EXPECT_EQ(data.entry->getServiceID(), 0xfffe);
    EXPECT_EQ(data.entry->getTTL(), 3u);
    ASSERT_THAT(data.options, SizeIs(2));
    EXPECT_EQ(dynamic_cast<const SOME_IP_SD_Option_IPv6&>(*data.options[0]).getIP().toString(), "fd00::1");
    EXPECT_THAT(
        dynamic_cast<const SOME_IP_SD_Option_Configuration&>(*data.options[1]).getConfigurationPairs(),
        ElementsAre(::testing::Pair("otherserv", "Media")));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SOME_IP_SD_HeaderTest, NextPacketOfTheDatagramIsNotRead)
{
    read(offerPacket + offerPacket);

    EXPECT_TRUE(isGood(packet, stream));
    EXPECT_EQ(unread(stream), 89);
}

TEST_F(SOME_IP_SD_HeaderTest, HeaderCutShortEndsTheStreamAndTheReading)
{
    stream = streamOf("ff ff 81 00 00 00 00 14 00 00 00 01");
    packet = SOME_IP_SD_Header(28);

    stream >> packet;

    EXPECT_FALSE(isGood(packet, stream));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP header size=28, but 12 read by deserialisation and length field "
                            "contains '20'!",
                            "Error: SOME_IP - SD message length-error: stream state not good after reading "
                            "SOME/IP Header: [eof|fail]"));
}

TEST_F(SOME_IP_SD_HeaderTest, StateOfABrokenStreamIsNamed)
{
    stream = streamOf(offerPacket);
    stream.setstate(std::ios::badbit);

    stream >> packet;

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP-SD message too short, length=0, which is <12!",
                            "Error: SOME_IP - SD message length-error: stream state not good after reading "
                            "SOME/IP Header: [fail|bad]"));
}

TEST_F(SOME_IP_SD_HeaderTest, InvalidHeaderEndsTheReadingWithoutFurtherWords)
{
    read("ff ff 81 00 00 00 00 0b 00 00 00 01 01 01 02 00 e0 00 00 00 00 00 00 00 00 00 00 00");

    EXPECT_FALSE(packet.getSomeIP().isValid());
    EXPECT_EQ(unread(stream), 20);
    EXPECT_THAT(log.lines(), ElementsAre("Error: SOME_IP-SD message too short, length=11, which is <12!"));
}

TEST_F(SOME_IP_SD_HeaderTest, PayloadThatWhiteSpaceMakesLongerIsALengthError)
{
    // The last byte of the TTL is skipped; a byte behind the packet takes its place.
    read(
        "ff ff 81 00 00 00 00 24 00 00 00 01 01 01 02 00 e0 00 00 00 00 00 00 10 "
        "00 00 00 00 ff fe ff ff ff 00 00 20 00 00 00 00 00 00 00 00 00");

    EXPECT_FALSE(packet.getSomeIP_SD().isValid());
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SOME_IP-SD message payload length-error: 28 expected, but 29 parsed!"));
}

TEST_F(SOME_IP_SD_HeaderTest, InvalidPayloadIsNotMeasuredToo)
{
    read("ff ff 81 00 00 00 00 14 00 00 00 01 01 01 02 00 e0 00 00 00 00 00 00 11 00 00 00 00");

    EXPECT_FALSE(packet.getSomeIP_SD().isValid());
    EXPECT_EQ(unread(stream), 4) << "fewer bytes are parsed than the lengths announce";
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SOME_IP_SD header length of entries '17' not a multiple of expected size '16'",
                    "Error: SOME_IP_SD header size>=29 read by deserialisation and length fields contain "
                    "'17|0' (Entries|Options)!"));
}

namespace {

struct ReservedID
{
    const char* name;
    const char* ids;
    const char* line;
};

struct ReservedIDTest : ::testing::TestWithParam<ReservedID>
{};

}  // namespace

TEST_P(ReservedIDTest, MakesTheHeaderInvalidAndEndsTheReading)
{
    const LogCatcher log;
    std::istringstream stream = streamOf(GetParam().ids + offerPacket.substr(11));
    SOME_IP_SD_Header packet(static_cast<std::size_t>(unread(stream)));

    stream >> packet;

    EXPECT_FALSE(packet.getSomeIP().isValid());
    EXPECT_EQ(unread(stream), 89 - 16);
    EXPECT_EQ(packet.getNumOfEntries(), 0u);
    EXPECT_THAT(log.lines(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    SOME_IP_SD_Header, ReservedIDTest,
    ::testing::Values(ReservedID{"ServiceZero", "00 00 81 00",
                                 "Error: SOME_IP-SD message with reserved Service-ID received: 0x0"},
                      ReservedID{"LowestServiceOfTheRange", "ff 00 81 00",
                                 "Error: SOME_IP-SD message with reserved Service-ID received: 0xff00"},
                      ReservedID{"HighestServiceOfTheRange", "ff 5f 81 00",
                                 "Error: SOME_IP-SD message with reserved Service-ID received: 0xff5f"},
                      ReservedID{"MethodZero", "ff ff 00 00",
                                 "Error: SOME_IP-SD message with reserved Method-ID received: 0x0"},
                      ReservedID{"Method7fff", "ff ff 7f ff",
                                 "Error: SOME_IP-SD message with reserved Method-ID received: 0x7fff"},
                      ReservedID{"Method8000", "ff ff 80 00",
                                 "Error: SOME_IP-SD message with reserved Method-ID received: 0x8000"},
                      ReservedID{"MethodFfff", "ff ff ff ff",
                                 "Error: SOME_IP-SD message with reserved Method-ID received: 0xffff"},
                      ReservedID{"ServiceBeforeMethod", "00 00 00 00",
                                 "Error: SOME_IP-SD message with reserved Service-ID received: 0x0"}),
    [](const auto& row) { return row.param.name; });

TEST_F(SOME_IP_SD_HeaderTest, OtherServiceAndMethodIDsAreRead)
{
    read("12 34 56 78" + offerPacket.substr(11));

    EXPECT_TRUE(isGood(packet, stream));
    EXPECT_THAT(log.lines(), IsEmpty());
}

// The text

TEST_F(SOME_IP_SD_HeaderTest, TextHoldsHeaderAndPayload)
{
    read(offerPacket);

    EXPECT_EQ(packet.toString(1), "\tSOME_IP_SD_Header[\n" + packet.getSomeIP().toString(2) + "\n" +
                                      packet.getSomeIP_SD().toString(2) + "\n\t]");
}

// Hostile datagrams

namespace {

/// Every kind of entry and option, including unknown ones.
const std::string richPacket =
    "ff ff 81 00 00 00 00 b3 00 00 00 01 01 01 02 00 "
    "e0 00 00 00 00 00 00 40 "
    "01 00 02 21 ff fe 00 01 01 00 00 03 00 00 00 00 "
    "00 02 00 10 ff fe ff ff ff 00 00 03 ff ff ff ff "
    "06 00 00 10 12 34 00 01 01 00 00 03 00 85 00 07 "
    "05 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
    "00 00 00 5f "
    "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 1a "
    "00 20 01 00 0f 6f 74 68 65 72 73 65 72 76 3d 4d 65 64 69 61 0d 76 65 72 73 69 6f 6e 3d 31 2e 30 2e 30 "
    "00 "
    "00 05 02 00 00 01 00 02 "
    "00 09 04 00 0a 01 02 03 00 06 00 50 "
    "00 04 55 01 02 03 04 "
    "00 06 01 00 03 61 3d 31 00";

/// Reads a datagram and uses it like a receiver; returns whether a receiver would handle the packet.
bool survives(const std::string& bytes)
{
    Datagram datagram(bytes);
    SOME_IP_SD_Header packet(datagram.size());

    datagram.stream() >> packet;
    const bool good = isGood(packet, datagram.stream());

    std::ostringstream text;
    text << packet.toString(0);
    for (std::size_t i = 0; i < packet.getNumOfEntries(); ++i) {
        for (const SOME_IP_SD_Option::Ptr& option :
             packet.getEntryData(static_cast<std::uint16_t>(i)).options)
            text << option->toString(0);
    }
    std::ostringstream copy;
    copy << packet;
    if (good) {
        const auto consumed = static_cast<std::size_t>(datagram.stream().tellg());
        EXPECT_EQ(headerSize + packet.getSomeIP_SD().getSize(), consumed);
        EXPECT_LE(consumed, datagram.size());
    }
    return good;
}

}  // namespace

TEST_F(SOME_IP_SD_HeaderTest, UnharmedPacketsSurvive)
{
    EXPECT_TRUE(survives(fromHex(offerPacket)));
    EXPECT_TRUE(survives(fromHex(richPacket)));
}

TEST_F(SOME_IP_SD_HeaderTest, PacketCutAnywhereIsDroppedUnharmed)
{
    for (const std::string& packetHex : {offerPacket, richPacket}) {
        const std::string bytes = fromHex(packetHex);
        for (std::size_t size = 0; size < bytes.size(); ++size)
            EXPECT_FALSE(survives(bytes.substr(0, size))) << "cut after " << size;
    }
}

TEST_F(SOME_IP_SD_HeaderTest, PacketCutAnywhereWithAMatchingLengthIsDroppedUnharmed)
{
    for (const std::string& packetHex : {offerPacket, richPacket}) {
        const std::string bytes = fromHex(packetHex);
        for (std::size_t size = headerSize; size < bytes.size(); ++size) {
            std::string cut = bytes.substr(0, size);
            cut[7] = static_cast<char>(size - 8);
            EXPECT_FALSE(survives(cut)) << "cut after " << size;
        }
    }
}

TEST_F(SOME_IP_SD_HeaderTest, PacketWithAnyByteReplacedIsReadOrDroppedUnharmed)
{
    for (const std::string& packetHex : {offerPacket, richPacket}) {
        const std::string bytes = fromHex(packetHex);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            for (const char value : {'\x00', '\x01', '\x20', '\x7f', '\x80', '\xff'}) {
                std::string changed = bytes;
                changed[i] = value;
                SCOPED_TRACE("byte " + std::to_string(i) + " replaced by " + toHex(&value, 1));
                survives(changed);
            }
        }
    }
}

}  // namespace Nubo::ServiceDiscovery::Testing
