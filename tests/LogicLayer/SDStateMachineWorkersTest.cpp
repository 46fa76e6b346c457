#include "WorkersFixture.h"
#include "support/Waiting.h"

#include <Poco/Exception.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachineWorkersTest = WorkersFixture;

}  // namespace

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

}  // namespace Nubo::ServiceDiscovery::Testing
