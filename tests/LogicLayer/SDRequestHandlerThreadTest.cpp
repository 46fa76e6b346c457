#include "RequestHandlerFixture.h"
#include "support/Process.h"
#include "support/Throwing.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::packet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDRequestHandlerThreadTest = RequestHandlerFixture;

constexpr auto noFindDelegates =
    "Warning: SDRequestHandler - found no Delegates (yet) for FindService Entries.";
constexpr auto noOfferDelegates =
    "Warning: SDRequestHandler - found no Delegates (yet) for OfferService Entries.";
constexpr auto emptyWork = "Error: SDRequestHandler - received an empty work-notification.";

/// The names of two threads on which the handler runs one after the other. Threads are named once per
/// process, so this needs a process to itself.
int namedOnlyOnce()
{
    Poco::NotificationQueue queue;
    SDRequestHandler handler(queue);
    RequestSubscriber subscriber(handler);
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

TEST_F(SDRequestHandlerThreadTest, ThreadGoesOnAfterABadDatagram)
{
    enqueue("ff ff 81 00"_bytes);
    enqueue("01 02 03"_bytes);
    enqueue(Packets::find("Media"));

    handleWaiting();

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120"));
}

TEST_F(SDRequestHandlerThreadTest, WorkThatIsNoMessageIsReportedAndTheThreadGoesOn)
{
    queue.enqueueNotification(new Poco::Notification);
    queue.enqueueNotification(new SDMessageNotification(nullptr));
    enqueue(Packets::find("Media"));

    handleWaiting();

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120"));
    EXPECT_THAT(log.complaints(), ElementsAre(emptyWork, emptyWork));
}

TEST_F(SDRequestHandlerThreadTest, SubscriberThatThrowsCostsItsEntryOnly)
{
    subscriber.onEvent = [&] { throwOneOfEachKind(subscriber.events.size()); };
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

TEST_F(SDRequestHandlerThreadTest, ShutdownLetsAWaitingThreadReturnWithoutAWord)
{
    {
        const HandlerThread thread(handler);
        enqueue(Packets::find("Media"));
        ASSERT_TRUE(eventually([&] { return log.has("Debug: run: processing 1 Entrie(s)..."); }));
        log.clear();
    }

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDRequestHandlerThreadTest, WorkThatIsLeftAtAShutdownIsDoneInTheNextRun)
{
    handle(Packets::find("Media"));
    enqueue(Packets::offer("Media"));
    EXPECT_THAT(subscriber.events, SizeIs(1));

    handleWaiting();

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120", "offer #1 TTL 120"));
}

TEST_F(SDRequestHandlerThreadTest, ThreadIsNamedOnceAProcess)
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
        void onFind(SDRequestHandler::FindServicePayload&) {}
        void onOffer(SDRequestHandler::OfferServicePayload&) {}
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
    const RequestSubscriber subscriber(handler);
    const LogCatcher log;
    queue.enqueueNotification(new SDMessageNotification(Packets::datagram(Packets::find("Media"))));
    {
        const HandlerThread thread(handler);
        ASSERT_TRUE(handlesAll(queue));
    }

    EXPECT_THAT(log.warnings(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
