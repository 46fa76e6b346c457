#include "StateMachineFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachineDeleteTest = StateMachineFixture;

struct SDStateMachineEarlyDeleteTest : StateMachineFixture, ::testing::WithParamInterface<State::State_t>
{};

}  // namespace

TEST_F(SDStateMachineDeleteTest, DeleteWithoutAnIdentifierIsRefusedEvenWithARecord)
{
    EXPECT_FALSE(machine.handle(Event::HTTP_DELETE, makeService("Media"), ""));

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Error: SDStateMachine::onExternalEvent: received nullptr Service or empty UUID."));
}

TEST_F(SDStateMachineDeleteTest, DeleteOfAnUnknownIdentifierFails)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "other"));

    EXPECT_FALSE(remove("id"));

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: SD failed to delete Service with local UUID \"id\", none found!"));
    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineDeleteTest, DeleteInTheMainPhaseSetsTheServiceToShutdown)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "id"));

    EXPECT_TRUE(remove("id"));

    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED SHUTDOWN_PHASE #1"));
    EXPECT_EQ(machine.periodic().front()->getTTL(), 0u);
    EXPECT_THAT(log.lines(),
                ElementsAre("Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
                            "stopped, due to removal by ServiceRegistry.",
                            "Trace: SDStateMachine::handleDELETE: set Announced \"Media\" to shutdown."));
}

TEST_P(SDStateMachineEarlyDeleteTest, ServiceIsMovedStraightToShutdown)
{
    SDService::Ptr service = makeRecord(Type::ANNOUNCED, GetParam(), "Media", "fd00::1", 8080, "id");
    machine.putAperiodic(service);

    EXPECT_TRUE(remove("id"));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(machine.periodic(), ElementsAre(service));
    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED SHUTDOWN_PHASE #1"));
    EXPECT_EQ(service->getTTL(), 0u);
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleDELETE: move Announced \"Media\" from "
                                         "initial|repetition to shutdown."));
}

INSTANTIATE_TEST_SUITE_P(States, SDStateMachineEarlyDeleteTest,
                         ::testing::Values(State::INITIAL_WAIT_PHASE, State::REPETITION_PHASE),
                         ::testing::PrintToStringParamName());

TEST_F(SDStateMachineDeleteTest, DeleteDropsAWaitingAnswer)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Media", "fd00::1", 8080, "id"));

    EXPECT_TRUE(remove("id"));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleDELETE: remove Announced|once "
                                         "\"Media\" with instance #1"));
}

TEST_F(SDStateMachineDeleteTest, DeleteActsOnEveryRecordThatCarriesTheIdentifier)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Navi", "fd00::1", 1, "other"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 2, "id"));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Media", "fd00::1", 2, "id"));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Media", "fd00::1", 2, "id"));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, "Radio", "fd00::1", 3, "id"));

    EXPECT_TRUE(remove("id"));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(periodic(), ElementsAre("Navi ANNOUNCED MAIN_PHASE #1", "Media ANNOUNCED SHUTDOWN_PHASE #1",
                                        "Radio ANNOUNCED SHUTDOWN_PHASE #1"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDStateMachineDeleteTest, DeleteReportsPeriodicRecordsThatCannotBeShutDown)
{
    machine.putPeriodic(discovered("fd00::2", "id"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::SHUTDOWN_PHASE, "Media", "fd00::1", 8080, "id"));

    EXPECT_FALSE(remove("id"));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleDELETE found 2 periodic Services "
                                              "in unexpected State x Type!"));
    EXPECT_THAT(periodic(),
                ElementsAre("Media DISCOVERED MAIN_PHASE #1", "Media ANNOUNCED SHUTDOWN_PHASE #1"));
}

TEST_F(SDStateMachineDeleteTest, DeleteReportsAperiodicRecordsThatCannotBeShutDown)
{
    machine.putAperiodic(makeRecord(Type::WANTED, State::REPETITION_PHASE, "Media", "::", 0, "id"));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "id"));

    EXPECT_FALSE(remove("id"));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handleDELETE found 2 aperiodic Services "
                            "in unexpected State x Type!"));
    EXPECT_THAT(aperiodic(), SizeIs(2));
}

TEST_F(SDStateMachineDeleteTest, DeleteSucceedsWhenSomethingWasDoneBesideUnexpectedRecords)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "id"));
    machine.putPeriodic(discovered("fd00::2", "id"));

    EXPECT_TRUE(remove("id"));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine::handleDELETE found 1 periodic Services in "
                                          "unexpected State x Type!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
