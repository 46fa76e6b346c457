#pragma once

#include <Poco/Clock.h>

/// The one clock of the engine: monotonic, in microseconds. Safe to use from any thread.
namespace Nubo::ServiceDiscovery::SDClock {

/// The current instant.
Poco::Clock now();

/// For tests: moves the clock forward by that many microseconds, for the whole process and for good, so that
/// no test waits minutes for a time-to-live to expire.
void turn(Poco::Clock::ClockDiff microseconds);

}  // namespace Nubo::ServiceDiscovery::SDClock
