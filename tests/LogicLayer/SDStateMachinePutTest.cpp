#include "StateMachineFixture.h"

#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachinePutTest = StateMachineFixture;

struct DuplicateCase
{
    const char* name;
    State::State_t state;
    bool isPeriodic;

    friend void PrintTo(const DuplicateCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineDuplicatePutTest : StateMachineFixture, ::testing::WithParamInterface<DuplicateCase>
{};

}  // namespace

TEST_F(SDStateMachinePutTest, PutOfAnUnknownServiceIsAnnouncedAsInstanceOne)
{
    EXPECT_TRUE(put(makeService("Media")));

    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: SDStateMachine::handlePUT: add \"Media\" as new Service.",
                            "Trace: AperiodicWorker::unsafe_addAperiodicService",
                            "Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
                            "startet, due to addition by ServiceRegistry.",
                            "Trace: AperiodicWorker::unsafe_update"));
}

TEST_F(SDStateMachinePutTest, PutOfAnotherNameIsANewService)
{
    put(makeService("Media"));

    EXPECT_TRUE(put(makeService("media")));

    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1",
                                         "media ANNOUNCED INITIAL_WAIT_PHASE #1"));
}

TEST_F(SDStateMachinePutTest, PutReplacesTheSearchForItWhenThatIsAllThereIs)
{
    machine.putAperiodic(wanted());
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(service));
    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_THAT(log.traces(),
                Contains("Trace: SDStateMachine::handlePUT: replace Wanted \"Media\" with new Service."));
}

TEST_F(SDStateMachinePutTest, PutOfAFurtherEndpointGetsTheNumberAfterTheHighest)
{
    machine.putAperiodic(announced(State::REPETITION_PHASE, "fd00::1", 1, 2));
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 2, 5));
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 3, 1));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(summary(service), "Media ANNOUNCED INITIAL_WAIT_PHASE #6");
    EXPECT_THAT(machine.aperiodic(), Contains(service));
    EXPECT_THAT(
        log.traces(),
        Contains("Trace: SDStateMachine::handlePUT: add Announced \"Media\" as new Service instance #6"));
}

TEST_F(SDStateMachinePutTest, HighestNumberOfAPutMayStandInTheAperiodicWorkload)
{
    machine.putAperiodic(announced(State::REPETITION_PHASE, "fd00::1", 1, 7));
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 2, 5));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(service->getInstanceId(), 8);
}

TEST_F(SDStateMachinePutTest, FurtherInstanceIsNumberOneWhenTheHighestNumberIsZero)
{
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 1, 0));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(service->getInstanceId(), 1);
}

TEST_F(SDStateMachinePutTest, SearchesHaveNoNumberOfTheirOwn)
{
    machine.putAperiodic(wanted());
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 1, 3));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(service->getInstanceId(), 4);
    EXPECT_THAT(aperiodic(), Contains("Media WANTED REPETITION_PHASE #65535"))
        << "only a search that is all there is of the service is replaced";
}

TEST_F(SDStateMachinePutTest, SeveralSearchesAreNoneToReplaceAndNoneToBeNumberedAfter)
{
    machine.putAperiodic(wanted());
    machine.putAperiodic(wanted());
    SDService::Ptr added = makeService("Media");
    SDService::Ptr found = offered("Media");

    EXPECT_TRUE(put(added));
    machine.unsafe_removeAperiodicService(added);
    EXPECT_TRUE(offer(found));

    EXPECT_EQ(added->getInstanceId(), 1);
    EXPECT_EQ(found->getInstanceId(), 1);
    EXPECT_THAT(aperiodic(), SizeIs(2));
}

TEST_F(SDStateMachinePutTest, PutOfAServiceThatIsShuttingDownReplacesItUnderTheSameNumber)
{
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 1, 9));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE, "fd00::1", 8080, 4));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(service));
    EXPECT_EQ(summary(service), "Media ANNOUNCED INITIAL_WAIT_PHASE #4");
    EXPECT_EQ(service->getTTL(), 120u);
    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #9"));
    EXPECT_THAT(log.traces(), Contains("Trace: SDStateMachine::handlePUT: replace Announced \"Media\" "
                                       "shutting down with new Service but same instance #4"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_P(SDStateMachineDuplicatePutTest, ServiceThatIsAnnouncedAlreadyIsRefused)
{
    SDService::Ptr known = announced(GetParam().state);
    GetParam().isPeriodic ? machine.putPeriodic(known) : machine.putAperiodic(known);

    EXPECT_FALSE(put(makeService("Media")));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handlePUT found 1 duplicate Service(s)!"));
    EXPECT_THAT(log.notices(), IsEmpty());
    EXPECT_EQ(machine.aperiodic().size() + machine.periodic().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(States, SDStateMachineDuplicatePutTest,
                         ::testing::Values(DuplicateCase{"Initial", State::INITIAL_WAIT_PHASE, false},
                                           DuplicateCase{"Repetition", State::REPETITION_PHASE, false},
                                           DuplicateCase{"Main", State::MAIN_PHASE, true}),
                         [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachinePutTest, SeveralDuplicatesOfAPutAreCounted)
{
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));

    EXPECT_FALSE(put(makeService("Media")));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine::handlePUT found 2 duplicate Service(s)!"));
}

TEST_F(SDStateMachinePutTest, ServiceIsADuplicateWhateverItsVersionsAndNumber)
{
    put(makeService("Media"));

    EXPECT_FALSE(put(makeService(describe("Media", "fd00::1", 8080, "", "2.7.0"))));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine::handlePUT found 1 duplicate Service(s)!"));
}

TEST_F(SDStateMachinePutTest, AnotherAddressPortOrProtocolIsNoDuplicate)
{
    NuboServiceDescription overUdp = describe("Media");
    overUdp.setL4Proto(OptionL4Protocol::UDP);
    put(makeService("Media"));

    EXPECT_TRUE(put(makeService("Media", "fd00::3")));
    EXPECT_TRUE(put(makeService("Media", "fd00::1", 8081)));
    EXPECT_TRUE(put(makeService(overUdp)));

    EXPECT_THAT(
        aperiodic(),
        ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1", "Media ANNOUNCED INITIAL_WAIT_PHASE #2",
                    "Media ANNOUNCED INITIAL_WAIT_PHASE #3", "Media ANNOUNCED INITIAL_WAIT_PHASE #4"));
}

TEST_F(SDStateMachinePutTest, NoOfferOfAnotherUnitKeepsALocalServiceFromBeingAdded)
{
    machine.putPeriodic(discovered("fd00::1"));
    SDService::Ptr service = makeService("Media", "fd00::1");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(summary(service), "Media ANNOUNCED INITIAL_WAIT_PHASE #2");
}

TEST_F(SDStateMachinePutTest, OneTimeAnswersAreNoDuplicates)
{
    machine.putAperiodic(announced(State::ONCE));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_THAT(machine.aperiodic(), Contains(service));
    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
