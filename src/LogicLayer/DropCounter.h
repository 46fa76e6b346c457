#pragma once

#include "DataLayer/SDClock.h"

#include <Poco/Clock.h>

#include <cstdint>

namespace Nubo::ServiceDiscovery {

/// Counts what had to be dropped and tells when to report it: at once, and then once a second at most, so
/// that a flood does not go on in the log. Of one thread at a time.
class DropCounter
{
public:
    void add() { ++m_dropped; }

    /// How many were dropped since the last report; 0 when there is nothing to report yet.
    std::uint64_t takeReport()
    {
        if (m_dropped == 0 || SDClock::now() < m_nextReport)
            return 0;
        m_nextReport = SDClock::now() + interval;
        const std::uint64_t dropped = m_dropped;
        m_dropped = 0;
        return dropped;
    }

private:
    static constexpr Poco::Clock::ClockDiff interval = 1000000;  // microseconds

    std::uint64_t m_dropped = 0;
    Poco::Clock m_nextReport{Poco::Clock::ClockVal{0}};
};

}  // namespace Nubo::ServiceDiscovery
