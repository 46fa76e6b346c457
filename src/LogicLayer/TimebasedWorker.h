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

/// Works on one of the state machine's workloads whenever its timer fires. The timer has a thread of its
/// own. A derived class must not be destroyed while the timer runs: its owner calls stop() first.
template <class Owner, class Container>
class TimebasedWorker
{
public:
    /// `workload` is guarded by `workloadMutex`; both belong to `parent` and outlive the worker.
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

    /// Starts the timer unless it runs already: the first interval is over at once. Throws when the system
    /// gives no thread; the timer does not run then.
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

    /// Stops the timer and waits for a running interval to end. Not to be called with the workload mutex
    /// held, nor from onInterval().
    virtual void stop()
    {
        SD_LOG(Trace) << "TimebasedWorker::stop";
        m_timer.stop();
        m_threads.joinAll();  // only then can the pool's one thread be used again
        m_initialized = false;
    }

    /// Sets the timer by the workload; takes the workload mutex.
    virtual void update() = 0;
    /// The same for a caller that holds the workload mutex.
    virtual void unsafe_update() = 0;
    /// An interval is over; called on the timer's thread.
    virtual void onInterval(Poco::Timer& timer) = 0;

protected:
    Owner& m_parent;
    const std::string m_name;
    Container& m_workload;
    Poco::FastMutex& m_workloadMutex;
    Poco::Timer m_timer;
    const std::int64_t m_intervalMs;
    std::atomic<bool> m_initialized{false};  ///< the timer is running
    /// Before this time of the engine's clock no interval ends, even if the timer is early.
    std::atomic<Poco::Clock::ClockVal> m_notBefore{0};

private:
    /// The outermost frame of the timer's thread: what is thrown ends here.
    void onTimer(Poco::Timer& timer)
    {
        const EngineFrame frame(&m_parent);
        // Poco::Timer is, by up to a millisecond: it waits for whole ones.
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
