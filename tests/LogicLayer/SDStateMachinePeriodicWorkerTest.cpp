#include "WorkersFixture.h"
#include "support/LateTimer.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachinePeriodicWorkerTest = WorkersFixture;

struct SDStateMachineUnexpectedPeriodicTest : WorkersFixture, ::testing::WithParamInterface<UnexpectedRecord>
{};

}  // namespace

TEST_F(SDStateMachinePeriodicWorkerTest, PeriodicWorkerNeedsNoUpdate)
{
    machine.m_periodicWorker.update();
    machine.m_periodicWorker.unsafe_update();

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: AperiodicWorker::update: not needed, should not be called!",
                            "Warning: AperiodicWorker::unsafe_update: not needed, should not be called!"));
}

TEST_F(SDStateMachinePeriodicWorkerTest, SettledServiceIsOfferedOnceAPeriodicTick)
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

TEST_F(SDStateMachinePeriodicWorkerTest, PeriodicTickAnnouncesAllServicesInOneBatchInTheirOrder)
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

TEST_F(SDStateMachinePeriodicWorkerTest, PeriodicTickWithNothingToSendAnnouncesNothing)
{
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::MAIN_PHASE));

    machine.periodicTick();

    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(SDStateMachinePeriodicWorkerTest, ServiceThatIsShuttingDownIsSentThreeTimesWithItsTTLAndThenRemoved)
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

TEST_F(SDStateMachinePeriodicWorkerTest, ServiceRemovedInItsRepetitionPhaseIsWithdrawnThreeTimes)
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

TEST_F(SDStateMachinePeriodicWorkerTest, PeriodicTickDropsNullEntries)
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
    ::testing::Values(
        UnexpectedRecord{Type::ANNOUNCED, State::ONCE, "ONCE x ANNOUNCED"},
        UnexpectedRecord{Type::ANNOUNCED, State::INITIAL_WAIT_PHASE, "INITIAL_WAIT_PHASE x ANNOUNCED"},
        UnexpectedRecord{Type::ANNOUNCED, State::REPETITION_PHASE, "REPETITION_PHASE x ANNOUNCED"},
        UnexpectedRecord{Type::NONE, State::MAIN_PHASE, "MAIN_PHASE x NONE"},
        UnexpectedRecord{Type::WANTED, State::MAIN_PHASE, "MAIN_PHASE x WANTED"},
        UnexpectedRecord{Type::ANY, State::SHUTDOWN_PHASE, "SHUTDOWN_PHASE x ANY"}),
    unexpectedRecordName);

TEST_F(SDStateMachinePeriodicWorkerTest, RemovedRecordThatIsComeUponIsReportedAndGoes)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::REMOVED));

    machine.periodicTick();

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), ElementsAre("Error: AperiodicWorker::onInterval found periodic Service "
                                              "\"Media\" in unexpected State x Type!"));
}

TEST_F(SDStateMachinePeriodicWorkerTest, DiscoveredServiceStaysUntilTheFirstTickAfterItsTimeToLive)
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

TEST_F(SDStateMachinePeriodicWorkerTest, TimeToLiveOfThreeSecondsRunsOutAfterThreeSeconds)
{
    SDService::Ptr service = makeService("Media", "fd00::2");
    service->setTTL(3);
    machine.handle(Event::SOMEIP_OFFER, service);
    SDClock::turn(3 * second);

    machine.periodicTick();

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_EQ(engine.registry.gone("Media"), 1u);
}

TEST_F(SDStateMachinePeriodicWorkerTest, RegistryIsToldOfAnExpiryWithTheWorkloadMutexHeld)
{
    bool couldLock = true;
    engine.registry.onEvent = [&](auto&) { couldLock = machine.m_workloadMutex.tryLock(); };
    SDService::Ptr service = makeRecord(Type::DISCOVERED, State::MAIN_PHASE);
    service->setTTL(0);
    machine.putPeriodic(service);

    machine.periodicTick();

    EXPECT_FALSE(couldLock);
}

TEST_F(SDStateMachinePeriodicWorkerTest,
       ExpiredServiceGoesAndTheOthersHaveTheirTurnWhateverTheSubscriberThrows)
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

TEST_F(SDStateMachinePeriodicWorkerTest, PeriodicTimerThatFellBehindIsReported)
{
    long skipped = 0;

    const LateTimer late([&](Poco::Timer& timer) {
        skipped = timer.skipped();
        machine.periodicTick(timer);
    });

    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDStateMachine - " + std::to_string(skipped) +
                                              " skipped announcement timer events"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
