// Handlers of the entries that neighbours send.

#include "DataLayer/Log.h"
#include "LogicLayer/Matches.h"
#include "LogicLayer/Records.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "LogicLayer/SDStateMachine.h"

#include <Common/CurrentException.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

using State = SDService::State;
using Type = SDService::Type;
using Entry = WorkloadEntry;

namespace {

constexpr std::size_t mostAnswersOfOne = 16;    // waiting one-time answers of one announced service
constexpr std::size_t mostAnswersWaiting = 64;  // waiting one-time answers of all services
constexpr Poco::Clock::ClockDiff microsecondsPerSecond = 1000000;

bool isExpectedAperiodic(const SDService::Ptr& service)
{
    return isWanted(service) || service->getType() == Type::ANNOUNCED;
}

bool isExpectedPeriodic(const SDService::Ptr& service)
{
    return service->getType() == Type::ANNOUNCED ||
           (service->getType() == Type::DISCOVERED && service->getState() == State::MAIN_PHASE);
}

template <class Predicate>
ServicesContainer rejected(const ServicesContainer& services, Predicate predicate)
{
    ServicesContainer result;
    std::copy_if(services.begin(), services.end(), std::back_inserter(result), std::not_fn(predicate));
    return result;
}

}  // namespace

bool SDStateMachine::handleFIND(ExternalEvent& event)
{
    const WorkloadLock lock(*this);
    if (m_isClosed)
        return true;
    const std::string& name = nameOf(event.service);
    const Matches matches(m_index, *event.service);

    if (m_index.answers() >= mostAnswersWaiting && matches.hasActive()) {
        reportWaitingAnswers(name);
        return true;
    }
    bool isKnown = false;
    bool isActive = false;
    bool result = true;
    matches.visitOwn([&](const SDService::Ptr& service) {
        isKnown = true;
        if (isShuttingDown(service))
            return true;
        isActive = true;
        // One record is sent per millisecond, and a new service must not wait long behind answers. The
        // requester will pick up this service from its next cyclic offer.
        if (m_index.answers() >= mostAnswersWaiting) {
            reportWaitingAnswers(name);
            return false;
        }
        const auto announced = ServiceIdentity::ofInstance(*service, Type::ANNOUNCED);
        if (m_index.countInstance(announced, Entry::Role::Answer) < mostAnswersOfOne)
            result = unsafe_answerOnce(service) && result;
        return true;
    });
    if (!isKnown)
        SD_LOG(Trace) << "SDStateMachine::handleFIND: SD received FIND_SERVICE for \"" << name
                      << "\", which is unknown.";
    else if (!isActive)
        SD_LOG(Trace) << "SDStateMachine::handleFIND: SD received FIND_SERVICE for \"" << name
                      << "\", which is in shutdown.";
    return result;
}

void SDStateMachine::reportWaitingAnswers(const std::string& name) const
{
    SD_LOG(Trace) << "SDStateMachine::handleFIND: SD received FIND_SERVICE for \"" << name << "\", while "
                  << m_index.answers() << " Services wait.";
}

bool SDStateMachine::unsafe_answerOnce(const SDService::Ptr& announced)
{
    SDService::Ptr answer = new SDService(*announced);
    answer->setState(State::ONCE);
    SD_LOG(Trace) << "SDStateMachine::handleFIND: add \"" << nameOf(answer) << "\" #"
                  << answer->getInstanceId() << " as new Announced|once.";
    return unsafe_addAperiodicService(answer);
}

bool SDStateMachine::handleOFFER(ExternalEvent& event)
{
    const WorkloadLock lock(*this);
    SDService::Ptr& service = event.service;
    const NuboServiceDescription& description = service->getNuboDescription();
    const std::string& name = description.getName();
    if (m_isClosed || unsafe_renew(*service))
        return true;
    const Matches matches(m_index, *service);
    if (unsafe_isReflected(*service, matches.name))
        return true;

    if (Entry* const search = matches.onlySearch()) {
        if (!unsafe_discover(service, firstInstance, matches, search))
            return false;
        SD_LOG(Trace) << "SDStateMachine::handleOFFER: replace Wanted \"" << name << "\" with new Service.";
        return true;
    }
    if (matches.empty()) {
        if (!checkCapabilities(description)) {
            SD_LOG(Warning) << "SDStateMachine::handleOFFER: adding \"" << name << "\" not authorized.";
            writeEventLog(name, description.getIpAddressString(), description.getPort());
            return false;
        }
        if (!unsafe_discover(service, firstInstance, matches))
            return false;
        SD_LOG(Trace) << "SDStateMachine::handleOFFER: add \"" << name << "\" as new Service.";
        return true;
    }
    if (matches.name->unexpected != 0 && unsafe_reportUnexpected(matches.identity))
        return false;

    const std::vector<Entry*> duplicates = m_index.findInstance(
        ServiceIdentity::ofInstance(*service, Type::DISCOVERED), Entry::Workload::Periodic);
    if (!duplicates.empty())
        return reportDuplicates("handleOFFER", duplicates);
    const unsigned short instanceID = matches.nextDiscoveredInstance();
    if (!unsafe_discover(service, instanceID, matches))
        return false;
    SD_LOG(Trace) << "SDStateMachine::handleOFFER: add Discovered \"" << name
                  << "\" as new Service instance #" << instanceID;
    return true;
}

/// Logs records of the service that do not belong in their workload. Returns whether there are any.
bool SDStateMachine::unsafe_reportUnexpected(const ServiceIdentity& identity) const
{
    ServicesContainer aperiodic;
    ServicesContainer periodic;
    unsafe_findServices(identity, aperiodic, periodic);
    const bool inAperiodic =
        reportUnexpected("handleOFFER", "aperiodic", rejected(aperiodic, isExpectedAperiodic));
    const bool inPeriodic =
        reportUnexpected("handleOFFER", "periodic", rejected(periodic, isExpectedPeriodic));
    return inAperiodic || inPeriodic;
}

bool SDStateMachine::renew(const SDService& offered)
{
    const WorkloadLock lock(*this);
    return m_isClosed || unsafe_renew(offered);
}

bool SDStateMachine::unsafe_renew(const SDService& offered)
{
    Entry* const known = m_index.findDiscovered(offered);
    if (!known || known->role != Entry::Role::Discovered || (*known)->getState() != State::MAIN_PHASE)
        return false;
    if ((*known)->getTTL() == 0 && unsafe_isReflected(offered, known->name))
        return true;
    (*known)->setTTL(offered.getTTL());
    m_index.renew(*known);
    SD_LOG(Trace) << "SDStateMachine::handleOFFER: re-set TTL of Discovered \"" << nameOf(*known)
                  << "\" with instance #" << (*known)->getInstanceId();
    return true;
}

/// Whether the offer is one of this unit's own that another unit sent back. Counts such offers and logs the
/// first.
bool SDStateMachine::unsafe_isReflected(const SDService& offered, const NameEntries* name)
{
    if (!name || (name->periodic.empty() && name->aperiodic.empty()))
        return false;
    const NuboServiceDescription& description = offered.getNuboDescription();
    if (!m_hub.isOwnAddress(description.getIpAddress()))
        return false;
    // A service at the unit's address is offered at the address of each interface.
    if (!m_index.hasOwn(description.getName(), description.getIpAddress(), description.getPort()) &&
        !m_index.hasOwn(description.getName(), m_hub.unitAddress(), description.getPort()))
        return false;
    if (m_reflectedOffers++ == 0)
        SD_LOG(Warning)
            << "SDStateMachine::handleOFFER: \"" << description.getName() << "\" @ ["
            << description.getIpAddressString() << "]:" << description.getPort()
            << " is a Service of this unit, sent back to it. Such offers are not discovered; this "
               "is not logged again.";
    return true;
}

bool SDStateMachine::handleSTOPOFFER(ExternalEvent& event)
{
    const WorkloadLock lock(*this);
    if (m_isClosed)
        return true;
    const std::string& name = nameOf(event.service);
    const auto stopped = ServiceIdentity::ofInstance(*event.service, Type::DISCOVERED);
    const std::vector<Entry*> aperiodic = m_index.findInstance(stopped, Entry::Workload::Aperiodic);
    const std::vector<Entry*> periodic = m_index.findInstance(stopped, Entry::Workload::Periodic);

    if (!aperiodic.empty()) {
        SD_LOG(Error) << "SDStateMachine::handleSTOPOFFER found " << aperiodic.size()
                      << " aperiodic Service(s) in unexpected State x Type!";
        return false;
    }
    if (periodic.empty())
        return true;  // the instance was never known or is already gone
    if (periodic.size() > 1)
        return reportDuplicates("handleSTOPOFFER", periodic);

    Entry& entry = *periodic.front();
    if (entry->getState() != State::MAIN_PHASE) {
        SD_LOG(Error) << "SDStateMachine::handleSTOPOFFER found periodic Service \"" << name
                      << "\" in unexpected State x Type!";
        return false;
    }
    const unsigned short instanceID = entry->getInstanceId();
    unsafe_tellGone(entry);
    SD_LOG(Trace) << "SDStateMachine::handleSTOPOFFER: remove Discovered|main \"" << name
                  << "\" with instance #" << instanceID;
    return true;
}

bool SDStateMachine::checkCapabilities(const NuboServiceDescription& /*description*/)
{
    return true;
}

void SDStateMachine::writeEventLog(const std::string& name, const std::string& ip, unsigned short port)
{
    SD_LOG(Warning) << "SD Writing 'Ereignisspeicher' for forbidden Service offer regarding \"" << name
                    << "\" @ [" << ip << "]:" << port << " !";
    if (!m_eventMemory(name, ip, port))
        SD_LOG(Error) << "Failed to write Eventlog - OEM Dispatcher missing!";
}

/// Lets discovered records of this unit's own service expire with the next interval. They exist when another
/// unit sent an old offer of the service back before it was added. They are not removed here, because this
/// runs within the registry's call, during which no event may be raised.
void SDStateMachine::unsafe_endReflections(const SDService& announced) const noexcept
{
    const NuboServiceDescription& own = announced.getNuboDescription();
    const NameEntries* const name = m_index.find(own.getName());
    for (Entry& entry : name->discovered) {
        const NuboServiceDescription& description = entry->getNuboDescription();
        if (description.getPort() == own.getPort() && m_hub.isOwnAddress(description.getIpAddress()))
            entry->setTTL(0);
    }
}

/// The same for all services of this unit, after its addresses have changed.
void SDStateMachine::unsafe_endReflections()
{
    const std::uint64_t changes = m_hub.addressChanges();
    if (std::exchange(m_addressChanges, changes) == changes)
        return;
    Ports ports;
    for (const auto& [due, entry] : m_aperiodicWorkload)
        unsafe_endReflections(entry, ports);
    m_periodicWorkload.startLocalWalk();
    while (const Entry* const entry = m_periodicWorkload.walkLocals())
        unsafe_endReflections(*entry, ports);
}

/// The same for all services of a name, if `own` is the first of them. All bits of `ports` must be clear;
/// they are clear again afterwards.
void SDStateMachine::unsafe_endReflections(const Entry& own, Ports& ports) const
{
    if (own.role != Entry::Role::Own || own.name->firstOwn() != &own || own.name->discovered.empty())
        return;
    const auto setPorts = [&](bool isOwn) {
        for (const NameEntries::List* list : {&own.name->periodic, &own.name->aperiodic}) {
            for (const Entry& entry : *list) {
                if (entry.role == Entry::Role::Own)
                    ports.set(entry->getNuboDescription().getPort(), isOwn);
            }
        }
    };
    setPorts(true);
    for (Entry& entry : own.name->discovered) {
        const NuboServiceDescription& description = entry->getNuboDescription();
        if (ports.test(description.getPort()) && m_hub.isOwnAddress(description.getIpAddress()))
            entry->setTTL(0);
    }
    setPorts(false);
}

/// Reports a discovered service to the registry and stores it under the identifier that the registry returns.
/// Then ends the search for the service, if there is one.
bool SDStateMachine::unsafe_discover(SDService::Ptr& service, unsigned short instanceID,
                                     const Matches& matches, Entry* search)
{
    const DiscoveryBounds::Verdict verdict = DiscoveryBounds::judge(
        m_index, matches.name, *service, search != nullptr, m_periodicWorker.listeningSince());
    if (verdict.outcome != DiscoveryBounds::Outcome::Taken) {
        m_lastRefusal = verdict.outcome;
        m_refusals.add();
        reportRefusals();
        for (Entry* displaced : verdict.displaced)
            unsafe_displace(*displaced);
        return false;
    }
    setTypeAndState(service, Type::DISCOVERED, State::MAIN_PHASE);
    service->setInstanceId(instanceID);
    // The record must be stored before the registry learns of it: memory may be short.
    Entry& entry = m_periodicWorkload.push_back(service);
    ServiceListEventPayload payload(ServiceListEventPayload::SERVICE_DISCOVERED,
                                    &service->getNuboDescription());
    try {
        m_hub.notifyServiceRegistry(payload);
    }
    catch (...) {
        m_periodicWorkload.erase(entry);
        throw;
    }
    if (payload.getLocalUuid().empty()) {
        m_periodicWorkload.erase(entry);
        SD_LOG(Error)
            << "Failed to handle OFFER_SERVICE due Service Registry Notification not returning a UUID!";
        return false;
    }
    m_index.identify(entry, std::move(payload).getLocalUuid());
    if (search)
        m_aperiodicWorkload.erase(*search);
    for (Entry* displaced : verdict.displaced)
        unsafe_displace(*displaced);
    return true;
}

void SDStateMachine::reportRefusals()
{
    using Outcome = DiscoveryBounds::Outcome;
    if (const std::uint64_t refused = m_refusals.takeReport()) {
        const Outcome last = m_lastRefusal;
        if (last == Outcome::RefusedOfSender)
            SD_LOG(Warning) << "SDStateMachine::handleOFFER: " << refused
                            << " offer(s) of new Services refused, their unit has its share of what can be "
                               "known!";
        else if (last == Outcome::RefusedOfName)
            SD_LOG(Warning) << "SDStateMachine::handleOFFER: " << refused
                            << " offer(s) of new Services refused, at most " << mostInstances
                            << " of one name can be known!";
        else
            SD_LOG(Warning) << "SDStateMachine::handleOFFER: " << refused
                            << " offer(s) of new Services refused, at most " << largestWorkload << " with "
                            << mostText << " Bytes of text can be known!";
    }
    if (const std::uint64_t displaced = m_displacements.takeReport())
        SD_LOG(Warning) << "SDStateMachine::handleOFFER: " << displaced
                        << " Service(s) that had not been offered for "
                        << DiscoveryBounds::staleAfter / microsecondsPerSecond
                        << " s displaced by offers of new ones!";
}

/// Logs what the subscriber throws, because the new service has already been stored.
void SDStateMachine::unsafe_displace(Entry& entry)
{
    m_displacements.add();
    reportRefusals();
    try {
        unsafe_tellGone(entry);
    }
    catch (...) {
        SD_LOG(Error) << "SDStateMachine - caught exception: " << Common::currentException;
    }
}

/// Reports to the registry that a service is gone, and removes it even if the subscriber throws; passes the
/// exception on. If memory was too short to call the subscriber, the service stays, and the next interval
/// tries again.
void SDStateMachine::unsafe_tellGone(Entry& entry)
{
    SDService::Ptr service = entry;
    const NuboServiceDescription& description = service->getNuboDescription();
    std::optional<ServiceListEventPayload> payload;
    try {
        payload.emplace(ServiceListEventPayload::SERVICE_GONE, &description, description.getLocalUuid());
        m_hub.notifyServiceRegistry(*payload);
    }
    catch (...) {
        if (payload && payload->isDelivered())
            m_periodicWorkload.erase(entry);
        else
            service->setTTL(0);
        throw;
    }
    m_periodicWorkload.erase(entry);
}

}  // namespace Nubo::ServiceDiscovery
