#pragma once

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"

#include <Common/CurrentException.h>

#include <Poco/Clock.h>
#include <Poco/Mutex.h>
#include <Poco/ThreadPool.h>
#include <Poco/Timer.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>

namespace Nubo::ServiceDiscovery {

/// Processes one of the state machine's workloads whenever its timer fires. The timer runs on a dedicated
/// thread. Its owner must call stop() before it destroys a derived class.
template <class Owner, class Container>
class TimebasedWorker
{
public:
    /// `workloadMutex` guards `workload`. `parent` owns both, and they must outlive the worker.
    TimebasedWorker(Owner& parent, std::string name, Container& workload, Poco::FastMutex& workloadMutex,
                    long intervalMs)
        : m_parent(parent)
        , m_name(std::move(name))
        , m_workload(workload)
        , m_workloadMutex(workloadMutex)
        , m_timer(0, intervalMs)
        , m_intervalMs(intervalMs)
    {}

    virtual ~TimebasedWorker() = default;

    TimebasedWorker(const TimebasedWorker&) = delete;
    TimebasedWorker& operator=(const TimebasedWorker&) = delete;

    /// Starts the timer unless it is running; it fires at once for the first time. Throws when the system
    /// cannot create a thread; the timer does not run then.
    virtual void start()
    {
        SD_LOG(Trace) << "TimebasedWorker::start";
        if (m_initialized.exchange(true))
            return;
        try {
            m_timer.setPeriodicInterval(m_intervalMs);
            m_timer.start(Poco::TimerCallback<TimebasedWorker>(*this, &TimebasedWorker::onTimer), m_threads);
        }
        catch (...) {
            m_initialized = false;
            throw;
        }
    }

    /// Stops the timer and waits for a running onInterval() to return. Must not be called with the workload
    /// mutex held, nor from onInterval().
    virtual void stop()
    {
        SD_LOG(Trace) << "TimebasedWorker::stop";
        m_timer.stop();
        m_threads.joinAll();  // makes the pool's only thread available again
        m_initialized = false;
    }

    /// Locks the workload mutex and sets the timer to the next due record.
    virtual void update() = 0;
    /// The same for a caller that holds the workload mutex.
    virtual void unsafe_update() = 0;
    /// Called on the timer's thread when the timer fires.
    virtual void onInterval(Poco::Timer& timer) = 0;

protected:
    Owner& m_parent;
    const std::string m_name;
    Container& m_workload;
    Poco::FastMutex& m_workloadMutex;
    Poco::Timer m_timer;
    const std::int64_t m_intervalMs;
    std::atomic<bool> m_initialized{false};  ///< the timer is running
    /// onInterval() is not called before this time of the engine's clock, even if the timer fires early.
    std::atomic<Poco::Clock::ClockVal> m_notBefore{0};

private:
    /// Outermost function of the engine on the timer's thread; catches all exceptions.
    void onTimer(Poco::Timer& timer)
    {
        const EngineFrame frame(&m_parent);
        // Poco::Timer waits in whole milliseconds and can fire up to one millisecond early.
        const Poco::Clock::ClockDiff early = m_notBefore - SDClock::now().raw();
        if (early > 0)
            std::this_thread::sleep_for(std::chrono::microseconds(early));
        try {
            onInterval(timer);
        }
        catch (...) {
            SD_LOG(Error) << "SDStateMachine - \"" << m_name
                          << "\" caught exception: " << Common::currentException;
        }
    }

    Poco::ThreadPool m_threads{1, 1};
};

}  // namespace Nubo::ServiceDiscovery
