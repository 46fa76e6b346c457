#pragma once

#include "support/Namespace.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <KELOEMInterfaceLib/NetlinkDispatcher.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// A dispatcher that follows the interfaces "here"; their other ends are "there".
struct NetlinkFollowing : ::testing::Test
{
    /// Reports the present interfaces, and follows their changes.
    void follow(std::vector<std::string> names = {})
    {
        dispatcher.emplace(std::move(names));
        reports.emplace(*dispatcher);
    }

    void ip(const std::string& arguments) const { network.here.ip(arguments); }

    /// Makes one more interface. Once it is reported, so are all earlier changes.
    void markEnd()
    {
        network.link("marker", "fd99::1");
        EXPECT_TRUE(eventually([&] {
            const std::vector<std::string> lines = reports->lines();
            return !lines.empty() && lines.back() == "+marker fd99::1";
        }));
    }

    /// Everything that has been reported, when no further report is under way.
    std::vector<std::string> reported()
    {
        markEnd();
        std::vector<std::string> lines = reports->lines();
        lines.pop_back();
        return lines;
    }

    /// Makes duplicate address detection take a second or two on new interfaces.
    void detectDuplicates() const
    {
        network.here.setIPv6("default/accept_dad", "1");
        network.here.setIPv6("default/dad_transmits", "1");
    }

    /// Follows until "eth0" is reported. From then on, the kernel's notices wait until the gate is opened.
    void holdUp()
    {
        follow();
        reports->onReport([&] { gate.pass(); });
        network.link("eth0", "fd00::1");
        ASSERT_TRUE(eventually([&] { return gate.isReached(); }));
    }

    /// The same, with more notices than the kernel can store.
    void fallBehind()
    {
        holdUp();
        sendTooMuch();
    }

    /// Causes more notices than fit into the socket for them.
    static void sendTooMuch()
    {
        shell(
            "for i in $(seq 2000); do echo address add fd00::2/64 dev eth0 nodad; "
            "echo address delete fd00::2/64 dev eth0; done | ip -n here -batch -");
    }

    bool isTentative(const std::string& interface) const
    {
        return !shellOutput("ip -n here -6 address show dev " + interface + " tentative").empty();
    }

    NetworkPair network;
    Gate gate;
    std::optional<OEMInterface::NetlinkDispatcher> dispatcher;
    std::optional<Reports> reports;
};

}  // namespace Nubo::ServiceDiscovery::Testing
