#pragma once

#include <KELOEMInterfaceLib/ManualDispatcher.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// A dispatcher that the test directs.
struct DispatcherFixture : ::testing::Test
{
    /// The interfaces that are reported as present.
    std::vector<std::string> standing() const
    {
        std::vector<std::string> result;
        for (const OEMInterface::LinuxDispatcher::Interface& interface : dispatcher.interfaces())
            result.push_back(interface.name + " " + interface.ip);
        return result;
    }

    OEMInterface::ManualDispatcher dispatcher;
};

}  // namespace Nubo::ServiceDiscovery::Testing
