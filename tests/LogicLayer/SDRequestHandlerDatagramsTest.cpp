#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "RequestHandlerFixture.h"

#include <KELUtilLib/DebugUtils.h>

#include <Poco/Exception.h>

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::packet;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

using SDRequestHandlerDatagramsTest = RequestHandlerFixture;

/// How the log shows a valid packet.
std::string textOf(const std::string& bytes)
{
    SOME_IP_SD_Header received(bytes.size());
    std::istringstream stream(bytes);
    stream >> received;
    return received.toString(0);
}

/// A handler whose single steps a test can call.
class OpenHandler : public SDRequestHandler
{
public:
    using SDRequestHandler::internal_handleEntry;
    using SDRequestHandler::parsePacket;
    using SDRequestHandler::SDRequestHandler;
};

struct SDRequestHandlerStepsTest : ::testing::Test
{
    Poco::NotificationQueue queue;
    OpenHandler handler{queue};
    RequestSubscriber subscriber{handler};
    const Poco::Net::SocketAddress origin{Packets::otherUnitOrigin};
    LogCatcher log;
};

/// A handler for which the test splits the datagram, into packets that the wire format never yields.
class OddParser : public SDRequestHandler
{
public:
    using SDRequestHandler::SDRequestHandler;

    std::function<void(std::vector<SOME_IP_SD_Header::Ptr>&)> parse;

protected:
    bool parsePacket(MulticastDataPtr&, std::vector<SOME_IP_SD_Header::Ptr>& out) const override
    {
        parse(out);
        return true;
    }
};

struct OddPacketTest : ::testing::Test
{
    /// Handles a datagram of nine bytes, for which `parse` yields packets. One of those must be `good`.
    void handle(const std::function<void(std::vector<SOME_IP_SD_Header::Ptr>&)>& parse)
    {
        handler.parse = parse;
        queue.enqueueNotification(new SDMessageNotification(Packets::datagram(bytes)));
        {
            const HandlerThread thread(handler);
            ASSERT_TRUE(handlesAll(queue));
        }
        EXPECT_THAT(subscriber.events, SizeIs(1)) << "what was good was not handled";
    }

    static SOME_IP_SD_Header::Ptr read(const std::string& bytes)
    {
        SOME_IP_SD_Header::Ptr packet = new SOME_IP_SD_Header(bytes.size());
        std::istringstream stream(bytes);
        stream >> *packet;
        return packet;
    }

    Poco::NotificationQueue queue;
    OddParser handler{queue};
    RequestSubscriber subscriber{handler};
    LogCatcher log;
    const SOME_IP_SD_Header::Ptr good = read(Packets::find("Media"));
    const std::string bytes = "01 02 ff 04 05 06 07 08 09"_bytes;  // three groups of a hex dump
};

}  // namespace

TEST_F(SDRequestHandlerDatagramsTest, GoodDatagramIsLoggedOnItsWay)
{
    const std::string bytes = Packets::offer("Media");

    handle(bytes);

    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDRequestHandler - message content: " + textOf(bytes),
                                         "Debug: run: processing 1 Message(s)...",
                                         "Debug: run: processing 1 Entrie(s)..."));
}

TEST_F(SDRequestHandlerDatagramsTest, PacketsBackToBackAreAllHandledInTheirOrder)
{
    handle(packet(entryOf("00 01") + entryOf("00 02"), "") + packet(entryOf("00 03"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120", "offer #2 TTL 120", "offer #3 TTL 120"));
    EXPECT_THAT(log.debugs(),
                ElementsAre("Debug: run: processing 2 Message(s)...", "Debug: run: processing 2 Entrie(s)...",
                            "Debug: run: processing 1 Entrie(s)..."));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerDatagramsTest, ZeroBytesBehindAPacketEndTheDatagramWithAWarning)
{
    const std::string good = packet(entryOf("00 01"), "");
    ASSERT_EQ(good.size(), 44u);

    handle(good + "00 00 00"_bytes);

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120"));
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDRequestHandler - length-error detected: 47 Bytes "
                                              "received, but 44 Bytes parsed!"));
}

TEST_F(SDRequestHandlerDatagramsTest, PacketBehindZeroBytesIsNotRead)
{
    handle(packet(entryOf("00 01"), "") + "00"_bytes + packet(entryOf("00 02"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120"));
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDRequestHandler - length-error detected: 89 Bytes "
                                              "received, but 44 Bytes parsed!"));
}

TEST_F(SDRequestHandlerDatagramsTest, DatagramOfZeroBytesHoldsNoPacket)
{
    handle("00 00"_bytes);

    EXPECT_THAT(log.lines(), ElementsAre("Warning: SDRequestHandler - length-error detected: 2 Bytes "
                                         "received, but 0 Bytes parsed!",
                                         "Debug: run: processing 0 Message(s)..."));
}

TEST_F(SDRequestHandlerDatagramsTest, EmptyDatagramHoldsNoPacketAndIsNoLengthError)
{
    handle("");

    EXPECT_THAT(log.lines(), ElementsAre("Debug: run: processing 0 Message(s)..."));
}

TEST_F(SDRequestHandlerDatagramsTest, BadPacketEndsTheDatagramAndTheGoodOnesBeforeItAreHandled)
{
    const std::string good = packet(entryOf("00 01"), "");
    std::string reserved = good;
    reserved[1] = 0x00;  // service ID 0xff00

    handle(good + reserved + good);

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120"));
    EXPECT_THAT(log.debugs(), Contains("Debug: run: processing 1 Message(s)..."));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SOME_IP-SD message with reserved Service-ID received: 0xff00",
                            "Warning: SDRequestHandler - length-error detected: 132 Bytes received, but 44 "
                            "Bytes parsed!"));
}

TEST_F(SDRequestHandlerDatagramsTest, PacketWithABadPayloadIsDropped)
{
    const std::string entry = entryOf("00 01");
    std::string bad = packet(entry, "");
    bad[23] = 0x11;  // the length of the entries is no multiple of an entry's

    handle(bad);

    EXPECT_THAT(subscriber.events, IsEmpty());
    EXPECT_THAT(log.debugs(), ElementsAre("Debug: run: processing 0 Message(s)..."));
    EXPECT_THAT(log.warnings(), ElementsAre("Warning: SDRequestHandler - length-error detected: 44 Bytes "
                                            "received, but 0 Bytes parsed!"));
}

TEST_F(SDRequestHandlerDatagramsTest, PacketCutShortIsDropped)
{
    handle(Packets::offer("Media").substr(0, 30));

    EXPECT_THAT(subscriber.events, IsEmpty());
    EXPECT_THAT(log.errors(), Not(IsEmpty()));
    EXPECT_THAT(log.warnings(), ElementsAre("Warning: SDRequestHandler - length-error detected: 30 Bytes "
                                            "received, but 0 Bytes parsed!"));
}

// Packets that the wire format never yields

TEST_F(OddPacketTest, SplittingThatThrowsIsLoggedWithTheDatagramAndWhatItYieldedIsHandled)
{
    handle([&](auto& out) {
        out.push_back(good);
        throw Poco::InvalidArgumentException("no more");
    });

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDRequestHandler - failed to parse message: \"no more\"."));
    EXPECT_TRUE(log.has("Trace: SDRequestHandler - message: " +
                        DebugUtils::HexDump(bytes.data(), static_cast<unsigned short>(bytes.size()), 4)));
    EXPECT_TRUE(log.has("Debug: run: processing 1 Message(s)..."));
}

TEST_F(OddPacketTest, NullPacketIsPassedOver)
{
    handle([&](auto& out) { out = {SOME_IP_SD_Header::Ptr(), good}; });

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDRequestHandler - found nullptr SOME/IP Header."));
}

TEST_F(OddPacketTest, PacketWithAnInvalidHeaderIsPassedOver)
{
    const SOME_IP_SD_Header::Ptr invalid = read("ff ff 81 00"_bytes);
    log.clear();

    handle([&](auto& out) { out = {invalid, good}; });

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDRequestHandler - found invalid SOME/IP Header."));
    EXPECT_FALSE(log.has("Debug: run: processing 0 Entrie(s)..."));
    EXPECT_TRUE(
        log.has("Trace: SDRequestHandler - invalid SOME/IP Header: " + invalid->getSomeIP().toString(0)));
}

TEST_F(OddPacketTest, PacketWithAnInvalidPayloadIsPassedOver)
{
    const SOME_IP_SD_Header::Ptr invalid = read(packet("01 02 03"_bytes, ""));
    log.clear();

    handle([&](auto& out) { out = {invalid, good}; });

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDRequestHandler - found invalid SOME/IP SD Payload."));
    EXPECT_FALSE(log.has("Debug: run: processing 0 Entrie(s)..."));
    EXPECT_TRUE(log.has("Trace: SDRequestHandler - invalid SOME/IP SD Payload: " +
                        invalid->getSomeIP_SD().toString(0)));
}

TEST_F(OddPacketTest, EntryThatIsNotGivenIsPassedOver)
{
    SOME_IP_SD_Header::Ptr odd = read(Packets::find("Media"));
    odd->addEntry(new SOME_IP_SD_Entry_Service(EntryType::OFFER_SERVICE), true);
    log.clear();

    handle([&](auto& out) { out = {odd}; });

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SDRequestHandler - found nullptr SOME/IP Entr, Entry #2 skipped!"));
}

TEST_F(OddPacketTest, OtherExceptionsEndTheDatagramAndNotTheThread)
{
    queue.enqueueNotification(new SDMessageNotification(Packets::datagram("01"_bytes)));
    bool isFirst = true;

    handle([&](auto& out) {
        if (std::exchange(isFirst, false))
            throw std::runtime_error("out of luck");
        out = {good};
    });

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDRequestHandler - caught exception: out of luck"));
}

TEST_F(SDRequestHandlerStepsTest, DatagramThatIsNotGivenCannotBeSplit)
{
    MulticastDataPtr none;
    std::vector<SOME_IP_SD_Header::Ptr> packets;

    EXPECT_FALSE(handler.parsePacket(none, packets));

    EXPECT_THAT(packets, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("Error: SDRequestHandler - received nullptr MulticastReceiver packet."));
}

TEST_F(SDRequestHandlerStepsTest, EntryThatIsInvalidOrNotGivenIsRefused)
{
    SOME_IP_SD_Header::EntryData invalid;
    invalid.entry = new SOME_IP_SD_Entry_Service(EntryType::OFFER_SERVICE);
    ASSERT_FALSE(invalid.entry->isValid());

    EXPECT_FALSE(handler.internal_handleEntry(invalid, origin));
    EXPECT_FALSE(handler.internal_handleEntry(SOME_IP_SD_Header::EntryData(), origin));

    EXPECT_THAT(subscriber.events, IsEmpty());
    constexpr auto refused = "Error: SDRequestHandler - received invalid or empty EntryData.";
    EXPECT_THAT(log.lines(), ElementsAre(refused, refused));
}

}  // namespace Nubo::ServiceDiscovery::Testing
