#pragma once

#include "DataLayer/SDClock.h"

#include <Poco/Clock.h>

#include <algorithm>
#include <chrono>

/// Helpers for tests of times, which a busy machine makes longer, never shorter.
namespace Nubo::ServiceDiscovery::Testing {

/// Turns the engine's clock to `later` microseconds after an instant.
inline void turnTo(const Poco::Clock& instant, Poco::Clock::ClockDiff later)
{
    SDClock::turn(later - (SDClock::now() - instant));
}

/// Duration of the call in milliseconds. If it takes longer than expected, the call is made up to two more
/// times, and the shortest time counts.
template <class Call>
double shortestTime(Call call, double expected)
{
    double shortest = 0;
    for (int run = 0; run == 0 || (run < 3 && shortest > expected); ++run) {
        const auto begin = std::chrono::steady_clock::now();
        call();
        const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
        shortest = run == 0 ? time.count() : std::min(shortest, time.count());
    }
    return shortest;
}

/// Whether the condition holds in at least one of the runs.
template <class Condition>
bool inSomeRun(Condition condition, int runs = 20)
{
    for (int run = 0; run < runs; ++run) {
        if (condition())
            return true;
    }
    return false;
}

}  // namespace Nubo::ServiceDiscovery::Testing
