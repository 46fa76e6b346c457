#include "StateMachineFixture.h"

#include <chrono>
#include <cstddef>
#include <future>
#include <mutex>
#include <optional>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::SizeIs;

namespace {

using SDStateMachineServicesTest = StateMachineFixture;

}  // namespace

TEST_F(SDStateMachineServicesTest, ServicesAreThoseAnnouncedAndThoseDiscovered)
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

TEST_F(SDStateMachineServicesTest, ServiceThatIsRenewedHasAllItsSecondsAgain)
{
    offer(offered("Media", "fd00::2", 8080, 300));
    SDClock::turn(200 * second);
    EXPECT_EQ(machine.getServices().front().secondsLeft, 100u);

    offer(offered("Media", "fd00::2", 8080, 300));

    EXPECT_EQ(machine.getServices().front().secondsLeft, 300u);
}

TEST_F(SDStateMachineServicesTest, SearchesAnswersAndWhatIsWithdrawnAreNoServices)
{
    get(searched("Navi"));
    machine.putPeriodic(announced(State::MAIN_PHASE));
    find("Media");
    machine.putPeriodic(announced(State::SHUTDOWN_PHASE, "fd00::1", 8081, 2));
    ASSERT_THAT(aperiodic(), SizeIs(2));

    EXPECT_THAT(machine.getServices(), SizeIs(1));
}

/// Otherwise many callers with long lists would keep the network waiting, each while its list is made.
TEST_F(SDStateMachineServicesTest, ServicesAreListedForOneCallerAtATimeAndEventsGoOn)
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
