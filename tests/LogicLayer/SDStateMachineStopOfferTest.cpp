#include "StateMachineFixture.h"

#include <Poco/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachineStopOfferTest = StateMachineFixture;

}  // namespace

TEST_F(SDStateMachineStopOfferTest, StopOfferEndsTheInstanceWithItsEndpoint)
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

TEST_F(SDStateMachineStopOfferTest, RegistryIsToldOfAStoppedServiceUnderItsIdentifier)
{
    offer(offered("Media", "fd00::2", 9090));

    stopOffer(offered("Media", "fd00::2", 9090, 0));

    const auto events = engine.registry.events();
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[1].type, ServiceDiscovery::EventType::SERVICE_GONE);
    EXPECT_EQ(events[1].uuid, "uuid-1");
    EXPECT_EQ(events[1].description.getUri(), "http://[fd00::2]:9090/Media/");
}

TEST_F(SDStateMachineStopOfferTest, StopOfferOfAnUnknownInstanceIsQuiet)
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

TEST_F(SDStateMachineStopOfferTest, StopOfferReportsADiscoveredRecordThatIsNotInItsMainPhase)
{
    machine.putPeriodic(makeRecord(Type::DISCOVERED, State::SHUTDOWN_PHASE, "Media", "fd00::2"));

    EXPECT_FALSE(stopOffer(offered("Media", "fd00::2", 8080, 0)));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleSTOPOFFER found periodic Service "
                                              "\"Media\" in unexpected State x Type!"));
    EXPECT_THAT(periodic(), SizeIs(1));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineStopOfferTest, StopOfferReportsDiscoveredRecordsInTheAperiodicWorkload)
{
    machine.putAperiodic(discovered());

    EXPECT_FALSE(stopOffer(offered("Media", "fd00::2", 8080, 0)));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleSTOPOFFER found 1 aperiodic "
                                              "Service(s) in unexpected State x Type!"));
}

TEST_F(SDStateMachineStopOfferTest, SeveralDuplicatesOfAStopOfferAreCounted)
{
    machine.putPeriodic(discovered());
    machine.putPeriodic(discovered());

    EXPECT_FALSE(stopOffer(offered("Media", "fd00::2", 8080, 0)));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handleSTOPOFFER found 2 duplicate Service(s)!"));
    EXPECT_THAT(periodic(), SizeIs(2));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
}

TEST_F(SDStateMachineStopOfferTest, StoppedInstanceIsGoneEvenIfTheSubscriberThrows)
{
    offer(offered("Media"));
    engine.registry.onEvent = [](auto&) { throw Poco::IOException("registry is gone"); };

    EXPECT_THROW(stopOffer(offered("Media", "fd00::2", 8080, 0)), Poco::IOException);

    EXPECT_THAT(periodic(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
