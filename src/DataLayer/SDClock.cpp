#include "DataLayer/SDClock.h"

#include <atomic>

namespace Nubo::ServiceDiscovery::SDClock {

namespace {

std::atomic<Poco::Clock::ClockDiff> offset{0};

}  // namespace

Poco::Clock now()
{
    return Poco::Clock() + offset.load(std::memory_order_relaxed);
}

void turn(Poco::Clock::ClockDiff microseconds)
{
    offset.fetch_add(microseconds, std::memory_order_relaxed);
}

}  // namespace Nubo::ServiceDiscovery::SDClock
