#pragma once

#include <Poco/Clock.h>

#include <functional>

namespace Nubo::ServiceDiscovery::Testing {

/// The engine's clock and timers in a program that is linked with this: time stands still until the program
/// lets it pass, and timers call back on the thread that does. Days take minutes then.
namespace TurnedTime {

using Microseconds = Poco::Clock::ClockDiff;

constexpr Microseconds millisecond = 1000;
constexpr Microseconds second = 1000 * millisecond;

/// Since the beginning; not 0, which the engine takes for no time.
Microseconds now();

/// Lets time pass up to `end`. Timers that end until then call back at their times, one after the other, and
/// `afterEach` is called after each of them.
void passUntil(Microseconds end, const std::function<void()>& afterEach);

}  // namespace TurnedTime

}  // namespace Nubo::ServiceDiscovery::Testing
