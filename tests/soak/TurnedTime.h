#pragma once

#include <Poco/Clock.h>

#include <functional>

namespace Nubo::ServiceDiscovery::Testing {

/// Replaces the engine's clock and timers in a program that links this file. Time passes only when the
/// program advances it, and timers call back on the thread that does so. Days thus take minutes.
namespace TurnedTime {

using Microseconds = Poco::Clock::ClockDiff;

constexpr Microseconds millisecond = 1000;
constexpr Microseconds second = 1000 * millisecond;

/// Simulated time since the start. Never 0, which means "no time" to the engine.
Microseconds now();

/// Advances time to `end`. Timers that end by then call back at their times, one after the other; after each
/// of them `afterEach` is called.
void passUntil(Microseconds end, const std::function<void()>& afterEach);

}  // namespace TurnedTime

}  // namespace Nubo::ServiceDiscovery::Testing
