#pragma once

#include "DataLayer/SDClock.h"

#include <Poco/Clock.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace Nubo::ServiceDiscovery {

/// Counts what had to be dropped and says when to report it: at once, and then once a second at most, so that
/// a flood does not continue in the log. Safe to use from any thread.
class DropCounter
{
public:
    void add() { ++m_dropped; }

    /// How many were dropped since the last report; 0 when there is nothing to report yet.
    std::uint64_t takeReport()
    {
        if (m_dropped == 0)
            return 0;
        const std::lock_guard<std::mutex> lock(m_mutex);
        const Poco::Clock now = SDClock::now();
        if (now < m_nextReport)
            return 0;
        m_nextReport = now + interval;
        return m_dropped.exchange(0);
    }

private:
    static constexpr Poco::Clock::ClockDiff interval = 1000000;  // microseconds

    std::atomic<std::uint64_t> m_dropped{0};
    std::mutex m_mutex;
    Poco::Clock m_nextReport{Poco::Clock::ClockVal{0}};
};

}  // namespace Nubo::ServiceDiscovery
