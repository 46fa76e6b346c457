#include "FaultyLife.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "Multicast/MulticastReceiver.h"
#include "support/Descriptions.h"
#include "support/LinkedFixture.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/SystemFaults.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Delegate.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Datagrams for which memory is short, or which the system sends or receives only partly.
namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct TransferFaultsTest : LinkedFixture
{
    HubUnit unit;
};

/// A hub that is not started, so that only the test announces.
struct SendingFaultsTest : TransferFaultsTest
{
    SendingFaultsTest()
    {
        unit.platform.dispatcher().addInterface("eth0", "fd00::1");
        EXPECT_TRUE(unit.hub.start(IPAddress("fd00::1")));
        unit.hub.stop();
        for (std::size_t i = 0; i < preallocated + 1; ++i)
            services.push_back(service("Service" + std::to_string(i)));
    }

    /// A service whose packet fills a datagram.
    static SDService::Ptr service(const std::string& name)
    {
        NuboServiceDescription description = describe(name);
        for (int i = 0; i < 5; ++i)
            description.addCategory(std::string(150, 'c') + std::to_string(i));
        SDService::Ptr result = makeService(description);
        result->setType(SDService::Type::ANNOUNCED);
        return result;
    }

    /// Number of allocations for announcing the first `count` services.
    std::size_t allocationsFor(std::size_t count)
    {
        const std::vector<SDService::Ptr> first(services.begin(),
                                                services.begin() + static_cast<std::ptrdiff_t>(count));
        const LogThreshold level(Poco::Message::PRIO_INFORMATION);  // log lines take memory
        const InMarkedThread marked;
        const SystemFault counting({SystemCall::Allocate, SystemFault::forEver});
        unit.hub.announce(first);
        return counting.calls();
    }

    static constexpr std::size_t preallocated = 5;
    std::vector<SDService::Ptr> services;
    Listener listener{network.there, "eth0"};
};

/// A receiver whose thread meets the faults.
struct ReceivingFaultsTest : TransferFaultsTest
{
    ReceivingFaultsTest()
    {
        receiver.MulticastMessageReceived += Poco::delegate(this, &ReceivingFaultsTest::onMessage);
        OEMInterface::AddServiceDiscoveryInterfacePayload report{{"eth0", "fd00::1"}};
        const InMarkedThread marked;
        EXPECT_TRUE(receiver.start());
        receiver.onInterfaceAdded(report);
    }
    ~ReceivingFaultsTest() override { receiver.stop(); }

    void onMessage(Multicast::MulticastDataPtr& data)
    {
        const InMarkedThread unmarked(false);
        const std::lock_guard<std::mutex> lock(mutex);
        received.push_back(toHex(data->buffer.begin(), data->buffer.size()));
    }

    std::vector<std::string> bytes()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

    std::mutex mutex;
    std::vector<std::string> received;
    Multicast::MulticastReceiver receiver{unit.hub, discoveryGroup, discoveryPort};
    Speaker speaker{network.there, "eth0", "fd00::2"};
};

}  // namespace

TEST_F(SendingFaultsTest, MemoryForFiveDatagramsIsThereFromTheBeginning)
{
    for (const SDService::Ptr& service : services)
        unit.hub.announce(service);  // each one in a separate datagram

    const std::size_t allocations = allocationsFor(preallocated);

    EXPECT_TRUE(listener.hears(services.size() + preallocated));
    constexpr std::size_t growthOfTheList = 3;  // to 2, 4 and 8 datagrams
    EXPECT_LE(allocations, growthOfTheList);
}

TEST_F(SendingFaultsTest, WhatHasBeenAnnouncedOnceIsAnnouncedAgainWithoutMemory)
{
    unit.hub.announce(services);

    EXPECT_EQ(allocationsFor(services.size()), 0u);
    EXPECT_EQ(allocationsFor(services.size()), 0u);
    EXPECT_TRUE(listener.hears(3 * services.size()));
}

TEST_F(SendingFaultsTest, DatagramThatIsNotTakenWholeIsWarnedOf)
{
    const LogCatcher log;
    const InMarkedThread marked;
    const SystemFault fault({SystemCall::Send, 1, 1, 3});

    unit.hub.announce({makeRecord(SDService::Type::ANNOUNCED, SDService::State::MAIN_PHASE)});

    EXPECT_THAT(log.complaints(), ElementsAre("Warning: MulticastSender failed to send complete package: "
                                              "3/126 Byte(s) sent."));
}

TEST_F(ReceivingFaultsTest, BufferIsAsLongAsWhatWasReceived)
{
    const SystemFault fault({SystemCall::Receive, 1, 1, 3});

    speaker.send("01 02 03 04 05"_bytes);

    EXPECT_TRUE(eventually([&] { return !bytes().empty(); }));
    EXPECT_THAT(bytes(), ElementsAre("01 02 03"));
}

TEST_F(ReceivingFaultsTest, ReadOfNothingRaisesNoEvent)
{
    const LogCatcher log;
    std::optional<SystemFault> fault{std::in_place, SystemFault::Plan{SystemCall::Receive, 1, 1, 0}};

    speaker.send("01 02 03 04 05"_bytes);
    EXPECT_TRUE(eventually([&] { return fault->happened(); }));
    fault.reset();
    speaker.send("06"_bytes);

    EXPECT_TRUE(eventually([&] { return !bytes().empty(); }));
    EXPECT_THAT(bytes(), ElementsAre("06"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(ReceivingFaultsTest, DatagramForWhichThereIsNoMemoryIsDroppedWithAnError)
{
    const LogCatcher log;
    const std::string dropped =
        "Error: MulticastReceiver - caught exception: Out of memory: Failed to "
        "allocate SocketFrame buffer";
    constexpr std::size_t mostAllocations = 100;  // per datagram, with the log lines about it

    std::size_t place = 0;
    while (!log.has(dropped) && place < mostAllocations) {
        const SystemFault fault({SystemCall::Allocate, ++place});
        speaker.send("01 02 03 04 05"_bytes);
        eventually([&] { return fault.happened(); }, std::chrono::milliseconds(100));
        eventually([&] { return log.has(dropped); }, std::chrono::milliseconds(20));
    }

    EXPECT_TRUE(log.has(dropped));
    speaker.send("06"_bytes);
    EXPECT_TRUE(eventually([&] { return !bytes().empty() && bytes().back() == "06"; }));
}

}  // namespace Nubo::ServiceDiscovery::Testing
