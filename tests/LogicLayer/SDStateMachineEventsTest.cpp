#include "StateMachineFixture.h"
#include "support/Waiting.h"

#include <atomic>
#include <chrono>
#include <ostream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;

namespace {

using SDStateMachineEventsTest = StateMachineFixture;

struct EventTypeCase
{
    const char* name;
    Event::WorkloadEvent_t type;

    friend void PrintTo(const EventTypeCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineRefusedEventTest : StateMachineFixture, ::testing::WithParamInterface<EventTypeCase>
{};

struct SDStateMachineLockingTest : StateMachineFixture, ::testing::WithParamInterface<EventTypeCase>
{};

constexpr auto incompleteEvent =
    "Error: SDStateMachine::onExternalEvent: received nullptr Service or empty UUID.";
constexpr auto unknownEvent = "Error: onExternalEvent received unknown EventType!";

}  // namespace

TEST_F(SDStateMachineEventsTest, EventTypesHaveTheirNumbers)
{
    EXPECT_EQ(Event::HTTP_PUT, 0u);
    EXPECT_EQ(Event::HTTP_DELETE, 1u);
    EXPECT_EQ(Event::HTTP_GET, 2u);
    EXPECT_EQ(Event::SOMEIP_FIND, 3u);
    EXPECT_EQ(Event::SOMEIP_OFFER, 4u);
    EXPECT_EQ(Event::SOMEIP_STOPOFFER, 5u);
}

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

TEST_F(SDStateMachineEventsTest, EventTypesFromSixOnAreUnknown)
{
    EXPECT_FALSE(machine.handle(static_cast<Event::WorkloadEvent_t>(6), makeService("Media")));
    EXPECT_FALSE(machine.handle(static_cast<Event::WorkloadEvent_t>(0xffffffff), makeService("Media")));

    EXPECT_THAT(log.lines(), ElementsAre(unknownEvent, unknownEvent));
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

}  // namespace Nubo::ServiceDiscovery::Testing
