#include "Multicast/MulticastReceiver.h"
#include "support/Wire.h"

#include <string>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::SocketAddress;

TEST(MulticastDataTest, HoldsACopyOfTheBytesAndTheSender)
{
    std::string bytes = "01 02 03"_bytes;
    const Multicast::MulticastReceiver::MulticastData data(bytes.data(), 2, SocketAddress("fd00::2", 1234));
    bytes[0] = 'x';

    EXPECT_EQ(toHex(data.buffer.begin(), data.buffer.size()), "01 02");
    EXPECT_EQ(data.origin.toString(), "[fd00::2]:1234");
}

}  // namespace Nubo::ServiceDiscovery::Testing
