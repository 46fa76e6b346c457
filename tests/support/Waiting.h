#pragma once

#include <chrono>
#include <thread>

namespace Nubo::ServiceDiscovery::Testing {

/// Waits until the condition holds, at most `atMost`. Returns whether it does.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds atMost = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + atMost;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Whether the condition holds all the time for `howLong`.
template <class Condition>
bool keeps(Condition condition, std::chrono::milliseconds howLong)
{
    return !eventually([&] { return !condition(); }, howLong);
}

}  // namespace Nubo::ServiceDiscovery::Testing
