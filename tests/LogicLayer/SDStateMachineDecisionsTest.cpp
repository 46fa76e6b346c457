// Decisions of the state machine that make no difference for most records.

#include "StateMachineFixture.h"

#include <Poco/Exception.h>

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachineDecisionsTest = RunningStateMachineFixture;

struct SDStateMachineExpiryTest : SDStateMachineDecisionsTest, ::testing::WithParamInterface<State::State_t>
{};

struct ExceptionCase
{
    const char* name;
    std::function<void()> raise;
    const char* error;

    friend void PrintTo(const ExceptionCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineExceptionTest : SDStateMachineDecisionsTest, ::testing::WithParamInterface<ExceptionCase>
{};

/// Admits everything and records what it was asked about.
class AskedStateMachine : public TestStateMachine
{
public:
    using TestStateMachine::TestStateMachine;

    bool checkCapabilities(const NuboServiceDescription& description) override
    {
        asked.push_back(description.getName() + " @ " + description.getIpAddressString());
        return true;
    }

    std::vector<std::string> asked;
};

}  // namespace

// Stop and start

TEST_F(SDStateMachineDecisionsTest, WithdrawalSendsAStopOfferForAServiceThatIsShuttingDownToo)
{
    SDService::Ptr service = makeRecord(Type::ANNOUNCED, State::SHUTDOWN_PHASE);
    service->setTTL(0);
    machine.putPeriodic(service);

    EXPECT_TRUE(machine.removeAllAnnouncedServices());

    const auto sent = engine.hub.sent();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent.front().record.getState(), State::REMOVED);
    EXPECT_EQ(sent.front().record.getTTL(), 0u);
    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.notices(), ElementsAre("Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ "
                                           "(Media v1.0.X) stopped, due to shutdown of ServiceRegistry."));
}

TEST_F(SDStateMachineDecisionsTest, KnownServicesOutliveAStopAndARestart)
{
    SDService::Ptr known = offered();
    offer(known);
    machine.stop();
    EXPECT_THAT(machine.periodic(), ElementsAre(known));

    machine.start();
    machine.stop();

    EXPECT_THAT(machine.periodic(), ElementsAre(known));
    EXPECT_THAT(engine.registry.events(), SizeIs(1)) << "it was discovered, and has not gone";
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDStateMachineDecisionsTest, WhatHasNotSettledOutlivesAStopAndARestartButForAnswers)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, "Answered"), hour);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE, "Added"), hour);
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, "Repeated"), hour);
    machine.putAperiodic(makeRecord(Type::WANTED, State::REPETITION_PHASE, "Searched"), hour);

    machine.stop();
    machine.start();
    machine.stop();

    EXPECT_THAT(aperiodic(),
                ElementsAre("Added ANNOUNCED INITIAL_WAIT_PHASE #1", "Repeated ANNOUNCED REPETITION_PHASE #1",
                            "Searched WANTED REPETITION_PHASE #1"));
    EXPECT_THAT(engine.hub.sent(), IsEmpty());
}

// Renewal and expiry

TEST_F(SDStateMachineDecisionsTest, RenewalSetsAShorterTimeToLiveToo)
{
    offer(offered("Media", "fd00::2", 8080, 300));
    SDService::Ptr known = machine.periodic().front();

    EXPECT_TRUE(offer(offered("Media", "fd00::2", 8080, 5)));
    EXPECT_EQ(known->getTTL(), 5u);
    EXPECT_TRUE(machine.renew(*offered("Media", "fd00::2", 8080, 3)));
    EXPECT_EQ(known->getTTL(), 3u);

    SDClock::turn(3 * second);
    machine.periodicTick();
    EXPECT_EQ(engine.registry.gone("Media"), 1u);
}

TEST_P(SDStateMachineExpiryTest, DiscoveredServiceGoesWhenItsTimeToLiveHasElapsed)
{
    SDService::Ptr service = makeRecord(Type::DISCOVERED, GetParam(), "Media", "fd00::2");
    service->setTTL(120);
    machine.putPeriodic(service);
    SDClock::turn(119 * second);
    machine.periodicTick();
    EXPECT_THAT(machine.periodic(), ElementsAre(service));

    SDClock::turn(second);
    machine.periodicTick();

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_EQ(engine.registry.gone("Media"), 1u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(States, SDStateMachineExpiryTest,
                         ::testing::Values(State::ONCE, State::INITIAL_WAIT_PHASE, State::REPETITION_PHASE,
                                           State::MAIN_PHASE, State::SHUTDOWN_PHASE, State::REMOVED),
                         ::testing::PrintToStringParamName());

// Admission

TEST_F(SDStateMachineDecisionsTest, OnlyTheFirstServiceOfANameIsAskedAbout)
{
    AskedStateMachine asked(engine.hub);

    asked.handle(Event::SOMEIP_OFFER, offered("Media", "fd00::2"));
    asked.handle(Event::SOMEIP_OFFER, offered("Media", "fd00::2"));
    asked.handle(Event::SOMEIP_OFFER, offered("Media", "fd00::3"));
    asked.handle(Event::SOMEIP_OFFER, offered("Navi", "fd00::2"));

    EXPECT_THAT(asked.asked, ElementsAre("Media @ fd00::2", "Navi @ fd00::2"));
    EXPECT_THAT(asked.periodic(), SizeIs(3));
}

TEST_F(SDStateMachineDecisionsTest, ServiceThatIsSearchedForIsNotAskedAbout)
{
    AskedStateMachine asked(engine.hub);
    asked.putAperiodic(makeRecord(Type::WANTED, State::REPETITION_PHASE), hour);

    EXPECT_TRUE(asked.handle(Event::SOMEIP_OFFER, offered()));

    EXPECT_THAT(asked.asked, IsEmpty());
    EXPECT_THAT(asked.periodic(), SizeIs(1));
}

// Records in the wrong workload or phase

TEST_F(SDStateMachineDecisionsTest, OfferReportsAKnownInstanceThatIsNotInItsMainPhase)
{
    SDService::Ptr known = makeRecord(Type::DISCOVERED, State::SHUTDOWN_PHASE, "Media", "fd00::2");
    known->setTTL(1);
    machine.putPeriodic(known);

    EXPECT_FALSE(machine.renew(*offered()));
    EXPECT_FALSE(offer(offered()));

    EXPECT_EQ(known->getTTL(), 1u);
    EXPECT_THAT(machine.periodic(), ElementsAre(known));
    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleOFFER found 1 periodic Services "
                                              "in unexpected State x Type!"));
}

TEST_F(SDStateMachineDecisionsTest, OfferReportsADiscoveredAperiodicRecordBesideAKnownService)
{
    SDService::Ptr known = discovered();
    known->setTTL(1);
    machine.putPeriodic(known);
    machine.putAperiodic(discovered());

    EXPECT_FALSE(machine.renew(*offered()));
    EXPECT_FALSE(offer(offered()));
    EXPECT_FALSE(offer(offered("Media", "fd00::3"))) << "nor is a further instance taken in";

    EXPECT_EQ(known->getTTL(), 1u);
    EXPECT_THAT(machine.periodic(), ElementsAre(known));
    EXPECT_THAT(log.complaints(), SizeIs(2));
    EXPECT_THAT(log.complaints(), Each("Error: SDStateMachine::handleOFFER found 1 aperiodic Services in "
                                       "unexpected State x Type!"));
}

TEST_F(SDStateMachineDecisionsTest, StopOfferReportsADiscoveredAperiodicRecordBesideAKnownService)
{
    machine.putPeriodic(discovered());
    machine.putAperiodic(discovered());

    EXPECT_FALSE(stopOffer(offered("Media", "fd00::2", 8080, 0)));

    EXPECT_THAT(periodic(), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_THAT(engine.registry.events(), IsEmpty());
    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDStateMachine::handleSTOPOFFER found 1 aperiodic "
                                              "Service(s) in unexpected State x Type!"));
}

// Events and sends

TEST_F(SDStateMachineDecisionsTest, RegistryIsToldOfAStoppedServiceWithTheWorkloadMutexHeld)
{
    offer(offered());
    std::vector<bool> couldLock;
    engine.registry.onEvent = [&](auto&) {
        couldLock.push_back(machine.m_workloadMutex.tryLock());
        if (couldLock.back())
            machine.m_workloadMutex.unlock();
    };

    stopOffer(offered("Media", "fd00::2", 8080, 0));

    EXPECT_THAT(couldLock, ElementsAre(false));
    EXPECT_EQ(engine.registry.gone("Media"), 1u);
}

TEST_F(SDStateMachineDecisionsTest, SixteenAnswersWaitForAServiceThatHasNotSettledItself)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE), hour);

    for (int i = 0; i < 17; ++i)
        EXPECT_TRUE(machine.handle(Event::SOMEIP_FIND, makeService("Media")));

    std::vector<std::string> expected(16, "Media ANNOUNCED ONCE #1");
    expected.emplace_back("Media ANNOUNCED REPETITION_PHASE #1");
    EXPECT_EQ(aperiodic(), expected);
}

TEST_F(SDStateMachineDecisionsTest, SearchThatIsMadeOnceIsSent)
{
    machine.putAperiodic(makeRecord(Type::WANTED, State::ONCE));

    machine.aperiodicTick();

    const auto sent = engine.hub.sent();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent.front().record.getType(), Type::WANTED);
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_P(SDStateMachineExceptionTest, CostsOnlyTheSendThatRaisesIt)
{
    machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::INITIAL_WAIT_PHASE, "Young"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "First"));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Second"));
    engine.hub.onAnnounce = GetParam().raise;

    machine.aperiodicTick();
    machine.periodicTick();
    EXPECT_THAT(aperiodic(), ElementsAre("Young ANNOUNCED REPETITION_PHASE #1"));
    EXPECT_THAT(periodic(), ElementsAre("First ANNOUNCED MAIN_PHASE #1", "Second ANNOUNCED MAIN_PHASE #1"));
    machine.removeAllAnnouncedServices();

    EXPECT_THAT(periodic(), IsEmpty());
    EXPECT_THAT(log.complaints(), SizeIs(4)) << "one send, one batch, two stop-offers";
    EXPECT_THAT(log.complaints(), Each(GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDStateMachineExceptionTest,
    ::testing::Values(ExceptionCase{"OfPoco", [] { throw Poco::IOException("no network"); },
                                    "Error: SDStateMachine - failed to announce: I/O error: no network"},
                      ExceptionCase{"OfTheStandardLibrary", [] { throw std::runtime_error("out of luck"); },
                                    "Error: SDStateMachine - failed to announce: out of luck"},
                      ExceptionCase{"OfNoKind", [] { throw 42; },
                                    "Error: SDStateMachine - failed to announce: unknown exception"}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
