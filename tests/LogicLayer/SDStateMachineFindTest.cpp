#include "StateMachineFixture.h"

#include <cstddef>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachineFindTest = StateMachineFixture;

constexpr std::size_t mostAnswersWaiting = 16;

}  // namespace

TEST_F(SDStateMachineFindTest, FindOfAnUnknownServiceSchedulesNoAnswer)
{
    machine.putAperiodic(wanted());
    machine.putPeriodic(discovered());
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Navi"));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), ElementsAre("Media WANTED REPETITION_PHASE #65535"));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                         "\"Media\", which is unknown."));
}

TEST_F(SDStateMachineFindTest, FindOfAServiceThatIsShuttingDownSchedulesNoAnswer)
{
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                         "\"Media\", which is in shutdown."));
}

TEST_F(SDStateMachineFindTest, WaitingAnswersAreNotAnsweredThemselves)
{
    machine.putAperiodic(announced(State::ONCE));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(1));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                         "\"Media\", which is unknown."));
}

TEST_F(SDStateMachineFindTest, FindIsAnsweredOnceWithACopyOfTheAnnouncedRecord)
{
    SDService::Ptr original = makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "id");
    original->setServiceId(0x1234);
    original->setInstanceId(3);
    original->setMinorVersion(9);
    original->setTTL(77);
    machine.putPeriodic(original);

    EXPECT_TRUE(find("Media"));

    ASSERT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED ONCE #3"));
    SDService::Ptr answer = machine.aperiodic().front();
    EXPECT_NE(answer, original);
    EXPECT_EQ(answer->getServiceId(), 0x1234);
    EXPECT_EQ(answer->getMajorVersion(), 1);
    EXPECT_EQ(answer->getMinorVersion(), 9u);
    EXPECT_EQ(answer->getTTL(), 77u);
    EXPECT_EQ(answer->getConfiguration(), original->getConfiguration());
    EXPECT_EQ(answer->getNuboDescription().getUri(), "http://[fd00::1]:8080/Media/");
    EXPECT_EQ(answer->getNuboDescription().getLocalUuid(), "id");
    EXPECT_THAT(machine.periodic(), ElementsAre(original));
    EXPECT_EQ(original->getState(), State::MAIN_PHASE);
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: SDStateMachine::handleFIND: add \"Media\" #3 as new Announced|once.",
                            "Trace: AperiodicWorker::unsafe_addAperiodicService",
                            "Notice: SD One-Time Announcement of Service http://[fd00::1]:8080/Media/ (Media "
                            "v1.9.X) startet, due to reception of FIND_SERVICE.",
                            "Trace: AperiodicWorker::unsafe_update"));
}

TEST_F(SDStateMachineFindTest, AnswerKeepsTheDeadlineOfItsRecord)
{
    SDService::Ptr original = announced(State::MAIN_PHASE);
    original->setTTL(300);
    machine.putPeriodic(original);
    SDClock::turn(200 * second);

    find("Media");
    SDClock::turn(100 * second);

    EXPECT_TRUE(machine.aperiodic().front()->isTTLElapsed());
}

TEST_F(SDStateMachineFindTest, FindIsAnsweredWithEveryInstanceThatIsNotShuttingDown)
{
    machine.putAperiodic(announced(State::INITIAL_WAIT_PHASE, "fd00::1", 1, 1), 3600 * second);
    machine.putAperiodic(announced(State::REPETITION_PHASE, "fd00::1", 2, 2), 3600 * second);
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 3, 3));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE, "fd00::1", 4, 4));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(),
                ElementsAre("Media ANNOUNCED ONCE #1", "Media ANNOUNCED ONCE #2", "Media ANNOUNCED ONCE #3",
                            "Media ANNOUNCED INITIAL_WAIT_PHASE #1", "Media ANNOUNCED REPETITION_PHASE #2"));
}

TEST_F(SDStateMachineFindTest, AtMostSixteenAnswersWaitForOneService)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));
    for (std::size_t i = 0; i < mostAnswersWaiting; ++i)
        EXPECT_TRUE(find("Media"));
    ASSERT_THAT(aperiodic(), SizeIs(mostAnswersWaiting));
    log.clear();

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(mostAnswersWaiting));
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(log.notices(), IsEmpty());
}

TEST_F(SDStateMachineFindTest, AnswersThatWaitForOneServiceDoNotCountForAnother)
{
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 1));
    for (std::size_t i = 0; i < mostAnswersWaiting; ++i)
        find("Media");
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 2, 2));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(mostAnswersWaiting + 1));
    EXPECT_THAT(aperiodic(), Contains("Media ANNOUNCED ONCE #2").Times(1));
}

TEST_F(SDStateMachineFindTest, FurtherFindIsAnsweredAgainWhenAnAnswerHasGoneOut)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));
    for (std::size_t i = 0; i < mostAnswersWaiting; ++i)
        find("Media");
    machine.unsafe_removeAperiodicService(machine.aperiodic().front());

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(mostAnswersWaiting));
}

TEST_F(SDStateMachineFindTest, FindIsLeftToTheCyclicOffersWhileManyAnswersWait)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));
    for (unsigned short port = 1; port <= 63; ++port) {
        machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Navi", "fd00::1", port));
    }
    EXPECT_TRUE(find("Navi"));

    EXPECT_TRUE(find("Media"));
    ASSERT_THAT(aperiodic(), SizeIs(64)) << "the last to join";
    log.clear();
    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(64));
    EXPECT_THAT(log.traces(), ElementsAre("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                          "\"Media\", while 64 Services wait."));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDStateMachineFindTest, FindIsAnsweredWhileManyServicesAreBeingAdded)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));
    for (int i = 0; i < 100; ++i)
        put(makeService("Service" + std::to_string(i)));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), Contains("Media ANNOUNCED ONCE #1"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
