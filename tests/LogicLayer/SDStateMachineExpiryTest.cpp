#include "DataLayer/SDClock.h"
#include "IntervalFixture.h"
#include "support/Descriptions.h"
#include "support/OfferedRecords.h"
#include "support/Packets.h"
#include "support/PlantedHash.h"
#include "support/Platform.h"
#include "support/Process.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"
#include "support/Times.h"
#include "support/Waiting.h"

#include <Poco/Delegate.h>
#include <Poco/Mutex.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Milliseconds = std::chrono::duration<double, std::milli>;
using ::testing::AllOf;
using ::testing::Ge;
using ::testing::Le;

namespace {

Milliseconds durationOf(const std::function<void()>& call)
{
    const auto begin = std::chrono::steady_clock::now();
    call();
    return std::chrono::steady_clock::now() - begin;
}

struct SDStateMachineExpiryTest : IntervalFixture
{
    /// Makes `count` services known whose time-to-live runs out in a second.
    void know(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            SDService::Ptr service =
                makeDiscovered("Foreign" + std::to_string(i % 32), static_cast<unsigned short>(i), 1);
            service->setTTL(1);
            machine.putPeriodic(service);
        }
    }
};

/// Calls the machine over and over on a separate thread, as callers and the network do.
class Caller
{
public:
    /// `progress` returns how far the work that holds the mutex has advanced.
    Caller(const TestStateMachine& machine, std::function<std::size_t()> progress)
        : m_thread([this, &machine, work = std::move(progress)] {
            while (!m_isOver) {
                const std::size_t before = work();
                machine.getServices();
                m_longestWait = std::max(m_longestWait, work() - before);
            }
        })
    {}
    ~Caller() { end(); }

    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    /// Returns the largest progress during one call.
    std::size_t end()
    {
        m_isOver = true;
        if (m_thread.joinable())
            m_thread.join();
        return m_longestWait;
    }

private:
    std::atomic<bool> m_isOver{false};
    std::size_t m_longestWait = 0;
    std::thread m_thread;
};

}  // namespace

TEST_F(SDStateMachineExpiryTest, OwnOffersGoOutBeforeAnythingIsTold)
{
    know(10);
    std::vector<std::size_t> offersAtEvents;
    engine.registry.onEvent = [&](const auto&) { offersAtEvents.push_back(offersOfOwn()); };
    SDClock::turn(2 * second);

    machine.periodicTick();

    EXPECT_EQ(offersAtEvents, std::vector<std::size_t>(10, 1));
}

TEST_F(SDStateMachineExpiryTest, SubscriberThatTakesLongLeavesTheRestToTheNextIntervals)
{
    constexpr std::size_t count = 2000;
    know(count);
    engine.registry.onEvent = [](const auto&) { SDClock::turn(millisecond); };
    SDClock::turn(2 * second);

    machine.periodicTick();
    EXPECT_THAT(engine.registry.eventCount(), AllOf(Ge(100u), Le(910u)));
    EXPECT_EQ(known(), count - engine.registry.eventCount());

    std::size_t ticks = 1;
    for (; known() != 0 && ticks < 50; ++ticks) {
        const std::size_t before = engine.registry.eventCount();
        machine.periodicTick();
        EXPECT_LE(engine.registry.eventCount() - before, 910u);
    }
    EXPECT_EQ(offersOfOwn(), ticks) << "once per interval";
    EXPECT_EQ(engine.registry.eventCount(), count) << "each is told once";
    EXPECT_EQ(known(), 0u);
}

TEST_F(SDStateMachineExpiryTest, ServiceThatIsOfferedBeforeTheRestIsLookedAtStays)
{
    know(1500);
    engine.registry.onEvent = [](const auto&) { SDClock::turn(millisecond); };
    SDClock::turn(2 * second);
    machine.periodicTick();
    const SDService::Ptr last = machine.m_periodicWorkload.back();
    ASSERT_FALSE(last->getType() == Type::ANNOUNCED);

    EXPECT_TRUE(machine.renew(*makeOffer("Foreign" + std::to_string(1499 % 32), 1499, 1, 120)));
    for (int tick = 0; tick < 50 && known() > 1; ++tick)
        machine.periodicTick();

    EXPECT_EQ(known(), 1u);
    EXPECT_EQ(machine.m_periodicWorkload.back(), last);
}

TEST_F(SDStateMachineExpiryTest, CallersHaveTheMutexNowAndThenWhileMuchRunsOut)
{
    constexpr std::size_t count = 400;
    know(count);
    engine.registry.onEvent = [](const auto&) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); };
    SDClock::turn(2 * second);

    Caller caller(machine, [&] { return engine.registry.eventCount(); });
    for (int tick = 0; tick < 50 && known() != 0; ++tick)
        machine.periodicTick();

    EXPECT_LE(caller.end(), count / 4) << "10 ms at a time";
    EXPECT_EQ(engine.registry.eventCount(), count);
}

TEST_F(SDStateMachineExpiryTest, CallersHaveTheMutexNowAndThenWhileMuchIsWithdrawn)
{
    constexpr std::size_t count = 400;
    for (std::size_t i = 1; i < count; ++i)
        machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Own" + std::to_string(i)));
    engine.hub.onAnnounce = [] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); };

    Caller caller(machine, [&] { return engine.hub.sent().size(); });
    machine.removeAllAnnouncedServices();

    EXPECT_LE(caller.end(), count / 4) << "10 ms at a time";
    EXPECT_EQ(engine.hub.sent().size(), count);
}

namespace {

/// A subscriber that stores nothing.
struct CountingRegistry
{
    explicit CountingRegistry(ServiceDiscovery& facade) : discovery(facade)
    {
        discovery.ServiceListChanged += Poco::delegate(this, &CountingRegistry::onServiceListChanged);
    }
    ~CountingRegistry()
    {
        discovery.ServiceListChanged -= Poco::delegate(this, &CountingRegistry::onServiceListChanged);
    }

    CountingRegistry(const CountingRegistry&) = delete;
    CountingRegistry& operator=(const CountingRegistry&) = delete;

    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& /*payload*/) { ++events; }

    ServiceDiscovery& discovery;
    std::size_t events = 0;
};

/// Whether a thread waits for the machine's mutex.
bool isAwaited(TestStateMachine& machine)
{
    Poco::FastMutex& turn = machine.m_turnMutex;
    if (!turn.tryLock())
        return true;
    turn.unlock();
    return false;
}

/// A caller that waits for the mutex while the first of two records is handled. Notes whether it got the
/// mutex before the second.
class WaitingCaller
{
public:
    explicit WaitingCaller(TestStateMachine& machine) : m_machine(machine) {}
    ~WaitingCaller()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

    WaitingCaller(const WaitingCaller&) = delete;
    WaitingCaller& operator=(const WaitingCaller&) = delete;

    /// Called for each record with the mutex held. The first call returns that long after `begin`.
    void work(const Poco::Clock& begin, Poco::Clock::ClockDiff duration)
    {
        if (++m_records == 1) {
            m_thread = std::thread(
                [this] { EXPECT_TRUE(m_machine.handle(Event::HTTP_GET, new SDService("Wanted"))); });
            EXPECT_TRUE(eventually([&] { return isAwaited(m_machine); }));
            turnTo(begin, duration);
        }
        else {
            m_wasServed = !m_machine.m_aperiodicWorkload.empty();
        }
    }

    bool wasServed() const { return m_wasServed; }
    int records() const { return m_records; }

private:
    TestStateMachine& m_machine;
    std::thread m_thread;
    int m_records = 0;
    bool m_wasServed = false;
};

/// Start of the time that the first record takes: before the work on the records begins, or after.
enum class Since
{
    Before,
    Begun
};

/// Handles an interval with two services that have run out, the first of which takes that long.
struct Expiry
{
    Expiry(Poco::Clock::ClockDiff duration, Since since) : caller(machine)
    {
        machine.run();
        machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Own"));
        for (unsigned short port = 1; port <= 2; ++port)
            machine.putPeriodic(makeOfferedBefore(port));
        SDClock::turn(2 * second);
        engine.hub.onAnnounce = [&] { begin = SDClock::now(); };
        engine.registry.onEvent = [&, duration, since](const auto&) {
            caller.work(since == Since::Before ? begin : SDClock::now(), duration);
        };
        machine.periodicTick();
    }

    static SDService::Ptr makeOfferedBefore(unsigned short port)
    {
        SDService::Ptr service = makeDiscovered("Foreign", port);
        service->setTTL(1);
        return service;
    }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    Poco::Clock begin;
    WaitingCaller caller;
};

/// A caller whose offer keeps the registry busy for `duration` while the other threads wait for the mutex.
class SlowOffer
{
public:
    SlowOffer(EngineFixture& engine, TestStateMachine& machine, Poco::Clock::ClockDiff duration)
        : m_machine(machine)
    {
        engine.registry.onEvent = [this, duration](const auto& payload) {
            if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_GONE) {
                ++gone;
                begin();
                return;
            }
            EXPECT_TRUE(eventually([&] { return isAwaited(m_machine); }));
            SDClock::turn(duration);
        };
    }
    ~SlowOffer() { m_thread.join(); }

    SlowOffer(const SlowOffer&) = delete;
    SlowOffer& operator=(const SlowOffer&) = delete;

    /// Call it with the mutex held: the offer comes in when the mutex is unlocked, which happens after 10 ms.
    void begin()
    {
        if (m_thread.joinable())
            return;
        m_thread =
            std::thread([this] { EXPECT_TRUE(m_machine.handle(Event::SOMEIP_OFFER, makeOffer("Slow"))); });
        EXPECT_TRUE(eventually([&] { return isAwaited(m_machine); }));
        SDClock::turn(10 * millisecond);
    }

    int gone = 0;

private:
    TestStateMachine& m_machine;
    std::thread m_thread;
};

/// The same for two services that are withdrawn.
struct Withdrawal
{
    Withdrawal(Poco::Clock::ClockDiff duration, Since since) : caller(machine)
    {
        machine.run();
        for (const char* name : {"First", "Second"})
            machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, name));
        const Poco::Clock begin = SDClock::now();
        engine.hub.onAnnounce = [&, begin, duration, since] {
            caller.work(since == Since::Before ? begin : SDClock::now(), duration);
        };
        machine.removeAllAnnouncedServices();
    }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    WaitingCaller caller;
};

}  // namespace

TEST(SDStateMachineSliceTest, MutexIsKeptForTenMillisecondsWhileMuchRunsOut)
{
    EXPECT_TRUE(inSomeRun([] { return !Expiry(9 * millisecond, Since::Before).caller.wasServed(); }));
    EXPECT_FALSE(inSomeRun([] { return !Expiry(10 * millisecond, Since::Begun).caller.wasServed(); }));
}

TEST(SDStateMachineSliceTest, MutexIsKeptForTenMillisecondsWhileMuchIsWithdrawn)
{
    EXPECT_TRUE(inSomeRun([] { return !Withdrawal(9 * millisecond, Since::Before).caller.wasServed(); }));
    EXPECT_FALSE(inSomeRun([] { return !Withdrawal(10 * millisecond, Since::Begun).caller.wasServed(); }));
}

/// Three services are withdrawn; after the first one, a caller keeps the mutex for 10 ms.
TEST(SDStateMachineSliceTest, TimeInWhichOthersHaveTheMutexIsNotCounted)
{
    EXPECT_TRUE(inSomeRun([] {
        EngineFixture engine;
        TestStateMachine machine{engine.hub};
        machine.run();
        for (const char* name : {"First", "Second", "Third"})
            machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, name));
        SlowOffer slow(engine, machine, 10 * millisecond);
        WaitingCaller next(machine);
        bool isFirst = true;
        engine.hub.onAnnounce = [&] {
            if (std::exchange(isFirst, false))
                slow.begin();
            else
                next.work(SDClock::now(), 0);
        };

        machine.removeAllAnnouncedServices();

        return !next.wasServed();
    }));
}

TEST(SDStateMachineSliceTest, NothingMoreIsToldAfterTheTimeWhenOthersHaveKeptTheMutexUntilThen)
{
    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    machine.run();
    for (unsigned short port = 1; port <= 2; ++port)
        machine.putPeriodic(Expiry::makeOfferedBefore(port));
    SDClock::turn(2 * second);
    SlowOffer slow(engine, machine, 900 * millisecond);

    machine.periodicTick();

    EXPECT_EQ(slow.gone, 1);
}

TEST(SDStateMachineSliceTest, RestIsLeftToTheNextIntervalAfter900Milliseconds)
{
    EXPECT_TRUE(inSomeRun([] { return Expiry(840 * millisecond, Since::Before).caller.records() == 2; }));
    EXPECT_FALSE(inSomeRun([] { return Expiry(900 * millisecond, Since::Begun).caller.records() == 2; }));
}

TEST(SDStateMachineFullTest, EverythingKnownRunsOutInShortIntervalsWhateverItsHashes)
{
    constexpr std::size_t places = 131072;
    const PlantedHash planted([](const void*, std::size_t) { return std::uint64_t{42}; });
    const PlatformScope platform;
    ServiceDiscovery facade;
    CountingRegistry registry(facade);
    RecordingHub hub(facade);
    TestStateMachine machine(hub);
    machine.run();
    for (int i = 0; i < 100; ++i)
        machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Own" + std::to_string(i)));
    SDService::Ptr service;
    for (std::size_t i = 0; i < places; ++i) {
        if (i % 16 == 0) {  // making records takes time
            service = makeDiscovered("Foreign" + std::to_string(i / 4096), static_cast<unsigned short>(i), 1,
                                     static_cast<unsigned short>(i % 4096));
            service->setTTL(1);
        }
        machine.putPeriodic(service);
    }
    SDClock::turn(2 * second);

    Milliseconds longest{0};
    std::size_t ticks = 0;
    for (; machine.m_index.discovered() != 0 && ticks < 100; ++ticks)
        longest = std::max(longest, durationOf([&] { machine.periodicTick(); }));

    EXPECT_EQ(machine.m_index.discovered(), 0u);
    EXPECT_EQ(registry.events, places);
    EXPECT_EQ(hub.sent("Own99").size(), ticks) << "in each interval";
    constexpr Milliseconds lateness{isSanitized ? 2000 : 250};
    EXPECT_LE(longest.count(), (Milliseconds(1000) + lateness).count()) << "until the next cyclic offers";
}

/// The process may be suspended while it looks for expired services, and then misses their offers.
TEST_F(SDStateMachineExpiryTest, OnlyThatIsTakenForGoneWhichHadRunOutWhenTheIntervalBegan)
{
    know(1);
    EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Living", 1, 1, 3)));
    engine.registry.onEvent = [](const auto&) { SDClock::turn(500 * millisecond); };
    SDClock::turn(2600 * millisecond);

    machine.periodicTick();
    EXPECT_EQ(engine.registry.eventCount(), 2u) << "one discovered, one gone";
    EXPECT_EQ(engine.registry.gone("Living"), 0u);

    machine.periodicTick();
    EXPECT_EQ(engine.registry.gone("Living"), 1u);
}

namespace {

/// The records of a machine, and the events that it raised.
struct StateAfterTest : ::testing::TestWithParam<std::string>
{
    static std::vector<std::string> stateAfter(const std::string& event, bool throws)
    {
        EngineFixture engine;
        TestStateMachine machine{engine.hub};
        machine.run();
        machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Own", "fd00::1", 8080, "own"));
        EXPECT_TRUE(machine.handle(Event::HTTP_PUT, makeService("Own", "fd00::1", 8081, "own")));
        EXPECT_TRUE(machine.handle(Event::SOMEIP_FIND, new SDService("Own")));
        for (unsigned short port = 1; port <= 2; ++port)
            EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeOffer("Foreign", port, port)));
        if (throws)
            engine.registry.onEvent = [](const auto&) { throw std::runtime_error("no"); };

        try {
            if (event == "Delete")
                machine.handle(Event::HTTP_DELETE, nullptr, "own");
            else if (event == "StopOffer")
                machine.handle(Event::SOMEIP_STOPOFFER, makeOffer("Foreign", 1, 1));
        }
        catch (const std::runtime_error&) {
        }

        std::vector<std::string> state = summaries(machine.aperiodic());
        const std::vector<std::string> periodic = summaries(machine.periodic());
        state.insert(state.end(), periodic.begin(), periodic.end());
        state.push_back(std::to_string(machine.m_index.size()) + " records");
        state.push_back(std::to_string(machine.m_index.discovered()) + " discovered");
        state.push_back(std::to_string(machine.m_index.find("Foreign")->entries) + " foreign");
        state.push_back(std::to_string(machine.indexed("uuid-1").size()) + " under the first identifier");
        return state;
    }
};

}  // namespace

TEST_P(StateAfterTest, IsTheSameWhetherTheSubscriberThrowsOrNot)
{
    const std::vector<std::string> state = stateAfter(GetParam(), false);

    EXPECT_EQ(stateAfter(GetParam(), true), state);
    EXPECT_NE(state, stateAfter("", false)) << "the event itself";
}

INSTANTIATE_TEST_SUITE_P(Events, StateAfterTest, ::testing::Values("Delete", "StopOffer"),
                         [](const auto& row) { return row.param; });

}  // namespace Nubo::ServiceDiscovery::Testing
