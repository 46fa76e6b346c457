#pragma once

#include "LogicLayer/SDCommunicationHub.h"
#include "support/LinkedFixture.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// Another unit's offer of the service "Far" at [fd00::2]:8080, version 1.0.0, for 120 s.
inline const std::string offerOfFar =
    "ff ff 81 00 00 00 00 74 00 00 00 01 01 01 02 00 e0 00 00 00 "
    "00 00 00 10 "
    "01 00 01 11 ff fe 00 01 01 00 00 78 00 00 00 00 "
    "00 00 00 50 "
    "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 02 00 06 1f 90 "
    "00 35 01 00 "
    "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
    "0d 6f 74 68 65 72 73 65 72 76 3d 46 61 72 "
    "09 74 78 74 76 65 72 73 3d 31 "
    "0d 76 65 72 73 69 6f 6e 3d 31 2e 30 2e 30 "
    "00";

constexpr std::size_t atTTL = 16 + 8 + 9;  // in a datagram with one entry

/// A hub that is not started and has no interfaces, and another unit that sends on eth0.
struct HubFixture : LinkedFixture
{
    ~HubFixture() override
    {
        if (unit)
            unit->hub.stop();
    }

    SDCommunicationHub& hub() { return unit->hub; }
    OEMInterface::ManualDispatcher& dispatcher() { return unit->platform.dispatcher(); }
    bool start() { return hub().start(Poco::Net::IPAddress("fd00::1")); }

    /// Waits until the service of offerOfFar has been discovered that often.
    bool discovers(std::size_t count)
    {
        return eventually([&] { return unit->registry.discovered("Far") >= count; });
    }

    /// Number of packets heard with TTL 0, if each datagram has one packet.
    std::size_t stopOffers()
    {
        const auto& heard = listener.datagrams();
        return static_cast<std::size_t>(std::count_if(heard.begin(), heard.end(), [](const auto& datagram) {
            return datagram.bytes.substr(atTTL, 3) == "00 00 00"_bytes;
        }));
    }

    LogCatcher log;
    std::optional<HubUnit> unit{std::in_place};
    Speaker speaker{network.there, "eth0", "fd00::2"};
    Listener listener{network.there, "eth0"};
};

/// The same with the hub started on eth0.
struct RunningHubFixture : HubFixture
{
    RunningHubFixture()
    {
        dispatcher().addInterface("eth0", "fd00::1");
        EXPECT_TRUE(start());
        log.clear();
    }
};

}  // namespace Nubo::ServiceDiscovery::Testing
