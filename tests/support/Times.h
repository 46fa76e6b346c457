#pragma once

#include "DataLayer/SDClock.h"

#include <Poco/Clock.h>

#include <algorithm>
#include <chrono>

/// For tests of times, which a busy machine makes longer and never shorter.
namespace Nubo::ServiceDiscovery::Testing {

/// Turns the engine's clock to that long after an instant, in microseconds.
inline void turnTo(const Poco::Clock& instant, Poco::Clock::ClockDiff later)
{
    SDClock::turn(later - (SDClock::now() - instant));
}

/// How many milliseconds the call takes. When that is more than expected, the call is made again, up to
/// twice, and the shortest time counts.
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

/// Whether the condition holds in one of so many runs.
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
