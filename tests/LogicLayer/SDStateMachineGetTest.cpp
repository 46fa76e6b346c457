#include "StateMachineFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

using SDStateMachineGetTest = StateMachineFixture;

}  // namespace

TEST_F(SDStateMachineGetTest, GetStartsASearchForAnyMinorVersion)
{
    SDService::Ptr service = searched("Media");
    service->setInstanceId(0xffff);
    service->setMajorVersion(0xff);

    EXPECT_TRUE(get(service));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(service));
    EXPECT_EQ(summary(service), "Media WANTED INITIAL_WAIT_PHASE #65535");
    EXPECT_EQ(service->getMajorVersion(), 0xff);
    EXPECT_EQ(service->getMinorVersion(), 0xffffffff);
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: SDStateMachine::handleGET: add \"Media\" as new Wanted Service.",
                            "Trace: AperiodicWorker::unsafe_addAperiodicService",
                            "Notice: SD Finding of Service Media startet, due to GET request to "
                            "ServiceRegistry.",
                            "Trace: AperiodicWorker::unsafe_update"));
}

TEST_F(SDStateMachineGetTest, NewSearchTakesInstanceAndMajorVersionFromTheEvent)
{
    SDService::Ptr service = searched("Media");
    service->setInstanceId(5);
    service->setMajorVersion(2);

    EXPECT_TRUE(get(service));

    EXPECT_EQ(service->getInstanceId(), 5);
    EXPECT_EQ(service->getMajorVersion(), 2);
}

TEST_F(SDStateMachineGetTest, GetResetsASearchThatIsUnderWay)
{
    SDService::Ptr search = wanted();
    search->incrementRepetitionRun();
    machine.putAperiodic(search, 3600 * second);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, "Navi"), 1800 * second);

    EXPECT_TRUE(get(searched("Media")));

    EXPECT_THAT(aperiodic(),
                ElementsAre("Media WANTED INITIAL_WAIT_PHASE #65535", "Navi ANNOUNCED REPETITION_PHASE #1"))
        << "it is due at once";
    EXPECT_EQ(machine.aperiodic().front(), search);
    EXPECT_EQ(search->getRepetitionRun(), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: SDStateMachine::handleGET: reset Wanted \"Media\" to initial.",
                            "Trace: AperiodicWorker::unsafe_addAperiodicService",
                            "Notice: SD Finding of Service Media startet, due to GET request to "
                            "ServiceRegistry.",
                            "Trace: AperiodicWorker::unsafe_update"));
}

TEST_F(SDStateMachineGetTest, GetSearchesEvenForAServiceThatIsKnown)
{
    machine.putPeriodic(discovered());
    machine.putPeriodic(announced(State::MAIN_PHASE));

    EXPECT_TRUE(get(searched("Media")));

    EXPECT_THAT(aperiodic(), ElementsAre("Media WANTED INITIAL_WAIT_PHASE #0"));
    EXPECT_THAT(periodic(), SizeIs(2));
}

}  // namespace Nubo::ServiceDiscovery::Testing
