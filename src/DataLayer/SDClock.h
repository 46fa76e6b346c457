#pragma once

#include <Poco/Clock.h>

/// The one clock of the engine: monotonic, in microseconds. Safe to use from any thread.
namespace Nubo::ServiceDiscovery::SDClock {

/// The current instant.
Poco::Clock now();

/// For tests: lets the clock jump by that many microseconds, for everybody and lastingly. A test that
/// waits for a time-to-live of minutes turns the clock instead.
void turn(Poco::Clock::ClockDiff microseconds);

}  // namespace Nubo::ServiceDiscovery::SDClock
