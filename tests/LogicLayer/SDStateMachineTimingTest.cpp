// Times at which the workers handle due records. They are tested in two ways: by the interval to which a
// worker sets its timer, to the millisecond, and with real timers, within bounds that a busy machine keeps.

#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"
#include "support/Waiting.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Event = TestStateMachine::Event;
using State = SDService::State;
using Type = SDService::Type;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::SizeIs;

namespace {

using Microseconds = Poco::Clock::ClockDiff;

constexpr Microseconds millisecond = 1000;
constexpr Microseconds second = 1000 * millisecond;
constexpr Microseconds hour = 3600 * second;
constexpr long parked = 2147483647;

Microseconds median(std::vector<Microseconds> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// The times between a service's sends.
std::vector<Microseconds> gaps(const std::vector<RecordingHub::Sent>& sent)
{
    std::vector<Microseconds> result;
    for (std::size_t i = 1; i < sent.size(); ++i)
        result.push_back(sent[i].time - sent[i - 1].time);
    return result;
}

/// A state machine whose aperiodic timer runs and is parked, so that it can be set.
struct SDStateMachineIntervalsTest : ::testing::Test
{
    SDStateMachineIntervalsTest()
    {
        machine.m_running = true;
        machine.m_aperiodicWorker.start();
        EXPECT_TRUE(eventually(
            [&] { return log.has("Debug: SDStateMachine - \"AperiodicWorker\" event timer stopped "); }));
        log.onLine([this](const std::string& line) {
            if (line.find("event timer set to") != std::string::npos)
                intervals.push_back(machine.aperiodicTimer().getPeriodicInterval());
        });
    }
    ~SDStateMachineIntervalsTest() override
    {
        machine.stop();
        log.onLine(nullptr);
    }

    EngineFixture engine;
    LogCatcher log;
    TestStateMachine machine{engine.hub};
    /// The interval of each setting of the timer, in milliseconds. Guarded by the workload mutex.
    std::vector<long> intervals;
};

/// State machines with real timers.
struct SDStateMachineTimingTest : ::testing::Test
{
    bool eventuallySent(const std::string& name, std::size_t count)
    {
        return eventually([&] { return engine.hub.sent(name).size() >= count; });
    }

    EngineFixture engine;
    LogCatcher log;
};

}  // namespace

TEST_F(SDStateMachineTimingTest, BothTimersBeginAtOnceAndTheWorkloadsDecideWhatFollows)
{
    const TestStateMachine machine(engine.hub);

    EXPECT_EQ(machine.aperiodicTimer().getStartInterval(), 0);
    EXPECT_EQ(machine.aperiodicTimer().getPeriodicInterval(), parked);
    EXPECT_EQ(machine.periodicTimer().getStartInterval(), 0);
    EXPECT_EQ(machine.periodicTimer().getPeriodicInterval(), 1000);
}

TEST_F(SDStateMachineIntervalsTest, TimerIsSetToTheWholeMillisecondsOfTheWaitRoundedUp)
{
    const std::lock_guard<Poco::FastMutex> lock(machine.m_workloadMutex);
    const Poco::Clock due = SDClock::now() + hour;
    machine.m_aperiodicWorkload.emplace(due, makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE));
    const auto roundedUp = [](Microseconds wait) { return (wait + millisecond - 1) / millisecond; };

    Poco::Clock before;
    Poco::Clock after;
    // Repeats until the clock readings before and after fall into the same millisecond, not on its edge.
    const bool isMeasured = eventually([&] {
        before = SDClock::now();
        machine.m_aperiodicWorker.unsafe_update();
        after = SDClock::now();
        return roundedUp(due - before) == roundedUp(due - after) && (due - before) % millisecond != 0;
    });

    ASSERT_TRUE(isMeasured);
    EXPECT_EQ(intervals.back(), roundedUp(due - after));
}

TEST_F(SDStateMachineIntervalsTest, TimerIsSetToAMillisecondForWhatIsOverdue)
{
    const std::lock_guard<Poco::FastMutex> lock(machine.m_workloadMutex);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE), -hour);

    machine.m_aperiodicWorker.unsafe_update();

    EXPECT_THAT(intervals, ElementsAre(1));
}

TEST_F(SDStateMachineIntervalsTest, FurtherRecordThatIsDueWaitsAMillisecondForItsInterval)
{
    {
        const std::lock_guard<Poco::FastMutex> lock(machine.m_workloadMutex);
        machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE), -hour);
        machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE), -hour);
        machine.m_aperiodicWorker.unsafe_update();
    }

    ASSERT_TRUE(eventually([&] { return engine.hub.sent("Media").size() == 2; }));
    const std::lock_guard<Poco::FastMutex> lock(machine.m_workloadMutex);
    EXPECT_THAT(intervals, ElementsAre(1, 1));
    EXPECT_EQ(machine.aperiodicTimer().getPeriodicInterval(), parked) << "nothing is left to do";
}

TEST_F(SDStateMachineIntervalsTest, TimerIsSetToAMillisecondForASearchThatIsBegunAnew)
{
    {
        const std::lock_guard<Poco::FastMutex> lock(machine.m_workloadMutex);
        machine.putAperiodic(makeRecord(Type::WANTED, State::REPETITION_PHASE), hour);
    }

    EXPECT_TRUE(machine.handle(Event::HTTP_GET, new SDService("Media")));

    const std::lock_guard<Poco::FastMutex> lock(machine.m_workloadMutex);
    EXPECT_EQ(intervals.front(), 1);
}

TEST_F(SDStateMachineTimingTest, StopHasClearedTheFlagWhenItWithdraws)
{
    TestStateMachine machine(engine.hub);
    machine.run();
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));
    std::vector<bool> wasRunning;
    engine.hub.onAnnounce = [&] { wasRunning.push_back(machine.isRunning()); };

    machine.stop();

    EXPECT_THAT(wasRunning, ElementsAre(false));
}

TEST_F(SDStateMachineTimingTest, AddedServiceIsSentAt0And100And300And700Milliseconds)
{
    constexpr int number = 10;
    std::vector<std::unique_ptr<TestStateMachine>> machines;
    std::vector<Microseconds> after[4];  // for each send, the times of all machines

    // They begin one after the other, so that a delay on a busy computer affects few of them.
    std::vector<Poco::Clock> begins;
    for (int i = 0; i < number; ++i) {
        const std::string name = "Service" + std::to_string(i);
        machines.push_back(std::make_unique<TestStateMachine>(engine.hub));
        machines.back()->start();
        begins.push_back(SDClock::now());
        machines.back()->handle(Event::HTTP_PUT, makeService(name));
        ASSERT_TRUE(eventuallySent(name, 2));
    }
    for (std::size_t i = 0; i < number; ++i) {
        const std::string name = "Service" + std::to_string(i);
        ASSERT_TRUE(eventuallySent(name, 4));
        const auto sent = engine.hub.sent(name);
        for (std::size_t send = 0; send < 4; ++send)
            after[send].push_back(sent[send].time - begins[i]);
    }

    constexpr Microseconds busy = 30 * millisecond;  // until a thread gets the processor
    constexpr Microseconds due[] = {0, 100 * millisecond, 300 * millisecond, 700 * millisecond};
    for (std::size_t send = 0; send < 4; ++send) {
        SCOPED_TRACE(send);
        EXPECT_THAT(median(after[send]), AllOf(Ge(due[send]), Le(due[send] * 13 / 10 + busy)));
    }
}

TEST_F(SDStateMachineTimingTest, CyclicOffersGoOutASecondApart)
{
    TestStateMachine machine(engine.hub);
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));

    machine.start();
    ASSERT_TRUE(eventuallySent("Media", 4));
    machine.stop();

    auto sent = engine.hub.sent("Media");
    sent.resize(4, sent.front());  // without the stop-offer
    EXPECT_THAT(median(gaps(sent)), AllOf(Ge(950 * millisecond), Le(1050 * millisecond)));
}

TEST_F(SDStateMachineTimingTest, RecordsThatAreDueAtOnceGoOutAMillisecondApart)
{
    TestStateMachine machine(engine.hub);
    for (int i = 0; i < 100; ++i)
        machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE));

    machine.start();

    ASSERT_TRUE(eventuallySent("Media", 100));
    EXPECT_THAT(median(gaps(engine.hub.sent())), AllOf(Ge(1 * millisecond), Le(10 * millisecond)));
}

TEST_F(SDStateMachineTimingTest, NeitherWorkerDoesAnythingAfterTheStop)
{
    TestStateMachine machine(engine.hub);
    machine.start();
    machine.handle(Event::HTTP_PUT, makeService("Media"));
    ASSERT_TRUE(eventuallySent("Media", 1));

    machine.stop();
    log.clear();
    {
        const std::lock_guard<Poco::FastMutex> lock(machine.m_workloadMutex);
        SDService::Ptr expired = makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Gone");
        expired->setTTL(0);
        machine.putPeriodic(expired);
    }

    ASSERT_THAT(summaries(machine.aperiodic()), SizeIs(1)) << "there is something for both to do";
    EXPECT_TRUE(keeps([&] { return log.lines().empty(); }, std::chrono::milliseconds(1200)));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(engine.registry.gone("Gone"), 0u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
