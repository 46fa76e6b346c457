#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"
#include "support/Waiting.h"

#include <Poco/Exception.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Event = TestStateMachine::Event;
using State = SDService::State;
using Type = SDService::Type;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr Poco::Clock::ClockDiff second = 1000000;
constexpr std::size_t mostAnswersWaiting = 16;

/// What the search of another unit for that name, or its offer, brings.
SDService::Ptr searched(const std::string& name)
{
    return new SDService(name);
}

SDService::Ptr offered(const std::string& name, const std::string& address = "fd00::2",
                       unsigned short port = 8080, unsigned int ttl = 120)
{
    SDService::Ptr service = makeService(name, address, port);
    service->setTTL(ttl);
    return service;
}

SDService::Ptr discovered(const std::string& address = "fd00::2", const std::string& uuid = "uuid-0",
                          unsigned short port = 8080)
{
    return makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Media", address, port, uuid);
}

SDService::Ptr wanted(const std::string& name = "Media")
{
    SDService::Ptr service = makeRecord(Type::WANTED, State::REPETITION_PHASE, name);
    service->setInstanceId(0xffff);
    return service;
}

SDService::Ptr announced(State::State_t state, const std::string& address = "fd00::1",
                         unsigned short port = 8080, unsigned short instanceID = 1)
{
    SDService::Ptr service = makeRecord(Type::ANNOUNCED, state, "Media", address, port);
    service->setInstanceId(instanceID);
    return service;
}

struct SDStateMachineEventsTest : ::testing::Test
{
    bool put(const SDService::Ptr& service) { return machine.handle(Event::HTTP_PUT, service); }
    bool remove(const std::string& uuid) { return machine.handle(Event::HTTP_DELETE, nullptr, uuid); }
    bool get(const SDService::Ptr& service) { return machine.handle(Event::HTTP_GET, service); }
    bool find(const std::string& name) { return machine.handle(Event::SOMEIP_FIND, searched(name)); }
    bool offer(const SDService::Ptr& service) { return machine.handle(Event::SOMEIP_OFFER, service); }
    bool stopOffer(const SDService::Ptr& service) { return machine.handle(Event::SOMEIP_STOPOFFER, service); }

    std::vector<std::string> aperiodic() const { return summaries(machine.aperiodic()); }
    std::vector<std::string> periodic() const { return summaries(machine.periodic()); }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    LogCatcher log;
};

struct EventTypeCase
{
    const char* name;
    Event::WorkloadEvent_t type;

    friend void PrintTo(const EventTypeCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineRefusedEventTest : SDStateMachineEventsTest, ::testing::WithParamInterface<EventTypeCase>
{};

struct DuplicateCase
{
    const char* name;
    State::State_t state;
    bool isPeriodic;

    friend void PrintTo(const DuplicateCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineDuplicatePutTest : SDStateMachineEventsTest, ::testing::WithParamInterface<DuplicateCase>
{};

struct SDStateMachineEarlyDeleteTest : SDStateMachineEventsTest, ::testing::WithParamInterface<State::State_t>
{};

struct SDStateMachineLockingTest : SDStateMachineEventsTest, ::testing::WithParamInterface<EventTypeCase>
{};

constexpr auto incompleteEvent =
    "Error: SDStateMachine::onExternalEvent: received nullptr Service or empty UUID.";
constexpr auto unknownEvent = "Error: onExternalEvent received unknown EventType!";

}  // namespace

TEST_P(SDStateMachineRefusedEventTest, EventWithoutARecordIsRefusedEvenWithAnIdentifier)
{
    EXPECT_FALSE(machine.handle(GetParam().type, nullptr, "uuid"));

    EXPECT_THAT(log.lines(), ElementsAre(incompleteEvent));
}

INSTANTIATE_TEST_SUITE_P(Types, SDStateMachineRefusedEventTest,
                         ::testing::Values(EventTypeCase{"Put", Event::HTTP_PUT},
                                           EventTypeCase{"Get", Event::HTTP_GET},
                                           EventTypeCase{"Find", Event::SOMEIP_FIND},
                                           EventTypeCase{"Offer", Event::SOMEIP_OFFER},
                                           EventTypeCase{"StopOffer", Event::SOMEIP_STOPOFFER},
                                           EventTypeCase{"Unknown", static_cast<Event::WorkloadEvent_t>(6)}),
                         [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachineEventsTest, DeleteWithoutAnIdentifierIsRefusedEvenWithARecord)
{
    EXPECT_FALSE(machine.handle(Event::HTTP_DELETE, makeService("Media"), ""));

    EXPECT_THAT(log.lines(), ElementsAre(incompleteEvent));
}

TEST_F(SDStateMachineEventsTest, EventTypesFromSixOnAreUnknown)
{
    EXPECT_FALSE(machine.handle(static_cast<Event::WorkloadEvent_t>(6), makeService("Media")));
    EXPECT_FALSE(machine.handle(static_cast<Event::WorkloadEvent_t>(0xffffffff), makeService("Media")));

    EXPECT_THAT(log.lines(), ElementsAre(unknownEvent, unknownEvent));
}

TEST_F(SDStateMachineEventsTest, PutOfAnUnknownServiceIsAnnouncedAsInstanceOne)
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

TEST_F(SDStateMachineEventsTest, PutOfAnotherNameIsANewService)
{
    put(makeService("Media"));

    EXPECT_TRUE(put(makeService("media")));

    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1",
                                         "media ANNOUNCED INITIAL_WAIT_PHASE #1"));
}

TEST_F(SDStateMachineEventsTest, PutReplacesTheSearchForItWhenThatIsAllThereIs)
{
    machine.putAperiodic(wanted());
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(service));
    EXPECT_THAT(aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_THAT(log.traces(),
                Contains("Trace: SDStateMachine::handlePUT: replace Wanted \"Media\" with new Service."));
}

TEST_F(SDStateMachineEventsTest, PutOfAFurtherEndpointGetsTheNumberAfterTheHighest)
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

TEST_F(SDStateMachineEventsTest, HighestNumberOfAPutMayStandInTheAperiodicWorkload)
{
    machine.putAperiodic(announced(State::REPETITION_PHASE, "fd00::1", 1, 7));
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 2, 5));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(service->getInstanceId(), 8);
}

TEST_F(SDStateMachineEventsTest, DiscoveredInstanceAfterTheHighestNumberGetsTheLowestFreeOne)
{
    SDService::Ptr known = discovered();
    known->setInstanceId(0xfffd);
    machine.putPeriodic(known);

    std::vector<unsigned short> numbers;
    for (const char* address : {"fd00::3", "fd00::4", "fd00::5"}) {
        SDService::Ptr service = offered("Media", address);
        EXPECT_TRUE(offer(service));
        numbers.push_back(service->getInstanceId());
    }

    EXPECT_THAT(numbers, ElementsAre(0xfffe, 1, 2));
}

TEST_F(SDStateMachineEventsTest, DiscoveredInstanceIsNotNumberedAfterAReservedNumber)
{
    SDService::Ptr known = discovered();
    known->setInstanceId(0xffff);
    machine.putPeriodic(known);
    SDService::Ptr service = offered("Media", "fd00::3");

    EXPECT_TRUE(offer(service));

    EXPECT_EQ(service->getInstanceId(), 1);
}

TEST_F(SDStateMachineEventsTest, DiscoveredInstanceSharesTheLastNumberWhenNoneIsFree)
{
    for (unsigned number = 1; number <= 0xfffe; ++number)
        machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", static_cast<unsigned short>(number),
                                      static_cast<unsigned short>(number)));
    SDService::Ptr service = offered("Media", "fd00::3");

    EXPECT_TRUE(offer(service));

    EXPECT_EQ(service->getInstanceId(), 0xfffe);
}

TEST_F(SDStateMachineEventsTest, FurtherInstanceIsNumberOneWhenTheHighestNumberIsZero)
{
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 1, 0));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(service->getInstanceId(), 1);
}

TEST_F(SDStateMachineEventsTest, SearchesHaveNoNumberOfTheirOwn)
{
    machine.putAperiodic(wanted());
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 1, 3));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(service->getInstanceId(), 4);
    EXPECT_THAT(aperiodic(), Contains("Media WANTED REPETITION_PHASE #65535"))
        << "only a search that is all there is of the service is replaced";
}

TEST_F(SDStateMachineEventsTest, SeveralSearchesAreNoneToReplaceAndNoneToBeNumberedAfter)
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

TEST_F(SDStateMachineEventsTest, PutOfAServiceThatIsShuttingDownReplacesItUnderTheSameNumber)
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

TEST_F(SDStateMachineEventsTest, SeveralDuplicatesOfAPutAreCounted)
{
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));

    EXPECT_FALSE(put(makeService("Media")));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine::handlePUT found 2 duplicate Service(s)!"));
}

TEST_F(SDStateMachineEventsTest, ServiceIsADuplicateWhateverItsVersionsAndNumber)
{
    put(makeService("Media"));

    EXPECT_FALSE(put(makeService(describe("Media", "fd00::1", 8080, "", "2.7.0"))));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine::handlePUT found 1 duplicate Service(s)!"));
}

TEST_F(SDStateMachineEventsTest, AnotherAddressPortOrProtocolIsNoDuplicate)
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

TEST_F(SDStateMachineEventsTest, NoOfferOfAnotherUnitKeepsALocalServiceFromBeingAdded)
{
    machine.putPeriodic(discovered("fd00::1"));
    SDService::Ptr service = makeService("Media", "fd00::1");

    EXPECT_TRUE(put(service));

    EXPECT_EQ(summary(service), "Media ANNOUNCED INITIAL_WAIT_PHASE #2");
}

TEST_F(SDStateMachineEventsTest, OneTimeAnswersAreNoDuplicates)
{
    machine.putAperiodic(announced(State::ONCE));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(put(service));

    EXPECT_THAT(machine.aperiodic(), Contains(service));
    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDStateMachineEventsTest, DeleteOfAnUnknownIdentifierFails)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "other"));

    EXPECT_FALSE(remove("id"));

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: SD failed to delete Service with local UUID \"id\", none found!"));
    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineEventsTest, DeleteInTheMainPhaseSetsTheServiceToShutdown)
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

TEST_F(SDStateMachineEventsTest, DeleteDropsAWaitingAnswer)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Media", "fd00::1", 8080, "id"));

    EXPECT_TRUE(remove("id"));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleDELETE: remove Announced|once "
                                         "\"Media\" with instance #1"));
}

TEST_F(SDStateMachineEventsTest, DeleteActsOnEveryRecordThatCarriesTheIdentifier)
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

TEST_F(SDStateMachineEventsTest, DeleteReportsPeriodicRecordsThatCannotBeShutDown)
{
    machine.putPeriodic(discovered("fd00::2", "id"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::SHUTDOWN_PHASE, "Media", "fd00::1", 8080, "id"));

    EXPECT_FALSE(remove("id"));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleDELETE found 2 periodic Services "
                                              "in unexpected State x Type!"));
    EXPECT_THAT(periodic(),
                ElementsAre("Media DISCOVERED MAIN_PHASE #1", "Media ANNOUNCED SHUTDOWN_PHASE #1"));
}

TEST_F(SDStateMachineEventsTest, DeleteReportsAperiodicRecordsThatCannotBeShutDown)
{
    machine.putAperiodic(makeRecord(Type::WANTED, State::REPETITION_PHASE, "Media", "::", 0, "id"));
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "id"));

    EXPECT_FALSE(remove("id"));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handleDELETE found 2 aperiodic Services "
                            "in unexpected State x Type!"));
    EXPECT_THAT(aperiodic(), SizeIs(2));
}

TEST_F(SDStateMachineEventsTest, DeleteSucceedsWhenSomethingWasDoneBesideUnexpectedRecords)
{
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", 8080, "id"));
    machine.putPeriodic(discovered("fd00::2", "id"));

    EXPECT_TRUE(remove("id"));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine::handleDELETE found 1 periodic Services in "
                                          "unexpected State x Type!"));
}

TEST_F(SDStateMachineEventsTest, GetStartsASearchForAnyMinorVersion)
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

TEST_F(SDStateMachineEventsTest, NewSearchTakesInstanceAndMajorVersionFromTheEvent)
{
    SDService::Ptr service = searched("Media");
    service->setInstanceId(5);
    service->setMajorVersion(2);

    EXPECT_TRUE(get(service));

    EXPECT_EQ(service->getInstanceId(), 5);
    EXPECT_EQ(service->getMajorVersion(), 2);
}

TEST_F(SDStateMachineEventsTest, GetResetsASearchThatIsUnderWay)
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

TEST_F(SDStateMachineEventsTest, GetSearchesEvenForAServiceThatIsKnown)
{
    machine.putPeriodic(discovered());
    machine.putPeriodic(announced(State::MAIN_PHASE));

    EXPECT_TRUE(get(searched("Media")));

    EXPECT_THAT(aperiodic(), ElementsAre("Media WANTED INITIAL_WAIT_PHASE #0"));
    EXPECT_THAT(periodic(), SizeIs(2));
}

TEST_F(SDStateMachineEventsTest, FindOfAnUnknownServiceSchedulesNoAnswer)
{
    machine.putAperiodic(wanted());
    machine.putPeriodic(discovered());
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Navi"));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), ElementsAre("Media WANTED REPETITION_PHASE #65535"));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                         "\"Media\", which is unknown."));
}

TEST_F(SDStateMachineEventsTest, FindOfAServiceThatIsShuttingDownSchedulesNoAnswer)
{
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                         "\"Media\", which is in shutdown."));
}

TEST_F(SDStateMachineEventsTest, WaitingAnswersAreNotAnsweredThemselves)
{
    machine.putAperiodic(announced(State::ONCE));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(1));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                         "\"Media\", which is unknown."));
}

TEST_F(SDStateMachineEventsTest, FindIsAnsweredOnceWithACopyOfTheAnnouncedRecord)
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

TEST_F(SDStateMachineEventsTest, AnswerKeepsTheDeadlineOfItsRecord)
{
    SDService::Ptr original = announced(State::MAIN_PHASE);
    original->setTTL(300);
    machine.putPeriodic(original);
    SDClock::turn(200 * second);

    find("Media");
    SDClock::turn(100 * second);

    EXPECT_TRUE(machine.aperiodic().front()->isTTLElapsed());
}

TEST_F(SDStateMachineEventsTest, FindIsAnsweredWithEveryInstanceThatIsNotShuttingDown)
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

TEST_F(SDStateMachineEventsTest, AtMostSixteenAnswersWaitForOneService)
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

TEST_F(SDStateMachineEventsTest, AnswersThatWaitForOneServiceDoNotCountForAnother)
{
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 1));
    for (std::size_t i = 0; i < mostAnswersWaiting; ++i)
        find("Media");
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", 2, 2));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(mostAnswersWaiting + 1));
    EXPECT_THAT(aperiodic(), Contains("Media ANNOUNCED ONCE #2").Times(1));
}

TEST_F(SDStateMachineEventsTest, FurtherFindIsAnsweredAgainWhenAnAnswerHasGoneOut)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));
    for (std::size_t i = 0; i < mostAnswersWaiting; ++i)
        find("Media");
    machine.unsafe_removeAperiodicService(machine.aperiodic().front());

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), SizeIs(mostAnswersWaiting));
}

TEST_F(SDStateMachineEventsTest, OfferOfAnUnknownServiceIsDiscoveredAsInstanceOne)
{
    SDService::Ptr service = offered("Media");

    EXPECT_TRUE(offer(service));

    EXPECT_THAT(machine.periodic(), ElementsAre(service));
    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_EQ(service->getNuboDescription().getLocalUuid(), "uuid-1");
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: SDStateMachine::handleOFFER: add \"Media\" as new Service."));
}

TEST_F(SDStateMachineEventsTest, RegistryIsToldOfADiscoveredServiceWithoutAnIdentifierYet)
{
    std::string broughtUuid = "none";
    engine.registry.onEvent = [&](ServiceDiscovery::ServiceListEventPayload& payload) {
        broughtUuid = payload.getLocalUuid();
    };

    offer(offered("Media", "fd00::2", 9090));

    const auto events = engine.registry.events();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].type, ServiceDiscovery::EventType::SERVICE_DISCOVERED);
    EXPECT_EQ(events[0].description.getName(), "Media");
    EXPECT_THAT(events[0].description.getVersions(), ElementsAre("1.0.0"));
    EXPECT_EQ(events[0].description.getUri(), "http://[fd00::2]:9090/Media/");
    EXPECT_EQ(broughtUuid, "");
}

TEST_F(SDStateMachineEventsTest, OfferOfAServiceThatIsSearchedForReplacesTheSearch)
{
    machine.putAperiodic(wanted());
    SDService::Ptr service = offered("Media");

    EXPECT_TRUE(offer(service));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(machine.periodic(), ElementsAre(service));
    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_EQ(service->getNuboDescription().getLocalUuid(), "uuid-1");
    EXPECT_EQ(engine.registry.discovered("Media"), 1u);
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleOFFER: replace Wanted \"Media\" with "
                                         "new Service."));
}

TEST_F(SDStateMachineEventsTest, OfferFromAnotherEndpointIsAFurtherInstance)
{
    offer(offered("Media", "fd00::2"));
    log.clear();
    SDService::Ptr service = offered("Media", "fd00::3");

    EXPECT_TRUE(offer(service));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1", "Media DISCOVERED MAIN_PHASE #2"));
    EXPECT_EQ(service->getNuboDescription().getLocalUuid(), "uuid-2");
    EXPECT_EQ(engine.registry.discovered("Media"), 2u);
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: SDStateMachine::handleOFFER: add Discovered \"Media\" as new "
                            "Service instance #2"));
}

TEST_F(SDStateMachineEventsTest, FurtherInstanceIsNumberedAfterAllRecordsOfTheServiceButItsSearches)
{
    machine.putAperiodic(wanted());
    machine.putAperiodic(announced(State::REPETITION_PHASE, "fd00::1", 1, 6));
    machine.putPeriodic(discovered("fd00::3"));
    SDService::Ptr service = offered("Media");

    EXPECT_TRUE(offer(service));

    EXPECT_EQ(service->getInstanceId(), 7);
    EXPECT_THAT(aperiodic(), SizeIs(2)) << "the search goes on";
}

TEST_F(SDStateMachineEventsTest, OfferOfALocalServicesEndpointIsAFurtherInstance)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));

    EXPECT_TRUE(offer(offered("Media", "fd00::1")));

    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1", "Media DISCOVERED MAIN_PHASE #2"));
}

TEST_F(SDStateMachineEventsTest, RepeatedOfferOnlyRenewsTheTimeToLive)
{
    offer(offered("Media", "fd00::2", 8080, 300));
    offer(offered("Media", "fd00::3", 8080, 300));
    SDService::Ptr known = machine.periodic().back();
    log.clear();
    SDClock::turn(200 * second);

    EXPECT_TRUE(offer(offered("Media", "fd00::3", 8080, 400)));
    SDClock::turn(200 * second);

    EXPECT_EQ(known->getTTL(), 400u);
    EXPECT_FALSE(known->isTTLElapsed());
    EXPECT_TRUE(machine.periodic().front()->isTTLElapsed()) << "the other instance is not renewed";
    EXPECT_THAT(machine.periodic(), SizeIs(2));
    EXPECT_THAT(engine.registry.events(), SizeIs(2));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleOFFER: re-set TTL of Discovered "
                                         "\"Media\" with instance #2"));
}

TEST_F(SDStateMachineEventsTest, OfferRenewsWhateverItsVersions)
{
    offer(offered("Media"));

    EXPECT_TRUE(offer(makeService(describe("Media", "fd00::2", 8080, "", "3.1.0"))));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_THAT(engine.registry.events(), SizeIs(1));
}

TEST_F(SDStateMachineEventsTest, OfferWithoutAnIdentifierFromTheRegistryIsNotTakenIn)
{
    engine.registry.givesUuids = false;

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Error: Failed to handle OFFER_SERVICE due Service Registry "
                                         "Notification not returning a UUID!"));
}

TEST_F(SDStateMachineEventsTest, NextOfferOfAServiceThatWasNotTakenInTellsTheRegistryAnew)
{
    engine.registry.givesUuids = false;
    offer(offered("Media"));
    engine.registry.givesUuids = true;

    EXPECT_TRUE(offer(offered("Media")));

    EXPECT_EQ(engine.registry.discovered("Media"), 2u);
    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineEventsTest, SearchedOrFurtherServiceWithoutAnIdentifierIsNotTakenInEither)
{
    engine.registry.givesUuids = false;
    machine.putAperiodic(wanted("Navi"));
    machine.putPeriodic(discovered());

    EXPECT_FALSE(offer(offered("Navi")));
    EXPECT_FALSE(offer(offered("Media", "fd00::3")));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_THAT(log.lines(), ElementsAre("Error: Failed to handle OFFER_SERVICE due Service Registry "
                                         "Notification not returning a UUID!",
                                         "Error: Failed to handle OFFER_SERVICE due Service Registry "
                                         "Notification not returning a UUID!"));
}

TEST_F(SDStateMachineEventsTest, OfferReportsAperiodicRecordsThatHaveNoBusinessThere)
{
    machine.putAperiodic(makeRecord(Type::DISCOVERED, State::ONCE));
    machine.putAperiodic(makeRecord(Type::NONE, State::INITIAL_WAIT_PHASE));

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleOFFER found 2 aperiodic Services "
                                              "in unexpected State x Type!"));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineEventsTest, OfferReportsPeriodicRecordsThatHaveNoBusinessThere)
{
    machine.putPeriodic(makeRecord(Type::WANTED, State::MAIN_PHASE));
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::SHUTDOWN_PHASE));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleOFFER found 2 periodic Services "
                                              "in unexpected State x Type!"));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineEventsTest, SeveralDuplicatesOfAnOfferAreCounted)
{
    machine.putPeriodic(discovered());
    machine.putPeriodic(discovered());

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handleOFFER found 2 duplicate Service(s)!"));
    EXPECT_THAT(periodic(), SizeIs(2));
}

TEST_F(SDStateMachineEventsTest, EveryServiceIsAdmitted)
{
    EXPECT_TRUE(machine.checkCapabilities(NuboServiceDescription()));
    EXPECT_TRUE(machine.checkCapabilities(describe("Media")));
}

TEST_F(SDStateMachineEventsTest, RefusedOfferGoesIntoTheEventMemory)
{
    struct RefusingStateMachine : TestStateMachine
    {
        using TestStateMachine::TestStateMachine;
        bool checkCapabilities(const NuboServiceDescription&) override { return false; }
    };
    RefusingStateMachine refusing(engine.hub);

    EXPECT_FALSE(refusing.handle(Event::SOMEIP_OFFER, offered("Media", "fd00::2", 9090)));

    EXPECT_THAT(refusing.periodic(), IsEmpty());
    EXPECT_THAT(engine.registry.events(), IsEmpty());
    EXPECT_THAT(log.complaints(),
                ElementsAre("Warning: SDStateMachine::handleOFFER: adding \"Media\" not authorized.",
                            "Warning: SD Writing 'Ereignisspeicher' for forbidden Service offer regarding "
                            "\"Media\" @ [fd00::2]:9090 !"));
    EXPECT_THAT(engine.platform.dispatcher().logEntries(), SizeIs(1));
}

TEST_F(SDStateMachineEventsTest, EventMemoryGetsNameProtocolAndEndpoint)
{
    machine.writeEventLog("Media", "fd00::2", 8080);

    const auto entries = engine.platform.dispatcher().logEntries();
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(entries[0].name, "Media");
    EXPECT_EQ(entries[0].protocol, "http");
    EXPECT_EQ(entries[0].ip, "fd00::2");
    EXPECT_EQ(entries[0].port, 8080);
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SD Writing 'Ereignisspeicher' for forbidden Service "
                                              "offer regarding \"Media\" @ [fd00::2]:8080 !"));
}

TEST_F(SDStateMachineEventsTest, EventMemoryCannotBeWrittenWithoutADispatcher)
{
    engine.platform.withdraw();

    machine.writeEventLog("Media", "fd00::2", 8080);

    EXPECT_THAT(log.lines(), ElementsAre("Warning: SD Writing 'Ereignisspeicher' for forbidden Service offer "
                                         "regarding \"Media\" @ [fd00::2]:8080 !",
                                         "Error: Failed to write Eventlog - OEM Dispatcher missing!"));
}

TEST_F(SDStateMachineEventsTest, EventMemoryCannotBeWrittenWithANullDispatcher)
{
    engine.platform.offerNull();

    EXPECT_NO_THROW(machine.writeEventLog("Media", "fd00::2", 8080));

    EXPECT_THAT(log.lines(), ElementsAre("Warning: SD Writing 'Ereignisspeicher' for forbidden Service offer "
                                         "regarding \"Media\" @ [fd00::2]:8080 !",
                                         "Error: Failed to write Eventlog - OEM Dispatcher missing!"));
}

TEST_F(SDStateMachineEventsTest, StopOfferEndsTheInstanceWithItsEndpoint)
{
    offer(offered("Media", "fd00::2"));
    offer(offered("Media", "fd00::3"));
    offer(offered("Navi", "fd00::3"));
    log.clear();

    EXPECT_TRUE(stopOffer(offered("Media", "fd00::3", 8080, 0)));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1", "Navi DISCOVERED MAIN_PHASE #1"));
    EXPECT_EQ(machine.periodic().front()->getNuboDescription().getIpAddressString(), "fd00::2");
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleSTOPOFFER: remove Discovered|main "
                                         "\"Media\" with instance #2"));
}

TEST_F(SDStateMachineEventsTest, RegistryIsToldOfAStoppedServiceUnderItsIdentifier)
{
    offer(offered("Media", "fd00::2", 9090));

    stopOffer(offered("Media", "fd00::2", 9090, 0));

    const auto events = engine.registry.events();
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[1].type, ServiceDiscovery::EventType::SERVICE_GONE);
    EXPECT_EQ(events[1].uuid, "uuid-1");
    EXPECT_EQ(events[1].description.getUri(), "http://[fd00::2]:9090/Media/");
}

TEST_F(SDStateMachineEventsTest, StopOfferOfAnUnknownInstanceIsQuiet)
{
    machine.putAperiodic(wanted());
    machine.putPeriodic(discovered("fd00::3"));
    machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::2"));

    EXPECT_TRUE(stopOffer(offered("Media", "fd00::2", 8080, 0)));
    EXPECT_TRUE(stopOffer(offered("Radio", "fd00::3", 8080, 0)));

    EXPECT_THAT(aperiodic(), SizeIs(1));
    EXPECT_THAT(periodic(), SizeIs(2));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDStateMachineEventsTest, StopOfferReportsADiscoveredRecordThatIsNotInItsMainPhase)
{
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::SHUTDOWN_PHASE, "Media", "fd00::2"));

    EXPECT_FALSE(stopOffer(offered("Media", "fd00::2", 8080, 0)));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleSTOPOFFER found periodic Service "
                                              "\"Media\" in unexpected State x Type!"));
    EXPECT_THAT(periodic(), SizeIs(1));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineEventsTest, StopOfferReportsDiscoveredRecordsInTheAperiodicWorkload)
{
    machine.putAperiodic(discovered());

    EXPECT_FALSE(stopOffer(offered("Media", "fd00::2", 8080, 0)));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleSTOPOFFER found 1 aperiodic "
                                              "Service(s) in unexpected State x Type!"));
}

TEST_F(SDStateMachineEventsTest, SeveralDuplicatesOfAStopOfferAreCounted)
{
    machine.putPeriodic(discovered());
    machine.putPeriodic(discovered());

    EXPECT_FALSE(stopOffer(offered("Media", "fd00::2", 8080, 0)));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handleSTOPOFFER found 2 duplicate Service(s)!"));
    EXPECT_THAT(periodic(), SizeIs(2));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineEventsTest, StoppedInstanceIsGoneEvenIfTheSubscriberThrows)
{
    offer(offered("Media"));
    engine.registry.onEvent = [](auto&) { throw Poco::IOException("registry is gone"); };

    EXPECT_THROW(stopOffer(offered("Media", "fd00::2", 8080, 0)), Poco::IOException);

    EXPECT_THAT(periodic(), IsEmpty());
}

TEST_F(SDStateMachineEventsTest, SubscriberThatThrowsAtAnOfferLeavesTheMachineUsable)
{
    engine.registry.onEvent = [](auto&) { throw Poco::IOException("registry is gone"); };
    EXPECT_THROW(offer(offered("Media")), Poco::IOException);
    engine.registry.onEvent = nullptr;

    EXPECT_TRUE(offer(offered("Media")));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineEventsTest, RegistryIsNotifiedWithTheWorkloadMutexHeld)
{
    bool couldLock = true;
    engine.registry.onEvent = [&](auto&) { couldLock = machine.m_workloadMutex.tryLock(); };

    offer(offered("Media"));

    EXPECT_FALSE(couldLock);
}

TEST_P(SDStateMachineLockingTest, EventWaitsForTheWorkloadMutex)
{
    machine.m_workloadMutex.lock();
    std::atomic<bool> isHandled{false};
    std::thread thread([&] {
        machine.handle(GetParam().type, makeService("Media"), "id");
        isHandled = true;
    });

    EXPECT_TRUE(keeps([&] { return !isHandled; }, std::chrono::milliseconds(20)));
    machine.m_workloadMutex.unlock();
    thread.join();

    EXPECT_TRUE(isHandled);
}

INSTANTIATE_TEST_SUITE_P(Types, SDStateMachineLockingTest,
                         ::testing::Values(EventTypeCase{"Put", Event::HTTP_PUT},
                                           EventTypeCase{"Delete", Event::HTTP_DELETE},
                                           EventTypeCase{"Get", Event::HTTP_GET},
                                           EventTypeCase{"Find", Event::SOMEIP_FIND},
                                           EventTypeCase{"Offer", Event::SOMEIP_OFFER},
                                           EventTypeCase{"StopOffer", Event::SOMEIP_STOPOFFER}),
                         [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachineEventsTest, EventTypesHaveTheirNumbers)
{
    EXPECT_EQ(Event::HTTP_PUT, 0u);
    EXPECT_EQ(Event::HTTP_DELETE, 1u);
    EXPECT_EQ(Event::HTTP_GET, 2u);
    EXPECT_EQ(Event::SOMEIP_FIND, 3u);
    EXPECT_EQ(Event::SOMEIP_OFFER, 4u);
    EXPECT_EQ(Event::SOMEIP_STOPOFFER, 5u);
}

TEST_F(SDStateMachineEventsTest, FindIsLeftToTheCyclicOffersWhileManyAnswersWait)
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

TEST_F(SDStateMachineEventsTest, FindIsAnsweredWhileManyServicesAreBeingAdded)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));
    for (int i = 0; i < 100; ++i)
        put(makeService("Service" + std::to_string(i)));

    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(aperiodic(), Contains("Media ANNOUNCED ONCE #1"));
}

TEST_F(SDStateMachineEventsTest, OfferUnderAnotherServiceIDIsOfTheSameInstance)
{
    SDService::Ptr numbered = offered("Media");
    numbered->setServiceId(0x1234);
    EXPECT_TRUE(offer(offered("Media")));

    EXPECT_TRUE(offer(numbered));
    EXPECT_TRUE(offer(offered("Media")));
    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));

    EXPECT_TRUE(stopOffer(numbered));
    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

namespace {

std::string refusals(const std::string& count)
{
    return "Warning: SDStateMachine::handleOFFER: " + count +
           " offer(s) of new Services refused, at most 131072 with 67108864 Bytes of text can be known!";
}

/// An offer that says much about its service.
SDService::Ptr offeredWithCategories(const std::string& name, std::size_t count)
{
    NuboServiceDescription description = describe(name, "fd00::2");
    const std::string category(std::size_t{1024} - sizeof(std::string), 'c');
    for (std::size_t i = 0; i < count; ++i)
        description.addCategory(category);
    SDService::Ptr service = new SDService(describe(name, "fd00::2"));
    service->setNuboDescription(description);
    return service;
}

}  // namespace

TEST_F(SDStateMachineEventsTest, WorkloadThatIsFullTakesInNoFurtherService)
{
    EXPECT_TRUE(offer(offered("Known")));
    const SDService::Ptr filler = makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Filler");
    while (machine.m_periodicWorkload.size() < 131072)
        machine.unsafe_addPeriodicService(filler);

    EXPECT_FALSE(offer(offered("New")));
    EXPECT_FALSE(offer(offered("New")));
    EXPECT_FALSE(offer(offered("Newer")));
    EXPECT_TRUE(offer(offered("Known"))) << "it goes on being known";
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1"))) << "one line a second at most";
    SDClock::turn(second);
    EXPECT_FALSE(offer(offered("New")));
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1"), refusals("3")));
    EXPECT_EQ(engine.registry.eventCount(), 1u);

    EXPECT_TRUE(stopOffer(offered("Known")));
    EXPECT_TRUE(offer(offered("New"))) << "there is room again";
}

TEST_F(SDStateMachineEventsTest, TextsOfKnownServicesAreBoundedTogether)
{
    constexpr std::size_t kilobytes = 16 * 1024;
    for (const char* name : {"First", "Second", "Third"})
        EXPECT_TRUE(offer(offeredWithCategories(name, kilobytes)));

    EXPECT_FALSE(offer(offeredWithCategories("Fourth", kilobytes)));
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1")));
    EXPECT_TRUE(offer(offered("Fourth"))) << "there is room for a smaller one";

    EXPECT_TRUE(stopOffer(offered("Second")));
    EXPECT_TRUE(offer(offeredWithCategories("Fifth", kilobytes)));
    EXPECT_FALSE(offer(offeredWithCategories("Sixth", kilobytes)));
}

TEST_F(SDStateMachineEventsTest, KnownInstanceIsRenewedWithoutAnEvent)
{
    EXPECT_TRUE(offer(offered("Media", "fd00::2", 8080, 300)));
    log.clear();

    EXPECT_TRUE(machine.renew(*offered("Media", "fd00::2", 8080, 400)));
    EXPECT_FALSE(machine.renew(*offered("Media", "fd00::3", 8080, 400)));

    EXPECT_EQ(machine.periodic().front()->getTTL(), 400u);
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleOFFER: re-set TTL of Discovered "
                                         "\"Media\" with instance #1"));
}

TEST_F(SDStateMachineEventsTest, ServicesAreThoseAnnouncedAndThoseDiscovered)
{
    put(makeService("Media", "fd00::1", 8080, "own"));
    offer(offered("Media", "fd00::2", 8080, 300));

    const std::vector<ServiceStatus> services = machine.getServices();

    ASSERT_THAT(services, SizeIs(2));
    EXPECT_EQ(services[0].role, ServiceStatus::Role::ANNOUNCED);
    EXPECT_EQ(services[0].description.getLocalUuid(), "own");
    EXPECT_EQ(services[0].instanceId, 1);
    EXPECT_EQ(services[0].secondsLeft, std::nullopt);
    EXPECT_EQ(services[1].role, ServiceStatus::Role::DISCOVERED);
    EXPECT_EQ(services[1].description.getLocalUuid(), engine.registry.events().front().uuid);
    EXPECT_EQ(services[1].description.getIpAddressString(), "fd00::2");
    EXPECT_EQ(services[1].instanceId, 2);
    EXPECT_EQ(services[1].secondsLeft, 300u);
}

TEST_F(SDStateMachineEventsTest, ServiceThatIsRenewedHasAllItsSecondsAgain)
{
    offer(offered("Media", "fd00::2", 8080, 300));
    SDClock::turn(200 * second);
    EXPECT_EQ(machine.getServices().front().secondsLeft, 100u);

    offer(offered("Media", "fd00::2", 8080, 300));

    EXPECT_EQ(machine.getServices().front().secondsLeft, 300u);
}

TEST_F(SDStateMachineEventsTest, SearchesAnswersAndWhatIsWithdrawnAreNoServices)
{
    get(searched("Navi"));
    machine.putPeriodic(announced(State::MAIN_PHASE));
    find("Media");
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE, "fd00::1", 8081, 2));
    ASSERT_THAT(aperiodic(), SizeIs(2));

    EXPECT_THAT(machine.getServices(), SizeIs(1));
}

/// Many callers with long lists must not keep the network waiting, each for the time of a list.
TEST_F(SDStateMachineEventsTest, ServicesAreListedForOneCallerAtATimeAndEventsGoOn)
{
    std::future<std::size_t> listed;
    {
        const std::lock_guard<std::mutex> otherList(machine.m_listingMutex);
        listed = std::async(std::launch::async, [&] { return machine.getServices().size(); });
        EXPECT_EQ(listed.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);

        EXPECT_TRUE(offer(offered("Media", "fd00::2", 8080, 300)));
    }

    EXPECT_EQ(listed.get(), 1u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
