#include "DataLayer/SDClock.h"
#include "IntervalFixture.h"
#include "support/OfferedRecords.h"
#include "support/Times.h"
#include "support/Waiting.h"

#include <Poco/Net/SocketAddress.h>
#include <Poco/Thread.h>

#include <chrono>
#include <cstddef>
#include <thread>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Milliseconds = std::chrono::duration<double, std::milli>;

namespace {

/// Nothing was received for a while, although other units went on offering.
struct LateIntervalTest : IntervalFixture
{
    LateIntervalTest()
    {
        machine.periodicTick();  // the previous interval
        EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Foreign", 1, 1, 3)));
    }

    void tickAfter(Poco::Clock::ClockDiff microseconds)
    {
        turnTo(last, microseconds);
        last = SDClock::now();
        machine.periodicTick();
    }

    std::size_t gone() const { return engine.registry.gone("Foreign"); }

    Poco::Clock last = SDClock::now();
};

}  // namespace

TEST_F(LateIntervalTest, OffersAndTakesNothingForGone)
{
    tickAfter(10 * second);

    EXPECT_EQ(offersOfOwn(), 2u);
    EXPECT_EQ(gone(), 0u);
}

TEST_F(LateIntervalTest, TakesForGoneWhatIsNotOfferedInACycleAndATenth)
{
    tickAfter(10 * second);

    tickAfter(1050 * millisecond);
    EXPECT_EQ(gone(), 0u);

    tickAfter(100 * millisecond);
    EXPECT_EQ(gone(), 1u);
}

TEST_F(LateIntervalTest, KeepsWhatIsOfferedAgainMeanwhile)
{
    tickAfter(10 * second);
    EXPECT_TRUE(machine.renew(*makeOffer("Foreign", 1, 1, 3)));

    tickAfter(1200 * millisecond);

    EXPECT_EQ(gone(), 0u);
    EXPECT_EQ(known(), 1u);
}

TEST_F(LateIntervalTest, IsAlsoOneThatHadToWaitForASubscriber)
{
    std::thread interval;
    engine.registry.onEvent = [&](auto&) {
        interval = std::thread([&] { machine.periodicTick(); });
        Poco::Thread::sleep(100);  // by then it waits for the mutex
        SDClock::turn(10 * second);
    };

    EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Other", 2, 1, 3)));
    engine.registry.onEvent = nullptr;
    interval.join();

    EXPECT_EQ(gone(), 0u);
}

TEST_F(LateIntervalTest, IsAlsoTheFirstOneAfterAStart)
{
    SDClock::turn(10 * second);

    machine.start();
    EXPECT_TRUE(eventually([&] { return offersOfOwn() == 2; }));
    machine.stop();

    EXPECT_EQ(gone(), 0u);
}

/// The time between the start and the second interval is shorter than a cycle plus the delay that an offer
/// may have.
TEST_F(LateIntervalTest, IsAlsoTheSecondOneAfterAStart)
{
    SDClock::turn(10 * second);

    machine.start();
    EXPECT_TRUE(eventually([&] { return offersOfOwn() == 3; }));
    EXPECT_TRUE(keeps([&] { return gone() == 0; }, std::chrono::milliseconds(300)));
    EXPECT_TRUE(eventually([&] { return gone() == 1; }));
    machine.stop();
}

TEST_F(LateIntervalTest, IsOneThatBeginsMoreThanATenthOfASecondAfterItsTime)
{
    for (int i = 0; i < 3; ++i)
        tickAfter(1090 * millisecond);
    EXPECT_EQ(gone(), 1u);

    EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Foreign", 1, 1, 3)));
    tickAfter(1000 * millisecond);
    tickAfter(1000 * millisecond);
    tickAfter(1110 * millisecond);
    EXPECT_EQ(gone(), 1u) << "not the second time";
}

/// The previous interval has dealt with services that had expired by then; those that expired later may have
/// been offered again meanwhile.
TEST_F(LateIntervalTest, SparesWhatHasRunOutSinceTheIntervalBefore)
{
    EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Short", 2, 1, 1)));
    tickAfter(500 * millisecond);

    tickAfter(1500 * millisecond);

    EXPECT_EQ(engine.registry.gone("Short"), 0u);
}

TEST_F(LateIntervalTest, SparesOnceMoreWhatTheOneBeforeSparedAMomentAgo)
{
    tickAfter(5 * second);

    tickAfter(5100 * millisecond);
    tickAfter(1000 * millisecond);
    EXPECT_EQ(gone(), 0u);

    tickAfter(1000 * millisecond);
    EXPECT_EQ(gone(), 1u);
}

TEST_F(LateIntervalTest, SparesNothingFromBeforeWhenTheOthersWereHeardSince)
{
    EXPECT_TRUE(machine.renew(*makeOffer("Foreign", 1, 1, 8)));
    EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Other", 2, 1, 12)));
    tickAfter(5 * second);
    tickAfter(1000 * millisecond);
    tickAfter(1090 * millisecond);
    tickAfter(1090 * millisecond);

    tickAfter(5 * second);

    EXPECT_EQ(gone(), 1u) << "ran out before the interval before";
    EXPECT_EQ(engine.registry.gone("Other"), 0u);
}

/// Otherwise a subscriber that is always slow would keep services forever.
TEST_F(LateIntervalTest, KeepsNothingForMoreThanTenSecondsWhenEachOneIsLate)
{
    const Poco::Clock offered = SDClock::now();
    const auto seconds = [&] { return static_cast<double>(SDClock::now() - offered) / second; };
    while (seconds() < 10)
        tickAfter(1500 * millisecond);
    EXPECT_EQ(gone(), 0u);

    while (seconds() < 13)
        tickAfter(1500 * millisecond);

    EXPECT_EQ(gone(), 1u);
}

TEST_F(LateIntervalTest, SparesAgainAfterTwoLongFreezes)
{
    tickAfter(30 * second);

    tickAfter(30 * second);

    EXPECT_EQ(gone(), 0u);
}

TEST_F(LateIntervalTest, LeavesWhatHasRunOutToTheNextWhenASubscriberHangsBetweenOffersAndExpiry)
{
    std::thread event;
    engine.registry.onEvent = [&](auto& payload) {
        if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_DISCOVERED)
            SDClock::turn(4 * second);
    };
    engine.hub.onAnnounce = [&] {
        event = std::thread(
            [&] { EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Other", 2, 1, 300))); });
        Poco::Thread::sleep(100);  // by then it waits for the mutex, and will get it next
    };

    tickAfter(1000 * millisecond);
    event.join();

    EXPECT_EQ(gone(), 0u);
}

namespace {

/// A received datagram waits to be handled when the interval begins.
struct WaitingDatagramTest : IntervalFixture
{
    WaitingDatagramTest()
    {
        EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Living", 1, 1, 1)));
        Multicast::MulticastDataPtr datagram = new Multicast::MulticastReceiver::MulticastData(
            "offer", 5, Poco::Net::SocketAddress("[fd00::2]:30491"));
        engine.hub.onMessageReceived(datagram);
        SDClock::turn(1 * second);
    }
    ~WaitingDatagramTest() override { engine.hub.m_requestHandlerQueue.clear(); }

    /// Does what the request handler does with the datagram.
    void handle()
    {
        EXPECT_TRUE(machine.renew(*makeOffer("Living", 1, 1, 1)));
        engine.hub.m_requestHandlerQueue.clear();
    }

    std::size_t gone() const { return engine.registry.gone("Living"); }
};

}  // namespace

TEST_F(WaitingDatagramTest, IsHandledBeforeAnythingIsTakenForGone)
{
    std::thread handler;
    engine.hub.onAnnounce = [&] {
        handler = std::thread([&] {
            Poco::Thread::sleep(5);
            handle();
        });
    };

    machine.periodicTick();
    handler.join();
    EXPECT_EQ(gone(), 0u);

    engine.hub.onAnnounce = nullptr;
    SDClock::turn(1050 * millisecond);
    machine.periodicTick();
    EXPECT_EQ(gone(), 1u) << "the interval before was none that is late";
}

TEST_F(WaitingDatagramTest, MakesTheIntervalALateOneWhenItIsNotHandledInTime)
{
    machine.periodicTick();
    EXPECT_EQ(gone(), 0u);
    EXPECT_EQ(offersOfOwn(), 1u);

    engine.hub.m_requestHandlerQueue.clear();
    SDClock::turn(900 * millisecond);
    machine.periodicTick();
    EXPECT_EQ(gone(), 0u);

    SDClock::turn(1000 * millisecond);
    machine.periodicTick();
    EXPECT_EQ(gone(), 1u);
}

TEST_F(WaitingDatagramTest, LetsTheOwnOffersGoOutAtOnce)
{
    const auto begin = std::chrono::steady_clock::now();
    Milliseconds untilOffered{0};
    engine.hub.onAnnounce = [&] { untilOffered = std::chrono::steady_clock::now() - begin; };

    machine.periodicTick();
    const Milliseconds interval = std::chrono::steady_clock::now() - begin;

    EXPECT_GE(interval.count(), 50);
    EXPECT_LE(untilOffered.count(), interval.count() - 45);
}

}  // namespace Nubo::ServiceDiscovery::Testing
