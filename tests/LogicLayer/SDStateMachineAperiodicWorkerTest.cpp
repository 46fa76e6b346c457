#include "WorkersFixture.h"
#include "support/LateTimer.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

namespace {

using SDStateMachineAperiodicWorkerTest = WorkersFixture;

struct SDStateMachineUnexpectedAperiodicTest : WorkersFixture, ::testing::WithParamInterface<UnexpectedRecord>
{};

}  // namespace

TEST_F(SDStateMachineAperiodicWorkerTest, TimerIsSetToAtLeastAMillisecond)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), -hour);

    machine.m_aperiodicWorker.update();

    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: AperiodicWorker::unsafe_update",
                            "Debug: SDStateMachine - \"AperiodicWorker\" event timer set to 1 milliseconds"));
}

TEST_F(SDStateMachineAperiodicWorkerTest, TimerIsSetToTheFirstDueTimeInWholeMilliseconds)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), 2 * hour);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), hour);

    machine.m_aperiodicWorker.unsafe_update();

    // A little less than an hour is left.
    EXPECT_THAT(log.debugs(), ElementsAre(MatchesRegex("Debug: SDStateMachine - \"AperiodicWorker\" event "
                                                       "timer set to 35[0-9]{5} milliseconds")));
}

TEST_F(SDStateMachineAperiodicWorkerTest, TimerWithNothingToDoIsParked)
{
    machine.m_aperiodicWorker.update();

    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::unsafe_update",
                                         "Debug: SDStateMachine - \"AperiodicWorker\" event timer stopped "));
}

TEST_F(SDStateMachineAperiodicWorkerTest, TimerIsLeftAloneWhileTheMachineIsNotRunning)
{
    machine.m_running = false;
    machine.m_aperiodicWorker.update();
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE));
    machine.m_aperiodicWorker.unsafe_update();

    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::unsafe_update",
                                         "Trace: AperiodicWorker::unsafe_update"));
}

TEST_F(SDStateMachineAperiodicWorkerTest, AddedServiceIsOfferedAtOnceThenAfter100And200And400MillisecondsMore)
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

TEST_F(SDStateMachineAperiodicWorkerTest, SearchIsSentAtTheSameFourInstantsAndIsOver)
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

TEST_F(SDStateMachineAperiodicWorkerTest, AnswerIsSentOnceAfter50Milliseconds)
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

TEST_F(SDStateMachineAperiodicWorkerTest, NothingIsSentBeforeItIsDue)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE), hour);

    machine.aperiodicTick();
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));

    SDClock::turn(hour);
    machine.aperiodicTick();
    EXPECT_THAT(sent(), SizeIs(1));
}

TEST_F(SDStateMachineAperiodicWorkerTest, OneRecordIsHandledATickInTheOrderOfInsertion)
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

TEST_F(SDStateMachineAperiodicWorkerTest, RecordThatIsDueEarlierIsHandledFirst)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Later"), -second);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Earlier"), -hour);

    machine.aperiodicTick();

    EXPECT_THAT(names(engine.hub.sent()), ElementsAre("Earlier"));
}

TEST_F(SDStateMachineAperiodicWorkerTest, AperiodicTickCountsItsRecordsAndSetsTheTimer)
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

TEST_F(SDStateMachineAperiodicWorkerTest, AperiodicTickDropsNullEntriesAtTheFront)
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
    ::testing::Values(UnexpectedRecord{Type::DISCOVERED, State::ONCE, "ONCE x DISCOVERED"},
                      UnexpectedRecord{Type::NONE, State::INITIAL_WAIT_PHASE, "INITIAL_WAIT_PHASE x NONE"},
                      UnexpectedRecord{Type::ANNOUNCED, State::MAIN_PHASE, "MAIN_PHASE x ANNOUNCED"},
                      UnexpectedRecord{Type::ANNOUNCED, State::SHUTDOWN_PHASE, "SHUTDOWN_PHASE x ANNOUNCED"},
                      UnexpectedRecord{Type::WANTED, State::REMOVED, "REMOVED x WANTED"}),
    unexpectedRecordName);

TEST_F(SDStateMachineAperiodicWorkerTest, AperiodicTickDoesNothingWhileTheMachineIsNotRunning)
{
    machine.m_running = false;
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE));

    machine.aperiodicTick();

    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::onInterval - 1 services in list"));
}

TEST_F(SDStateMachineAperiodicWorkerTest, AperiodicTimerThatFellBehindIsReportedAndStillHandlesOneRecordATick)
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

}  // namespace Nubo::ServiceDiscovery::Testing
