#include "DataLayer/SDClock.h"
#include "LogicLayer/DiscoveryBounds.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/OfferedRecords.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Event = TestStateMachine::Event;
using EventType = ServiceDiscovery::EventType;
using State = SDService::State;
using Type = SDService::Type;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff second = 1000 * millisecond;
constexpr Poco::Clock::ClockDiff stale = 10 * second;

constexpr std::size_t places = 131072;
constexpr std::size_t placesOfAName = 4096;

std::string refusals(const std::string& count, const std::string& reason)
{
    return "Warning: SDStateMachine::handleOFFER: " + count + " offer(s) of new Services refused, " + reason;
}
const std::string allTaken =
    "at most 131072 with 67108864 Bytes of text can be known!";                   // NOLINT(cert-err58-cpp)
const std::string nameTaken = "at most 4096 of one name can be known!";           // NOLINT(cert-err58-cpp)
const std::string shareTaken = "their unit has its share of what can be known!";  // NOLINT(cert-err58-cpp)

std::string displacements(const std::string& count)
{
    return "Warning: SDStateMachine::handleOFFER: " + count +
           " Service(s) that had not been offered for 10 s displaced by offers of new ones!";
}

SDService::Ptr search(const std::string& name)
{
    SDService::Ptr service = new SDService(name);
    service->setInstanceId(0xffff);
    service->setMajorVersion(0xff);
    return service;
}

struct SDStateMachineBoundsTest : ::testing::Test
{
    SDStateMachineBoundsTest() { machine.run(); }

    bool put(const SDService::Ptr& service) { return machine.handle(Event::HTTP_PUT, service); }
    bool get(const std::string& name) { return machine.handle(Event::HTTP_GET, search(name)); }
    bool offer(const SDService::Ptr& service) { return machine.handle(Event::SOMEIP_OFFER, service); }

    /// Makes `count` further services of that unit known, as if they had been offered just now.
    void fill(std::size_t count, std::uint32_t sender)
    {
        SDService::Ptr one;
        for (std::size_t i = 0; i < count; ++i) {
            if (i % 512 == 0)
                one = makeDiscovered("Filler" + std::to_string(++m_lastFiller), 1, sender);
            machine.putPeriodic(one);
        }
    }
    void fillName(const std::string& name, std::size_t count, std::uint32_t sender)
    {
        for (std::size_t i = 0; i < count; ++i)
            machine.putPeriodic(makeDiscovered(name, static_cast<unsigned short>(++m_lastFiller), sender));
    }

    /// Sets the age of the service whose last offer is the oldest.
    void ageStalest(Poco::Clock::ClockDiff age) { machine.m_index.stalest()->renewed = SDClock::now() - age; }

    /// The events of the registry: "+Media uuid-1", "-Media uuid-1".
    std::vector<std::string> events() const
    {
        std::vector<std::string> result;
        for (const Registry::Event& event : engine.registry.events())
            result.push_back((event.type == EventType::SERVICE_DISCOVERED ? "+" : "-") + event.name + " " +
                             event.uuid);
        return result;
    }
    std::vector<std::string> aperiodic() const { return summaries(machine.aperiodic()); }

    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    LogCatcher log;

private:
    std::size_t m_lastFiller = 0;
};

}  // namespace

TEST_F(SDStateMachineBoundsTest, UnitIsTakenInUpToHalfOfThePlaces)
{
    fill(places / 2 - 1, 1);

    EXPECT_TRUE(offer(makeOffer("First", 1, 1)));
    EXPECT_FALSE(offer(makeOffer("Second", 1, 1)));
    EXPECT_TRUE(offer(makeOffer("First", 1, 1))) << "what is known is renewed";
    EXPECT_TRUE(offer(makeOffer("Second", 1, 2)));

    EXPECT_THAT(events(), ElementsAre("+First uuid-1", "+Second uuid-2"));
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1", shareTaken)));
}

TEST_F(SDStateMachineBoundsTest, UnitIsTakenInUpToHalfOfThePlacesOfAName)
{
    fillName("Media", placesOfAName / 2 - 1, 1);

    EXPECT_TRUE(offer(makeOffer("Media", 9001, 1)));
    EXPECT_FALSE(offer(makeOffer("Media", 9002, 1)));
    EXPECT_TRUE(offer(makeOffer("Media", 9002, 2)));
    EXPECT_TRUE(offer(makeOffer("Radio", 9002, 1)));

    EXPECT_THAT(events(), ElementsAre("+Media uuid-1", "+Media uuid-2", "+Radio uuid-3"));
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1", shareTaken)));
}

TEST_F(SDStateMachineBoundsTest, FullTableIsOpenToANewServiceOnceOneHasGoneTenSecondsWithoutAnOffer)
{
    EXPECT_TRUE(offer(makeOffer("Stalest", 1, 1, 0xffffff)));
    fill(places - 1, 3);

    ageStalest(stale - 100 * millisecond);
    EXPECT_FALSE(offer(makeOffer("New", 1, 2)));
    EXPECT_THAT(events(), ElementsAre("+Stalest uuid-1"));
    ageStalest(stale);
    EXPECT_TRUE(offer(makeOffer("New", 1, 2)));

    EXPECT_THAT(events(), ElementsAre("+Stalest uuid-1", "+New uuid-2", "-Stalest uuid-1"));
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1", allTaken), displacements("1")));
    EXPECT_EQ(machine.m_index.discovered(), places);
    EXPECT_EQ(machine.m_index.find("Stalest"), nullptr);
}

TEST_F(SDStateMachineBoundsTest, ServiceThatNeedsTheRoomOfManyIsTakenWhenItIsOfferedAgain)
{
    constexpr std::size_t kilobyte = 1024;
    for (unsigned short port = 1; port <= 10; ++port)
        machine.putPeriodic(withText(makeDiscovered("Small", port, 1), kilobyte));
    machine.putPeriodic(withText(makeDiscovered("Large", 1, 3), DiscoveryBounds::mostText - 10 * kilobyte));
    SDClock::turn(stale);

    EXPECT_FALSE(offer(withText(makeOffer("New", 1, 2), 8 * kilobyte)));
    EXPECT_EQ(machine.m_index.find("Small")->discoveredCount, 6u);
    EXPECT_TRUE(offer(withText(makeOffer("New", 1, 2), 8 * kilobyte)));

    EXPECT_EQ(machine.m_index.find("Small")->discoveredCount, 2u);
}

TEST_F(SDStateMachineBoundsTest, PauseOfTheUnitMakesNothingStale)
{
    machine.periodicTick();
    EXPECT_TRUE(offer(makeOffer("Media", 9001, 1)));
    fillName("Media", placesOfAName - 1, 3);

    SDClock::turn(2 * stale);  // nothing was received, and the interval is not over yet
    EXPECT_FALSE(offer(makeOffer("Media", 9002, 2)));
    machine.periodicTick();
    EXPECT_FALSE(offer(makeOffer("Media", 9002, 2)));

    for (int i = 0; i < 10; ++i) {
        SDClock::turn(second);
        machine.periodicTick();
    }
    EXPECT_TRUE(offer(makeOffer("Media", 9002, 2)));
}

TEST_F(SDStateMachineBoundsTest, StopOfTheUnitMakesNothingStale)
{
    EXPECT_TRUE(offer(makeOffer("Media", 9001, 1)));
    fillName("Media", placesOfAName - 1, 3);
    SDClock::turn(2 * stale);

    machine.start();
    EXPECT_FALSE(offer(makeOffer("Media", 9002, 2)));
    machine.stop();
}

TEST_F(SDStateMachineBoundsTest, FullNameIsOpenToANewInstanceOnceOneHasGoneTenSecondsWithoutAnOffer)
{
    EXPECT_TRUE(offer(makeOffer("Radio", 9001, 1)));
    EXPECT_TRUE(offer(makeOffer("Media", 9001, 1)));
    fillName("Media", placesOfAName - 1, 3);

    EXPECT_FALSE(offer(makeOffer("Media", 9002, 2)));
    SDClock::turn(stale);
    EXPECT_TRUE(offer(makeOffer("Media", 9002, 2)));

    EXPECT_THAT(events(), ElementsAre("+Radio uuid-1", "+Media uuid-2", "+Media uuid-3", "-Media uuid-2"));
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1", nameTaken), displacements("1")));
    EXPECT_EQ(machine.m_index.find("Media")->discoveredCount, placesOfAName);
}

TEST_F(SDStateMachineBoundsTest, OfServicesThatHaveGoneEquallyLongTheOneOfferedFirstIsDisplaced)
{
    for (const char* name : {"A", "B", "C"})
        EXPECT_TRUE(offer(makeOffer(name, 1, 1)));
    fill(places - 3, 3);
    EXPECT_TRUE(offer(makeOffer("A", 1, 1)));  // moves it to the end
    const Poco::Clock then = SDClock::now();
    for (WorkloadEntry& entry : machine.m_periodicWorkload)
        entry.renewed = then;
    SDClock::turn(stale);

    EXPECT_TRUE(offer(makeOffer("New", 1, 2)));
    EXPECT_TRUE(offer(makeOffer("Newer", 1, 2)));

    EXPECT_THAT(events(), ElementsAre("+A uuid-1", "+B uuid-2", "+C uuid-3", "+New uuid-4", "-B uuid-2",
                                      "+Newer uuid-5", "-C uuid-3"));
}

TEST_F(SDStateMachineBoundsTest, ManyUnitsThatLeaveFewPlacesKeepNoUnitOut)
{
    constexpr std::uint32_t units = 3000;
    for (std::uint32_t number = 0; number < units; ++number)
        fillName("Flood" + std::to_string(number), 1, 1000 + number);
    fill(places - units - 2, 3);
    SDClock::turn(stale);

    for (unsigned short port = 1; port <= 500; ++port)
        EXPECT_TRUE(offer(makeOffer("Service" + std::to_string(port), port, 2)));

    EXPECT_EQ(machine.m_index.find(unit(2))->records, 500u);
}

TEST_F(SDStateMachineBoundsTest, NewServiceIsKnownThoughTheSubscriberThrowsAtTheDisplacement)
{
    EXPECT_TRUE(offer(makeOffer("Media", 9001, 1)));
    fillName("Media", placesOfAName - 1, 3);
    SDClock::turn(stale);
    engine.registry.onEvent = [](const ServiceDiscovery::ServiceListEventPayload& payload) {
        if (payload.getEventType() == EventType::SERVICE_GONE)
            throw std::runtime_error("no");
    };

    EXPECT_TRUE(offer(makeOffer("Media", 9002, 2)));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine - caught exception: no"));
    EXPECT_EQ(machine.m_index.find("Media")->discoveredCount, placesOfAName);
    EXPECT_THAT(machine.indexed("uuid-1"), IsEmpty());
    EXPECT_THAT(machine.indexed("uuid-2"), SizeIs(1));
}

TEST_F(SDStateMachineBoundsTest, RefusalsAreReportedWithoutAFurtherOffer)
{
    fill(places, 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(offer(makeOffer("New", 1, 2)));
    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1", allTaken)));

    machine.reportRefusals();
    EXPECT_THAT(log.complaints(), SizeIs(1)) << "one line a second at most";
    SDClock::turn(second);
    machine.reportRefusals();

    EXPECT_THAT(log.complaints(), ElementsAre(refusals("1", allTaken), refusals("2", allTaken)));
}

TEST_F(SDStateMachineBoundsTest, ServiceThatIsSearchedForKeepsToNoShare)
{
    fill(places / 2, 1);
    EXPECT_TRUE(get("Media"));

    EXPECT_FALSE(offer(makeOffer("Navi", 1, 1)));
    EXPECT_TRUE(offer(makeOffer("Media", 1, 1)));

    EXPECT_THAT(events(), ElementsAre("+Media uuid-1"));
    EXPECT_THAT(aperiodic(), IsEmpty()) << "the search is over";
}

TEST_F(SDStateMachineBoundsTest, ServiceThatIsSearchedForDisplacesToo)
{
    EXPECT_TRUE(offer(makeOffer("Stalest", 1, 1)));
    fill(places - 1, 3);
    EXPECT_TRUE(get("Media"));
    ageStalest(stale);

    EXPECT_TRUE(offer(makeOffer("Media", 1, 3)));

    EXPECT_THAT(events(), ElementsAre("+Stalest uuid-1", "+Media uuid-2", "-Stalest uuid-1"));
    EXPECT_THAT(aperiodic(), IsEmpty());
}

namespace {

/// A reason why an offered service is refused.
struct RefusalCase
{
    const char* name;
    std::function<void(SDStateMachineBoundsTest&)> begin;
    std::function<void(SDStateMachineBoundsTest&)> end;

    friend void PrintTo(const RefusalCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineRefusalTest : SDStateMachineBoundsTest, ::testing::WithParamInterface<RefusalCase>
{
    bool offerIsTaken()
    {
        try {
            return offer(makeOffer("Media", 1, 1));
        }
        catch (const std::exception&) {
            return false;
        }
    }
    Poco::Clock due() const { return machine.m_aperiodicWorkload.begin()->first; }
    std::size_t tickWhenDue()
    {
        SDClock::turn(due() - SDClock::now());
        machine.aperiodicTick();
        return engine.hub.sent("Media").size();
    }
};

}  // namespace

TEST_P(SDStateMachineRefusalTest, SearchGoesOnByItsSchedule)
{
    EXPECT_TRUE(get("Media"));
    EXPECT_EQ(tickWhenDue(), 1u);
    const Poco::Clock next = due();
    GetParam().begin(*this);

    EXPECT_FALSE(offerIsTaken());
    EXPECT_THAT(aperiodic(), ElementsAre("Media WANTED REPETITION_PHASE #65535"));
    EXPECT_EQ(due(), next);
    EXPECT_EQ(tickWhenDue(), 2u);
    EXPECT_FALSE(offerIsTaken());
    EXPECT_EQ(tickWhenDue(), 3u);

    GetParam().end(*this);
    EXPECT_TRUE(offerIsTaken());
    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(events(), Contains("+Media uuid-1"));
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, SDStateMachineRefusalTest,
    ::testing::Values(
        RefusalCase{"AllPlacesAreTaken", [](auto& test) { test.fill(places, 3); },
                    [](auto& test) {
                        test.machine.m_periodicWorkload.erase(test.machine.m_periodicWorkload.begin());
                    }},
        RefusalCase{"RegistryGivesNoIdentifier", [](auto& test) { test.engine.registry.givesUuids = false; },
                    [](auto& test) { test.engine.registry.givesUuids = true; }},
        RefusalCase{"SubscriberThrows",
                    [](auto& test) {
                        test.engine.registry.onEvent = [](const auto&) { throw std::runtime_error("no"); };
                    },
                    [](auto& test) { test.engine.registry.onEvent = nullptr; }}),
    [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachineBoundsTest, SearchForANameThatIsFullGoesOn)
{
    fillName("Media", placesOfAName, 3);
    EXPECT_TRUE(get("Media"));
    const Poco::Clock due = machine.m_aperiodicWorkload.begin()->first;

    EXPECT_FALSE(offer(makeOffer("Media", 9001, 1)));

    EXPECT_THAT(aperiodic(), ElementsAre("Media WANTED INITIAL_WAIT_PHASE #65535"));
    EXPECT_EQ(machine.m_aperiodicWorkload.begin()->first, due);
}

TEST_F(SDStateMachineBoundsTest, NothingThatIsDiscoveredRefusesDisplacesOrRenumbersAnOwnService)
{
    for (unsigned short port = 1; port <= 3; ++port)
        EXPECT_TRUE(put(makeService("Own", "fd00::1", port)));
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Older"));
    fillName("Own", placesOfAName, 1);
    fill(places - placesOfAName, 3);

    EXPECT_TRUE(put(makeService("Another")));
    SDClock::turn(3600 * second);
    for (unsigned short port = 1; port <= 50; ++port) {
        EXPECT_TRUE(offer(makeOffer("New", port, 2)));
        EXPECT_TRUE(offer(makeOffer("Own", static_cast<unsigned short>(9000 + port), 2)));
    }

    EXPECT_THAT(
        aperiodic(),
        ElementsAre("Own ANNOUNCED INITIAL_WAIT_PHASE #1", "Own ANNOUNCED INITIAL_WAIT_PHASE #2",
                    "Own ANNOUNCED INITIAL_WAIT_PHASE #3", "Another ANNOUNCED INITIAL_WAIT_PHASE #1"));
    EXPECT_EQ(summary(machine.periodic().front()), "Older ANNOUNCED MAIN_PHASE #1");
    EXPECT_EQ(machine.m_index.discovered(), places);
}

namespace {

using Numbers = std::vector<unsigned short>;

struct NumberCase
{
    const char* name;
    Numbers foreign;
    Numbers own;
    unsigned short expected;

    friend void PrintTo(const NumberCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineNumberTest : SDStateMachineBoundsTest, ::testing::WithParamInterface<NumberCase>
{};

}  // namespace

TEST_P(SDStateMachineNumberTest, OwnServiceIsGivenTheNumber)
{
    unsigned short port = 1;
    for (const unsigned short number : GetParam().foreign) {
        ++port;
        machine.putPeriodic(makeDiscovered("Media", port, port, number));
    }
    for (const unsigned short number : GetParam().own) {
        SDService::Ptr own = makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media", "fd00::1", ++port);
        own->setInstanceId(number);
        machine.putPeriodic(own);
    }

    EXPECT_TRUE(put(makeService("Media", "fd00::1", 1)));

    EXPECT_EQ(machine.aperiodic().front()->getInstanceId(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Numbers, SDStateMachineNumberTest,
                         ::testing::Values(NumberCase{"AfterTheHighestForeignOne", {5}, {2}, 6},
                                           NumberCase{"AfterTheHighestOwnOne", {5}, {7}, 8},
                                           NumberCase{"LastOfAll", {0xfffd}, {}, 0xfffe},
                                           NumberCase{"LowestWhereTheHighestIsTheLast", {0xfffe}, {}, 1},
                                           NumberCase{"LowestWhereTheHighestIsReserved", {0xffff}, {}, 1},
                                           NumberCase{"LowestThatIsFreeAmongOwnOnes", {0xfffe}, {1, 2, 4}, 3},
                                           NumberCase{"ThatAForeignOneHas", {0xfffe, 1, 2}, {}, 1},
                                           NumberCase{"BesideThousandForeignOnes", Numbers(1000, 7), {}, 8},
                                           NumberCase{
                                               "BesideMoreThanThousandForeignOnes", Numbers(1001, 7), {}, 1},
                                           NumberCase{"BesideManyForeignOnes", Numbers(1001, 7), {2, 1}, 3}),
                         [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachineBoundsTest, OwnServicesBesideAHighForeignNumberAreAllDifferent)
{
    machine.putPeriodic(makeDiscovered("Media", 1, 2, 0xfffe));

    for (unsigned short port = 1; port <= 4; ++port)
        EXPECT_TRUE(put(makeService("Media", "fd00::1", port)));

    EXPECT_THAT(
        aperiodic(),
        ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1", "Media ANNOUNCED INITIAL_WAIT_PHASE #2",
                    "Media ANNOUNCED INITIAL_WAIT_PHASE #3", "Media ANNOUNCED INITIAL_WAIT_PHASE #4"));
}

TEST_F(SDStateMachineBoundsTest, NumberIsTheOneAfterTheHighestThatIsStillThere)
{
    machine.putPeriodic(makeDiscovered("Media", 1, 2, 100));
    EXPECT_TRUE(offer(makeOffer("Media", 2, 2)));
    EXPECT_TRUE(machine.handle(Event::SOMEIP_STOPOFFER, makeOffer("Media", 1, 2)));
    EXPECT_TRUE(put(makeService("Media", "fd00::1", 1)));
    EXPECT_EQ(machine.aperiodic().front()->getInstanceId(), 102) << "the second one is #101";

    EXPECT_TRUE(machine.handle(Event::SOMEIP_STOPOFFER, makeOffer("Media", 2, 2)));
    machine.unsafe_removeAperiodicService(machine.aperiodic().front());
    machine.putPeriodic(makeDiscovered("Media", 3, 2, 4));
    EXPECT_TRUE(put(makeService("Media", "fd00::1", 1)));

    EXPECT_EQ(machine.aperiodic().front()->getInstanceId(), 5);
}

TEST_F(SDStateMachineBoundsTest, ServiceIsRefusedWhenOwnOnesHaveAllNumbers)
{
    for (std::uint32_t number = 1; number <= 0xfffe; ++number) {
        SDService::Ptr own = makeOffer("Media", static_cast<unsigned short>(number), 0);
        own->setType(Type::ANNOUNCED);
        own->setState(State::MAIN_PHASE);
        own->setInstanceId(static_cast<unsigned short>(number));
        machine.putPeriodic(own);
    }

    EXPECT_FALSE(put(makeService("Media", "fd00::1", 1)));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: SDStateMachine::handlePUT: no instance number is free for \"Media\"."));
}

}  // namespace Nubo::ServiceDiscovery::Testing
