#include "LogicLayer/SDStateMachine.h"

#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"
#include "LogicLayer/Records.h"
#include "LogicLayer/SDCommunicationHub.h"

#include <Common/CurrentException.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace Nubo::ServiceDiscovery {

using State = SDService::State;
using Type = SDService::Type;
using Entry = WorkloadEntry;

namespace {

constexpr double initialWaitRange = 0.0;  // milliseconds; above 0 it adds a random initial wait
constexpr long oneTimeAnswer = 50;        // milliseconds from a FIND to its answer
constexpr Poco::Clock::ClockDiff microsecondsPerMillisecond = 1000;
constexpr Poco::Clock::ClockDiff longestSlice = 10'000;  // work under the mutex at a time, in microseconds

const SDService::Ptr& recordOf(const SDService::Ptr& service)
{
    return service;
}

template <class Value>
const SDService::Ptr& recordOf(const std::pair<const Poco::Clock, Value>& entry)
{
    return entry.second;
}

/// Appends the records that match.
template <class Container>
bool walk(const Container& services, const ServiceIdentity& identity, ServicesContainer& found)
{
    for (const auto& entry : services) {
        if (SDStateMachine::doesServiceMatch(identity, recordOf(entry)))
            found.push_back(recordOf(entry));
    }
    return !found.empty();
}

}  // namespace

SDStateMachine::ExternalEvent::ExternalEvent(WorkloadEvent_t eventType, SDService::Ptr record,
                                             const std::string& uuid)
    : type(eventType)
    , service(std::move(record))
    , localUuid(uuid)
{}

void SDStateMachine::WorkloadLock::lock()
{
    const Poco::FastMutex::ScopedLock turn(m_machine.m_turnMutex);
    m_machine.m_workloadMutex.lock();
}

void SDStateMachine::WorkloadLock::unlock()
{
    m_machine.m_workloadMutex.unlock();
}

SDStateMachine::SDStateMachine(SDCommunicationHub& hub, EventMemory eventMemory)
    : m_hub(hub)
    , m_eventMemory(std::move(eventMemory))
    , m_rnd(256)
    , m_aperiodicWorker(*this)
    , m_periodicWorker(*this)
{
    m_rnd.seed();
}

SDStateMachine::~SDStateMachine()
{
    {
        // A running interval must not restart the timer while stop() waits for it.
        const WorkloadLock lock(*this);
        m_running = false;
    }
    m_aperiodicWorker.stop();
    m_periodicWorker.stop();
}

void SDStateMachine::start()
{
    SD_LOG(Debug) << "SDStateMachine::start";
    setClosed(false);
    m_running = true;
    try {
        m_periodicWorker.start();
        m_aperiodicWorker.update();
    }
    catch (...) {
        m_running = false;
        setClosed(true);
        m_aperiodicWorker.stop();
        m_periodicWorker.stop();
        throw;
    }
}

void SDStateMachine::setClosed(bool isClosed)
{
    const WorkloadLock lock(*this);
    m_isClosed = isClosed;
}

void SDStateMachine::stop()
{
    SD_LOG(Debug) << "SDStateMachine::stop";
    close();
    m_aperiodicWorker.stop();
    m_periodicWorker.stop();
}

void SDStateMachine::close()
{
    m_running = false;
    setClosed(true);
    try {
        removeAllAnnouncedServices();
    }
    catch (...) {
        SD_LOG(Error) << "SDStateMachine - failed to withdraw: " << Common::currentException;
    }
}

bool SDStateMachine::onExternalEvent(ExternalEvent& event)
{
    const bool isComplete =
        event.type == ExternalEvent::HTTP_DELETE ? !event.localUuid.empty() : !event.service.isNull();
    if (!isComplete) {
        SD_LOG(Error) << "SDStateMachine::onExternalEvent: received nullptr Service or empty UUID.";
        return false;
    }
    switch (event.type) {
        case ExternalEvent::HTTP_PUT:
            return handlePUT(event);
        case ExternalEvent::HTTP_DELETE:
            return handleDELETE(event);
        case ExternalEvent::HTTP_GET:
            return handleGET(event);
        case ExternalEvent::SOMEIP_FIND:
            return handleFIND(event);
        case ExternalEvent::SOMEIP_OFFER:
            return handleOFFER(event);
        case ExternalEvent::SOMEIP_STOPOFFER:
            return handleSTOPOFFER(event);
    }
    SD_LOG(Error) << "onExternalEvent received unknown EventType!";
    return false;
}

std::vector<ServiceStatus> SDStateMachine::getServices() const
{
    // One list at a time: the lists are long, and each one holds up the events for a while.
    const std::lock_guard<std::mutex> oneAtATime(m_listingMutex);
    struct Known
    {
        SDService::Ptr service;
        ServiceStatus::Role role;
        unsigned short instanceId;
        std::optional<unsigned int> secondsLeft;
    };
    std::vector<Known> known;
    const auto note = [&](const SDService::Ptr& service) {
        if (isWanted(service) || isOnce(service) || isShuttingDown(service))
            return;
        if (service->getType() == Type::DISCOVERED)
            known.push_back({service, ServiceStatus::Role::DISCOVERED, service->getInstanceId(),
                             service->getSecondsLeft()});
        else
            known.push_back(
                {service, ServiceStatus::Role::ANNOUNCED, service->getInstanceId(), std::nullopt});
    };
    {
        const WorkloadLock lock(*this);
        known.reserve(m_aperiodicWorkload.size() + m_periodicWorkload.size());
        for (const auto& entry : m_aperiodicWorkload)
            note(entry.second);
        for (const Entry& entry : m_periodicWorkload)
            note(entry);
    }

    // Copies the texts, which takes longest, without the mutex: a record's description does not change while
    // the record is in a workload.
    std::vector<ServiceStatus> result;
    result.reserve(known.size());
    for (const Known& one : known)
        result.push_back({one.service->getNuboDescription(), one.role, one.instanceId, one.secondsLeft});
    return result;
}

bool SDStateMachine::removeAllAnnouncedServices()
{
    WorkloadLock lock(*this);
    unsafe_withdraw(&lock);
    unsafe_dropAnswers();
    return true;
}

/// Yields the mutex now and then, if there is a lock, because each service requires a call of the sender.
void SDStateMachine::unsafe_withdraw(WorkloadLock* lock)
{
    Poco::Clock begin = SDClock::now();
    m_periodicWorkload.startLocalWalk();
    while (Entry* const entry = m_periodicWorkload.walkLocals()) {
        if ((*entry)->getType() != Type::ANNOUNCED)
            continue;
        SD_LOG(Notice) << "SD Announcement of Service " << ServiceLabel{**entry}
                       << " stopped, due to shutdown of ServiceRegistry.";
        (*entry)->setTTL(0);
        (*entry)->setState(State::REMOVED);
        unsafe_sendSafely(*entry);
        m_periodicWorkload.erase(*entry);
        if (lock && SDClock::now() - begin >= longestSlice) {
            lock->giveWay();
            begin = SDClock::now();
        }
    }
}

/// Drops waiting answers: after a restart they would offer services that have been withdrawn.
void SDStateMachine::unsafe_dropAnswers()
{
    for (auto entry = m_aperiodicWorkload.begin(); entry != m_aperiodicWorkload.end();) {
        if (entry->second.role == Entry::Role::Answer)
            entry = m_aperiodicWorkload.erase(entry);
        else
            ++entry;
    }
}

void SDStateMachine::unsafe_stop()
{
    m_running = false;
    m_isClosed = true;
    unsafe_withdraw(nullptr);
}

bool SDStateMachine::doesServiceMatch(const ServiceIdentity& identity, const SDService::Ptr& service)
{
    return identity.matches(*service);
}

unsigned short SDStateMachine::findHighestInstanceID(const ServicesContainer& services, unsigned short start)
{
    unsigned short highest = start;
    for (const SDService::Ptr& service : services)
        highest = std::max(highest, service->getInstanceId());
    return highest;
}

bool SDStateMachine::unsafe_findServices(const AperiodicServicesContainer& services,
                                         const ServiceIdentity& identity, ServicesContainer& found) const
{
    return walk(services, identity, found);
}

bool SDStateMachine::unsafe_findServices(const ServicesContainer& services, const ServiceIdentity& identity,
                                         ServicesContainer& found) const
{
    return walk(services, identity, found);
}

bool SDStateMachine::unsafe_findServices(const AperiodicWorkload& services, const ServiceIdentity& identity,
                                         ServicesContainer& found) const
{
    return walk(services, identity, found);
}

bool SDStateMachine::unsafe_findServices(const PeriodicWorkload& services, const ServiceIdentity& identity,
                                         ServicesContainer& found) const
{
    return walk(services, identity, found);
}

bool SDStateMachine::unsafe_findServices(const ServiceIdentity& identity, ServicesContainer& aperiodic,
                                         ServicesContainer& periodic) const
{
    if (identity.name.isNull()) {
        walk(m_aperiodicWorkload, identity, aperiodic);
        walk(m_periodicWorkload, identity, periodic);
    }
    else {
        append(m_index.findAll(identity, Entry::Workload::Aperiodic), aperiodic);
        append(m_index.findAll(identity, Entry::Workload::Periodic), periodic);
    }
    return !aperiodic.empty() || !periodic.empty();
}

bool SDStateMachine::unsafe_getDuplicates(const ServicesContainer& services, const ServiceIdentity& identity,
                                          ServicesContainer& found) const
{
    const std::size_t before = found.size();
    unsafe_findServices(services, identity, found);
    return found.size() > before;
}

bool SDStateMachine::unsafe_findByUuid(const std::string& localUuid, ServicesContainer& services,
                                       ServicesContainer::iterator& position) const
{
    position = std::find_if(services.begin(), services.end(), [&](const SDService::Ptr& service) {
        return service->getNuboDescription().getLocalUuid() == localUuid;
    });
    return position != services.end();
}

bool SDStateMachine::unsafe_addPeriodicService(const SDService::Ptr& service)
{
    m_periodicWorkload.push_back(service);
    return true;
}

bool SDStateMachine::unsafe_removePeriodicService(const SDService::Ptr& service)
{
    return m_periodicWorkload.erase(service);
}

bool SDStateMachine::unsafe_removeAperiodicService(const SDService::Ptr& service)
{
    return m_aperiodicWorkload.erase(service);
}

bool SDStateMachine::unsafe_addAperiodicService(const SDService::Ptr& service)
{
    return unsafe_schedule(service, nullptr);
}

/// `present` is the record's entry in the aperiodic workload, or null when it is not there yet.
bool SDStateMachine::unsafe_schedule(const SDService::Ptr& service, Entry* present)
{
    SD_LOG(Trace) << "AperiodicWorker::unsafe_addAperiodicService";
    if (service.isNull()) {
        SD_LOG(Error) << "SD failed to add Service to m_aperiodicWorkload, service was nullptr!";
        return false;
    }
    const std::optional<long> delay = firstDelay(*service);
    if (!delay)
        return false;

    const Poco::Clock due = SDClock::now() + *delay * microsecondsPerMillisecond;
    if (present) {
        m_aperiodicWorkload.reschedule(*present, due);
        m_aperiodicWorker.unsafe_update();
        return true;
    }
    const auto added = m_aperiodicWorkload.emplace(due, service);
    if (added == m_aperiodicWorkload.end()) {
        SD_LOG(Error) << "SD failed to insert Service into m_aperiodicWorkload!";
        return false;
    }
    try {
        m_aperiodicWorker.unsafe_update();
    }
    catch (...) {
        m_aperiodicWorkload.erase(added);
        throw;
    }
    return true;
}

std::optional<long> SDStateMachine::firstDelay(const SDService& service)
{
    const Type::Type_t type = service.getType();
    const State::State_t state = service.getState();
    if (state == State::INITIAL_WAIT_PHASE && (type == Type::ANNOUNCED || type == Type::WANTED)) {
        if (type == Type::ANNOUNCED)
            SD_LOG(Notice) << "SD Announcement of Service " << ServiceLabel{service}
                           << " startet, due to addition by ServiceRegistry.";
        else
            SD_LOG(Notice) << "SD Finding of Service " << service.getNuboDescription().getName()
                           << " startet, due to GET request to ServiceRegistry.";
        constexpr double randomScale = 1.0 / 2147483648.0;
        return static_cast<long>(m_rnd.next() * randomScale * initialWaitRange);
    }
    if (state == State::ONCE && (type == Type::ANNOUNCED || type == Type::DISCOVERED)) {
        SD_LOG(Notice) << "SD One-Time Announcement of Service " << ServiceLabel{service}
                       << " startet, due to reception of FIND_SERVICE.";
        return oneTimeAnswer;
    }
    SD_LOG(Error) << "SD failed to add Service to m_aperiodicWorkload, unexpected State x Type: " << type
                  << " x " << state << "!";
    return std::nullopt;
}

void SDStateMachine::unsafe_erase(Entry& entry)
{
    if (entry.workload == Entry::Workload::Aperiodic)
        m_aperiodicWorkload.erase(entry);
    else
        m_periodicWorkload.erase(entry);
}

/// Logs all exceptions, because a failed announcement must not prevent the others.
void SDStateMachine::unsafe_sendSafely(const ServicesContainer& services)
{
    try {
        m_hub.announce(services);
    }
    catch (...) {
        SD_LOG(Error) << "SDStateMachine - failed to announce: " << Common::currentException;
    }
}

void SDStateMachine::unsafe_sendSafely(const SDService::Ptr& service)
{
    try {
        m_hub.announce(service);
    }
    catch (...) {
        SD_LOG(Error) << "SDStateMachine - failed to announce: " << Common::currentException;
    }
}

}  // namespace Nubo::ServiceDiscovery
