#include "NetlinkFollowing.h"
#include "NetlinkMonitor.h"
#include "platform/AllocationFault.h"

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

namespace Nubo::ServiceDiscovery::Testing {

using OEMInterface::AddressKey;
using OEMInterface::NetlinkMonitor;
using ::testing::Contains;
using ::testing::IsEmpty;

namespace {

/// Too long for a string without an allocation.
const std::string address = "fd00:1111:2222:3333:4444::1";

struct NetlinkMonitorMemoryTest : NetlinkFollowing
{
    NetlinkMonitorMemoryTest()
    {
        network.link("eth0", address);
        index = static_cast<int>(::if_nametoindex("eth0"));
    }

    /// The address looks the same afterwards, but for its age, which the kernel counts in hundredths of a
    /// second.
    void makeAnew() const
    {
        keeps([] { return true; }, std::chrono::milliseconds(20));
        ip("address delete " + address + "/64 dev eth0");
        network.here.addAddress("eth0", address + "/64");
    }

    AddressKey key() const { return {index, address}; }

    int index = 0;
};

}  // namespace

TEST_F(NetlinkMonitorMemoryTest, UpdateForgetsNoAddressThatHasGone)
{
    const std::size_t failures = withEachAllocationFailing([&](AllocationFault& fault) {
        NetlinkMonitor monitor;
        makeAnew();

        fault.strikes([&] { monitor.update(); });

        monitor.update();
        EXPECT_THAT(monitor.goneAddresses(), Contains(key()));
        EXPECT_TRUE(eventually([&] {
            monitor.update();
            return monitor.links().at(index).addresses.size() == 1;
        })) << "the kernel may send the notice of an address a little later";
    });

    EXPECT_GT(failures, 0u);
}

TEST_F(NetlinkMonitorMemoryTest, UpdateAfterALossOfNoticesForgetsNoAddressThatHasGone)
{
    const std::size_t failures = withEachAllocationFailing([&](AllocationFault& fault) {
        NetlinkMonitor monitor;
        sendTooMuch();
        makeAnew();

        const bool hasThrown = fault.strikes([&] { monitor.update(); });

        EXPECT_TRUE(!hasThrown || monitor.goneAddresses().empty());
        monitor.update();
        EXPECT_THAT(monitor.goneAddresses(), Contains(key()));
        EXPECT_TRUE(eventually([&] {
            monitor.update();
            return monitor.links().at(index).addresses.size() == 1;
        })) << "the kernel may send the notice of an address a little later";
    });

    EXPECT_GT(failures, 0u);
}

TEST_F(NetlinkMonitorMemoryTest, ListingLinksChangesNothingWhenItFails)
{
    NetlinkMonitor monitor;

    const std::size_t failures = withEachAllocationFailing([&](AllocationFault& fault) {
        fault.strikes([&] { monitor.links(); });

        EXPECT_TRUE(eventually([&] {
            monitor.update();
            return monitor.links().at(index).addresses.size() == 1;
        })) << "the kernel may send the notice of an address a little later";
        EXPECT_THAT(monitor.goneAddresses(), IsEmpty());
    });

    EXPECT_GT(failures, 0u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
