#include "StateMachineFixture.h"

#include <Poco/Exception.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachineOfferTest = StateMachineFixture;

}  // namespace

TEST_F(SDStateMachineOfferTest, OfferOfAnUnknownServiceIsDiscoveredAsInstanceOne)
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

TEST_F(SDStateMachineOfferTest, RegistryIsToldOfADiscoveredServiceWithoutAnIdentifierYet)
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

TEST_F(SDStateMachineOfferTest, OfferOfAServiceThatIsSearchedForReplacesTheSearch)
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

TEST_F(SDStateMachineOfferTest, OfferFromAnotherEndpointIsAFurtherInstance)
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

TEST_F(SDStateMachineOfferTest, FurtherInstanceIsNumberedAfterAllRecordsOfTheServiceButItsSearches)
{
    machine.putAperiodic(wanted());
    machine.putAperiodic(announced(State::REPETITION_PHASE, "fd00::1", 1, 6));
    machine.putPeriodic(discovered("fd00::3"));
    SDService::Ptr service = offered("Media");

    EXPECT_TRUE(offer(service));

    EXPECT_EQ(service->getInstanceId(), 7);
    EXPECT_THAT(aperiodic(), SizeIs(2)) << "the search goes on";
}

TEST_F(SDStateMachineOfferTest, DiscoveredInstanceAfterTheHighestNumberGetsTheLowestFreeOne)
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

TEST_F(SDStateMachineOfferTest, DiscoveredInstanceIsNotNumberedAfterAReservedNumber)
{
    SDService::Ptr known = discovered();
    known->setInstanceId(0xffff);
    machine.putPeriodic(known);
    SDService::Ptr service = offered("Media", "fd00::3");

    EXPECT_TRUE(offer(service));

    EXPECT_EQ(service->getInstanceId(), 1);
}

TEST_F(SDStateMachineOfferTest, DiscoveredInstanceSharesTheLastNumberWhenNoneIsFree)
{
    for (unsigned number = 1; number <= 0xfffe; ++number)
        machine.putPeriodic(announced(State::MAIN_PHASE, "fd00::1", static_cast<unsigned short>(number),
                                      static_cast<unsigned short>(number)));
    SDService::Ptr service = offered("Media", "fd00::3");

    EXPECT_TRUE(offer(service));

    EXPECT_EQ(service->getInstanceId(), 0xfffe);
}

TEST_F(SDStateMachineOfferTest, OfferOfALocalServicesEndpointIsAFurtherInstance)
{
    machine.putPeriodic(announced(State::MAIN_PHASE));

    EXPECT_TRUE(offer(offered("Media", "fd00::1")));

    EXPECT_THAT(periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1", "Media DISCOVERED MAIN_PHASE #2"));
}

TEST_F(SDStateMachineOfferTest, OfferUnderAnotherServiceIDIsOfTheSameInstance)
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

TEST_F(SDStateMachineOfferTest, RepeatedOfferOnlyRenewsTheTimeToLive)
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

TEST_F(SDStateMachineOfferTest, KnownInstanceIsRenewedWithoutAnEvent)
{
    EXPECT_TRUE(offer(offered("Media", "fd00::2", 8080, 300)));
    log.clear();

    EXPECT_TRUE(machine.renew(*offered("Media", "fd00::2", 8080, 400)));
    EXPECT_FALSE(machine.renew(*offered("Media", "fd00::3", 8080, 400)));

    EXPECT_EQ(machine.periodic().front()->getTTL(), 400u);
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDStateMachine::handleOFFER: re-set TTL of Discovered "
                                         "\"Media\" with instance #1"));
}

TEST_F(SDStateMachineOfferTest, OfferRenewsWhateverItsVersions)
{
    offer(offered("Media"));

    EXPECT_TRUE(offer(makeService(describe("Media", "fd00::2", 8080, "", "3.1.0"))));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_THAT(engine.registry.events(), SizeIs(1));
}

TEST_F(SDStateMachineOfferTest, OfferWithoutAnIdentifierFromTheRegistryIsNotTakenIn)
{
    engine.registry.givesUuids = false;

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Error: Failed to handle OFFER_SERVICE due Service Registry "
                                         "Notification not returning a UUID!"));
}

TEST_F(SDStateMachineOfferTest, NextOfferOfAServiceThatWasNotTakenInTellsTheRegistryAnew)
{
    engine.registry.givesUuids = false;
    offer(offered("Media"));
    engine.registry.givesUuids = true;

    EXPECT_TRUE(offer(offered("Media")));

    EXPECT_EQ(engine.registry.discovered("Media"), 2u);
    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineOfferTest, SearchedOrFurtherServiceWithoutAnIdentifierIsNotTakenInEither)
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

TEST_F(SDStateMachineOfferTest, OfferReportsAperiodicRecordsThatHaveNoBusinessThere)
{
    machine.putAperiodic(makeRecord(Type::DISCOVERED, State::ONCE));
    machine.putAperiodic(makeRecord(Type::NONE, State::INITIAL_WAIT_PHASE));

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleOFFER found 2 aperiodic Services "
                                              "in unexpected State x Type!"));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineOfferTest, OfferReportsPeriodicRecordsThatHaveNoBusinessThere)
{
    machine.putPeriodic(makeRecord(Type::WANTED, State::MAIN_PHASE));
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::SHUTDOWN_PHASE));
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE));

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleOFFER found 2 periodic Services "
                                              "in unexpected State x Type!"));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineOfferTest, SeveralDuplicatesOfAnOfferAreCounted)
{
    machine.putPeriodic(discovered());
    machine.putPeriodic(discovered());

    EXPECT_FALSE(offer(offered("Media")));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handleOFFER found 2 duplicate Service(s)!"));
    EXPECT_THAT(periodic(), SizeIs(2));
}

TEST_F(SDStateMachineOfferTest, SubscriberThatThrowsAtAnOfferLeavesTheMachineUsable)
{
    engine.registry.onEvent = [](auto&) { throw Poco::IOException("registry is gone"); };
    EXPECT_THROW(offer(offered("Media")), Poco::IOException);
    engine.registry.onEvent = nullptr;

    EXPECT_TRUE(offer(offered("Media")));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
}

TEST_F(SDStateMachineOfferTest, RegistryIsNotifiedWithTheWorkloadMutexHeld)
{
    bool couldLock = true;
    engine.registry.onEvent = [&](auto&) { couldLock = machine.m_workloadMutex.tryLock(); };

    offer(offered("Media"));

    EXPECT_FALSE(couldLock);
}

}  // namespace Nubo::ServiceDiscovery::Testing
