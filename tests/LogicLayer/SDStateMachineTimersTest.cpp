#include "WorkersFixture.h"
#include "support/Process.h"
#include "support/Waiting.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

namespace {

/// A state machine with its real timers. Each test starts it.
struct SDStateMachineTimersTest : StateMachineFixture
{
    ~SDStateMachineTimersTest() override { machine.stop(); }

    bool eventuallySent(const std::string& name, std::size_t count)
    {
        return eventually([&] { return engine.hub.sent(name).size() >= count; });
    }
};

/// Names of the threads on which a machine announces a service, up to its first periodic offer.
std::set<std::string> announcingThreads()
{
    EngineFixture engine;
    std::mutex mutex;
    std::set<std::string> found;
    engine.hub.onAnnounce = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        found.insert(threadName());
    };
    TestStateMachine machine(engine.hub);
    machine.start();
    machine.handle(Event::HTTP_PUT, makeService("Media"));
    const bool isPeriodic = eventually([&] {
        const auto sent = engine.hub.sent();
        return !sent.empty() && sent.back().isBatch;
    });
    machine.stop();
    return isPeriodic ? found : std::set<std::string>();
}

/// Threads are named once per process, so this needs a process to itself.
int namedOnlyOnce()
{
    const std::set<std::string> first = announcingThreads();
    const std::set<std::string> again = announcingThreads();
    const bool namedFirst = first.count("SdAperWork") == 1 && first.count("SdPerWork") == 1;
    const bool namedAgain = again.empty() || again.count("SdAperWork") != 0 || again.count("SdPerWork") != 0;
    return namedFirst && !namedAgain ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

TEST_F(SDStateMachineTimersTest, StartAndStopAreLogged)
{
    EXPECT_FALSE(machine.isRunning());

    machine.start();
    EXPECT_TRUE(machine.isRunning());
    machine.stop();
    EXPECT_FALSE(machine.isRunning());

    EXPECT_THAT(log.debugs(), ElementsAre("Debug: SDStateMachine::start", "Debug: SDStateMachine::stop"));
}

TEST_F(SDStateMachineTimersTest, AddedServiceIsSentFourTimesAndThenInOneBatchASecond)
{
    const Poco::Clock begin = SDClock::now();
    machine.start();
    machine.handle(Event::HTTP_PUT, makeService("Media"));

    ASSERT_TRUE(eventuallySent("Media", 7));

    const auto sent = engine.hub.sent();
    const Poco::Clock::ClockDiff earliest[] = {0, 100, 300, 700, 1000, 2000, 3000};
    for (std::size_t i = 0; i < 7; ++i) {
        SCOPED_TRACE(i);
        // Poco's timer may fire up to a millisecond early in each second.
        const Poco::Clock::ClockDiff early = i < 4 ? 0 : 10 * millisecond;
        EXPECT_GE(sent[i].time - begin, earliest[i] * millisecond - early);
        EXPECT_EQ(sent[i].isBatch, i >= 4);
        EXPECT_EQ(sent[i].call, i + 1);
    }
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDStateMachineTimersTest, RecordsAddedBeforeTheStartAreSentAfterIt)
{
    machine.handle(Event::HTTP_PUT, makeService("Media"));
    machine.handle(Event::HTTP_GET, makeService("Navi"));
    EXPECT_THAT(engine.hub.sent(), IsEmpty());

    machine.start();

    EXPECT_TRUE(eventuallySent("Media", 1));
    EXPECT_TRUE(eventuallySent("Navi", 1));
}

TEST_F(SDStateMachineTimersTest, RecordsThatAreDueAtOnceGoOutAMillisecondApartInTheOrderOfInsertion)
{
    const Poco::Clock due = SDClock::now();
    std::vector<std::string> order;
    for (int i = 0; i < 100; ++i) {
        order.push_back("Service" + std::to_string(i));
        machine.m_aperiodicWorkload.emplace(due, makeRecord(Type::ANNOUNCED, State::ONCE, order.back()));
    }

    machine.start();

    ASSERT_TRUE(eventuallySent(order.back(), 1));
    const auto sent = engine.hub.sent();
    EXPECT_EQ(names(sent), order);
    for (std::size_t i = 1; i < sent.size(); ++i)
        EXPECT_GE(sent[i].time - sent[i - 1].time, 1 * millisecond);
}

TEST_F(SDStateMachineTimersTest, ParkedTimerSleepsUntilTheNextRecordSetsIt)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Radio"));
    machine.start();
    ASSERT_TRUE(eventually(
        [&] { return log.has("Debug: SDStateMachine - \"AperiodicWorker\" event timer stopped "); }));
    log.clear();
    EXPECT_TRUE(keeps([&] { return !log.has("Trace: AperiodicWorker::unsafe_update"); },
                      std::chrono::milliseconds(50)))
        << "the worker sleeps";

    machine.handle(Event::HTTP_PUT, makeService("Navi"));

    EXPECT_TRUE(eventuallySent("Navi", 4));
    EXPECT_THAT(engine.hub.sent("Media"), SizeIs(1));
}

TEST_F(SDStateMachineTimersTest, AnswerGoesOutAfter50MillisecondsBesideTheOtherSends)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));
    machine.start();
    ASSERT_TRUE(eventuallySent("Media", 1));
    const Poco::Clock begin = SDClock::now();

    machine.handle(Event::SOMEIP_FIND, makeService("Media"));

    const auto isAnswer = [](const RecordingHub::Sent& one) { return !one.isBatch; };
    ASSERT_TRUE(eventually([&] {
        const auto sent = engine.hub.sent();
        return std::any_of(sent.begin(), sent.end(), isAnswer);
    }));
    const auto sent = engine.hub.sent();
    EXPECT_GE(std::find_if(sent.begin(), sent.end(), isAnswer)->time - begin, 50 * millisecond);
}

TEST_F(SDStateMachineTimersTest, StopSendsOneStopOfferForPeriodicServicesAndNoneForTheOthers)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, "Navi"), hour);
    machine.start();
    ASSERT_TRUE(eventuallySent("Media", 1));

    machine.stop();

    const auto sent = engine.hub.sent();
    EXPECT_EQ(std::count_if(sent.begin(), sent.end(),
                            [](const RecordingHub::Sent& one) { return one.record.getTTL() == 0; }),
              1);
    EXPECT_EQ(engine.hub.sent("Media").back().record.getTTL(), 0u);
    EXPECT_THAT(engine.hub.sent("Navi"), IsEmpty());
    EXPECT_THAT(log.notices(), ElementsAre(stoppedMedia));
}

TEST_F(SDStateMachineTimersTest, NothingIsSentAfterTheStop)
{
    machine.start();
    machine.handle(Event::HTTP_PUT, makeService("Media"));
    ASSERT_TRUE(eventuallySent("Media", 1));

    machine.stop();
    const std::size_t sentBefore = engine.hub.sent().size();
    machine.handle(Event::HTTP_PUT, makeService("Navi"));

    EXPECT_TRUE(
        keeps([&] { return engine.hub.sent().size() == sentBefore; }, std::chrono::milliseconds(300)));
}

TEST_F(SDStateMachineTimersTest, MachineThatWasStoppedCanBeStartedAgain)
{
    machine.start();
    machine.stop();
    machine.handle(Event::HTTP_PUT, makeService("Media"));

    machine.start();

    EXPECT_TRUE(eventuallySent("Media", 5));
    EXPECT_TRUE(machine.isRunning());
}

TEST_F(SDStateMachineTimersTest, MachineThatGoesStopsItsTimers)
{
    {
        TestStateMachine other(engine.hub);
        other.start();
        other.handle(Event::HTTP_PUT, makeService("Media"));
        ASSERT_TRUE(eventuallySent("Media", 1));
    }
    const std::size_t sentBefore = engine.hub.sent().size();

    EXPECT_TRUE(
        keeps([&] { return engine.hub.sent().size() == sentBefore; }, std::chrono::milliseconds(300)));
}

TEST_F(SDStateMachineTimersTest, PeriodicIntervalsThatPassDuringALongTickAreReportedAsSkipped)
{
    machine.start();
    ASSERT_TRUE(
        eventually([&] { return log.has("Trace: AperiodicWorker::onInterval - 0 services in list"); }));
    {
        Poco::FastMutex::ScopedLock lock(machine.m_workloadMutex);
        const Poco::Clock begin;
        eventually([&] { return begin.isElapsed(22 * second / 10); });
    }

    ASSERT_TRUE(eventually([&] { return !log.warnings().empty(); }));

    EXPECT_THAT(log.warnings().front(),
                MatchesRegex("Warning: SDStateMachine - [1-9] skipped announcement timer events"));
}

TEST_F(SDStateMachineTimersTest, SubscriberThatThrowsDoesNotEndThePeriodicThread)
{
    engine.registry.onEvent = [](auto&) { throw 42; };
    SDService::Ptr expired = makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Gone");
    expired->setTTL(0);
    machine.putPeriodic(expired);
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));

    machine.start();

    EXPECT_TRUE(eventuallySent("Media", 3)) << "the third interval is the first in which services expire";
    EXPECT_TRUE(eventually([&] { return !log.errors().empty(); }));
    EXPECT_THAT(
        log.errors(),
        ElementsAre("Error: SDStateMachine - \"PeriodicWorker\" caught exception: unknown exception"));
}

TEST(SDStateMachineThreadsTest, TimerThreadsAreNamedOnceAProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(std::exit(namedOnlyOnce()), ::testing::ExitedWithCode(EXIT_SUCCESS), "");
}

}  // namespace Nubo::ServiceDiscovery::Testing
