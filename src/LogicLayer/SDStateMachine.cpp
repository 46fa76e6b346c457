#include "LogicLayer/SDStateMachine.h"

#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "ServiceDiscovery.h"

#include <Common/CurrentException.h>
#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <ostream>
#include <utility>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::EntryValues;
using State = SDService::State;
using Type = SDService::Type;
using Entry = WorkloadEntry;

namespace {

constexpr double initialWaitRange = 0.0;  // milliseconds; where a random initial wait would be set
constexpr long oneTimeAnswer = 50;        // milliseconds after the FIND that it answers
constexpr Poco::Clock::ClockDiff microsecondsPerMillisecond = 1000;
constexpr Poco::Clock::ClockDiff microsecondsPerSecond = 1000000;

constexpr std::size_t mostAnswersOfOne = 16;    // one-time answers of one announced service
constexpr std::size_t mostAnswersWaiting = 64;  // of all services
constexpr unsigned short firstInstance = 1;
constexpr unsigned short lastInstance = 0xFFFE;          // 0 is reserved, 0xFFFF stands for any
constexpr std::size_t mostForeignInstances = 1000;       // from which own services are numbered by themselves
constexpr Poco::Clock::ClockDiff longestSlice = 10'000;  // of work under the mutex, in microseconds

/// "<uri> (<name> v<major>.<minor>.X)"
struct ServiceLabel
{
    const SDService& service;

    friend std::ostream& operator<<(std::ostream& stream, ServiceLabel label)
    {
        const NuboServiceDescription& description = label.service.getNuboDescription();
        return stream << description.getUri() << " (" << description.getName() << " v"
                      << label.service.getMajorVersion_AsUnsigned() << "." << label.service.getMinorVersion()
                      << ".X)";
    }
};

bool isUsable(unsigned short instanceID)
{
    return instanceID >= firstInstance && instanceID <= lastInstance;
}

const std::string& nameOf(const SDService::Ptr& service)
{
    return service->getNuboDescription().getName();
}

bool isOnce(const SDService::Ptr& service)
{
    return service->getState() == State::ONCE;
}

bool isWanted(const SDService::Ptr& service)
{
    return service->getType() == Type::WANTED;
}

bool isShuttingDown(const SDService::Ptr& service)
{
    return service->getState() == State::SHUTDOWN_PHASE;
}

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

void append(const std::vector<Entry*>& entries, ServicesContainer& services)
{
    for (const Entry* entry : entries)
        services.push_back(*entry);
}

void setTypeAndState(SDService::Ptr& service, Type::Type_t type, State::State_t state)
{
    service->setType(type);
    service->setState(state);
}

/// Logs records that have no business where they were found; true if there are any.
bool reportUnexpected(const char* handler, const char* workload, const ServicesContainer& unexpected)
{
    if (unexpected.empty())
        return false;
    SD_LOG(Error) << "SDStateMachine::" << handler << " found " << unexpected.size() << " " << workload
                  << " Services in unexpected State x Type!";
    SD_LOG(Trace) << "SDStateMachine::" << handler << ServicesContainer_TypeAndStatePrinter{unexpected};
    return true;
}

bool reportDuplicates(const char* handler, const std::vector<Entry*>& duplicates)
{
    SD_LOG(Error) << "SDStateMachine::" << handler << " found " << duplicates.size()
                  << " duplicate Service(s)!";
    ServicesContainer services;
    append(duplicates, services);
    SD_LOG(Trace) << "SDStateMachine::" << handler << ServicesContainer_TypeAndStatePrinter{services};
    return false;
}

}  // namespace

/// The records of one service in both workloads.
struct SDStateMachine::Matches
{
    Matches(const RecordIndex& index, const SDService& service)
        : identity(service)
        , name(index.find(service.getNuboDescription().getName()))
    {}

    bool empty() const { return !name || name->count(identity.serviceID) == 0; }

    /// The search, if there is nothing but one.
    Entry* onlySearch() const
    {
        if (empty() || name->count(identity.serviceID) != 1)
            return nullptr;
        return firstSearch();
    }

    /// The search that falls due first, if there is any.
    Entry* firstSearch() const
    {
        Entry* first = nullptr;
        if (!name)
            return first;
        for (Entry& search : name->searches) {
            if (identity.matches(*search) && (!first || search.due < first->due))
                first = &search;
        }
        return first;
    }

    /// Calls `visit` with each service of this unit until it returns false: those of the aperiodic workload
    /// by their due times, then those of the periodic one.
    template <class Visit>
    void visitOwn(Visit visit) const
    {
        if (!name)
            return;
        std::vector<const Entry*> due;
        for (const Entry& entry : name->aperiodic) {
            if (isOwn(entry))
                due.push_back(&entry);
        }
        std::sort(due.begin(), due.end(), WorkloadEntry::isBefore);
        for (const Entry* entry : due) {
            if (!visit(*entry))
                return;
        }
        for (const Entry& entry : name->periodic) {
            if (isOwn(entry) && !visit(entry))
                return;
        }
    }

    bool isOwn(const Entry& entry) const
    {
        return entry.role == Entry::Role::Own && identity.matches(*entry);
    }

    /// Whether a service of this unit is not being withdrawn.
    bool hasActive() const
    {
        const auto isActive = [&](const Entry& entry) { return isOwn(entry) && !isShuttingDown(entry); };
        return name && (std::any_of(name->periodic.begin(), name->periodic.end(), isActive) ||
                        std::any_of(name->aperiodic.begin(), name->aperiodic.end(), isActive));
    }

    /// The number of a further instance, which may be a reserved one.
    unsigned short nextInstanceID() const
    {
        return static_cast<unsigned short>(name->highestInstance(identity.serviceID) + 1);
    }

    /// The same for one that was discovered: never a reserved one. If they are all in use, the last is used
    /// twice.
    unsigned short nextDiscoveredInstance() const
    {
        const unsigned short next = nextInstanceID();
        if (isUsable(next))
            return next;
        const unsigned short free = name->lowestFreeInstance(identity.serviceID, lastInstance);
        return free == 0 ? lastInstance : free;
    }

    const ServiceIdentity identity;
    const NameEntries* const name;
};

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

SDStateMachine::SDStateMachine(SDCommunicationHub& hub)
    : m_hub(hub)
    , m_rnd(256)
    , m_aperiodicWorker(*this)
    , m_periodicWorker(*this)
{
    m_rnd.seed();
}

SDStateMachine::~SDStateMachine()
{
    {
        // An interval that has begun must not set the timer again once it is being stopped.
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

/// The very service in both workloads, without the answers that wait for it.
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

/// 0 when every number is in use.
unsigned short SDStateMachine::unsafe_nextOwnInstance(const Matches& matches) const
{
    const unsigned short next = matches.nextInstanceID();
    if (isUsable(next) && matches.name->discoveredCount <= mostForeignInstances)
        return next;
    // What neighbours offer must not use up this unit's numbers.
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

/// Shuts the service down; false if it is not one that can be.
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
    unsafe_addPeriodicService(service);  // first of all: there may be no memory for it
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
        // One record is sent per millisecond: a new service must not wait behind answers for long. The
        // requester will pick this service up from its next cyclic offer.
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

/// Whether there are records of the service that have no business where they are.
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

/// Whether somebody has sent an offer of this unit back to it.
bool SDStateMachine::unsafe_isReflected(const SDService& offered, const NameEntries* name)
{
    if (!name || (name->periodic.empty() && name->aperiodic.empty()))
        return false;
    const NuboServiceDescription& description = offered.getNuboDescription();
    if (!m_hub.isOwnAddress(description.getIpAddress()))
        return false;
    // A service at the unit's address is offered at that of each interface.
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
        return true;  // an instance that was never known, or is gone already
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
    Poco::SharedPtr<OEMInterface::OEMDispatcher> dispatcher;
    Poco::Any found;
    if (ApplicationServices::getLocator().find(&typeid(OEMInterface::OEMDispatcher), found))
        dispatcher = Poco::AnyCast<Poco::SharedPtr<OEMInterface::OEMDispatcher>>(found);
    if (dispatcher.isNull()) {
        SD_LOG(Error) << "Failed to write Eventlog - OEM Dispatcher missing!";
        return;
    }
    dispatcher->callLogEvent(name.c_str(), "http", ip.c_str(), port);
}

std::vector<ServiceStatus> SDStateMachine::getServices() const
{
    // One list at a time: they are long, and each would hold up the events for a while.
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

    // Copying the texts takes longest, and a record in a workload keeps its description.
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

/// Gives the mutex back now and then, if there is a lock: each of the services takes a call of the sender.
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

/// Sent after a restart, the answers that wait would offer what has been withdrawn.
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

/// `present` is where the record is in the aperiodic workload, if it is there already.
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

/// Announces the service in place of an entry, if there is one, which stays when that fails.
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

/// What was discovered of this unit's service before it was added, when somebody sent an old offer of it,
/// runs out with the next interval: this is the registry's call, in which it is told nothing.
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

/// The same for all services of this unit, when it has got an address.
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

/// The same for all services of a name, at the first of them; no port is set before and afterwards.
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

void SDStateMachine::unsafe_erase(Entry& entry)
{
    if (entry.workload == Entry::Workload::Aperiodic)
        m_aperiodicWorkload.erase(entry);
    else
        m_periodicWorkload.erase(entry);
}

/// Tells the registry of a discovered service and takes it in under the identifier that it gives back. A
/// search for the service ends when it was taken in.
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
    // There has to be room for it before the registry is told.
    Entry& entry = m_periodicWorkload.push_back(service);
    ServiceDiscovery::ServiceListEventPayload payload(
        ServiceDiscovery::ServiceListEventPayload::SERVICE_DISCOVERED, &service->getNuboDescription());
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

/// What the subscriber throws is logged: the new service has been taken in.
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

/// Tells the registry that a service is gone, and forgets it, even if the subscriber throws; that passes to
/// the caller. When the registry could not be told for want of memory, the service stays until the next
/// interval, which tries again.
void SDStateMachine::unsafe_tellGone(Entry& entry)
{
    SDService::Ptr service = entry;
    const NuboServiceDescription& description = service->getNuboDescription();
    std::optional<ServiceDiscovery::ServiceListEventPayload> payload;
    try {
        payload.emplace(ServiceDiscovery::ServiceListEventPayload::SERVICE_GONE, &description,
                        description.getLocalUuid());
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

/// Nothing that goes wrong with one announcement may keep the others from being made.
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

std::ostream& operator<<(std::ostream& stream, const ServicesContainer_Printer& printer)
{
    for (const SDService::Ptr& service : printer.services)
        stream << " \"" << (service.isNull() ? "<nullptr>" : nameOf(service)) << "\"";
    return stream;
}

std::ostream& operator<<(std::ostream& stream, const ServicesContainer_TypeAndStatePrinter& printer)
{
    for (const SDService::Ptr& service : printer.services) {
        if (service.isNull())
            stream << " <nullptr>";
        else
            stream << " \"" << nameOf(service) << "\" " << service->getType() << " x " << service->getState();
    }
    return stream;
}

}  // namespace Nubo::ServiceDiscovery
