#pragma once

#include "ServiceDiscovery.h"
#include "support/Descriptions.h"
#include "support/LinkedFixture.h"
#include "support/Listener.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Platform.h"
#include "support/Registry.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <chrono>
#include <cstddef>

#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::milliseconds;

/// Exit codes of a test's process.
enum Outcome
{
    works = 10,
    isWrong
};

constexpr std::size_t offersUntilSettled = 5;  // four offers at the beginning, then one per second

struct Unit
{
    Unit() { platform.dispatcher().addInterface("eth0", "fd00::1"); }

    bool startup() { return discovery.startup(Poco::Net::IPAddress("fd00::1")); }

    PlatformScope platform;
    ServiceDiscovery discovery;
    Registry registry{discovery};
};

/// Another unit sends and listens on eth0. Most tests make the unit in a separate process.
struct ProcessFixture : LinkedFixture
{
    /// Ends the process at once. The exit code says whether the unit announces and discovers.
    [[noreturn]] void endAfterWork(Unit& unit)
    {
        listener.clear();
        const bool isAdded = unit.discovery.addService(describe("Last", "fd00::1", 8089, "last"));
        const bool isHeard = listener.hears(1);
        const bool isHearing = eventually([&] {
            speaker.send(Packets::offer("Far"));
            return eventually([&] { return unit.registry.discovered("Far") != 0; }, milliseconds(20));
        });
        ::_exit(isAdded && isHeard && isHearing && unit.discovery.running() ? works : isWrong);
    }

    /// Number of packets heard with a time-to-live of 0, if each datagram has one packet.
    std::size_t stopOffers()
    {
        const auto& heard = listener.datagrams();
        return static_cast<std::size_t>(std::count_if(heard.begin(), heard.end(), [](const auto& datagram) {
            constexpr std::size_t atTTL = 16 + 8 + 9;
            return datagram.bytes.substr(atTTL, 3) == "00 00 00"_bytes;
        }));
    }

    Speaker speaker{network.there, "eth0", "fd00::2"};
    Listener listener{network.there, "eth0"};
};

/// Has static storage, so that it is destroyed when the process ends.
inline Unit& unitOfTheProcess()
{
    static Unit unit;
    return unit;
}

}  // namespace Nubo::ServiceDiscovery::Testing
