// The state machine's two timer-driven workers.

#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "LogicLayer/SDStateMachine.h"

#include <Common/CurrentException.h>
#include <KELUtilLib/DebugUtils.h>

#include <algorithm>

namespace Nubo::ServiceDiscovery {

using State = SDService::State;
using Type = SDService::Type;

namespace {

// In milliseconds.
constexpr long firstRepetition = 100;   // delay after the first send; it doubles with each further one
constexpr long cycle = 1000;            // period of the main phase
constexpr long parked = 2147483647;     // interval of a timer with nothing to do
constexpr long shortestDelay = 1;       // between two records of the aperiodic workload
constexpr long late = 100;              // an interval that starts more than this behind schedule is late
constexpr long pause = 2000;            // a longer gap between two intervals means the unit did not listen
constexpr long hearing = 1100;          // every unit repeats its offers within this time
constexpr long longestHearing = 10000;  // limit when the unit is held up again and again
constexpr long longestHandling = 50;    // wait for received datagrams to be handled before records expire

constexpr std::uint8_t repetitions = 3;    // sends in the repetition phase
constexpr std::uint8_t shutdownSends = 3;  // stop-offers of a removed service
constexpr Poco::Clock::ClockDiff microsecondsPerMillisecond = 1000;

// The search for expired records yields the mutex every `longestSlice`. After `longestExpiry` it leaves the
// rest to the next interval, so that cyclic offers are sent on time. In microseconds.
constexpr Poco::Clock::ClockDiff longestSlice = 10'000;
constexpr Poco::Clock::ClockDiff longestExpiry = 900'000;
constexpr unsigned recordsPerLook = 256;  // number of records between two readings of the clock

/// Logs a record that does not belong where a worker found it. Kept for compatibility: the lines of both
/// workers name the aperiodic one.
void reportUnexpectedRecord(const char* workload, const SDService& service)
{
    SD_LOG(Error) << "AperiodicWorker::onInterval found " << workload << " Service \""
                  << service.getNuboDescription().getName() << "\" in unexpected State x Type!";
    SD_LOG(Trace) << "AperiodicWorker::onInterval " << service.getState() << " x " << service.getType();
}

}  // namespace

SDStateMachine::AperiodicWorker::AperiodicWorker(SDStateMachine& parent)
    : TimebasedWorker(parent, "AperiodicWorker", parent.m_aperiodicWorkload, parent.m_workloadMutex, parked)
{}

void SDStateMachine::AperiodicWorker::update()
{
    const WorkloadLock lock(m_parent);
    unsafe_update();
}

void SDStateMachine::AperiodicWorker::unsafe_update()
{
    SD_LOG(Trace) << "AperiodicWorker::unsafe_update";
    if (!m_parent.isRunning())
        return;
    if (m_workload.empty()) {
        if (m_initialized) {
            m_timer.restart(parked);
            SD_LOG(Debug) << "SDStateMachine - \"" << m_name << "\" event timer stopped ";
        }
        return;
    }

    const Poco::Clock now = SDClock::now();
    const Poco::Clock& due = m_workload.begin()->first;
    if (m_initialized)
        m_timer.restart(timerInterval(std::max(due.raw(), m_notBefore.load()) - now.raw()));
    else
        start();
    SD_LOG(Debug) << "SDStateMachine - \"" << m_name << "\" event timer set to "
                  << std::max((due - now) / microsecondsPerMillisecond, Poco::Clock::ClockDiff{shortestDelay})
                  << " milliseconds";
}

/// Converts a wait in microseconds to a timer interval in milliseconds, rounded up. Poco::Timer occasionally
/// fires a millisecond early; the interval then finds nothing due and sets the timer for the rest.
long SDStateMachine::AperiodicWorker::timerInterval(Poco::Clock::ClockDiff wait)
{
    return std::max((wait + microsecondsPerMillisecond - 1) / microsecondsPerMillisecond,
                    Poco::Clock::ClockDiff{shortestDelay});
}

void SDStateMachine::AperiodicWorker::onInterval(Poco::Timer& timer)
{
    // Only the first such thread of the process gets the name.
    static const bool named = (DebugUtils::setThreadName("SdAperWork", "AperiodicWorker::onInterval"), true);
    static_cast<void>(named);

    const WorkloadLock lock(m_parent);
    SD_LOG(Trace) << "AperiodicWorker::onInterval - " << m_workload.size() << " services in list";
    if (timer.skipped() > 0)
        SD_LOG(Warning) << "SDStateMachine - \"AperiodicWorker\" skipped " << timer.skipped()
                        << " timer events.";
    if (!m_parent.isRunning())
        return;

    const Poco::Clock now = SDClock::now();
    while (!m_workload.empty() && m_workload.begin()->second.isNull()) {
        SD_LOG(Error) << "AperiodicWorker::onInterval found aperiodic Service nullptr!";
        m_workload.erase(m_workload.begin());
    }
    // One record per interval: further due records wait for the next interval, a millisecond later.
    if (!m_workload.empty() && m_workload.begin()->first <= now) {
        handleFirst(now);
        m_notBefore = SDClock::now().raw() + shortestDelay * microsecondsPerMillisecond;
    }
    unsafe_update();
}

void SDStateMachine::AperiodicWorker::handleFirst(const Poco::Clock& now)
{
    WorkloadEntry& entry = m_workload.begin()->second;
    long delay = firstRepetition;
    try {
        delay = handle(entry);
    }
    catch (...) {
        // The record stays and is tried again after `firstRepetition`.
        SD_LOG(Error) << "SDStateMachine - \"" << m_name
                      << "\" caught exception: " << Common::currentException;
    }
    if (delay == isDone)
        m_workload.erase(entry);
    else
        m_workload.reschedule(entry, now + delay * microsecondsPerMillisecond);
}

long SDStateMachine::AperiodicWorker::handle(const SDService::Ptr& entry)
{
    SDService::Ptr service = entry;
    const Type::Type_t type = service->getType();
    const State::State_t state = service->getState();
    if (type == Type::WANTED || type == Type::ANNOUNCED) {
        if (state == State::ONCE) {
            m_parent.unsafe_sendSafely(service);
            return isDone;
        }
        if (state == State::INITIAL_WAIT_PHASE) {
            service->setState(State::REPETITION_PHASE);
            m_parent.unsafe_sendSafely(service);
            return firstRepetition;
        }
        if (state == State::REPETITION_PHASE)
            return handleRepetition(service);
    }
    reportUnexpectedRecord("aperiodic", *service);
    return isDone;
}

long SDStateMachine::AperiodicWorker::handleRepetition(SDService::Ptr& service)
{
    m_parent.unsafe_sendSafely(service);
    service->incrementRepetitionRun();
    const int run = service->getRepetitionRun();
    if (run < repetitions)
        return (2L << (run - 1)) * firstRepetition;
    if (service->getType() == Type::ANNOUNCED) {
        m_parent.unsafe_addPeriodicService(service);  // first, because it throws when memory is short
        service->setState(State::MAIN_PHASE);
    }
    return isDone;  // for a wanted record, the search ends here
}

SDStateMachine::PeriodicWorker::PeriodicWorker(SDStateMachine& parent)
    : TimebasedWorker(parent, "PeriodicWorker", parent.m_periodicWorkload, parent.m_workloadMutex, cycle)
{}

void SDStateMachine::PeriodicWorker::start()
{
    {
        const WorkloadLock lock(m_parent);
        const Poco::Clock never(Poco::Clock::ClockVal{0});
        m_begin = never;
        m_listeningSince = SDClock::now();
        hearFirst(never, m_listeningSince);  // no offer was received while the machine was stopped
    }
    TimebasedWorker::start();
}

// Kept for compatibility: this worker's log lines name the other worker.

void SDStateMachine::PeriodicWorker::update()
{
    SD_LOG(Warning) << "AperiodicWorker::update: not needed, should not be called!";
}

void SDStateMachine::PeriodicWorker::unsafe_update()
{
    SD_LOG(Warning) << "AperiodicWorker::unsafe_update: not needed, should not be called!";
}

void SDStateMachine::PeriodicWorker::onInterval(Poco::Timer& timer)
{
    static const bool named = (DebugUtils::setThreadName("SdPerWork", "PeriodicWorker::onInterval"), true);
    static_cast<void>(named);

    m_parent.m_hub.reportDrops();
    m_parent.reportRefusals();
    {
        const WorkloadLock lock(m_parent);
        SD_LOG(Trace) << "AperiodicWorker::onInterval - " << m_workload.size() << " services in list";
        if (timer.skipped() > 0)
            SD_LOG(Warning) << "SDStateMachine - " << timer.skipped() << " skipped announcement timer events";
        if (m_parent.m_isClosed)
            return;
        m_parent.unsafe_endReflections();
        begin();
        offerOwn();
    }
    const bool isHeard = m_parent.m_hub.letIncomingBeHandled(longestHandling);
    WorkloadLock lock(m_parent);
    if (!isHeard)
        hearAgain();
    expire(lock);
}

/// Checks whether the interval is late, because the process was suspended or a subscriber blocked the mutex.
void SDStateMachine::PeriodicWorker::begin()
{
    m_beginBefore = std::exchange(m_begin, SDClock::now());
    if (m_beginBefore.raw() == 0)
        return;
    if (m_begin - m_beginBefore > pause * microsecondsPerMillisecond)
        m_listeningSince = m_begin;
    if (m_begin - m_beginBefore > (cycle + late) * microsecondsPerMillisecond)
        hearAgain();
}

/// Until the unit has listened for `hearing` from `now` on, expires only records that had already expired at
/// `heldUpSince`. Units that kept offering since then thus get the chance to be heard first.
void SDStateMachine::PeriodicWorker::hearFirst(const Poco::Clock& heldUpSince, const Poco::Clock& now)
{
    m_heldUpSince = heldUpSince;
    m_hearingSince = now;
    m_heardAt = now + hearing * microsecondsPerMillisecond;
}

/// The unit has heard nothing since the start of the previous interval. If it was still catching up then, it
/// continues to judge expiry at the time when it was held up first, but for a limited time only: a unit that
/// is held up all the time would otherwise keep every service.
void SDStateMachine::PeriodicWorker::hearAgain()
{
    const bool goesOn = m_beginBefore < m_heardAt &&
                        m_beginBefore - m_hearingSince <= longestHearing * microsecondsPerMillisecond;
    if (goesOn)
        m_heardAt = m_begin + hearing * microsecondsPerMillisecond;
    else
        hearFirst(m_beginBefore, m_begin);
}

Poco::Clock SDStateMachine::PeriodicWorker::listeningSince() const
{
    const Poco::Clock now = SDClock::now();
    const bool isPause = m_begin.raw() != 0 && now - m_begin > pause * microsecondsPerMillisecond;
    return isPause ? now : m_listeningSince;
}

void SDStateMachine::PeriodicWorker::offerOwn()
{
    ServicesContainer batch;
    batch.reserve(m_workload.localCount());
    m_workload.startLocalWalk();
    while (WorkloadEntry* const entry = m_workload.walkLocals()) {
        if (!handleLocal(*entry, batch))
            m_workload.erase(*entry);
    }
    if (!batch.empty())
        m_parent.unsafe_sendSafely(batch);
}

bool SDStateMachine::PeriodicWorker::handleLocal(const SDService::Ptr& entry, ServicesContainer& batch)
{
    if (entry.isNull()) {
        SD_LOG(Error) << "AperiodicWorker::onInterval found periodic Service nullptr!";
        return false;
    }
    if (entry->getType() == Type::ANNOUNCED)
        return handleAnnounced(entry, batch);
    reportUnexpectedRecord("periodic", *entry);
    return true;
}

bool SDStateMachine::PeriodicWorker::handleAnnounced(SDService::Ptr service, ServicesContainer& batch)
{
    const State::State_t state = service->getState();
    if (state == State::MAIN_PHASE) {
        batch.push_back(service);
    }
    else if (state == State::SHUTDOWN_PHASE) {
        if (service->getRepetitionRun() >= shutdownSends) {
            service->setState(State::REMOVED);
        }
        else {
            batch.push_back(service);
            service->incrementRepetitionRun();
        }
    }
    else {
        reportUnexpectedRecord("periodic", *service);
    }
    return service->getState() != State::REMOVED;
}

void SDStateMachine::PeriodicWorker::expire(WorkloadLock& lock)
{
    Poco::Clock begin = SDClock::now();
    if (m_parent.m_isClosed || isOver(begin))
        return;
    if (!m_workload.isWalking())
        m_workload.startWalk();
    // Offers that arrived before the interval started have been handled, but the process may have been
    // suspended at any time since.
    const Poco::Clock heardUntil = m_begin < m_heardAt ? m_heldUpSince : m_begin;
    unsigned visited = 0;
    while (WorkloadEntry* const entry = m_workload.walk()) {
        const bool isGone = entry->role == WorkloadEntry::Role::Discovered && expire(*entry, heardUntil);
        if (!isGone && ++visited % recordsPerLook != 0)
            continue;
        const Poco::Clock now = SDClock::now();
        if (now - begin < longestSlice)
            continue;
        if (isOver(now))
            return;
        lock.giveWay();
        begin = SDClock::now();
        if (m_parent.m_isClosed || isOver(begin))  // a subscriber may have blocked the mutex
            return;
    }
}

/// Whether the interval has no time left to expire further records.
bool SDStateMachine::PeriodicWorker::isOver(const Poco::Clock& now) const
{
    return now - m_begin >= longestExpiry;
}

bool SDStateMachine::PeriodicWorker::expire(WorkloadEntry& entry, const Poco::Clock& heardUntil)
{
    const bool isReflected = entry->getTTL() == 0;  // no one is to be heard first
    if (!entry->isTTLElapsed(isReflected ? m_begin : heardUntil))
        return false;
    SD_LOG(Notice) << "SDStateMachine - TTL of service timed out: " << entry->getNuboDescription().getName();
    try {
        m_parent.unsafe_tellGone(entry);
    }
    catch (...) {
        // The other records must still be processed.
        SD_LOG(Error) << "SDStateMachine - \"" << m_name
                      << "\" caught exception: " << Common::currentException;
    }
    return true;
}

}  // namespace Nubo::ServiceDiscovery
