#pragma once

#include "DataLayer/SDClock.h"
#include "LogicLayer/SDStateMachine.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// A state machine whose workloads a test can read, and whose intervals it can end by hand.
///
/// `run()` marks it as running without starting timers, so that only the test makes things happen. By turning
/// the engine's clock (SDClock::turn), the test controls time.
class TestStateMachine : public SDStateMachine
{
    template <class Worker>
    struct TimerAccess : Worker
    {
        static auto isInitialized() { return &TimerAccess::m_initialized; }
        static auto timer() { return &TimerAccess::m_timer; }
    };

public:
    using Event = SDStateMachine::ExternalEvent;
    using SDStateMachine::m_aperiodicWorker;
    using SDStateMachine::m_aperiodicWorkload;
    using SDStateMachine::m_index;
    using SDStateMachine::m_listingMutex;
    using SDStateMachine::m_periodicWorker;
    using SDStateMachine::m_periodicWorkload;
    using SDStateMachine::m_running;
    using SDStateMachine::m_turnMutex;
    using SDStateMachine::m_workloadMutex;
    using SDStateMachine::SDStateMachine;

    void run()
    {
        m_running = true;
        m_aperiodicWorker.*TimerAccess<AperiodicWorker>::isInitialized() = true;  // as if the timer ran
    }

    /// Makes the periodic worker regard the present as its start.
    void listenFromNowOn()
    {
        m_periodicWorker.*TimerAccess<PeriodicWorker>::isInitialized() = true;
        m_periodicWorker.start();
    }

    /// The workers' timers. Their intervals are the last ones set, in milliseconds.
    const Poco::Timer& aperiodicTimer() const
    {
        return m_aperiodicWorker.*TimerAccess<AperiodicWorker>::timer();
    }
    const Poco::Timer& periodicTimer() const
    {
        return m_periodicWorker.*TimerAccess<PeriodicWorker>::timer();
    }

    /// Ends an interval of the worker, on this thread.
    void aperiodicTick() { aperiodicTick(m_timer); }
    void aperiodicTick(Poco::Timer& timer) { m_aperiodicWorker.onInterval(timer); }
    void periodicTick() { periodicTick(m_timer); }
    void periodicTick(Poco::Timer& timer) { m_periodicWorker.onInterval(timer); }

    /// The records of both workloads with that identifier: by the index, and by a walk.
    ServicesContainer indexed(const std::string& uuid) const
    {
        ServicesContainer found;
        for (const auto workload : {WorkloadEntry::Workload::Aperiodic, WorkloadEntry::Workload::Periodic}) {
            for (const WorkloadEntry* entry : m_index.findUuid(uuid, workload))
                found.push_back(*entry);
        }
        return found;
    }
    ServicesContainer walked(const std::string& uuid) const
    {
        ServicesContainer found;
        for (const ServicesContainer& services : {aperiodic(), periodic()})
            std::copy_if(services.begin(), services.end(), std::back_inserter(found),
                         [&](const SDService::Ptr& service) {
                             return service->getNuboDescription().getLocalUuid() == uuid;
                         });
        return found;
    }

    /// Put a record, or null, into a workload, unchanged.
    void putAperiodic(const SDService::Ptr& service, Poco::Clock::ClockDiff dueInMicroseconds = 0)
    {
        m_aperiodicWorkload.emplace(SDClock::now() + dueInMicroseconds, service);
    }
    void putPeriodic(const SDService::Ptr& service) { m_periodicWorkload.push_back(service); }

    bool handle(Event::WorkloadEvent_t type, const SDService::Ptr& service, const std::string& uuid = "")
    {
        Event event(type, service, uuid);
        return onExternalEvent(event);
    }

    /// The records of the aperiodic workload in the order of their due times.
    ServicesContainer aperiodic() const
    {
        ServicesContainer services;
        for (const auto& entry : m_aperiodicWorkload)
            services.push_back(entry.second);
        return services;
    }
    ServicesContainer periodic() const { return {m_periodicWorkload.begin(), m_periodicWorkload.end()}; }

private:
    Poco::Timer m_timer;
};

}  // namespace Nubo::ServiceDiscovery::Testing
