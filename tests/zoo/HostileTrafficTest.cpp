#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/RawSpeaker.h"
#include "support/Waiting.h"
#include "support/Wire.h"
#include "zoo/ListeningUnit.h"
#include "zoo/LogLimit.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::bigEndian16;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr auto emptyLine = "Debug: Multicast connection closed (available = 0).";

/// Reads a counter of the kernel for the namespace, such as "Ip6InMcastPkts".
std::size_t counted(const Namespace& network, const std::string& counter)
{
    const InNamespace inside(network);
    std::ifstream counters("/proc/thread-self/net/snmp6");
    std::string name;
    for (std::size_t value = 0; counters >> name >> value;) {
        if (name == counter)
            return value;
    }
    throw std::runtime_error("no such counter: " + counter);
}

/// Measures the processor time that the process uses in one second.
std::chrono::milliseconds processorTimeInASecond()
{
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return std::chrono::milliseconds((std::clock() - before) * 1000 / CLOCKS_PER_SEC);
}

/// An ICMPv6 error about a UDP datagram that the unit supposedly sent to the group.
std::string icmpError(std::uint8_t type, std::uint8_t code, std::uint16_t sourcePort)
{
    const std::string unitAddress = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"_bytes;
    const std::string group = "ff 14 00 00 00 00 00 00 00 00 00 00 00 04 00 00"_bytes;
    const std::string payload = Packets::find("Media");
    const std::string udp = bigEndian16(sourcePort) + bigEndian16(discoveryPort) +
                            bigEndian16(8 + payload.size()) + "12 34"_bytes + payload;
    const std::string ip =
        "60 00 00 00"_bytes + bigEndian16(udp.size()) + "11 ff"_bytes + unitAddress + group;
    const std::string checksumByTheKernel = "00 00"_bytes;
    const std::string pointerOrSize = "00 00 05 00"_bytes;
    return std::string{static_cast<char>(type), static_cast<char>(code)} + checksumByTheKernel +
           pointerOrSize + ip + udp;
}

struct HostileTrafficTest : ListeningUnitTest
{
    /// Whether the unit still receives. Sends several offers, because a flood may have left no room for one.
    bool isListening()
    {
        std::string probe = sendProbe();
        return eventually([&] {
            if (eventually([&] { return unit.registry().discovered(probe) != 0; },
                           std::chrono::milliseconds(100)))
                return true;
            probe = sendProbe();
            return false;
        });
    }

    /// Whether the unit becomes idle. A spinning thread would use a whole second of processor time per
    /// second.
    static bool isIdle()
    {
        return eventually([] { return processorTimeInASecond() < std::chrono::milliseconds(300); });
    }
};

/// Suppresses the log lines that each datagram causes.
struct FloodTest : HostileTrafficTest
{
    const LogLimit limit{Poco::Message::PRIO_NOTICE};
};

}  // namespace

TEST_F(HostileTrafficTest, EmptyDatagramIsTakenOffAndRaisesNothing)
{
    log.clear();

    speaker.send("");
    const std::string probe = sendProbe();

    ASSERT_TRUE(isDiscovered(probe));
    EXPECT_EQ(log.count(emptyLine), 1u);
    EXPECT_THAT(unit.registry().events(), SizeIs(1)) << "more than the good offer behind it";
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(FloodTest, EmptyDatagramsInMassesLeaveTheUnitListeningAndIdle)
{
    constexpr int count = isSanitized ? 20000 : 100000;

    for (int i = 0; i < count; ++i)
        speaker.send("");

    EXPECT_TRUE(isListening());
    EXPECT_TRUE(isIdle());
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(FloodTest, DatagramsWithABadChecksumLeaveTheUnitListeningAndIdle)
{
    constexpr std::size_t count = 5000;
    const std::string offer = corrupted(Packets::offer("Corrupted"));
    RawSpeaker corrupting(neighbour, "eth0", "fd00::2", IPPROTO_UDP);

    for (std::size_t i = 0; i < count; ++i) {
        corrupting.send(offer, discoveryGroup);
        if (i % 1000 == 0) {
            EXPECT_TRUE(isListening());
        }
    }

    EXPECT_TRUE(isListening());
    EXPECT_TRUE(isIdle());
    EXPECT_GE(counted(unit.network(), "Ip6InMcastPkts"), count) << "not all have reached the unit";
    EXPECT_EQ(unit.registry().discovered("Corrupted"), 0u);
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostileTrafficTest, ICMPErrorsAboutItsDatagramsLeaveTheUnitSendingAndListening)
{
    constexpr int rounds = 20;
    constexpr std::uint8_t unreachable = 1, tooBig = 2, timeExceeded = 3, parameterProblem = 4;
    constexpr std::uint8_t portUnreachable = 4;
    Listener listener(neighbour, "eth0");
    unit.discovery().addService(describe("Local"));
    ASSERT_TRUE(listener.hears(1));
    const std::uint16_t sendingPort = listener.datagrams().front().sourcePort;
    RawSpeaker complaining(neighbour, "eth0", "fd00::2", IPPROTO_ICMPV6);

    for (int round = 0; round < rounds; ++round) {
        for (const std::uint16_t port : {sendingPort, discoveryPort}) {
            for (std::uint8_t code = 0; code <= portUnreachable; ++code)
                complaining.send(icmpError(unreachable, code, port), "fd00::1");
            for (const std::uint8_t type : {tooBig, timeExceeded, parameterProblem})
                complaining.send(icmpError(type, 0, port), "fd00::1");
        }
    }
    ASSERT_TRUE(isListening());
    listener.clear();

    EXPECT_TRUE(listener.hears(3)) << "the unit does not send any more";
    EXPECT_TRUE(isListening());
    EXPECT_TRUE(isIdle());
    EXPECT_EQ(counted(unit.network(), "Icmp6InDestUnreachs"), rounds * 2 * (portUnreachable + 1));
    EXPECT_THAT(log.errors(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
