#include "soak/TurnedTime.h"

#include "DataLayer/SDClock.h"

#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/Timer.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

// The definitions in this file replace those of the libraries: the engine's clock, and Poco's timer.

namespace Nubo::ServiceDiscovery::Testing::TurnedTime {

namespace {

std::atomic<Microseconds> current{second};

/// The running timers. Any thread may set one.
class Agenda
{
public:
    void set(Poco::Runnable& timer, Microseconds due, long period)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_timers[&timer] = {due, period, ++m_changes};
    }
    void setPeriod(Poco::Runnable& timer, long period)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_timers.find(&timer);
        if (found != m_timers.end())
            found->second.period = period;
    }
    bool has(Poco::Runnable& timer) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_timers.count(&timer) != 0;
    }
    void remove(Poco::Runnable& timer)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_timers.erase(&timer);
    }

    /// Returns the timer that ends first, if it ends by `end`, and sets it to its next time.
    Poco::Runnable* takeNext(Microseconds end)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto first =
            std::min_element(m_timers.begin(), m_timers.end(), [](const auto& one, const auto& other) {
                return std::tie(one.second.due, one.second.change) <
                       std::tie(other.second.due, other.second.change);
            });
        if (first == m_timers.end() || first->second.due > end)
            return nullptr;
        Setting& setting = first->second;
        current = std::max<Microseconds>(current, setting.due);
        setting.due += setting.period * millisecond;
        setting.change = ++m_changes;
        return first->first;
    }

private:
    struct Setting
    {
        Microseconds due;
        long period;
        unsigned long long change;  // of timers with equal times, the one set first ends first
    };

    mutable std::mutex m_mutex;
    std::map<Poco::Runnable*, Setting> m_timers;
    unsigned long long m_changes = 0;
};

Agenda& agenda()
{
    static Agenda& agenda = *new Agenda;  // never destroyed, because timers may outlive static objects
    return agenda;
}

}  // namespace

Microseconds now()
{
    return current;
}

void passUntil(Microseconds end, const std::function<void()>& afterEach)
{
    while (Poco::Runnable* const timer = agenda().takeNext(end)) {
        timer->run();
        afterEach();
    }
    current = std::max<Microseconds>(current, end);
}

}  // namespace Nubo::ServiceDiscovery::Testing::TurnedTime

namespace Nubo::ServiceDiscovery::SDClock {

using namespace Testing;

Poco::Clock now()
{
    return Poco::Clock(TurnedTime::now());
}

void turn(Poco::Clock::ClockDiff microseconds)
{
    TurnedTime::current += microseconds;
}

}  // namespace Nubo::ServiceDiscovery::SDClock

namespace Poco {

namespace TurnedTime = Nubo::ServiceDiscovery::Testing::TurnedTime;

Timer::Timer(long startInterval, long periodicInterval)
    : _startInterval(startInterval)
    , _periodicInterval(periodicInterval)
    , _skipped(0)
    , _pCallback(nullptr)
{}

Timer::~Timer()
{
    stop();
}

void Timer::start(const AbstractTimerCallback& method, ThreadPool&)
{
    stop();
    _pCallback = method.clone();
    TurnedTime::agenda().set(*this, TurnedTime::now() + _startInterval * TurnedTime::millisecond,
                             _periodicInterval);
}

void Timer::stop()
{
    TurnedTime::agenda().remove(*this);
    delete _pCallback;
    _pCallback = nullptr;
}

void Timer::restart(long milliseconds)
{
    _periodicInterval = milliseconds;
    if (TurnedTime::agenda().has(*this))
        TurnedTime::agenda().set(*this, TurnedTime::now() + milliseconds * TurnedTime::millisecond,
                                 milliseconds);
}

void Timer::setPeriodicInterval(long milliseconds)
{
    _periodicInterval = milliseconds;
    TurnedTime::agenda().setPeriod(*this, milliseconds);
}

long Timer::skipped() const
{
    return _skipped;
}

void Timer::run()
{
    _pCallback->invoke(*this);
}

}  // namespace Poco
