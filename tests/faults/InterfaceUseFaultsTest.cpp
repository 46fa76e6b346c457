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

#include <cstddef>
#include <new>
#include <string>

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
