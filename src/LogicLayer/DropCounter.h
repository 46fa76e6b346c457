#pragma once

#include "DataLayer/SDClock.h"

#include <Poco/Clock.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace Nubo::ServiceDiscovery {

/// Counts dropped items and decides when to report them: the first at once, then at most once per second, so
/// that a flood does not spread to the log. Thread-safe.
class DropCounter
{
public:
    void add() { ++m_dropped; }

    /// Returns the number dropped since the last report, or 0 when no report is due.
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
