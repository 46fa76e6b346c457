#include "DataLayer/SDClock.h"
#include "support/Descriptions.h"
#include "support/FailingAllocations.h"
#include "support/LogCatcher.h"
#include "support/OfferedRecords.h"
#include "support/Platform.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"

#include <Poco/Delegate.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// The state machine while one allocation fails, for each allocation that it makes.
namespace Nubo::ServiceDiscovery::Testing {

using Event = TestStateMachine::Event;
using EventType = ServiceDiscovery::EventType;
using State = SDService::State;
using Type = SDService::Type;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

constexpr Poco::Clock::ClockDiff second = 1000000;

/// A subscriber that needs no memory: it gives each discovered service the same short identifier.
class FrugalRegistry
{
public:
    explicit FrugalRegistry(ServiceDiscovery& discovery) : m_discovery(discovery)
    {
        m_discovery.ServiceListChanged += Poco::delegate(this, &FrugalRegistry::onServiceListChanged);
    }
    ~FrugalRegistry()
    {
        m_discovery.ServiceListChanged -= Poco::delegate(this, &FrugalRegistry::onServiceListChanged);
    }

    FrugalRegistry(const FrugalRegistry&) = delete;
    FrugalRegistry& operator=(const FrugalRegistry&) = delete;

    std::size_t discovered = 0;
    std::size_t gone = 0;
    bool isGoneToldWithIdentifier = true;

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        if (payload.getEventType() == EventType::SERVICE_DISCOVERED) {
            ++discovered;
            payload.setLocalUuid("id");
        }
        else {
            ++gone;
            isGoneToldWithIdentifier = isGoneToldWithIdentifier && payload.getLocalUuid() == "id";
        }
    }

    ServiceDiscovery& m_discovery;
};

struct SDStateMachineMemoryTest : ::testing::Test
{
    /// A machine and its registry.
    struct Unit
    {
        explicit Unit(SDStateMachineMemoryTest& test) : registry(test.facade), machine(test.hub)
        {
            machine.run();
        }

        bool put() { return machine.handle(Event::HTTP_PUT, makeService("Media", "fd00::1", 8080, "own")); }
        bool offer(unsigned short port = 1)
        {
            return machine.handle(Event::SOMEIP_OFFER, makeOffer("Media", port, port, 120));
        }
        bool stopOffer() { return machine.handle(Event::SOMEIP_STOPOFFER, makeOffer("Media", 1)); }
        bool remove() { return machine.handle(Event::HTTP_DELETE, nullptr, "own"); }

        /// Handles the record in the aperiodic workload that is due.
        void tick()
        {
            SDClock::turn(second);
            machine.aperiodicTick();
        }

        std::vector<std::string> aperiodic() const { return summaries(machine.aperiodic()); }
        std::vector<std::string> periodic() const { return summaries(machine.periodic()); }

        FrugalRegistry registry;
        TestStateMachine machine;
    };

    /// For each n: prepares a new unit, acts while the n-th allocation fails, and checks the unit.
    template <class Prepare, class Act, class Check>
    void failEach(Prepare prepare, Act act, Check check)
    {
        std::size_t n = 1;
        for (bool hasFailed = true; hasFailed; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            Unit unit(*this);
            prepare(unit);
            hasFailed = failsAtAllocation(n, [&] { act(unit); });
            check(unit);
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(n, 3u) << "something was allocated";
    }

    const PlatformScope platform;
    ServiceDiscovery facade;
    RecordingHub hub{facade};
};

struct OfferCase
{
    const char* name;
    void (*prepare)(SDStateMachineMemoryTest::Unit& unit);
    std::size_t knownBefore;

    friend void PrintTo(const OfferCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineOfferMemoryTest : SDStateMachineMemoryTest, ::testing::WithParamInterface<OfferCase>
{};

}  // namespace

TEST_P(SDStateMachineOfferMemoryTest, RegistryIsToldOfWhatIsTakenInAndOfNothingElse)
{
    failEach([](Unit& unit) { GetParam().prepare(unit); }, [](Unit& unit) { unit.offer(); },
             [](Unit& unit) {
                 EXPECT_EQ(unit.machine.m_index.discovered(), unit.registry.discovered);
                 EXPECT_EQ(unit.machine.indexed("id").size(), unit.registry.discovered);

                 EXPECT_TRUE(unit.offer());
                 EXPECT_EQ(unit.registry.discovered, GetParam().knownBefore + 1) << "once";
                 EXPECT_EQ(unit.machine.m_index.discovered(), GetParam().knownBefore + 1);
                 EXPECT_EQ(unit.registry.gone, 0u);
                 EXPECT_THAT(unit.aperiodic(), IsEmpty()) << "a search is over";
             });
}

INSTANTIATE_TEST_SUITE_P(
    Offers, SDStateMachineOfferMemoryTest,
    ::testing::Values(
        OfferCase{"OfAnUnknownService", [](auto& /*unit*/) {}, 0},
        OfferCase{"OfAServiceThatIsSearchedFor",
                  [](auto& unit) { unit.machine.handle(Event::HTTP_GET, new SDService("Media")); }, 0},
        OfferCase{"OfASecondInstance", [](auto& unit) { unit.offer(2); }, 1},
        OfferCase{"OfAThirdInstance",
                  [](auto& unit) {
                      unit.offer(2);
                      unit.offer(3);
                  },
                  2}),
    [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachineMemoryTest, OwnServiceIsAddedWhollyOrNotAtAll)
{
    failEach([](Unit& /*unit*/) {}, [](Unit& unit) { unit.put(); },
             [](Unit& unit) {
                 EXPECT_EQ(unit.machine.m_index.size(), unit.machine.m_aperiodicWorkload.size());
                 if (unit.aperiodic().empty())
                     unit.put();
                 EXPECT_THAT(unit.aperiodic(), ElementsAre("Media ANNOUNCED INITIAL_WAIT_PHASE #1"));
             });
}

TEST_F(SDStateMachineMemoryTest, OwnServiceComesThroughItsPhasesWhicheverIntervalRunsShort)
{
    constexpr int intervals = 4;
    for (int shortOne = 0; shortOne < intervals; ++shortOne) {
        SCOPED_TRACE("interval " + std::to_string(shortOne));
        failEach(
            [&](Unit& unit) {
                unit.put();
                for (int i = 0; i < shortOne; ++i)
                    unit.tick();
            },
            [](Unit& unit) { unit.tick(); },
            [](Unit& unit) {
                EXPECT_EQ(unit.aperiodic().size() + unit.periodic().size(), 1u);
                for (int i = 0; i < 2 * intervals; ++i)
                    unit.tick();
                EXPECT_THAT(unit.periodic(), ElementsAre("Media ANNOUNCED MAIN_PHASE #1"));
                EXPECT_THAT(unit.aperiodic(), IsEmpty());
                EXPECT_EQ(unit.machine.indexed("own").size(), 1u);
            });
    }
}

TEST_F(SDStateMachineMemoryTest, IntervalThatRanShortIsLogged)
{
    const LogCatcher log;

    failEach(
        [](Unit& unit) {
            unit.put();
            for (int i = 0; i < 3; ++i)
                unit.tick();
        },
        [](Unit& unit) { unit.tick(); }, [](Unit& /*unit*/) {});

    EXPECT_TRUE(log.has("Error: SDStateMachine - \"AperiodicWorker\" caught exception: std::bad_alloc"));
}

TEST_F(SDStateMachineMemoryTest, StopOfferIsCountedOnlyWhenItIsMade)
{
    int made = 0;
    hub.onAnnounce = [&] { ++made; };

    failEach(
        [&](Unit& unit) {
            for (const char* name : {"First", "Second", "Third"})
                unit.machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::SHUTDOWN_PHASE, name));
            made = 0;
        },
        [](Unit& unit) { unit.machine.periodicTick(); },
        [&](Unit& unit) {
            for (const SDService::Ptr& service : unit.machine.periodic())
                EXPECT_EQ(service->getRepetitionRun(), made);
        });
}

TEST_F(SDStateMachineMemoryTest, CyclicOffersAreMadeAgainAfterAnIntervalThatRanShort)
{
    failEach([](Unit& unit) { unit.machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE)); },
             [](Unit& unit) { unit.machine.periodicTick(); },
             [&](Unit& unit) {
                 hub.clear();
                 unit.machine.periodicTick();
                 EXPECT_EQ(hub.sent().size(), 1u);
             });
}

TEST_F(SDStateMachineMemoryTest, ServiceThatHasRunOutIsToldUntilTheRegistryKnows)
{
    failEach([](Unit& unit) { unit.offer(); },
             [](Unit& unit) {
                 SDClock::turn(121 * second);
                 unit.machine.periodicTick();
             },
             [](Unit& unit) {
                 unit.machine.periodicTick();

                 EXPECT_EQ(unit.registry.gone, 1u) << "once";
                 EXPECT_TRUE(unit.registry.isGoneToldWithIdentifier);
                 EXPECT_THAT(unit.periodic(), IsEmpty());
                 EXPECT_EQ(unit.machine.m_index.size(), 0u);
             });
}

TEST_F(SDStateMachineMemoryTest, ServiceThatIsStoppedIsToldUntilTheRegistryKnows)
{
    failEach([](Unit& unit) { unit.offer(); }, [](Unit& unit) { unit.stopOffer(); },
             [](Unit& unit) {
                 EXPECT_EQ(unit.registry.gone + unit.machine.m_index.discovered(), 1u);
                 unit.machine.periodicTick();
                 unit.stopOffer();  // in case the first one failed

                 EXPECT_EQ(unit.registry.gone, 1u) << "once";
                 EXPECT_TRUE(unit.registry.isGoneToldWithIdentifier);
                 EXPECT_THAT(unit.periodic(), IsEmpty());
             });
}

TEST_F(SDStateMachineMemoryTest, StoppedServiceNeedNotBeStoppedTwiceOnceItWasToBeTold)
{
    failEach([](Unit& unit) { unit.offer(); }, [](Unit& unit) { unit.stopOffer(); },
             [](Unit& unit) {
                 const bool wasToBeTold =
                     unit.periodic().empty() || unit.machine.periodic().front()->getTTL() == 0;
                 unit.machine.periodicTick();

                 EXPECT_EQ(unit.registry.gone, wasToBeTold ? 1u : 0u);
             });
}

TEST_F(SDStateMachineMemoryTest, ServiceThatIsDisplacedIsToldUntilTheRegistryKnows)
{
    constexpr std::size_t full = 4096;
    Unit unit(*this);
    for (std::size_t i = 0; i < full; ++i) {
        SDService::Ptr service = makeDiscovered("Media", static_cast<unsigned short>(10000 + i), 1);
        service->setTTL(0xffffff);
        service->setLocalUuid("id");
        unit.machine.putPeriodic(service);
    }
    SDClock::turn(10 * second);
    EXPECT_TRUE(unit.offer(9999));  // containers keep their capacity: from now on, each offer makes the same
                                    // number of allocations

    bool hasFailed = true;
    std::size_t toldByTheTick = 0;
    for (unsigned short n = 1; hasFailed; ++n) {
        hasFailed = failsAtAllocation(n, [&] { unit.offer(n); });
        const std::size_t toldBefore = unit.registry.gone;
        unit.machine.periodicTick();
        toldByTheTick += unit.registry.gone - toldBefore;

        ASSERT_EQ(unit.machine.m_index.discovered(), full + unit.registry.discovered - unit.registry.gone);
        ASSERT_LE(unit.machine.m_index.discovered(), full) << "allocation " << n;
    }
    EXPECT_GT(toldByTheTick, 0u);
    EXPECT_GT(unit.registry.gone, 0u);
    EXPECT_TRUE(unit.registry.isGoneToldWithIdentifier);
}

TEST_F(SDStateMachineMemoryTest, ServiceThatIsRemovedEndsAsItWouldOtherwise)
{
    const auto prepare = [](Unit& unit) {
        unit.machine.putPeriodic(
            makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Older", "fd00::1", 8081, "own"));
        unit.put();
        unit.machine.handle(Event::SOMEIP_FIND, new SDService("Media"));
    };

    failEach(
        prepare, [](Unit& unit) { unit.remove(); },
        [](Unit& unit) {
            EXPECT_EQ(unit.machine.indexed("own").size(), unit.machine.walked("own").size());
            unit.remove();  // again

            EXPECT_THAT(unit.periodic(), UnorderedElementsAre("Older ANNOUNCED SHUTDOWN_PHASE #1",
                                                              "Media ANNOUNCED SHUTDOWN_PHASE #1"));
            EXPECT_THAT(unit.aperiodic(), IsEmpty());
        });
}

TEST_F(SDStateMachineMemoryTest, MachineThatCannotBeStartedDoesNotRun)
{
    std::size_t n = 1;
    for (bool hasFailed = true; hasFailed; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        TestStateMachine machine(hub);
        machine.putAperiodic(makeRecord(Type::WANTED, State::REPETITION_PHASE), 3600 * second);
        bool isStarted = false;

        hasFailed = failsAtAllocation(n, [&] {
            machine.start();
            isStarted = true;
        });

        EXPECT_EQ(machine.isRunning(), isStarted);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(n, 3u) << "something was allocated";
}

/// The first record starts the timer.
TEST_F(SDStateMachineMemoryTest, FirstServiceAfterAStartIsAddedWhollyOrNotAtAll)
{
    std::size_t n = 1;
    for (bool hasFailed = true; hasFailed; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        TestStateMachine machine(hub);
        machine.m_running = true;
        bool isAdded = false;

        hasFailed = failsAtAllocation(n, [&] {
            isAdded = machine.handle(Event::HTTP_PUT, makeService("Media", "fd00::1", 8080, "own"));
        });

        machine.stop();
        EXPECT_EQ(machine.m_index.size(), isAdded ? 1u : 0u);
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(n, 3u) << "something was allocated";
}

/// Otherwise a flood of them would take time for each instance.
TEST_F(SDStateMachineMemoryTest, FindNeedsAsLittleMemoryForManyInstancesAsForOneWhileSixtyFourAnswersWait)
{
    const auto allocationsForInstances = [&](unsigned short count) {
        Unit unit(*this);
        for (unsigned short port = 1; port <= count; ++port)
            unit.machine.putAperiodic(
                makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, "Media", "fd00::1", port));
        for (int i = 0; i < 64; ++i)
            unit.machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE));
        const SDService::Ptr search = new SDService("Media");
        std::size_t n = 1;
        while (failsAtAllocation(n, [&] { EXPECT_TRUE(unit.machine.handle(Event::SOMEIP_FIND, search)); }))
            ++n;
        EXPECT_EQ(unit.machine.m_aperiodicWorkload.size(), count + 64u);
        return n - 1;
    };

    EXPECT_EQ(allocationsForInstances(50), allocationsForInstances(1));
}

TEST_F(SDStateMachineMemoryTest, SearchThatIsBegunAgainStays)
{
    failEach(
        [](Unit& unit) {
            unit.machine.handle(Event::HTTP_GET, new SDService("Media"));
            unit.tick();
        },
        [](Unit& unit) { unit.machine.handle(Event::HTTP_GET, new SDService("Media")); },
        [](Unit& unit) {
            EXPECT_EQ(unit.machine.m_aperiodicWorkload.size(), 1u);
            EXPECT_EQ(unit.machine.m_index.size(), 1u);
        });
}

}  // namespace Nubo::ServiceDiscovery::Testing
