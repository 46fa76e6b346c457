#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "LogicLayer/SDMessageNotification.h"
#include "LogicLayer/SDRequestHandler.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/Waiting.h"

#include <KELUtilLib/DebugUtils.h>

#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>

#include <cstdlib>
#include <functional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::Entry;
using Packets::packet;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

using FindPayload = SDRequestHandler::FindServicePayload;
using OfferPayload = SDRequestHandler::OfferServicePayload;

/// The handler's thread. As the hub does, it repeats shutdown() until the thread has ended.
class HandlerThread
{
public:
    explicit HandlerThread(SDRequestHandler& handler) : m_handler(handler) { m_thread.start(handler); }
    ~HandlerThread()
    {
        do
            m_handler.shutdown();
        while (!m_thread.tryJoin(10));
    }

private:
    SDRequestHandler& m_handler;
    Poco::Thread m_thread;
};

/// Waits until the handler's thread has handled everything and waits for more. An empty queue does not say
/// so: what was taken off it last may still be in work, and a shutdown would cut it short.
bool handlesAll(const Poco::NotificationQueue& queue)
{
    return eventually([&] { return queue.hasIdleThreads(); });
}

/// Writes down the events that the handler raises: "find Media 120", "offer Media 0", with the entry's TTL.
class Subscriber
{
public:
    explicit Subscriber(SDRequestHandler& handler) : m_handler(handler)
    {
        m_handler.FindService += Poco::delegate(this, &Subscriber::onFind);
        m_handler.OfferService += Poco::delegate(this, &Subscriber::onOffer);
    }
    ~Subscriber()
    {
        m_handler.FindService -= Poco::delegate(this, &Subscriber::onFind);
        m_handler.OfferService -= Poco::delegate(this, &Subscriber::onOffer);
    }

    std::vector<std::string> events;
    std::vector<FindPayload> finds;
    std::vector<OfferPayload> offers;
    const void* sender = nullptr;
    /// Called with every event.
    std::function<void()> onEvent;

private:
    void onFind(const void* from, FindPayload& payload)
    {
        finds.push_back(payload);
        note(from, "find", payload.entryData);
    }

    void onOffer(const void* from, OfferPayload& payload)
    {
        offers.push_back(payload);
        note(from, "offer", payload.entryData);
    }

    void note(const void* from, const std::string& kind, const SOME_IP_SD_Header::EntryData& data)
    {
        sender = from;
        events.push_back(kind + " #" + std::to_string(data.entry->getInstanceID()) + " TTL " +
                         std::to_string(data.entry->getTTL()));
        if (onEvent)
            onEvent();
    }

    SDRequestHandler& m_handler;
};

struct SDRequestHandlerTest : ::testing::Test
{
    void enqueue(const std::string& bytes)
    {
        queue.enqueueNotification(new SDMessageNotification(Packets::datagram(bytes)));
    }

    /// Runs the handler until everything that is waiting has been handled.
    void handleWaiting()
    {
        const HandlerThread thread(handler);
        ASSERT_TRUE(handlesAll(queue));
    }

    void handle(const std::string& bytes)
    {
        enqueue(bytes);
        handleWaiting();
    }

    Poco::NotificationQueue queue;
    SDRequestHandler handler{queue};
    Subscriber subscriber{handler};
    LogCatcher log;
};

std::string entryOf(const std::string& instance, const std::string& ttl = "00 00 78")
{
    return Entry{"01", "00 00 00", instance, ttl}.bytes();
}

/// What the log shows of a good packet.
std::string textOf(const std::string& bytes)
{
    SOME_IP_SD_Header received(bytes.size());
    std::istringstream stream(bytes);
    stream >> received;
    return received.toString(0);
}

struct RequestCase
{
    const char* name;
    const char* entryType;
    const char* ttl;

    friend void PrintTo(const RequestCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDRequestHandlerEventgroupTest : SDRequestHandlerTest, ::testing::WithParamInterface<RequestCase>
{};

constexpr auto noFindDelegates =
    "Warning: SDRequestHandler - found no Delegates (yet) for FindService Entries.";
constexpr auto noOfferDelegates =
    "Warning: SDRequestHandler - found no Delegates (yet) for OfferService Entries.";
constexpr auto emptyWork = "Error: SDRequestHandler - received an empty work-notification.";

/// A handler whose steps a test takes by themselves.
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
    Subscriber subscriber{handler};
    const Poco::Net::SocketAddress origin{Packets::otherUnitOrigin};
    LogCatcher log;
};

/// A handler whose splitting of a datagram the test does: into packets that the wire format never yields.
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
    /// Hands in a datagram of nine bytes, which the parser reads as it likes, and a good packet behind it.
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
    Subscriber subscriber{handler};
    LogCatcher log;
    const SOME_IP_SD_Header::Ptr good = read(Packets::find("Media"));
    const std::string bytes = "01 02 ff 04 05 06 07 08 09"_bytes;  // three groups in a dump
};

std::string threadName()
{
    char name[16] = "";
    ::pthread_getname_np(::pthread_self(), name, sizeof(name));
    return name;
}

/// The names of two threads on which the handler runs one after the other. Names are given once a process,
/// so this needs one of its own.
int namedOnlyOnce()
{
    Poco::NotificationQueue queue;
    SDRequestHandler handler(queue);
    Subscriber subscriber(handler);
    std::vector<std::string> names;
    subscriber.onEvent = [&] { names.push_back(threadName()); };
    for (int run = 0; run < 2; ++run) {
        queue.enqueueNotification(new SDMessageNotification(Packets::datagram(Packets::find("Media"))));
        const HandlerThread thread(handler);
        handlesAll(queue);
    }
    const bool namedOnce = names.size() == 2 && names[0] == "SdReqHdlr" && names[1] != "SdReqHdlr";
    return namedOnce ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

TEST_F(SDRequestHandlerTest, RequestKindsHaveTheirNumbers)
{
    using Kind = SDRequestHandler::InternalEntryType;

    EXPECT_EQ(SDRequestHandler::BitTTL0, 0x1000);
    EXPECT_EQ(Kind::FIND_SERVICE, 0);
    EXPECT_EQ(Kind::OFFER_SERVICE, 1);
    EXPECT_EQ(Kind::STOP_OFFER_SERVICE, 4097);
    EXPECT_EQ(Kind::SUBSCRIBE, 6);
    EXPECT_EQ(Kind::STOP_SUBSCRIBE, 4102);
    EXPECT_EQ(Kind::SUBSCRIBE_ACK, 7);
    EXPECT_EQ(Kind::SUBSCRIBE_NACK, 4103);
    EXPECT_EQ(Kind::INVALID, 255);
}

TEST_F(SDRequestHandlerTest, FindRaisesFindServiceWithEntryOptionsAndOrigin)
{
    handle(Packets::find("Media"));

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120"));
    ASSERT_THAT(subscriber.finds, SizeIs(1));
    const FindPayload& payload = subscriber.finds.front();
    EXPECT_EQ(payload.entryData.entry->getServiceID(), 0xfffe);
    ASSERT_THAT(payload.entryData.options, SizeIs(1));
    EXPECT_EQ(payload.entryData.options[0]->getType(), OptionType::CONFIGURATION);
    EXPECT_EQ(payload.origin.toString(), Packets::otherUnitOrigin);
    EXPECT_FALSE(payload.result);
    EXPECT_EQ(subscriber.sender, &handler);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, OfferRaisesOfferServiceWithEntryOptionsAndOrigin)
{
    handle(Packets::offer("Media"));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120"));
    ASSERT_THAT(subscriber.offers, SizeIs(1));
    const OfferPayload& payload = subscriber.offers.front();
    ASSERT_THAT(payload.entryData.options, SizeIs(2));
    EXPECT_EQ(payload.entryData.options[0]->getType(), OptionType::IP6_ENDPOINT);
    EXPECT_EQ(payload.entryData.options[1]->getType(), OptionType::CONFIGURATION);
    EXPECT_EQ(payload.origin.toString(), Packets::otherUnitOrigin);
    EXPECT_FALSE(payload.result);
    EXPECT_EQ(subscriber.sender, &handler);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, StopOfferReachesOfferServiceToo)
{
    handle(Packets::stopOffer("Media"));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 0"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, GoodDatagramIsLoggedOnItsWay)
{
    const std::string bytes = Packets::offer("Media");

    handle(bytes);

    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDRequestHandler - message content: " + textOf(bytes),
                                         "Debug: run: processing 1 Message(s)...",
                                         "Debug: run: processing 1 Entrie(s)..."));
}

TEST_F(SDRequestHandlerTest, FindWithTTLZeroIsOfUnknownTypeAndFails)
{
    handle(packet(Entry{"00", "00 00 00", "ff ff", "00 00 00"}.bytes(), ""));

    EXPECT_THAT(subscriber.events, IsEmpty());
    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDRequestHandler - found unknown Entry type 0x1000.",
                                              "Error: SDRequestHandler - failed to handle Entry #1/1."));
}

TEST_P(SDRequestHandlerEventgroupTest, EntryIsSkippedAndIsNoFailure)
{
    handle(packet(Entry{GetParam().entryType, "00 00 00", "00 01", GetParam().ttl}.bytes() + entryOf("00 02"),
                  ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #2 TTL 120"));
    EXPECT_THAT(log.debugs(),
                Contains("Debug: SDRequestHandler - found not (yet) supported EventgroupEntry, skipping."));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Kinds, SDRequestHandlerEventgroupTest,
                         ::testing::Values(RequestCase{"Subscribe", "06", "00 00 78"},
                                           RequestCase{"StopSubscribe", "06", "00 00 00"},
                                           RequestCase{"SubscribeAck", "07", "00 00 78"},
                                           RequestCase{"SubscribeNack", "07", "00 00 00"}),
                         [](const auto& row) { return row.param.name; });

/// A datagram may have 65527 bytes.
TEST_F(SDRequestHandlerTest, PacketOfFourThousandEntriesIsHandled)
{
    constexpr std::size_t count = 4000;
    std::string entries;
    for (std::size_t i = 0; i < count; ++i)
        entries += entryOf("00 01");

    handle(packet(entries, ""));

    EXPECT_EQ(subscriber.events, std::vector<std::string>(count, "offer #1 TTL 120"));
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, EntryWithTheReservedInstanceIDIsSkippedBeforeAnyEvent)
{
    handle(packet(entryOf("00 01") + entryOf("00 00") + entryOf("01 00"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120", "offer #256 TTL 120"));
    EXPECT_THAT(
        log.debugs(),
        Contains("Debug: SDRequestHandler - found Entry with reserved Instance-ID 0x0, Entry #2 skipped!"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, EntriesOfAPacketAreHandledInTheirOrder)
{
    handle(packet(entryOf("00 03") + entryOf("00 01", "00 00 00") + entryOf("00 02"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #3 TTL 120", "offer #1 TTL 0", "offer #2 TTL 120"));
    EXPECT_THAT(log.debugs(), ElementsAre("Debug: run: processing 1 Message(s)...",
                                          "Debug: run: processing 3 Entrie(s)..."));
}

TEST_F(SDRequestHandlerTest, EntryOfAnUnknownTypeCostsNoOtherEntry)
{
    handle(packet(entryOf("00 01") + Entry{"42", "00 00 00", "00 02", "00 00 78"}.bytes() + entryOf("00 03"),
                  ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120", "offer #3 TTL 120"));
}

TEST_F(SDRequestHandlerTest, PacketsBackToBackAreAllHandledInTheirOrder)
{
    handle(packet(entryOf("00 01") + entryOf("00 02"), "") + packet(entryOf("00 03"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120", "offer #2 TTL 120", "offer #3 TTL 120"));
    EXPECT_THAT(log.debugs(),
                ElementsAre("Debug: run: processing 2 Message(s)...", "Debug: run: processing 2 Entrie(s)...",
                            "Debug: run: processing 1 Entrie(s)..."));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, ZeroBytesBehindAPacketEndTheDatagramWithAWarning)
{
    const std::string good = packet(entryOf("00 01"), "");
    ASSERT_EQ(good.size(), 44u);

    handle(good + "00 00 00"_bytes);

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120"));
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDRequestHandler - length-error detected: 47 Bytes "
                                              "received, but 44 Bytes parsed!"));
}

TEST_F(SDRequestHandlerTest, PacketBehindZeroBytesIsNotRead)
{
    handle(packet(entryOf("00 01"), "") + "00"_bytes + packet(entryOf("00 02"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120"));
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDRequestHandler - length-error detected: 89 Bytes "
                                              "received, but 44 Bytes parsed!"));
}

TEST_F(SDRequestHandlerTest, DatagramOfZeroBytesHoldsNoPacket)
{
    handle("00 00"_bytes);

    EXPECT_THAT(log.lines(), ElementsAre("Warning: SDRequestHandler - length-error detected: 2 Bytes "
                                         "received, but 0 Bytes parsed!",
                                         "Debug: run: processing 0 Message(s)..."));
}

TEST_F(SDRequestHandlerTest, EmptyDatagramHoldsNoPacketAndIsNoLengthError)
{
    handle("");

    EXPECT_THAT(log.lines(), ElementsAre("Debug: run: processing 0 Message(s)..."));
}

TEST_F(SDRequestHandlerTest, BadPacketEndsTheDatagramAndTheGoodOnesBeforeItAreHandled)
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

TEST_F(SDRequestHandlerTest, PacketWithABadPayloadIsDropped)
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

TEST_F(SDRequestHandlerTest, PacketCutShortIsDropped)
{
    handle(Packets::offer("Media").substr(0, 30));

    EXPECT_THAT(subscriber.events, IsEmpty());
    EXPECT_THAT(log.errors(), Not(IsEmpty()));
    EXPECT_THAT(log.warnings(), ElementsAre("Warning: SDRequestHandler - length-error detected: 30 Bytes "
                                            "received, but 0 Bytes parsed!"));
}

TEST_F(SDRequestHandlerTest, ThreadGoesOnAfterABadDatagram)
{
    enqueue("ff ff 81 00"_bytes);
    enqueue("01 02 03"_bytes);
    enqueue(Packets::find("Media"));

    handleWaiting();

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120"));
}

TEST_F(SDRequestHandlerTest, WorkThatIsNoMessageIsReportedAndTheThreadGoesOn)
{
    queue.enqueueNotification(new Poco::Notification);
    queue.enqueueNotification(new SDMessageNotification(nullptr));
    enqueue(Packets::find("Media"));

    handleWaiting();

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120"));
    EXPECT_THAT(log.complaints(), ElementsAre(emptyWork, emptyWork));
}

TEST_F(SDRequestHandlerTest, ResultOfASubscriberIsNotLookedAt)
{
    handle(Packets::offer("Media"));

    EXPECT_FALSE(subscriber.offers.front().result);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, SubscriberThatThrowsCostsItsEntryOnly)
{
    subscriber.onEvent = [&] {
        switch (subscriber.events.size()) {
            case 1:
                throw Poco::IOException("disk full");
            case 2:
                throw std::runtime_error("out of luck");
            case 3:
                throw 42;
            default:
                break;
        }
    };
    enqueue(packet(entryOf("00 01") + entryOf("00 02"), ""));
    enqueue(packet(entryOf("00 03"), ""));
    enqueue(packet(entryOf("00 04"), ""));

    handleWaiting();

    EXPECT_THAT(subscriber.events, SizeIs(4));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDRequestHandler - caught exception: I/O error: disk full",
                            "Error: SDRequestHandler - failed to handle Entry #1/2.",
                            "Error: SDRequestHandler - caught exception: out of luck",
                            "Error: SDRequestHandler - failed to handle Entry #2/2.",
                            "Error: SDRequestHandler - caught exception: unknown exception",
                            "Error: SDRequestHandler - failed to handle Entry #1/1."));
}

TEST_F(SDRequestHandlerTest, ShutdownLetsAWaitingThreadReturnWithoutAWord)
{
    {
        const HandlerThread thread(handler);
        enqueue(Packets::find("Media"));
        ASSERT_TRUE(eventually([&] { return log.has("Debug: run: processing 1 Entrie(s)..."); }));
        log.clear();
    }

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, WorkThatIsLeftAtAShutdownIsDoneInTheNextRun)
{
    handle(Packets::find("Media"));
    enqueue(Packets::offer("Media"));
    EXPECT_THAT(subscriber.events, SizeIs(1));

    handleWaiting();

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120", "offer #1 TTL 120"));
}

TEST_F(SDRequestHandlerTest, ThreadIsNamedOnceAProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(std::exit(namedOnlyOnce()), ::testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST(SDRequestHandlerDelegatesTest, MissingDelegatesAreWarnedOfOnceAndEntriesAreLostSilently)
{
    Poco::NotificationQueue queue;
    SDRequestHandler handler(queue);
    const LogCatcher log;
    for (const std::string& bytes : {Packets::offer("Media"), Packets::find("Media")})
        queue.enqueueNotification(new SDMessageNotification(Packets::datagram(bytes)));
    {
        const HandlerThread thread(handler);
        ASSERT_TRUE(handlesAll(queue));
    }

    EXPECT_THAT(log.complaints(), ElementsAre(noFindDelegates, noOfferDelegates));
    EXPECT_EQ(log.count("Debug: run: processing 1 Entrie(s)..."), 2u);
}

TEST(SDRequestHandlerDelegatesTest, EachMissingDelegateIsWarnedOfByItself)
{
    struct Taker
    {
        void onFind(FindPayload&) {}
        void onOffer(OfferPayload&) {}
    };
    Taker taker;
    Poco::NotificationQueue queue;
    SDRequestHandler finding(queue);
    SDRequestHandler offering(queue);
    finding.FindService += Poco::delegate(&taker, &Taker::onFind);
    offering.OfferService += Poco::delegate(&taker, &Taker::onOffer);
    LogCatcher log;

    {
        const HandlerThread thread(finding);
        EXPECT_TRUE(eventually([&] { return log.has(noOfferDelegates); }));
    }
    EXPECT_THAT(log.lines(), ElementsAre(noOfferDelegates));
    log.clear();
    {
        const HandlerThread thread(offering);
        EXPECT_TRUE(eventually([&] { return log.has(noFindDelegates); }));
    }
    EXPECT_THAT(log.lines(), ElementsAre(noFindDelegates));
}

TEST(SDRequestHandlerDelegatesTest, DelegatesThatAreThereAreNotWarnedOf)
{
    Poco::NotificationQueue queue;
    SDRequestHandler handler(queue);
    const Subscriber subscriber(handler);
    const LogCatcher log;
    queue.enqueueNotification(new SDMessageNotification(Packets::datagram(Packets::find("Media"))));
    {
        const HandlerThread thread(handler);
        ASSERT_TRUE(handlesAll(queue));
    }

    EXPECT_THAT(log.warnings(), IsEmpty());
}

// What the wire format never yields

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
