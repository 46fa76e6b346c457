// Handlers of the registry's requests.

#include "DataLayer/Log.h"
#include "LogicLayer/Matches.h"
#include "LogicLayer/Records.h"
#include "LogicLayer/SDStateMachine.h"

#include <algorithm>
#include <vector>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::EntryValues;
using State = SDService::State;
using Type = SDService::Type;
using Entry = WorkloadEntry;

namespace {

constexpr std::size_t mostForeignInstances = 1000;  // above it, own services are numbered separately

}  // namespace

bool SDStateMachine::handlePUT(ExternalEvent& event)
{
    const WorkloadLock lock(*this);
    SDService::Ptr& service = event.service;
    const std::string& name = nameOf(service);
    const Matches matches(m_index, *service);

    if (matches.empty()) {
        SD_LOG(Trace) << "SDStateMachine::handlePUT: add \"" << name << "\" as new Service.";
        return unsafe_announce(service, firstInstance);
    }
    if (Entry* const search = matches.onlySearch()) {
        SD_LOG(Trace) << "SDStateMachine::handlePUT: replace Wanted \"" << name << "\" with new Service.";
        return unsafe_announce(service, firstInstance, search);
    }

    const std::vector<Entry*> duplicates = unsafe_announcedDuplicates(*service, matches);
    if (duplicates.empty()) {
        const unsigned short instanceID = unsafe_nextOwnInstance(matches);
        if (instanceID == 0) {
            SD_LOG(Error) << "SDStateMachine::handlePUT: no instance number is free for \"" << name << "\".";
            return false;
        }
        SD_LOG(Trace) << "SDStateMachine::handlePUT: add Announced \"" << name
                      << "\" as new Service instance #" << instanceID;
        return unsafe_announce(service, instanceID);
    }
    if (duplicates.size() == 1 && isShuttingDown(*duplicates.front())) {
        const unsigned short instanceID = (*duplicates.front())->getInstanceId();
        SD_LOG(Trace) << "SDStateMachine::handlePUT: replace Announced \"" << name
                      << "\" shutting down with new Service but same instance #" << instanceID;
        return unsafe_announce(service, instanceID, duplicates.front());
    }
    return reportDuplicates("handlePUT", duplicates);
}

/// Returns the records of the same instance in both workloads, except for its waiting answers.
std::vector<Entry*> SDStateMachine::unsafe_announcedDuplicates(const SDService& service,
                                                               const Matches& matches) const
{
    const auto announced = ServiceIdentity::ofInstance(service, Type::ANNOUNCED);
    std::vector<Entry*> duplicates = m_index.findInstance(announced, Entry::Workload::Aperiodic);
    const std::vector<Entry*> periodic = m_index.findInstance(announced, Entry::Workload::Periodic);
    duplicates.insert(duplicates.end(), periodic.begin(), periodic.end());
    duplicates.erase(std::remove_if(duplicates.begin(), duplicates.end(),
                                    [&](const Entry* entry) { return !matches.isOwn(*entry); }),
                     duplicates.end());
    return duplicates;
}

/// Returns 0 when every number is in use.
unsigned short SDStateMachine::unsafe_nextOwnInstance(const Matches& matches) const
{
    const unsigned short next = matches.nextInstanceID();
    if (isUsableInstance(next) && matches.name->discoveredCount <= mostForeignInstances)
        return next;
    // Offers of neighbours must not use up this unit's numbers.
    return matches.name->ownNumbers().lowestFree(lastInstance);
}

bool SDStateMachine::handleDELETE(ExternalEvent& event)
{
    const WorkloadLock lock(*this);
    const std::vector<Entry*> periodic = m_index.findUuid(event.localUuid, Entry::Workload::Periodic);
    const std::vector<Entry*> aperiodic = m_index.findUuid(event.localUuid, Entry::Workload::Aperiodic);
    if (aperiodic.empty() && periodic.empty()) {
        SD_LOG(Error) << "SD failed to delete Service with local UUID \"" << event.localUuid
                      << "\", none found!";
        return false;
    }

    ServicesContainer unexpectedPeriodic;
    ServicesContainer unexpectedAperiodic;
    std::size_t done = 0;
    for (Entry* entry : periodic) {
        if (unsafe_removePeriodic(*entry))
            ++done;
        else
            unexpectedPeriodic.push_back(*entry);
    }
    for (Entry* entry : aperiodic) {
        if (unsafe_removeAperiodic(*entry))
            ++done;
        else
            unexpectedAperiodic.push_back(*entry);
    }
    reportUnexpected("handleDELETE", "periodic", unexpectedPeriodic);
    reportUnexpected("handleDELETE", "aperiodic", unexpectedAperiodic);
    return done != 0;
}

/// Begins the shutdown of an announced service in its main phase. Returns false for any other record.
bool SDStateMachine::unsafe_removePeriodic(Entry& entry)
{
    if (entry->getType() != Type::ANNOUNCED || entry->getState() != State::MAIN_PHASE)
        return false;
    SD_LOG(Notice) << "SD Announcement of Service " << ServiceLabel{*entry}
                   << " stopped, due to removal by ServiceRegistry.";
    entry->setState(State::SHUTDOWN_PHASE);
    entry->setTTL(0);
    SD_LOG(Trace) << "SDStateMachine::handleDELETE: set Announced \"" << nameOf(entry) << "\" to shutdown.";
    return true;
}

bool SDStateMachine::unsafe_removeAperiodic(Entry& entry)
{
    SDService::Ptr service = entry;
    const State::State_t state = entry->getState();
    if (entry->getType() != Type::ANNOUNCED)
        return false;
    if (state == State::ONCE) {
        m_aperiodicWorkload.erase(entry);
        SD_LOG(Trace) << "SDStateMachine::handleDELETE: remove Announced|once \"" << nameOf(service)
                      << "\" with instance #" << service->getInstanceId();
        return true;
    }
    if (state != State::INITIAL_WAIT_PHASE && state != State::REPETITION_PHASE)
        return false;
    unsafe_addPeriodicService(service);  // first, because it throws when memory is short
    service->setState(State::SHUTDOWN_PHASE);
    service->setTTL(0);
    m_aperiodicWorkload.erase(entry);
    SD_LOG(Trace) << "SDStateMachine::handleDELETE: move Announced \"" << nameOf(service)
                  << "\" from initial|repetition to shutdown.";
    return true;
}

bool SDStateMachine::handleGET(ExternalEvent& event)
{
    const WorkloadLock lock(*this);
    SDService::Ptr& service = event.service;
    if (Entry* const search = Matches(m_index, *service).firstSearch()) {
        (*search)->setState(State::INITIAL_WAIT_PHASE);
        SD_LOG(Trace) << "SDStateMachine::handleGET: reset Wanted \"" << nameOf(*search) << "\" to initial.";
        return unsafe_schedule(*search, search);
    }
    setTypeAndState(service, Type::WANTED, State::INITIAL_WAIT_PHASE);
    service->setMinorVersion(EntryValues::MinorVersion_Any);
    SD_LOG(Trace) << "SDStateMachine::handleGET: add \"" << nameOf(service) << "\" as new Wanted Service.";
    return unsafe_addAperiodicService(service);
}

/// Announces the service, and then removes the entry that it replaces, if any. On failure the entry stays.
bool SDStateMachine::unsafe_announce(SDService::Ptr& service, unsigned short instanceID, Entry* replaced)
{
    setTypeAndState(service, Type::ANNOUNCED, State::INITIAL_WAIT_PHASE);
    service->setInstanceId(instanceID);
    if (!unsafe_addAperiodicService(service))
        return false;
    if (replaced)
        unsafe_erase(*replaced);
    unsafe_endReflections(*service);
    return true;
}

}  // namespace Nubo::ServiceDiscovery
