#include "DataLayer/SDClock.h"
#include "Multicast/LocalAddresses.h"
#include "support/Times.h"

#include <Poco/Clock.h>
#include <Poco/Net/SocketAddress.h>

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Multicast::LocalAddresses;
using Poco::Net::SocketAddress;

namespace {

constexpr Poco::Clock::ClockDiff second = 1'000'000;  // microseconds

struct LocalAddressesTest : ::testing::Test
{
    const SocketAddress own{"[fd00::1]:40000"};
    LocalAddresses addresses;
};

SocketAddress numbered(std::size_t number)
{
    return SocketAddress("fd00::1", static_cast<Poco::UInt16>(number));
}

/// A thousand lookups of a foreign address beside that many closed ones, and as many open ones.
double timeOfLookups(std::size_t count, double expected)
{
    LocalAddresses addresses;
    for (std::size_t i = 1; i <= count; ++i) {
        addresses.open(numbered(i));
        addresses.open(numbered(30000 + i));
        addresses.close(numbered(i));
    }
    const SocketAddress foreign("[fd00::2]:1");
    return shortestTime(
        [&] {
            for (int i = 0; i < 1000; ++i)
                EXPECT_FALSE(addresses.contains(foreign));
        },
        expected);
}

}  // namespace

TEST_F(LocalAddressesTest, ContainAnOpenOneAndNoOther)
{
    EXPECT_FALSE(addresses.contains(own));

    addresses.open(own);

    EXPECT_TRUE(addresses.contains(own));
    for (const std::string other : {"[fd00::1]:40001", "[fd00::2]:40000", "[::]:0", "10.0.0.1:40000"})
        EXPECT_FALSE(addresses.contains(SocketAddress(other))) << other;
    EXPECT_FALSE(addresses.contains(SocketAddress("/tmp/socket")));
}

TEST_F(LocalAddressesTest, ContainAClosedOneForFiveSeconds)
{
    addresses.open(own);
    const Poco::Clock before = SDClock::now();
    addresses.close(own);
    const Poco::Clock after = SDClock::now();

    turnTo(before, 4700'000);
    EXPECT_TRUE(addresses.contains(own));
    turnTo(after, 5001'000);
    EXPECT_FALSE(addresses.contains(own));
}

/// Two interfaces may have the same link-local address, and their sockets the same port.
TEST_F(LocalAddressesTest, ContainOneThatTwoSocketsHaveUntilBothAreClosed)
{
    addresses.open(own);
    addresses.open(own);
    addresses.close(own);
    SDClock::turn(6 * second);
    EXPECT_TRUE(addresses.contains(own));

    addresses.close(own);
    SDClock::turn(6 * second);
    EXPECT_FALSE(addresses.contains(own));
}

TEST_F(LocalAddressesTest, ContainOneThatIsOpenedAgain)
{
    addresses.open(own);
    addresses.close(own);
    addresses.open(own);
    SDClock::turn(6 * second);

    EXPECT_TRUE(addresses.contains(own));
}

TEST_F(LocalAddressesTest, ClosingOneThatIsNotOpenChangesNothing)
{
    addresses.close(own);
    EXPECT_FALSE(addresses.contains(own));

    addresses.open(own);
    addresses.close(own);
    SDClock::turn(3 * second);
    addresses.close(own);
    SDClock::turn(3 * second);
    EXPECT_FALSE(addresses.contains(own)) << "it was closed six seconds ago";
}

TEST_F(LocalAddressesTest, ForgetWhatWasClosedLongAgo)
{
    addresses.open(own);
    for (std::size_t i = 1; i <= 30000; ++i) {
        addresses.open(numbered(i));
        addresses.close(numbered(i));
        SDClock::turn(second);
    }

    EXPECT_LT(addresses.size(), 200u);
    EXPECT_TRUE(addresses.contains(own));
}

TEST(LocalAddressesCostTest, OfALookupDoesNotDependOnTheirNumber)
{
    constexpr double times = 5;
    const double few = timeOfLookups(1, 0);

    EXPECT_LT(timeOfLookups(10000, times * few), times * few);
}

}  // namespace Nubo::ServiceDiscovery::Testing
