#include "StateMachineFixture.h"

#include <cstddef>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDStateMachineAdmissionTest = StateMachineFixture;

std::string refusals(const std::string& count)
{
    return "Warning: SDStateMachine::handleOFFER: " + count +
           " offer(s) of new Services refused, at most 131072 with 67108864 Bytes of text can be known!";
}

/// An offer with `count` categories, which take a kilobyte each.
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

TEST_F(SDStateMachineAdmissionTest, EveryServiceIsAdmitted)
{
    EXPECT_TRUE(machine.checkCapabilities(NuboServiceDescription()));
    EXPECT_TRUE(machine.checkCapabilities(describe("Media")));
}

TEST_F(SDStateMachineAdmissionTest, RefusedOfferGoesIntoTheEventMemory)
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

TEST_F(SDStateMachineAdmissionTest, EventMemoryGetsNameProtocolAndEndpoint)
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

TEST_F(SDStateMachineAdmissionTest, EventMemoryCannotBeWrittenWithoutADispatcher)
{
    engine.platform.withdraw();

    machine.writeEventLog("Media", "fd00::2", 8080);

    EXPECT_THAT(log.lines(), ElementsAre("Warning: SD Writing 'Ereignisspeicher' for forbidden Service offer "
                                         "regarding \"Media\" @ [fd00::2]:8080 !",
                                         "Error: Failed to write Eventlog - OEM Dispatcher missing!"));
}

TEST_F(SDStateMachineAdmissionTest, EventMemoryCannotBeWrittenWithANullDispatcher)
{
    engine.platform.offerNull();

    EXPECT_NO_THROW(machine.writeEventLog("Media", "fd00::2", 8080));

    EXPECT_THAT(log.lines(), ElementsAre("Warning: SD Writing 'Ereignisspeicher' for forbidden Service offer "
                                         "regarding \"Media\" @ [fd00::2]:8080 !",
                                         "Error: Failed to write Eventlog - OEM Dispatcher missing!"));
}

TEST_F(SDStateMachineAdmissionTest, WorkloadThatIsFullTakesInNoFurtherService)
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

TEST_F(SDStateMachineAdmissionTest, TextsOfKnownServicesAreBoundedTogether)
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

}  // namespace Nubo::ServiceDiscovery::Testing
