#include "LogicLayer/SDStateMachine.h"

#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "ServiceDiscovery.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>
#include <KELUtilLib/DebugUtils.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <ostream>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::EntryValues;
using State = SDService::State;
using Type = SDService::Type;

namespace {

// Times of the announcement cycle, in milliseconds.
constexpr double initialWaitRange = 0.0;  // where a random initial wait would be set
constexpr long oneTimeAnswer = 50;        // after the FIND that it answers
constexpr long firstRepetition = 100;     // after the first send; each further one takes twice as long
constexpr long cycle = 1000;              // of the main phase
constexpr long parked = 2147483647;       // a timer with nothing to do
constexpr long shortestDelay = 1;         // between two records of the aperiodic workload

constexpr std::uint8_t repetitions = 3;         // sends in the repetition phase
constexpr std::uint8_t shutdownSends = 3;       // stop-offers of a removed service
constexpr std::size_t mostAnswersWaiting = 16;  // one-time answers of one announced service
constexpr std::size_t mostRecordsBefore = 64;   // in the aperiodic workload, for an answer to join them
constexpr unsigned short firstInstance = 1;
constexpr Poco::Clock::ClockDiff microsecondsPerMillisecond = 1000;

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

template <class Predicate>
ServicesContainer selected(const ServicesContainer& services, Predicate predicate)
{
    ServicesContainer result;
    std::copy_if(services.begin(), services.end(), std::back_inserter(result), predicate);
    return result;
}

template <class Predicate>
ServicesContainer rejected(const ServicesContainer& services, Predicate predicate)
{
    return selected(services, [&](const SDService::Ptr& service) { return !predicate(service); });
}

const SDService::Ptr& recordOf(const SDService::Ptr& service)
{
    return service;
}

const SDService::Ptr& recordOf(const AperiodicServicesContainer::value_type& entry)
{
    return entry.second;
}

auto matcherOf(const ServiceIdentity& identity)
{
    return [&](const SDService::Ptr& service) { return SDStateMachine::doesServiceMatch(identity, service); };
}

/// Calls `visit` with each record for which the predicate holds, in the workload's order: after a walk over
/// all, or with the workload's index where the records that are meant have a key.
template <class Container, class Predicate, class Visit>
void visitEach(const Container& workload, const RecordIndex& index, std::optional<RecordIndex::Key> key,
               Predicate predicate, Visit visit)
{
    const auto visitMatch = [&](const SDService::Ptr& service) {
        if (predicate(service))
            visit(service);
    };
    if (key && index.size() == workload.size()) {
        index.visit(*key, visitMatch);
        return;
    }
    for (const auto& entry : workload)
        visitMatch(recordOf(entry));
}

auto appendTo(ServicesContainer& found)
{
    return [&](const SDService::Ptr& service) { found.push_back(service); };
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

/// The same for one record that a worker came upon. Kept for compatibility: the lines of both workers name
/// the aperiodic one.
void reportUnexpectedRecord(const char* workload, const SDService& service)
{
    SD_LOG(Error) << "AperiodicWorker::onInterval found " << workload << " Service \""
                  << service.getNuboDescription().getName() << "\" in unexpected State x Type!";
    SD_LOG(Trace) << "AperiodicWorker::onInterval " << service.getState() << " x " << service.getType();
}

bool reportDuplicates(const char* handler, const ServicesContainer& duplicates)
{
    SD_LOG(Error) << "SDStateMachine::" << handler << " found " << duplicates.size()
                  << " duplicate Service(s)!";
    SD_LOG(Trace) << "SDStateMachine::" << handler << ServicesContainer_TypeAndStatePrinter{duplicates};
    return false;
}

}  // namespace

/// The records of one service in both workloads.
struct SDStateMachine::Matches
{
    ServicesContainer aperiodic;
    ServicesContainer periodic;

    bool empty() const { return aperiodic.empty() && periodic.empty(); }

    bool isOneWanted() const
    {
        return aperiodic.size() == 1 && periodic.empty() && isWanted(aperiodic.front());
    }

    /// The number for a further instance. A wanted record has none: it looks for any.
    unsigned short nextInstanceID() const
    {
        const unsigned short highest =
            findHighestInstanceID(periodic, findHighestInstanceID(rejected(aperiodic, isWanted), 0));
        return static_cast<unsigned short>(highest + 1);
    }
};

SDStateMachine::ExternalEvent::ExternalEvent(WorkloadEvent_t eventType, SDService::Ptr record,
                                             const std::string& uuid)
    : type(eventType)
    , service(std::move(record))
    , localUuid(uuid)
{}

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
        Poco::FastMutex::ScopedLock lock(m_workloadMutex);
        m_running = false;
    }
    m_aperiodicWorker.stop();
    m_periodicWorker.stop();
}

void SDStateMachine::start()
{
    SD_LOG(Debug) << "SDStateMachine::start";
    m_running = true;
    m_periodicWorker.start();
    m_aperiodicWorker.update();
}

void SDStateMachine::stop()
{
    SD_LOG(Debug) << "SDStateMachine::stop";
    m_running = false;
    removeAllAnnouncedServices();
    m_aperiodicWorker.stop();
    m_periodicWorker.stop();
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
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    SDService::Ptr& service = event.service;
    const std::string& name = nameOf(service);
    const Matches matches = unsafe_findMatches(*service);

    if (matches.empty()) {
        SD_LOG(Trace) << "SDStateMachine::handlePUT: add \"" << name << "\" as new Service.";
        return unsafe_announce(service, firstInstance);
    }
    if (matches.isOneWanted()) {
        unsafe_removeAperiodicService(matches.aperiodic.front());
        SD_LOG(Trace) << "SDStateMachine::handlePUT: replace Wanted \"" << name << "\" with new Service.";
        return unsafe_announce(service, firstInstance);
    }

    const auto announced = ServiceIdentity::ofInstance(*service, Type::ANNOUNCED);
    ServicesContainer duplicates;
    unsafe_getDuplicates(rejected(matches.aperiodic, isOnce), announced, duplicates);
    unsafe_getDuplicates(matches.periodic, announced, duplicates);
    if (duplicates.empty()) {
        const unsigned short instanceID = matches.nextInstanceID();
        SD_LOG(Trace) << "SDStateMachine::handlePUT: add Announced \"" << name
                      << "\" as new Service instance #" << instanceID;
        return unsafe_announce(service, instanceID);
    }
    if (duplicates.size() == 1 && isShuttingDown(duplicates.front())) {
        const unsigned short instanceID = duplicates.front()->getInstanceId();
        unsafe_removePeriodicService(duplicates.front());
        SD_LOG(Trace) << "SDStateMachine::handlePUT: replace Announced \"" << name
                      << "\" shutting down with new Service but same instance #" << instanceID;
        return unsafe_announce(service, instanceID);
    }
    return reportDuplicates("handlePUT", duplicates);
}

bool SDStateMachine::handleDELETE(ExternalEvent& event)
{
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    const auto carriesUuid = [&](const SDService::Ptr& service) {
        return service->getNuboDescription().getLocalUuid() == event.localUuid;
    };
    const RecordIndex::Key key = RecordIndex::keyOfUuid(event.localUuid);
    ServicesContainer aperiodic;
    ServicesContainer periodic;
    visitEach(m_aperiodicWorkload, m_aperiodicIndex, key, carriesUuid, appendTo(aperiodic));
    visitEach(m_periodicWorkload, m_periodicIndex, key, carriesUuid, appendTo(periodic));
    if (aperiodic.empty() && periodic.empty()) {
        SD_LOG(Error) << "SD failed to delete Service with local UUID \"" << event.localUuid
                      << "\", none found!";
        return false;
    }

    std::size_t done = 0;
    ServicesContainer unexpectedPeriodic;
    for (SDService::Ptr& service : periodic) {
        if (service->getType() != Type::ANNOUNCED || service->getState() != State::MAIN_PHASE) {
            unexpectedPeriodic.push_back(service);
            continue;
        }
        SD_LOG(Notice) << "SD Announcement of Service " << ServiceLabel{*service}
                       << " stopped, due to removal by ServiceRegistry.";
        service->setState(State::SHUTDOWN_PHASE);
        service->setTTL(0);
        SD_LOG(Trace) << "SDStateMachine::handleDELETE: set Announced \"" << nameOf(service)
                      << "\" to shutdown.";
        ++done;
    }

    ServicesContainer unexpectedAperiodic;
    for (SDService::Ptr& service : aperiodic) {
        const State::State_t state = service->getState();
        if (service->getType() != Type::ANNOUNCED) {
            unexpectedAperiodic.push_back(service);
            continue;
        }
        if (state == State::ONCE) {
            unsafe_removeAperiodicService(service);
            SD_LOG(Trace) << "SDStateMachine::handleDELETE: remove Announced|once \"" << nameOf(service)
                          << "\" with instance #" << service->getInstanceId();
        }
        else if (state == State::INITIAL_WAIT_PHASE || state == State::REPETITION_PHASE) {
            service->setState(State::SHUTDOWN_PHASE);
            service->setTTL(0);
            unsafe_addPeriodicService(service);
            unsafe_removeAperiodicService(service);
            SD_LOG(Trace) << "SDStateMachine::handleDELETE: move Announced \"" << nameOf(service)
                          << "\" from initial|repetition to shutdown.";
        }
        else {
            unexpectedAperiodic.push_back(service);
            continue;
        }
        ++done;
    }

    reportUnexpected("handleDELETE", "periodic", unexpectedPeriodic);
    reportUnexpected("handleDELETE", "aperiodic", unexpectedAperiodic);
    return done != 0;
}

bool SDStateMachine::handleGET(ExternalEvent& event)
{
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    SDService::Ptr& service = event.service;
    const Matches matches = unsafe_findMatches(*service);
    ServicesContainer wanted = selected(matches.aperiodic, isWanted);

    if (!wanted.empty()) {
        SDService::Ptr& search = wanted.front();
        search->setState(State::INITIAL_WAIT_PHASE);
        unsafe_removeAperiodicService(search);
        SD_LOG(Trace) << "SDStateMachine::handleGET: reset Wanted \"" << nameOf(search) << "\" to initial.";
        return unsafe_addAperiodicService(search);
    }
    setTypeAndState(service, Type::WANTED, State::INITIAL_WAIT_PHASE);
    service->setMinorVersion(EntryValues::MinorVersion_Any);
    SD_LOG(Trace) << "SDStateMachine::handleGET: add \"" << nameOf(service) << "\" as new Wanted Service.";
    return unsafe_addAperiodicService(service);
}

bool SDStateMachine::handleFIND(ExternalEvent& event)
{
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    const std::string& name = nameOf(event.service);
    const Matches matches = unsafe_findMatches(*event.service);

    const auto isAnnounced = [](const SDService::Ptr& service) {
        return service->getType() == Type::ANNOUNCED && !isOnce(service);
    };
    ServicesContainer announced = selected(matches.aperiodic, isAnnounced);
    const ServicesContainer periodic = selected(matches.periodic, isAnnounced);
    announced.insert(announced.end(), periodic.begin(), periodic.end());
    if (announced.empty()) {
        SD_LOG(Trace) << "SDStateMachine::handleFIND: SD received FIND_SERVICE for \"" << name
                      << "\", which is unknown.";
        return true;
    }
    const ServicesContainer active = rejected(announced, isShuttingDown);
    if (active.empty()) {
        SD_LOG(Trace) << "SDStateMachine::handleFIND: SD received FIND_SERVICE for \"" << name
                      << "\", which is in shutdown.";
        return true;
    }

    const ServicesContainer answers = selected(matches.aperiodic, isOnce);
    bool result = true;
    for (const SDService::Ptr& service : active) {
        // One record is sent every one to three milliseconds: a new service must not stand behind answers for
        // long. Who asked hears the cyclic offer.
        if (m_aperiodicWorkload.size() >= mostRecordsBefore) {
            SD_LOG(Trace) << "SDStateMachine::handleFIND: SD received FIND_SERVICE for \"" << name
                          << "\", while " << m_aperiodicWorkload.size() << " Services wait.";
            break;
        }
        ServicesContainer waiting;
        unsafe_getDuplicates(answers, ServiceIdentity::ofInstance(*service, Type::ANNOUNCED), waiting);
        if (waiting.size() < mostAnswersWaiting)
            result = unsafe_answerOnce(service) && result;
    }
    return result;
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
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    SDService::Ptr& service = event.service;
    const NuboServiceDescription& description = service->getNuboDescription();
    const std::string& name = description.getName();
    if (unsafe_renew(*service))
        return true;
    const Matches matches = unsafe_findMatches(*service);

    if (matches.isOneWanted()) {
        unsafe_removeAperiodicService(matches.aperiodic.front());
        if (!unsafe_discover(service, firstInstance))
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
        if (!unsafe_discover(service, firstInstance))
            return false;
        SD_LOG(Trace) << "SDStateMachine::handleOFFER: add \"" << name << "\" as new Service.";
        return true;
    }

    const auto isExpectedAperiodic = [](const SDService::Ptr& match) {
        return isWanted(match) || match->getType() == Type::ANNOUNCED;
    };
    const auto isExpectedPeriodic = [](const SDService::Ptr& match) {
        return match->getType() == Type::ANNOUNCED ||
               (match->getType() == Type::DISCOVERED && match->getState() == State::MAIN_PHASE);
    };
    const bool fault1 =
        reportUnexpected("handleOFFER", "aperiodic", rejected(matches.aperiodic, isExpectedAperiodic));
    const bool fault2 =
        reportUnexpected("handleOFFER", "periodic", rejected(matches.periodic, isExpectedPeriodic));
    if (fault1 || fault2)
        return false;

    ServicesContainer duplicates;
    unsafe_getDuplicates(matches.periodic, ServiceIdentity::ofInstance(*service, Type::DISCOVERED),
                         duplicates);
    if (!duplicates.empty())
        return reportDuplicates("handleOFFER", duplicates);
    const unsigned short instanceID = matches.nextInstanceID();
    if (!unsafe_discover(service, instanceID))
        return false;
    SD_LOG(Trace) << "SDStateMachine::handleOFFER: add Discovered \"" << name
                  << "\" as new Service instance #" << instanceID;
    return true;
}

bool SDStateMachine::renew(const SDService& offered)
{
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    return unsafe_renew(offered);
}

/// Costs the same however many instances there are.
bool SDStateMachine::unsafe_renew(const SDService& offered)
{
    const auto identity = ServiceIdentity::ofInstance(offered, Type::DISCOVERED);
    const auto matches = matcherOf(identity);
    const std::optional<RecordIndex::Key> key = RecordIndex::keyOf(identity);
    SDService::Ptr known;
    int count = 0;
    const auto note = [&](const SDService::Ptr& service) {
        known = service;
        ++count;
    };
    visitEach(m_periodicWorkload, m_periodicIndex, key, matches, note);
    const bool isKnown = count == 1 && known->getState() == State::MAIN_PHASE;
    if (!isKnown)
        return false;
    visitEach(m_aperiodicWorkload, m_aperiodicIndex, key, matches, note);
    if (count != 1)
        return false;  // one that has no business there
    known->setTTL(offered.getTTL());
    SD_LOG(Trace) << "SDStateMachine::handleOFFER: re-set TTL of Discovered \"" << nameOf(known)
                  << "\" with instance #" << known->getInstanceId();
    return true;
}

bool SDStateMachine::handleSTOPOFFER(ExternalEvent& event)
{
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    const std::string& name = nameOf(event.service);
    const auto stopped = ServiceIdentity::ofInstance(*event.service, Type::DISCOVERED);
    ServicesContainer aperiodic;
    ServicesContainer periodic;
    unsafe_findServices(stopped, aperiodic, periodic);

    if (!aperiodic.empty()) {
        SD_LOG(Error) << "SDStateMachine::handleSTOPOFFER found " << aperiodic.size()
                      << " aperiodic Service(s) in unexpected State x Type!";
        return false;
    }
    if (periodic.empty())
        return true;  // an instance that was never known, or is gone already
    if (periodic.size() > 1)
        return reportDuplicates("handleSTOPOFFER", periodic);

    const SDService::Ptr service = periodic.front();
    if (service->getState() != State::MAIN_PHASE) {
        SD_LOG(Error) << "SDStateMachine::handleSTOPOFFER found periodic Service \"" << name
                      << "\" in unexpected State x Type!";
        return false;
    }
    unsafe_removePeriodicService(service);  // whatever the subscriber does with the news
    unsafe_notifyGone(*service);
    SD_LOG(Trace) << "SDStateMachine::handleSTOPOFFER: remove Discovered|main \"" << name
                  << "\" with instance #" << service->getInstanceId();
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
    Poco::Any found;
    if (!ApplicationServices::getLocator().find(&typeid(OEMInterface::OEMDispatcher), found)) {
        SD_LOG(Error) << "Failed to write Eventlog - OEM Dispatcher missing!";
        return;
    }
    auto dispatcher = Poco::AnyCast<Poco::SharedPtr<OEMInterface::OEMDispatcher>>(found);
    dispatcher->callLogEvent(name.c_str(), "http", ip.c_str(), port);
}

std::vector<ServiceStatus> SDStateMachine::getServices() const
{
    std::vector<ServiceStatus> result;
    const auto append = [&](const SDService::Ptr& service) {
        if (isWanted(service) || isOnce(service) || isShuttingDown(service))
            return;
        ServiceStatus& status = result.emplace_back();
        status.description = service->getNuboDescription();
        status.instanceId = service->getInstanceId();
        if (service->getType() == Type::DISCOVERED)
            status.secondsLeft = service->getSecondsLeft();
        else
            status.role = ServiceStatus::Role::ANNOUNCED;
    };
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    result.reserve(m_aperiodicWorkload.size() + m_periodicWorkload.size());
    for (const auto& entry : m_aperiodicWorkload)
        append(entry.second);
    for (const SDService::Ptr& service : m_periodicWorkload)
        append(service);
    return result;
}

bool SDStateMachine::removeAllAnnouncedServices()
{
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    const auto announced = [](const SDService::Ptr& service) {
        return service->getType() == Type::ANNOUNCED;
    };
    for (SDService::Ptr& service : m_periodicWorkload) {
        if (!announced(service))
            continue;
        SD_LOG(Notice) << "SD Announcement of Service " << ServiceLabel{*service}
                       << " stopped, due to shutdown of ServiceRegistry.";
        service->setTTL(0);
        service->setState(State::REMOVED);
        unsafe_sendSafely(service);
    }
    const auto rest =
        std::stable_partition(m_periodicWorkload.begin(), m_periodicWorkload.end(), std::not_fn(announced));
    std::for_each(rest, m_periodicWorkload.end(),
                  [this](const SDService::Ptr& service) { m_periodicIndex.erase(service); });
    m_periodicWorkload.erase(rest, m_periodicWorkload.end());

    // Sent after a restart, the answers that wait would offer what has been withdrawn.
    ServicesContainer answers;
    for (const auto& [due, service] : m_aperiodicWorkload) {
        if (!service.isNull() && isOnce(service))
            answers.push_back(service);
    }
    for (const SDService::Ptr& answer : answers)
        unsafe_removeAperiodicService(answer);
    return true;
}

bool SDStateMachine::doesServiceMatch(const ServiceIdentity& identity, const SDService::Ptr& service)
{
    const SDService& record = *service;
    const NuboServiceDescription& description = record.getNuboDescription();

    if (identity.type != Type::ANY && identity.type != record.getType())
        return false;
    if (identity.serviceID == EntryValues::ServiceID_Non_SOMEIP_SD) {
        if (identity.name.isNull() || identity.name.value() != description.getName())
            return false;
    }
    else if (identity.serviceID != EntryValues::ServiceID_Any && identity.serviceID != record.getServiceId())
    {
        return false;
    }
    if (identity.instanceID != EntryValues::InstanceID_Any && identity.instanceID != record.getInstanceId())
        return false;
    if (identity.majorVersion != EntryValues::MajorVersion_Any &&
        identity.majorVersion != record.getMajorVersion())
        return false;
    if (identity.minorVersion != EntryValues::MinorVersion_Any &&
        identity.minorVersion != record.getMinorVersion())
        return false;
    if (!identity.name.isNull() && identity.name.value() != description.getName())
        return false;
    if (!identity.port.isNull() && identity.port.value() != description.getPort())
        return false;
    if (!identity.l4proto.isNull() && identity.l4proto.value() != description.getL4Proto())
        return false;
    // Last of all: the text of the address has to be made.
    return identity.ip.isNull() || identity.ip.value() == description.getIpAddressString();
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

bool SDStateMachine::unsafe_findServices(const ServiceIdentity& identity, ServicesContainer& aperiodic,
                                         ServicesContainer& periodic) const
{
    const auto matches = matcherOf(identity);
    const std::optional<RecordIndex::Key> key = RecordIndex::keyOf(identity);
    visitEach(m_aperiodicWorkload, m_aperiodicIndex, key, matches, appendTo(aperiodic));
    visitEach(m_periodicWorkload, m_periodicIndex, key, matches, appendTo(periodic));
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

SDStateMachine::Matches SDStateMachine::unsafe_findMatches(const SDService& service) const
{
    Matches matches;
    unsafe_findServices(ServiceIdentity(service), matches.aperiodic, matches.periodic);
    return matches;
}

bool SDStateMachine::unsafe_addPeriodicService(const SDService::Ptr& service)
{
    m_periodicWorkload.push_back(service);
    m_periodicIndex.insert(service);
    return true;
}

bool SDStateMachine::unsafe_removePeriodicService(const SDService::Ptr& service)
{
    const auto found = std::find(m_periodicWorkload.begin(), m_periodicWorkload.end(), service);
    if (found == m_periodicWorkload.end())
        return false;
    m_periodicIndex.erase(service);
    m_periodicWorkload.erase(found);
    return true;
}

bool SDStateMachine::unsafe_removeAperiodicService(const SDService::Ptr& service)
{
    const auto found = std::find_if(m_aperiodicWorkload.begin(), m_aperiodicWorkload.end(),
                                    [&](const auto& entry) { return entry.second == service; });
    if (found == m_aperiodicWorkload.end())
        return false;
    m_aperiodicIndex.erase(service);
    m_aperiodicWorkload.erase(found);
    return true;
}

bool SDStateMachine::unsafe_schedule(const SDService::Ptr& service, const Poco::Clock& due)
{
    if (m_aperiodicWorkload.emplace(due, service) == m_aperiodicWorkload.end()) {
        SD_LOG(Error) << "SD failed to insert Service into m_aperiodicWorkload!";
        return false;
    }
    m_aperiodicIndex.insert(service, due);
    return true;
}

SDService::Ptr SDStateMachine::unsafe_takeFirstAperiodic()
{
    SDService::Ptr service = m_aperiodicWorkload.begin()->second;
    m_aperiodicWorkload.erase(m_aperiodicWorkload.begin());
    m_aperiodicIndex.erase(service);
    return service;
}

bool SDStateMachine::unsafe_addAperiodicService(const SDService::Ptr& service)
{
    SD_LOG(Trace) << "AperiodicWorker::unsafe_addAperiodicService";
    if (service.isNull()) {
        SD_LOG(Error) << "SD failed to add Service to m_aperiodicWorkload, service was nullptr!";
        return false;
    }

    const Type::Type_t type = service->getType();
    const State::State_t state = service->getState();
    long delay = 0;
    if (state == State::INITIAL_WAIT_PHASE && (type == Type::ANNOUNCED || type == Type::WANTED)) {
        constexpr double randomScale = 1.0 / 2147483648.0;
        delay = static_cast<long>(m_rnd.next() * randomScale * initialWaitRange);
        if (type == Type::ANNOUNCED)
            SD_LOG(Notice) << "SD Announcement of Service " << ServiceLabel{*service}
                           << " startet, due to addition by ServiceRegistry.";
        else
            SD_LOG(Notice) << "SD Finding of Service " << nameOf(service)
                           << " startet, due to GET request to ServiceRegistry.";
    }
    else if (state == State::ONCE && (type == Type::ANNOUNCED || type == Type::DISCOVERED)) {
        delay = oneTimeAnswer;
        SD_LOG(Notice) << "SD One-Time Announcement of Service " << ServiceLabel{*service}
                       << " startet, due to reception of FIND_SERVICE.";
    }
    else {
        SD_LOG(Error) << "SD failed to add Service to m_aperiodicWorkload, unexpected State x Type: " << type
                      << " x " << state << "!";
        return false;
    }

    if (!unsafe_schedule(service, SDClock::now() + delay * microsecondsPerMillisecond))
        return false;
    m_aperiodicWorker.unsafe_update();
    return true;
}

bool SDStateMachine::unsafe_announce(SDService::Ptr& service, unsigned short instanceID)
{
    setTypeAndState(service, Type::ANNOUNCED, State::INITIAL_WAIT_PHASE);
    service->setInstanceId(instanceID);
    return unsafe_addAperiodicService(service);
}

/// Tells the registry of a discovered service and takes it in under the identifier that it gives back.
bool SDStateMachine::unsafe_discover(SDService::Ptr& service, unsigned short instanceID)
{
    const std::size_t text = m_periodicIndex.textSize() + service->getNuboDescription().getTextSize();
    if (m_periodicWorkload.size() >= largestWorkload || text > mostText) {
        m_refusals.add();
        if (const std::uint64_t refused = m_refusals.takeReport())
            SD_LOG(Warning) << "SDStateMachine::handleOFFER: " << refused
                            << " offer(s) of new Services refused, at most " << largestWorkload << " with "
                            << mostText << " Bytes of text can be known!";
        return false;
    }
    setTypeAndState(service, Type::DISCOVERED, State::MAIN_PHASE);
    service->setInstanceId(instanceID);
    ServiceDiscovery::ServiceListEventPayload payload(
        ServiceDiscovery::ServiceListEventPayload::SERVICE_DISCOVERED, &service->getNuboDescription());
    m_hub.notifyServiceRegistry(payload);
    if (payload.getLocalUuid().empty()) {
        SD_LOG(Error)
            << "Failed to handle OFFER_SERVICE due Service Registry Notification not returning a UUID!";
        return false;
    }
    service->setLocalUuid(payload.getLocalUuid());
    return unsafe_addPeriodicService(service);
}

void SDStateMachine::unsafe_notifyGone(const SDService& service)
{
    const NuboServiceDescription& description = service.getNuboDescription();
    ServiceDiscovery::ServiceListEventPayload payload(ServiceDiscovery::ServiceListEventPayload::SERVICE_GONE,
                                                      &description, description.getLocalUuid());
    m_hub.notifyServiceRegistry(payload);
}

/// Nothing that goes wrong with one announcement may keep the others from being made.
void SDStateMachine::unsafe_sendSafely(const ServicesContainer& services)
{
    try {
        m_hub.announce(services);
    }
    catch (...) {
        SD_LOG(Error) << "SDStateMachine - failed to announce: " << currentExceptionText();
    }
}

void SDStateMachine::unsafe_sendSafely(const SDService::Ptr& service)
{
    try {
        m_hub.announce(service);
    }
    catch (...) {
        SD_LOG(Error) << "SDStateMachine - failed to announce: " << currentExceptionText();
    }
}

SDStateMachine::AperiodicWorker::AperiodicWorker(SDStateMachine& parent)
    : TimebasedWorker(parent, "AperiodicWorker", parent.m_aperiodicWorkload, parent.m_workloadMutex, parked)
{}

void SDStateMachine::AperiodicWorker::update()
{
    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
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

/// The interval for a wait of so many microseconds. Now and then Poco::Timer waits a millisecond less than
/// its interval; nothing is due then, and the rest is waited for.
long SDStateMachine::AperiodicWorker::timerInterval(Poco::Clock::ClockDiff wait)
{
    return std::max((wait + microsecondsPerMillisecond - 1) / microsecondsPerMillisecond,
                    Poco::Clock::ClockDiff{shortestDelay});
}

void SDStateMachine::AperiodicWorker::onInterval(Poco::Timer& timer)
{
    // Once per process, whatever number of engines it has.
    static const bool named = (DebugUtils::setThreadName("SdAperWork", "AperiodicWorker::onInterval"), true);
    static_cast<void>(named);

    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    SD_LOG(Trace) << "AperiodicWorker::onInterval - " << m_workload.size() << " services in list";
    if (timer.skipped() > 0)
        SD_LOG(Warning) << "SDStateMachine - \"AperiodicWorker\" skipped " << timer.skipped()
                        << " timer events.";
    if (!m_parent.isRunning())
        return;

    const Poco::Clock now = SDClock::now();
    while (!m_workload.empty() && m_workload.begin()->second.isNull()) {
        SD_LOG(Error) << "AperiodicWorker::onInterval found aperiodic Service nullptr!";
        m_parent.unsafe_takeFirstAperiodic();
    }
    // One record an interval: further ones that are due wait for the next, a millisecond later.
    if (!m_workload.empty() && m_workload.begin()->first <= now) {
        SDService::Ptr service = m_parent.unsafe_takeFirstAperiodic();
        const long delay = handle(service);
        if (delay != isDone)
            m_parent.unsafe_schedule(service, now + delay * microsecondsPerMillisecond);
        m_notBefore = SDClock::now().raw() + shortestDelay * microsecondsPerMillisecond;
    }
    unsafe_update();
}

long SDStateMachine::AperiodicWorker::handle(SDService::Ptr& service)
{
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
        service->setState(State::MAIN_PHASE);
        m_parent.unsafe_addPeriodicService(service);
    }
    return isDone;  // of a wanted record: the search is over
}

SDStateMachine::PeriodicWorker::PeriodicWorker(SDStateMachine& parent)
    : TimebasedWorker(parent, "PeriodicWorker", parent.m_periodicWorkload, parent.m_workloadMutex, cycle)
{}

// Kept for compatibility: this worker's lines name the other worker.

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

    Poco::FastMutex::ScopedLock lock(m_workloadMutex);
    SD_LOG(Trace) << "AperiodicWorker::onInterval - " << m_workload.size() << " services in list";
    if (timer.skipped() > 0)
        SD_LOG(Warning) << "SDStateMachine - " << timer.skipped() << " skipped announcement timer events";

    ServicesContainer batch;
    auto kept = m_workload.begin();
    for (SDService::Ptr& service : m_workload) {
        if (handle(service, batch))
            std::swap(*kept++, service);
        else
            m_parent.m_periodicIndex.erase(service);
    }
    m_workload.erase(kept, m_workload.end());
    if (!batch.empty())
        m_parent.unsafe_sendSafely(batch);
}

bool SDStateMachine::PeriodicWorker::handle(SDService::Ptr& service, ServicesContainer& batch)
{
    if (service.isNull()) {
        SD_LOG(Error) << "AperiodicWorker::onInterval found periodic Service nullptr!";
        return false;
    }
    switch (service->getType()) {
        case Type::ANNOUNCED:
            return handleAnnounced(service, batch);
        case Type::DISCOVERED:
            return handleDiscovered(service);
        case Type::NONE:
        case Type::WANTED:
        case Type::ANY:
            break;
    }
    reportUnexpectedRecord("periodic", *service);
    return true;
}

bool SDStateMachine::PeriodicWorker::handleAnnounced(SDService::Ptr& service, ServicesContainer& batch)
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

bool SDStateMachine::PeriodicWorker::handleDiscovered(const SDService::Ptr& service)
{
    if (!service->isTTLElapsed())
        return true;
    SD_LOG(Notice) << "SDStateMachine - TTL of service timed out: " << nameOf(service);
    try {
        m_parent.unsafe_notifyGone(*service);
    }
    catch (...) {
        // The other records must have their turn, and this one must not come up every second.
        SD_LOG(Error) << "SDStateMachine - \"" << m_name << "\" caught exception: " << currentExceptionText();
    }
    return false;
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
