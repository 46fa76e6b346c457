#include "OpenSender.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"

#include <Poco/Net/IPAddress.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// A sender for a unit on fd00::1, without interfaces.
struct UnconnectedSenderTest : ::testing::Test
{
    UnconnectedSenderTest() { sender.init(IPAddress("fd00::1")); }

    LogCatcher log;
    Sender sender{discoveryGroup, discoveryPort};
};

}  // namespace

TEST_F(UnconnectedSenderTest, LargestDatagramHas1212Bytes)
{
    EXPECT_EQ(sender.getMTU(), 1212u);
}

TEST_F(UnconnectedSenderTest, InitWithAnIPv6AddressMakesTheSenderUsable)
{
    EXPECT_TRUE(sender.init(IPAddress("fd00::1")));
    EXPECT_TRUE(sender.init(IPAddress("::"))) << "every IPv6 address has a raw form";
}

TEST_F(UnconnectedSenderTest, WithoutInterfacesNothingIsSent)
{
    Datagrams datagrams{"01"};

    EXPECT_FALSE(sender.sendMulticast(datagrams.list(), {}));

    EXPECT_THAT(log.lines(), ElementsAre(noInterfaces));
}

TEST_F(UnconnectedSenderTest, MissingSocketIsReported)
{
    std::string bytes = "01"_bytes;

    EXPECT_FALSE(sender.transmit(nullptr, {bytes.data(), bytes.size()}));

    EXPECT_THAT(log.lines(),
                ElementsAre("Warning: MulticastSender failed to send package: SocketPtr was Null!"));
}

TEST_F(UnconnectedSenderTest, OffsetListsMustMatchTheDatagramsInNumber)
{
    Datagrams datagrams{"01", "02"};
    Sender::SendData data(datagrams.list(), std::string(16, 'o'));
    data.offsets.pop_back();

    EXPECT_FALSE(sender.sendServices(Sender::InterfaceData_t{}, data));

    EXPECT_THAT(log.lines(), ElementsAre("Error: sendServices: package & offsets count mismatch!"));
}

TEST_F(UnconnectedSenderTest, AddressesOfDifferentSizeAreNotAdjusted)
{
    Datagrams datagrams{"aa bb cc"};
    Sender::AdjustmentOffsets offsets;

    EXPECT_FALSE(Sender::adjustIPs(datagrams.list().front(), "aa"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "aa bb cc");
    EXPECT_THAT(offsets, IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Error: adjustIPs: IP sizes do not match!"));
}

TEST_F(UnconnectedSenderTest, AdjustingNotesTheOffsetOfEachCompleteOccurrence)
{
    Datagrams datagrams{"aa bb 00 aa bb aa bb aa"};
    Sender::AdjustmentOffsets offsets;

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "01 02 00 01 02 01 02 aa");
    EXPECT_THAT(offsets, ElementsAre(0u, 3u, 5u));
}

TEST_F(UnconnectedSenderTest, AdjustingGoesOnBehindWhatItWrote)
{
    Datagrams datagrams{"aa aa bb bb"};
    Sender::AdjustmentOffsets offsets;

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 aa"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "aa 01 aa bb");
    EXPECT_THAT(offsets, ElementsAre(1u));
}

TEST_F(UnconnectedSenderTest, AdjustingAtKnownOffsetsDoesNotLookWhatStandsThere)
{
    Datagrams datagrams{"00 11 22 33 44 aa bb"};
    Sender::AdjustmentOffsets offsets{1, 3};

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "00 01 02 01 02 aa bb");
    EXPECT_THAT(offsets, ElementsAre(1u, 3u));
}

TEST_F(UnconnectedSenderTest, OffsetBeyondTheDatagramEndsTheAdjustingButIsNoFailure)
{
    Datagrams datagrams{"00 11 22 33"};
    Sender::AdjustmentOffsets offsets{0, 3, 1};

    EXPECT_TRUE(Sender::adjustIPs(datagrams.list().front(), "aa bb"_bytes, "01 02"_bytes, offsets));

    EXPECT_EQ(datagrams.hex(0), "01 02 22 33") << "the offsets behind it are not written either";
    EXPECT_THAT(log.lines(),
                ElementsAre("Error: adjustIPs: found offset that lies beyond package boundary! (offset:3), "
                            "(package-size:4), (new IP size:2)"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
