#include "WorkersFixture.h"

#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using SDStateMachineWorkloadsTest = WorkersFixture;

constexpr auto addedMedia =
    "Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ (Media v1.0.X) "
    "startet, due to addition by ServiceRegistry.";
constexpr auto searchedMedia =
    "Notice: SD Finding of Service Media startet, due to GET request to ServiceRegistry.";
constexpr auto answeredMedia =
    "Notice: SD One-Time Announcement of Service http://[fd00::1]:8080/Media/ "
    "(Media v1.0.X) startet, due to reception of FIND_SERVICE.";

struct ScheduleCase
{
    const char* name;
    Type::Type_t type;
    State::State_t state;
    long delay;
    const char* notice;

    friend void PrintTo(const ScheduleCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineScheduleTest : WorkersFixture, ::testing::WithParamInterface<ScheduleCase>
{};

struct SDStateMachineRefusedScheduleTest : WorkersFixture, ::testing::WithParamInterface<UnexpectedRecord>
{};

/// How the records of a workload are reached.
struct WorkloadCase
{
    const char* name;
    void (*put)(TestStateMachine&, const SDService::Ptr&);
    bool (*remove)(TestStateMachine&, const SDService::Ptr&);
    ServicesContainer (*records)(const TestStateMachine&);

    friend void PrintTo(const WorkloadCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineRemovalTest : WorkersFixture, ::testing::WithParamInterface<WorkloadCase>
{};

}  // namespace

TEST_P(SDStateMachineScheduleTest, RecordIsScheduledWithItsDelayAndANotice)
{
    SDService::Ptr service = makeRecord(GetParam().type, GetParam().state);

    EXPECT_THAT(dueAfter([&] { EXPECT_TRUE(machine.unsafe_addAperiodicService(service)); }),
                Holds(GetParam().delay));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(service));
    EXPECT_THAT(log.notices(), ElementsAre(GetParam().notice));
    EXPECT_THAT(log.traces(), ElementsAre("Trace: AperiodicWorker::unsafe_addAperiodicService",
                                          "Trace: AperiodicWorker::unsafe_update"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDStateMachineScheduleTest,
    ::testing::Values(ScheduleCase{"Announced", Type::ANNOUNCED, State::INITIAL_WAIT_PHASE, 0, addedMedia},
                      ScheduleCase{"Wanted", Type::WANTED, State::INITIAL_WAIT_PHASE, 0, searchedMedia},
                      ScheduleCase{"AnnouncedOnce", Type::ANNOUNCED, State::ONCE, 50, answeredMedia},
                      ScheduleCase{"DiscoveredOnce", Type::DISCOVERED, State::ONCE, 50, answeredMedia}),
    [](const auto& row) { return row.param.name; });

TEST_P(SDStateMachineRefusedScheduleTest, RecordThatHasNothingToDoThereIsRefused)
{
    EXPECT_FALSE(machine.unsafe_addAperiodicService(makeRecord(GetParam().type, GetParam().state)));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Trace: AperiodicWorker::unsafe_addAperiodicService",
                                         "Error: SD failed to add Service to m_aperiodicWorkload, unexpected "
                                         "State x Type: " +
                                             std::string(GetParam().text) + "!"));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDStateMachineRefusedScheduleTest,
    ::testing::Values(
        UnexpectedRecord{Type::DISCOVERED, State::INITIAL_WAIT_PHASE, "DISCOVERED x INITIAL_WAIT_PHASE"},
        UnexpectedRecord{Type::NONE, State::INITIAL_WAIT_PHASE, "NONE x INITIAL_WAIT_PHASE"},
        UnexpectedRecord{Type::ANY, State::ONCE, "ANY x ONCE"},
        UnexpectedRecord{Type::WANTED, State::ONCE, "WANTED x ONCE"},
        UnexpectedRecord{Type::WANTED, State::REPETITION_PHASE, "WANTED x REPETITION_PHASE"},
        UnexpectedRecord{Type::ANNOUNCED, State::REPETITION_PHASE, "ANNOUNCED x REPETITION_PHASE"},
        UnexpectedRecord{Type::ANNOUNCED, State::MAIN_PHASE, "ANNOUNCED x MAIN_PHASE"},
        UnexpectedRecord{Type::ANNOUNCED, State::SHUTDOWN_PHASE, "ANNOUNCED x SHUTDOWN_PHASE"},
        UnexpectedRecord{Type::ANNOUNCED, State::REMOVED, "ANNOUNCED x REMOVED"}),
    unexpectedRecordName);

TEST_F(SDStateMachineWorkloadsTest, NoRecordCannotBeScheduled)
{
    EXPECT_FALSE(machine.unsafe_addAperiodicService(nullptr));

    EXPECT_THAT(aperiodic(), IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("Trace: AperiodicWorker::unsafe_addAperiodicService",
                            "Error: SD failed to add Service to m_aperiodicWorkload, service was "
                            "nullptr!"));
}

TEST_F(SDStateMachineWorkloadsTest, PeriodicServicesAreAppendedWithoutALookAtDuplicates)
{
    SDService::Ptr service = makeService("Media");

    EXPECT_TRUE(machine.unsafe_addPeriodicService(service));
    EXPECT_TRUE(machine.unsafe_addPeriodicService(makeService("Navi")));
    EXPECT_TRUE(machine.unsafe_addPeriodicService(service));

    EXPECT_THAT(periodic(), ElementsAre("Media NONE INITIAL_WAIT_PHASE #0", "Navi NONE INITIAL_WAIT_PHASE #0",
                                        "Media NONE INITIAL_WAIT_PHASE #0"));
}

TEST_P(SDStateMachineRemovalTest, OnlyTheVeryRecordIsRemoved)
{
    const SDService::Ptr equal = makeService("Media");
    const SDService::Ptr service = makeService("Media");
    GetParam().put(machine, equal);
    GetParam().put(machine, service);

    EXPECT_FALSE(GetParam().remove(machine, makeService("Media")));
    EXPECT_TRUE(GetParam().remove(machine, service));
    EXPECT_FALSE(GetParam().remove(machine, service));

    EXPECT_THAT(GetParam().records(machine), ElementsAre(equal));
    EXPECT_THAT(log.lines(), IsEmpty()) << "the timer is not set anew";
}

INSTANTIATE_TEST_SUITE_P(
    Workloads, SDStateMachineRemovalTest,
    ::testing::Values(WorkloadCase{"Periodic",
                                   [](TestStateMachine& machine, const SDService::Ptr& service) {
                                       machine.putPeriodic(service);
                                   },
                                   [](TestStateMachine& machine, const SDService::Ptr& service) {
                                       return machine.unsafe_removePeriodicService(service);
                                   },
                                   [](const TestStateMachine& machine) { return machine.periodic(); }},
                      WorkloadCase{"Aperiodic",
                                   [](TestStateMachine& machine, const SDService::Ptr& service) {
                                       machine.putAperiodic(service);
                                   },
                                   [](TestStateMachine& machine, const SDService::Ptr& service) {
                                       return machine.unsafe_removeAperiodicService(service);
                                   },
                                   [](const TestStateMachine& machine) { return machine.aperiodic(); }}),
    [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachineWorkloadsTest, FirstEntryOfARecordIsRemovedFromThePeriodicWorkload)
{
    SDService::Ptr service = makeService("Media");
    const SDService::Ptr other = makeService("Navi");
    machine.putPeriodic(service);
    machine.putPeriodic(other);
    machine.putPeriodic(service);

    EXPECT_TRUE(machine.unsafe_removePeriodicService(service));

    EXPECT_THAT(machine.periodic(), ElementsAre(other, service));
}

TEST_F(SDStateMachineWorkloadsTest, EarliestEntryOfARecordIsRemovedFromTheAperiodicWorkload)
{
    SDService::Ptr service = makeService("Media");
    const SDService::Ptr other = makeService("Navi");
    machine.putAperiodic(service, 2 * hour);
    machine.putAperiodic(other, 1 * hour);
    machine.putAperiodic(service, 0);

    EXPECT_TRUE(machine.unsafe_removeAperiodicService(service));

    EXPECT_THAT(machine.aperiodic(), ElementsAre(other, service));
}

}  // namespace Nubo::ServiceDiscovery::Testing
