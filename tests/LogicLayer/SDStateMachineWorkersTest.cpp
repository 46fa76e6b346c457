#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"
#include "support/Waiting.h"

#include <Poco/Exception.h>
#include <Poco/Timer.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

namespace Nubo::ServiceDiscovery::Testing {

using Event = TestStateMachine::Event;
using State = SDService::State;
using Type = SDService::Type;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

namespace {

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff second = 1000 * millisecond;
constexpr Poco::Clock::ClockDiff hour = 3600 * second;

constexpr auto addedMedia =
    "Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
    "startet, due to addition by ServiceRegistry.";
constexpr auto searchedMedia =
    "Notice: SD Finding of Service Media startet, due to GET request to ServiceRegistry.";
constexpr auto answeredMedia =
    "Notice: SD One-Time Announcement of Service http://[fd00::1]:8080/Media/ "
    "(Media v1.0.X) startet, due to reception of FIND_SERVICE.";
constexpr auto stoppedMedia =
    "Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
    "stopped, due to shutdown of ServiceRegistry.";

/// How an announcement found its record: "Media ANNOUNCED REPETITION_PHASE #1 run 2".
std::vector<std::string> sendings(const std::vector<RecordingHub::Sent>& sent)
{
    std::vector<std::string> result;
    for (const RecordingHub::Sent& one : sent)
        result.push_back(summary(new SDService(one.record)) + " run " +
                         std::to_string(one.record.getRepetitionRun()));
    return result;
}

std::vector<std::string> names(const std::vector<RecordingHub::Sent>& sent)
{
    std::vector<std::string> result;
    for (const RecordingHub::Sent& one : sent)
        result.push_back(one.record.getNuboDescription().getName());
    return result;
}

struct SDStateMachineWorkersTest : ::testing::Test
{
    SDStateMachineWorkersTest() { machine.run(); }

    std::vector<std::string> aperiodic() const { return summaries(machine.aperiodic()); }
    std::vector<std::string> periodic() const { return summaries(machine.periodic()); }
    std::vector<std::string> sent() const { return sendings(engine.hub.sent()); }

    /// Does something that schedules a record as the first one; returns after how many milliseconds it is
    /// due at least and at most.
    template <class Action>
    std::pair<Poco::Clock::ClockDiff, Poco::Clock::ClockDiff> dueAfter(Action action)
    {
        const Poco::Clock before = SDClock::now();
        action();
        const Poco::Clock after = SDClock::now();
        const Poco::Clock due = machine.m_aperiodicWorkload.begin()->first;
        return {due - after, due - before};
    }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    LogCatcher log;
};

/// `delay` in milliseconds lies between what has passed before and after the scheduling.
MATCHER_P(Holds, delay, "")
{
    return arg.first <= delay * millisecond && arg.second >= delay * millisecond;
}

struct ScheduleCase
{
    const char* name;
    Type::Type_t type;
    State::State_t state;
    long delay;
    const char* notice;

    friend void PrintTo(const ScheduleCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineScheduleTest : SDStateMachineWorkersTest, ::testing::WithParamInterface<ScheduleCase>
{};

struct RefusalCase
{
    Type::Type_t type;
    State::State_t state;
    const char* text;

    friend void PrintTo(const RefusalCase& row, std::ostream* stream) { *stream << row.text; }
};

struct SDStateMachineRefusedScheduleTest : SDStateMachineWorkersTest,
                                           ::testing::WithParamInterface<RefusalCase>
{};

struct SDStateMachineUnexpectedAperiodicTest : SDStateMachineWorkersTest,
                                               ::testing::WithParamInterface<RefusalCase>
{};

struct SDStateMachineUnexpectedPeriodicTest : SDStateMachineWorkersTest,
                                              ::testing::WithParamInterface<RefusalCase>
{};

std::string testName(const ::testing::TestParamInfo<RefusalCase>& info)
{
    std::string text = info.param.text;
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

/// A timer that has fallen behind: its second interval passed while the first was still being worked on.
class LateTimer
{
public:
    /// Calls the function with the timer, once.
    explicit LateTimer(std::function<void(Poco::Timer&)> onLateInterval) : m_onLate(std::move(onLateInterval))
    {
        m_timer.start(Poco::TimerCallback<LateTimer>(*this, &LateTimer::onTimer));
        EXPECT_TRUE(eventually([&] { return m_isDone.load(); }));
        m_timer.stop();
    }

private:
    void onTimer(Poco::Timer& timer)
    {
        const Poco::Clock begin;
        if (timer.skipped() == 0)
            eventually([&] { return begin.isElapsed(3 * interval * millisecond); });
        else if (!m_isDone.exchange(true))
            m_onLate(timer);
    }

    static constexpr long interval = 10;  // milliseconds

    std::function<void(Poco::Timer&)> m_onLate;
    std::atomic<bool> m_isDone{false};
    Poco::Timer m_timer{0, interval};
};

}  // namespace

TEST_P(SDStateMachineScheduleTest, RecordIsScheduledWithItsDelayAndANotice)
{
    SDService::Ptr service = makeRecord(GetParam().type, GetParam().state);

    EXPECT_THAT(dueAfter([&] { EXPECT_TRUE(machine.unsafe_addAperiodicService(service)); }),
                Holds(GetParam().delay));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(service));
    EXPECT_THAT(log.notices(), ElementsAre(GetParam().notice));
    EXPECT_THAT(log.traces(), ElementsAre("Trace: AperiodicWorker::unsafe_addAperiodicService",
                                          "Trace: AperiodicWorker::unsafe_update"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDStateMachineScheduleTest,
    ::testing::Values(ScheduleCase{"Announced", Type::ANNOUNCED, State::INITIAL_WAIT_PHASE, 0, addedMedia},
                      ScheduleCase{"Wanted", Type::WANTED, State::INITIAL_WAIT_PHASE, 0, searchedMedia},
                      ScheduleCase{"AnnouncedOnce", Type::ANNOUNCED, State::ONCE, 50, answeredMedia},
                      ScheduleCase{"DiscoveredOnce", Type::DISCOVERED, State::ONCE, 50, answeredMedia}),
    [](const auto& row) { return row.param.name; });

TEST_P(SDStateMachineRefusedScheduleTest, RecordThatHasNothingToDoThereIsRefused)
{
    EXPECT_FALSE(machine.unsafe_addAperiodicService(makeRecord(GetParam().type, GetParam().state)));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::unsafe_addAperiodicService",
                                         "Error: SD failed to add Service to m_aperiodicWorkload, unexpected "
                                         "State x Type: " +
                                             std::string(GetParam().text) + "!"));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDStateMachineRefusedScheduleTest,
    ::testing::Values(RefusalCase{Type::DISCOVERED, State::INITIAL_WAIT_PHASE,
                                  "DISCOVERED x INITIAL_WAIT_PHASE"},
                      RefusalCase{Type::NONE, State::INITIAL_WAIT_PHASE, "NONE x INITIAL_WAIT_PHASE"},
                      RefusalCase{Type::ANY, State::ONCE, "ANY x ONCE"},
                      RefusalCase{Type::WANTED, State::ONCE, "WANTED x ONCE"},
                      RefusalCase{Type::WANTED, State::REPETITION_PHASE, "WANTED x REPETITION_PHASE"},
                      RefusalCase{Type::ANNOUNCED, State::REPETITION_PHASE, "ANNOUNCED x REPETITION_PHASE"},
                      RefusalCase{Type::ANNOUNCED, State::MAIN_PHASE, "ANNOUNCED x MAIN_PHASE"},
                      RefusalCase{Type::ANNOUNCED, State::SHUTDOWN_PHASE, "ANNOUNCED x SHUTDOWN_PHASE"},
                      RefusalCase{Type::ANNOUNCED, State::REMOVED, "ANNOUNCED x REMOVED"}),
    testName);

TEST_F(SDStateMachineWorkersTest, NoRecordCannotBeScheduled)
{
    EXPECT_FALSE(machine.unsafe_addAperiodicService(nullptr));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: AperiodicWorker::unsafe_addAperiodicService",
                            "Error: SD failed to add Service to m_aperiodicWorkload, service was "
                            "nullptr!"));
}

TEST_F(SDStateMachineWorkersTest, PeriodicServicesAreAppendedWithoutALookAtDuplicates)
{
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(machine.unsafe_addPeriodicService(service));
    EXPECT_TRUE(machine.unsafe_addPeriodicService(makeService("Navi")));
    EXPECT_TRUE(machine.unsafe_addPeriodicService(service));

    EXPECT_THAT(periodic(), ElementsAre("Media NONE INITIAL_WAIT_PHASE #0", "Navi NONE INITIAL_WAIT_PHASE #0",
                                        "Media NONE INITIAL_WAIT_PHASE #0"));
}

TEST_F(SDStateMachineWorkersTest, OnlyTheVeryRecordIsRemovedFromThePeriodicWorkload)
{
    const SDService::Ptr equal = makeService("Media");
    SDService::Ptr service = makeService("Media");
    machine.putPeriodic(equal);
    machine.putPeriodic(service);

    EXPECT_FALSE(machine.unsafe_removePeriodicService(makeService("Media")));
    EXPECT_TRUE(machine.unsafe_removePeriodicService(service));
    EXPECT_FALSE(machine.unsafe_removePeriodicService(service));

    EXPECT_THAT(machine.periodic(), ElementsAre(equal));
}

TEST_F(SDStateMachineWorkersTest, FirstEntryOfARecordIsRemovedFromThePeriodicWorkload)
{
    SDService::Ptr service = makeService("Media");
    const SDService::Ptr other = makeService("Navi");
    machine.putPeriodic(service);
    machine.putPeriodic(other);
    machine.putPeriodic(service);

    EXPECT_TRUE(machine.unsafe_removePeriodicService(service));

    EXPECT_THAT(machine.periodic(), ElementsAre(other, service));
}

TEST_F(SDStateMachineWorkersTest, OnlyTheVeryRecordIsRemovedFromTheAperiodicWorkload)
{
    const SDService::Ptr equal = makeService("Media");
    SDService::Ptr service = makeService("Media");
    machine.putAperiodic(equal);
    machine.putAperiodic(service);

    EXPECT_FALSE(machine.unsafe_removeAperiodicService(makeService("Media")));
    EXPECT_TRUE(machine.unsafe_removeAperiodicService(service));
    EXPECT_FALSE(machine.unsafe_removeAperiodicService(service));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(equal));
    EXPECT_THAT(log.lines(), IsEmpty()) << "the timer is not set anew";
}

TEST_F(SDStateMachineWorkersTest, EarliestEntryOfARecordIsRemovedFromTheAperiodicWorkload)
{
    SDService::Ptr service = makeService("Media");
    const SDService::Ptr other = makeService("Navi");
    machine.putAperiodic(service, 2 * hour);
    machine.putAperiodic(other, 1 * hour);
    machine.putAperiodic(service, 0);

    EXPECT_TRUE(machine.unsafe_removeAperiodicService(service));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(other, service));
}

TEST_F(SDStateMachineWorkersTest, TimerIsSetToAtLeastAMillisecond)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), -hour);

    machine.m_aperiodicWorker.update();

    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: AperiodicWorker::unsafe_update",
                            "Debug: SDStateMachine - \"AperiodicWorker\" event timer set to 1 milliseconds"));
}

TEST_F(SDStateMachineWorkersTest, TimerIsSetToTheFirstDueTimeInWholeMilliseconds)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), 2 * hour);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), hour);

    machine.m_aperiodicWorker.unsafe_update();

    // A little less than an hour is left.
    EXPECT_THAT(log.debugs(), ElementsAre(MatchesRegex("Debug: SDStateMachine - \"AperiodicWorker\" event "
                                                       "timer set to 35[0-9]{5} milliseconds")));
}

TEST_F(SDStateMachineWorkersTest, TimerWithNothingToDoIsParked)
{
    machine.m_aperiodicWorker.update();

    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::unsafe_update",
                                         "Debug: SDStateMachine - \"AperiodicWorker\" event timer stopped "));
}

TEST_F(SDStateMachineWorkersTest, TimerIsLeftAloneWhileTheMachineIsNotRunning)
{
    machine.m_running = false;
    machine.m_aperiodicWorker.update();
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE));
    machine.m_aperiodicWorker.unsafe_update();

    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::unsafe_update",
                                         "Trace: AperiodicWorker::unsafe_update"));
}

TEST_F(SDStateMachineWorkersTest, PeriodicWorkerNeedsNoUpdate)
{
    machine.m_periodicWorker.update();
    machine.m_periodicWorker.unsafe_update();

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: AperiodicWorker::update: not needed, should not be called!",
                            "Warning: AperiodicWorker::unsafe_update: not needed, should not be called!"));
}

TEST_F(SDStateMachineWorkersTest, AddedServiceIsOfferedAtOnceThenAfter100And200And400MillisecondsMore)
{
    EXPECT_THAT(dueAfter([&] { machine.handle(Event::HTTP_PUT, makeService("Media")); }), Holds(0));
    EXPECT_THAT(dueAfter([&] { machine.aperiodicTick(); }), Holds(100));
    EXPECT_THAT(sent(), SizeIs(1));

    SDClock::turn(100 * millisecond);
    EXPECT_THAT(dueAfter([&] { machine.aperiodicTick(); }), Holds(200));
    EXPECT_THAT(sent(), SizeIs(2));

    SDClock::turn(200 * millisecond);
    EXPECT_THAT(dueAfter([&] { machine.aperiodicTick(); }), Holds(400));
    EXPECT_THAT(sent(), SizeIs(3));
    EXPECT_THAT(periodic(), IsEmpty());

    SDClock::turn(400 * millisecond);
    machine.aperiodicTick();

    EXPECT_THAT(sent(), ElementsAre("Media ANNOUNCED REPETITION_PHASE #1 run 0",
                                    "Media ANNOUNCED REPETITION_PHASE #1 run 0",
                                    "Media ANNOUNCED REPETITION_PHASE #1 run 1",
                                    "Media ANNOUNCED REPETITION_PHASE #1 run 2"));
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineWorkersTest, SettledServiceIsOfferedOnceAPeriodicTick)
{
    SDService::Ptr service = makeService("Media");
    machine.handle(Event::HTTP_PUT, service);
    for (const int delay : {0, 100, 200, 400}) {
        SDClock::turn(delay * millisecond);
        machine.aperiodicTick();
    }
    engine.hub.clear();

    machine.periodicTick();
    machine.periodicTick();

    EXPECT_THAT(sent(),
                ElementsAre("Media ANNOUNCED MAIN_PHASE #1 run 0", "Media ANNOUNCED MAIN_PHASE #1 run 0"));
    EXPECT_EQ(engine.hub.sent().front().record.getTTL(), 120u);
    EXPECT_THAT(machine.periodic(), ElementsAre(service));
}

TEST_F(SDStateMachineWorkersTest, SearchIsSentAtTheSameFourInstantsAndIsOver)
{
    EXPECT_THAT(dueAfter([&] { machine.handle(Event::HTTP_GET, makeService("Media")); }), Holds(0));
    EXPECT_THAT(dueAfter([&] { machine.aperiodicTick(); }), Holds(100));
    SDClock::turn(100 * millisecond);
    EXPECT_THAT(dueAfter([&] { machine.aperiodicTick(); }), Holds(200));
    SDClock::turn(200 * millisecond);
    EXPECT_THAT(dueAfter([&] { machine.aperiodicTick(); }), Holds(400));
    SDClock::turn(400 * millisecond);
    machine.aperiodicTick();

    EXPECT_THAT(
        sent(),
        ElementsAre("Media WANTED REPETITION_PHASE #0 run 0", "Media WANTED REPETITION_PHASE #0 run 0",
                    "Media WANTED REPETITION_PHASE #0 run 1", "Media WANTED REPETITION_PHASE #0 run 2"));
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(periodic(), IsEmpty());
}

TEST_F(SDStateMachineWorkersTest, AnswerIsSentOnceAfter50Milliseconds)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));
    EXPECT_THAT(dueAfter([&] { machine.handle(Event::SOMEIP_FIND, makeService("Media")); }), Holds(50));
    SDClock::turn(50 * millisecond);

    machine.aperiodicTick();
    machine.aperiodicTick();

    EXPECT_THAT(sent(), ElementsAre("Media ANNOUNCED ONCE #1 run 0"));
    EXPECT_FALSE(engine.hub.sent().front().isBatch);
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineWorkersTest, NothingIsSentBeforeItIsDue)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), hour);

    machine.aperiodicTick();
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));

    SDClock::turn(hour);
    machine.aperiodicTick();
    EXPECT_THAT(sent(), SizeIs(1));
}

TEST_F(SDStateMachineWorkersTest, OneRecordIsHandledATickInTheOrderOfInsertion)
{
    const Poco::Clock due = SDClock::now();
    machine.m_aperiodicWorkload.emplace(due, makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE, "First"));
    machine.m_aperiodicWorkload.emplace(due, makeRecord(Type::WANTED, State::INITIAL_WAIT_PHASE, "Second"));
    machine.m_aperiodicWorkload.emplace(due, makeRecord(Type::ANNOUNCED, State::ONCE, "Third"));

    machine.aperiodicTick();
    EXPECT_THAT(names(engine.hub.sent()), ElementsAre("First"));

    machine.aperiodicTick();
    EXPECT_THAT(names(engine.hub.sent()), ElementsAre("First", "Second"));

    machine.aperiodicTick();
    EXPECT_THAT(names(engine.hub.sent()), ElementsAre("First", "Second", "Third"));
}

TEST_F(SDStateMachineWorkersTest, RecordThatIsDueEarlierIsHandledFirst)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Later"), -second);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Earlier"), -hour);

    machine.aperiodicTick();

    EXPECT_THAT(names(engine.hub.sent()), ElementsAre("Earlier"));
}

TEST_F(SDStateMachineWorkersTest, AperiodicTickCountsItsRecordsAndSetsTheTimer)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE));

    machine.aperiodicTick();
    machine.aperiodicTick();

    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: AperiodicWorker::onInterval - 2 services in list",
                            "Trace: AperiodicWorker::unsafe_update",
                            "Debug: SDStateMachine - \"AperiodicWorker\" event timer set to 1 milliseconds",
                            "Trace: AperiodicWorker::onInterval - 1 services in list",
                            "Trace: AperiodicWorker::unsafe_update",
                            "Debug: SDStateMachine - \"AperiodicWorker\" event timer stopped "));
}

TEST_F(SDStateMachineWorkersTest, AperiodicTickDropsNullEntriesAtTheFront)
{
    machine.putAperiodic(nullptr, -hour);
    machine.putAperiodic(nullptr, -hour);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE), -second);
    machine.putAperiodic(nullptr, hour);

    machine.aperiodicTick();

    EXPECT_THAT(sent(), SizeIs(1));
    EXPECT_THAT(aperiodic(), ElementsAre("nullptr"));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: AperiodicWorker::onInterval found aperiodic Service nullptr!",
                            "Error: AperiodicWorker::onInterval found aperiodic Service nullptr!"));
}

TEST_P(SDStateMachineUnexpectedAperiodicTest, RecordIsReportedAndDroppedUnsent)
{
    machine.putAperiodic(makeRecord(GetParam().type, GetParam().state));

    machine.aperiodicTick();

    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), ElementsAre("Error: AperiodicWorker::onInterval found aperiodic Service "
                                              "\"Media\" in unexpected State x Type!"));
    EXPECT_THAT(log.traces(), Contains("Trace: AperiodicWorker::onInterval " + std::string(GetParam().text)));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDStateMachineUnexpectedAperiodicTest,
    ::testing::Values(RefusalCase{Type::DISCOVERED, State::ONCE, "ONCE x DISCOVERED"},
                      RefusalCase{Type::NONE, State::INITIAL_WAIT_PHASE, "INITIAL_WAIT_PHASE x NONE"},
                      RefusalCase{Type::ANNOUNCED, State::MAIN_PHASE, "MAIN_PHASE x ANNOUNCED"},
                      RefusalCase{Type::ANNOUNCED, State::SHUTDOWN_PHASE, "SHUTDOWN_PHASE x ANNOUNCED"},
                      RefusalCase{Type::WANTED, State::REMOVED, "REMOVED x WANTED"}),
    testName);

TEST_F(SDStateMachineWorkersTest, AperiodicTickDoesNothingWhileTheMachineIsNotRunning)
{
    machine.m_running = false;
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE));

    machine.aperiodicTick();

    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::onInterval - 1 services in list"));
}

TEST_F(SDStateMachineWorkersTest, AperiodicTimerThatFellBehindIsReportedAndStillHandlesOneRecordATick)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "First"), -second);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Second"), -second);
    long skipped = 0;

    const LateTimer late([&](Poco::Timer& timer) {
        skipped = timer.skipped();
        machine.aperiodicTick(timer);
    });

    EXPECT_THAT(names(engine.hub.sent()), ElementsAre("First"));
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDStateMachine - \"AperiodicWorker\" skipped " +
                                              std::to_string(skipped) + " timer events."));
}

TEST_F(SDStateMachineWorkersTest, AnnouncementThatFailsIsLoggedAndTheRecordGoesOn)
{
    engine.hub.onAnnounce = [] { throw Poco::IOException("no network"); };
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Navi"));

    machine.aperiodicTick();
    machine.periodicTick();

    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED REPETITION_PHASE #1"));
    EXPECT_THAT(periodic(), ElementsAre("Navi ANNOUNCED MAIN_PHASE #1"));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine - failed to announce: I/O error: no network",
                            "Error: SDStateMachine - failed to announce: I/O error: no network"));
}

TEST_F(SDStateMachineWorkersTest, PeriodicTickAnnouncesAllServicesInOneBatchInTheirOrder)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "First"));
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Other"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::SHUTDOWN_PHASE, "Second"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Third"));

    machine.periodicTick();

    const auto batch = engine.hub.sent();
    EXPECT_THAT(names(batch), ElementsAre("First", "Second", "Third"));
    EXPECT_TRUE(std::all_of(batch.begin(), batch.end(),
                            [](const RecordingHub::Sent& one) { return one.isBatch && one.call == 1; }));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::onInterval - 4 services in list"));
}

TEST_F(SDStateMachineWorkersTest, PeriodicTickWithNothingToSendAnnouncesNothing)
{
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::MAIN_PHASE));

    machine.periodicTick();

    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SDStateMachineWorkersTest, ServiceThatIsShuttingDownIsSentThreeTimesWithItsTTLAndThenRemoved)
{
    SDService::Ptr service = makeRecord(Type::ANNOUNCED, State::SHUTDOWN_PHASE);
    service->setTTL(0);
    machine.putPeriodic(service);

    for (int tick = 0; tick < 3; ++tick)
        machine.periodicTick();
    EXPECT_THAT(machine.periodic(), ElementsAre(service));
    machine.periodicTick();

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_EQ(service->getState(), State::REMOVED);
    EXPECT_THAT(sent(), ElementsAre("Media ANNOUNCED SHUTDOWN_PHASE #1 run 1",
                                    "Media ANNOUNCED SHUTDOWN_PHASE #1 run 2",
                                    "Media ANNOUNCED SHUTDOWN_PHASE #1 run 3"));
    EXPECT_EQ(engine.hub.sent().front().record.getTTL(), 0u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDStateMachineWorkersTest, ServiceRemovedInItsRepetitionPhaseIsWithdrawnThreeTimes)
{
    machine.handle(Event::HTTP_PUT, makeService("Media", "fd00::1", 8080, "id"));
    machine.aperiodicTick();
    SDClock::turn(100 * millisecond);
    machine.aperiodicTick();
    engine.hub.clear();

    machine.handle(Event::HTTP_DELETE, nullptr, "id");
    machine.aperiodicTick();
    for (int tick = 0; tick < 4; ++tick)
        machine.periodicTick();

    EXPECT_THAT(sent(), SizeIs(3));
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(periodic(), IsEmpty());
}

TEST_F(SDStateMachineWorkersTest, PeriodicTickDropsNullEntries)
{
    machine.putPeriodic(nullptr);
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));
    machine.putPeriodic(nullptr);

    machine.periodicTick();

    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1"));
    EXPECT_THAT(sent(), SizeIs(1));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: AperiodicWorker::onInterval found periodic Service nullptr!",
                            "Error: AperiodicWorker::onInterval found periodic Service nullptr!"));
}

TEST_P(SDStateMachineUnexpectedPeriodicTest, RecordIsReportedAndStaysUnsent)
{
    machine.putPeriodic(makeRecord(GetParam().type, GetParam().state));

    machine.periodicTick();

    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(periodic(), SizeIs(1));
    EXPECT_THAT(log.complaints(), ElementsAre("Error: AperiodicWorker::onInterval found periodic Service "
                                              "\"Media\" in unexpected State x Type!"));
    EXPECT_THAT(log.traces(), Contains("Trace: AperiodicWorker::onInterval " + std::string(GetParam().text)));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDStateMachineUnexpectedPeriodicTest,
    ::testing::Values(RefusalCase{Type::ANNOUNCED, State::ONCE, "ONCE x ANNOUNCED"},
                      RefusalCase{Type::ANNOUNCED, State::INITIAL_WAIT_PHASE,
                                  "INITIAL_WAIT_PHASE x ANNOUNCED"},
                      RefusalCase{Type::ANNOUNCED, State::REPETITION_PHASE, "REPETITION_PHASE x ANNOUNCED"},
                      RefusalCase{Type::NONE, State::MAIN_PHASE, "MAIN_PHASE x NONE"},
                      RefusalCase{Type::WANTED, State::MAIN_PHASE, "MAIN_PHASE x WANTED"},
                      RefusalCase{Type::ANY, State::SHUTDOWN_PHASE, "SHUTDOWN_PHASE x ANY"}),
    testName);

TEST_F(SDStateMachineWorkersTest, RemovedRecordThatIsComeUponIsReportedAndGoes)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::REMOVED));

    machine.periodicTick();

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), ElementsAre("Error: AperiodicWorker::onInterval found periodic Service "
                                              "\"Media\" in unexpected State x Type!"));
}

TEST_F(SDStateMachineWorkersTest, DiscoveredServiceStaysUntilTheFirstTickAfterItsTimeToLive)
{
    SDService::Ptr service = makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Media", "fd00::2", 9090, "id");
    service->setTTL(300);
    machine.putPeriodic(service);

    SDClock::turn(299 * second);
    machine.periodicTick();
    EXPECT_THAT(machine.periodic(), ElementsAre(service));
    EXPECT_THAT(engine.registry.events(), IsEmpty());

    SDClock::turn(second);
    machine.periodicTick();
    machine.periodicTick();
    EXPECT_THAT(periodic(), IsEmpty());
    const auto events = engine.registry.events();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].type, ServiceDiscovery::EventType::SERVICE_GONE);
    EXPECT_EQ(events[0].uuid, "id");
    EXPECT_EQ(events[0].description.getUri(), "http://[fd00::2]:9090/Media/");
    EXPECT_THAT(log.notices(), ElementsAre("Notice: SDStateMachine - TTL of service timed out: Media"));
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SDStateMachineWorkersTest, TimeToLiveOfThreeSecondsRunsOutAfterThreeSeconds)
{
    SDService::Ptr service = makeService("Media", "fd00::2");
    service->setTTL(3);
    machine.handle(Event::SOMEIP_OFFER, service);
    SDClock::turn(3 * second);

    machine.periodicTick();

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_EQ(engine.registry.gone("Media"), 1u);
}

TEST_F(SDStateMachineWorkersTest, RegistryIsToldOfAnExpiryWithTheWorkloadMutexHeld)
{
    bool couldLock = true;
    engine.registry.onEvent = [&](auto&) { couldLock = machine.m_workloadMutex.tryLock(); };
    SDService::Ptr service = makeRecord(Type::DISCOVERED, State::MAIN_PHASE);
    service->setTTL(0);
    machine.putPeriodic(service);

    machine.periodicTick();

    EXPECT_FALSE(couldLock);
}

TEST_F(SDStateMachineWorkersTest, ExpiredServiceGoesAndTheOthersHaveTheirTurnWhateverTheSubscriberThrows)
{
    engine.registry.onEvent = [](auto& payload) {
        if (payload.getServiceDescription()->getName() == "First")
            throw 42;
        throw std::runtime_error("registry is gone");
    };
    for (const char* name : {"First", "Second"}) {
        SDService::Ptr service = makeRecord(Type::DISCOVERED, State::MAIN_PHASE, name);
        service->setTTL(0);
        machine.putPeriodic(service);
    }
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));

    machine.periodicTick();

    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1"));
    EXPECT_THAT(names(engine.hub.sent()), ElementsAre("Media"));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine - \"PeriodicWorker\" caught exception: unknown exception",
                            "Error: SDStateMachine - \"PeriodicWorker\" caught exception: registry is gone"));
}

TEST_F(SDStateMachineWorkersTest, PeriodicTimerThatFellBehindIsReported)
{
    long skipped = 0;

    const LateTimer late([&](Poco::Timer& timer) {
        skipped = timer.skipped();
        machine.periodicTick(timer);
    });

    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDStateMachine - " + std::to_string(skipped) +
                                              " skipped announcement timer events"));
}

TEST_F(SDStateMachineWorkersTest, AnnouncementsAreMadeWithTheWorkloadMutexHeld)
{
    int couldLock = 0;
    engine.hub.onAnnounce = [&] { couldLock += machine.m_workloadMutex.tryLock() ? 1 : 0; };
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));

    machine.aperiodicTick();
    machine.periodicTick();
    machine.removeAllAnnouncedServices();

    EXPECT_THAT(sent(), SizeIs(3));
    EXPECT_EQ(couldLock, 0);
}

TEST_F(SDStateMachineWorkersTest, TicksAndUpdatesWaitForTheWorkloadMutex)
{
    machine.m_workloadMutex.lock();
    std::atomic<int> done{0};
    const std::vector<std::function<void()>> calls{
        [&] { machine.aperiodicTick(); }, [&] { machine.periodicTick(); },
        [&] { machine.m_aperiodicWorker.update(); }, [&] { machine.removeAllAnnouncedServices(); }};
    std::vector<std::thread> threads;
    for (const std::function<void()>& call : calls)
        threads.emplace_back([&] {
            call();
            ++done;
        });

    EXPECT_TRUE(keeps([&] { return done == 0; }, std::chrono::milliseconds(20)));
    machine.m_workloadMutex.unlock();
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(done, 4);
}

TEST_F(SDStateMachineWorkersTest, AnswersThatWaitWhenItStopsAreNeverSent)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, "Young"));

    machine.removeAllAnnouncedServices();

    EXPECT_THAT(summaries(machine.aperiodic()), ElementsAre("Young ANNOUNCED REPETITION_PHASE #1"));
}

TEST_F(SDStateMachineWorkersTest, RemovalOfAllSendsOneStopOfferForEveryAnnouncedServiceThatIsPeriodic)
{
    SDService::Ptr service = makeRecord(Type::ANNOUNCED, State::MAIN_PHASE);
    machine.putPeriodic(service);
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Other"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Navi"));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, "Radio"));

    EXPECT_TRUE(machine.removeAllAnnouncedServices());

    EXPECT_THAT(sent(), ElementsAre("Media ANNOUNCED REMOVED #1 run 0", "Navi ANNOUNCED REMOVED #1 run 0"));
    for (const RecordingHub::Sent& one : engine.hub.sent()) {
        EXPECT_EQ(one.record.getTTL(), 0u);
        EXPECT_FALSE(one.isBatch);
    }
    EXPECT_THAT(periodic(), ElementsAre("Other DISCOVERED MAIN_PHASE #1"));
    EXPECT_THAT(aperiodic(), ElementsAre("Radio ANNOUNCED REPETITION_PHASE #1"));
    EXPECT_THAT(log.lines(),
                ElementsAre(stoppedMedia,
                            "Notice: SD Announcement of Service http://[fd00::1]:8080/Navi/ (Navi "
                            "v1.0.X) stopped, due to shutdown of ServiceRegistry."));
}

TEST_F(SDStateMachineWorkersTest, RemovalOfAllLeavesALocalRecordThatIsNotAnnounced)
{
    machine.putPeriodic(makeRecord(Type::WANTED, State::MAIN_PHASE));

    machine.removeAllAnnouncedServices();

    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(periodic(), ElementsAre("Media WANTED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineWorkersTest, RemovalOfAllRaisesANullPointerExceptionAtANullEntry)
{
    machine.putPeriodic(nullptr);

    EXPECT_THROW(machine.removeAllAnnouncedServices(), Poco::NullPointerException);
}

namespace {

/// The state machine with its real timers; every test starts it.
struct SDStateMachineTimersTest : ::testing::Test
{
    ~SDStateMachineTimersTest() override { machine.stop(); }

    bool eventuallySent(const std::string& name, std::size_t count)
    {
        return eventually([&] { return engine.hub.sent(name).size() >= count; });
    }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    LogCatcher log;
};

std::string threadName()
{
    char name[16] = "";
    ::pthread_getname_np(::pthread_self(), name, sizeof(name));
    return name;
}

/// The names of the threads on which a machine announces a service until it is periodic.
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

/// Names are given once a process, so this needs one of its own.
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
        // Poco's timer may fire up to a millisecond early in the second.
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

    EXPECT_TRUE(eventuallySent("Media", 3)) << "the third interval is the first that takes anything for gone";
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
