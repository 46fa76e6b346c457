#include "Multicast/InterfaceAdmission.h"
#include "Multicast/InterfaceListing.h"
#include "Multicast/MulticastReceiver.h"
#include "Multicast/MulticastSender.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Repeating.h"
#include "support/SystemFaults.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Receiver and sender without the hub's care: an interface that they cannot use is not lost.
namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr auto globalAddress = "fd00::1";

struct InterfaceUseFaultsTest : ::testing::Test
{
    InterfaceUseFaultsTest() { network.link("eth0", globalAddress); }

    NetworkPair network;
    HubUnit unit;
    LogCatcher log;
    Multicast::MulticastReceiver receiver{unit.hub, discoveryGroup, discoveryPort};
    Multicast::MulticastSender sender{discoveryGroup, discoveryPort};
};

}  // namespace

TEST_F(InterfaceUseFaultsTest, JoiningThatFailsForWantOfMemoryCanBeRepeated)
{
    const auto listing = Multicast::InterfaceListing::take();
    const auto join = [&] {
        return receiver.add("eth0", globalAddress, *listing, Multicast::Attempt::Again);
    };
    OEMInterface::RemoveServiceDiscoveryInterfacePayload removal{{"eth0", globalAddress}};

    bool isShort = true;
    for (std::size_t place = 1; isShort; ++place) {
        SCOPED_TRACE("place " + std::to_string(place));
        {
            const InMarkedThread marked;
            const SystemFault shortage({SystemCall::Allocate, place});
            try {
                join();
            }
            catch (const std::bad_alloc&) {
            }
            isShort = shortage.happened();
        }
        EXPECT_EQ(join(), Multicast::Outcome::InUse);
        EXPECT_THAT(joinedInterfaces(), ElementsAre("eth0"));
        receiver.onInterfaceRemoved(removal);
    }
}

TEST_F(InterfaceUseFaultsTest, LineAboutAnInterfaceThatIsNotKeptIsWrittenWithNothingHeld)
{
    const auto listing = Multicast::InterfaceListing::take();
    receiver.add("eth0", globalAddress, *listing, Multicast::Attempt::Report);
    std::thread other;
    std::atomic<bool> isAnswered{false};
    bool isAnsweredMeanwhile = false;
    log.onLine([&](const std::string& line) {
        if (other.joinable() || line.find("leaving the group on \"eth0\"") == std::string::npos)
            return;
        other = std::thread([&] {
            receiver.isJoinedOn("eth0");
            isAnswered = true;
        });
        isAnsweredMeanwhile = eventually([&] { return isAnswered.load(); });
    });

    {
        const InMarkedThread marked;
        const SystemFault fault({SystemCall::SetOption, 1, SystemFault::forEver});
        receiver.keepOnly({}, *listing);
    }
    log.onLine(nullptr);

    EXPECT_TRUE(isAnsweredMeanwhile);
    if (other.joinable())
        other.join();
}

TEST_F(InterfaceUseFaultsTest, PortThatMayNotBeUsedIsNotWaitedFor)
{
    const InMarkedThread marked;
    SystemFault::Plan plan{SystemCall::Bind, 1, SystemFault::forEver};
    plan.error = EACCES;
    const SystemFault fault(plan);

    EXPECT_FALSE(receiver.start());

    EXPECT_EQ(fault.calls(), 1u);
}

TEST_F(InterfaceUseFaultsTest, ReceiverThatStopsWithoutMemoryCanBeStartedAgain)
{
    const Repeating asking([&] { receiver.isJoinedOn("eth0"); });
    OEMInterface::AddServiceDiscoveryInterfacePayload report{{"eth0", globalAddress}};

    bool isShort = true;
    for (std::size_t place = 1; isShort; ++place) {
        SCOPED_TRACE("place " + std::to_string(place));
        ASSERT_TRUE(receiver.start());
        receiver.onInterfaceAdded(report);
        EXPECT_TRUE(receiver.isJoinedOn("eth0"));
        {
            const InMarkedThread marked;
            const SystemFault shortage({SystemCall::Allocate, place});
            receiver.stop();
            isShort = shortage.happened();
        }
        EXPECT_FALSE(receiver.isJoinedOn("eth0"));
        EXPECT_THAT(joinedInterfaces(), IsEmpty());
    }
}

}  // namespace Nubo::ServiceDiscovery::Testing
