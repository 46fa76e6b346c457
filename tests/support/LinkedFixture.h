#pragma once

#include "support/Namespace.h"

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// A link eth0 with the address fd00::1 here and fd00::2 there.
struct LinkedFixture : ::testing::Test
{
    LinkedFixture() { network.link("eth0", "fd00::1", "fd00::2"); }

    NetworkPair network;
};

}  // namespace Nubo::ServiceDiscovery::Testing
