#pragma once

#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <string>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// A unit and a neighbour, connected by a link that is eth0 on both sides.
struct NeighbourTest : ::testing::Test
{
    NeighbourTest()
    {
        connect(unit.network(), "eth0", neighbour, "eth0");
        unit.useInterface("eth0", "fd00::1");
        neighbour.addAddress("eth0", "fd00::2/64");
    }

    LogCatcher log;
    TestUnit unit{"unit"};
    Namespace neighbour{"neighbour"};
};

/// The same with a started unit and a socket of the neighbour to send from.
struct ListeningUnitTest : NeighbourTest
{
    ListeningUnitTest() { EXPECT_TRUE(unit.startup("fd00::1")); }

    /// Offers a service with a new name, and returns the name.
    std::string sendProbe()
    {
        const std::string name = "Probe" + std::to_string(++m_probes);
        speaker.send(Packets::offer(name));
        return name;
    }

    bool isDiscovered(const std::string& name) const
    {
        return eventually([&] { return unit.registry().discovered(name) != 0; });
    }

    Speaker speaker{neighbour, "eth0", "fd00::2"};

private:
    int m_probes = 0;
};

}  // namespace Nubo::ServiceDiscovery::Testing
