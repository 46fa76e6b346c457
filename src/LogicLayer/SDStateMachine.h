#pragma once

#include "DataLayer/EngineFrame.h"
#include "DataLayer/SDService.h"
#include "LogicLayer/DiscoveryBounds.h"
#include "LogicLayer/DropCounter.h"
#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/ServiceIdentity.h"
#include "LogicLayer/TimebasedWorker.h"
#include "LogicLayer/Workload.h"

#include <Poco/Clock.h>
#include <Poco/Mutex.h>
#include <Poco/Random.h>

#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

class SDCommunicationHub;
struct ServiceStatus;

/// Records by the time at which they fall due; equal times in the order of insertion.
using AperiodicServicesContainer = std::multimap<Poco::Clock, SDService::Ptr>;
/// Records in the order of insertion.
using ServicesContainer = std::vector<SDService::Ptr>;

/// Knows every service that the unit announces, looks for or has learnt of, and drives each through its
/// phases.
///
/// Events come in through onExternalEvent() and change the two workloads; the two timed workers send what
/// falls due. One mutex serialises every event and every timer interval; operations named unsafe_... need
/// it to be held by the caller. The hub's announce() and notifyServiceRegistry() are called with it held,
/// so neither may call back into the state machine.
///
/// What an event costs does not depend on the number of services, nor on the number of instances of a name.
class SDStateMachine
{
public:
    using AperiodicServicesContainer = Nubo::ServiceDiscovery::AperiodicServicesContainer;
    using ServicesContainer = Nubo::ServiceDiscovery::ServicesContainer;

    /// At most so many services of other units are known, with so many bytes of texts, and so many of one
    /// name; see DiscoveryBounds. This unit's services are not bounded.
    static constexpr std::size_t largestWorkload = DiscoveryBounds::mostRecords;
    static constexpr std::size_t mostText = DiscoveryBounds::mostText;
    static constexpr std::size_t mostInstances = DiscoveryBounds::mostInstances;

    struct ExternalEvent
    {
        enum WorkloadEvent_t : std::uint32_t
        {
            HTTP_PUT = 0,         ///< the registry adds a local service
            HTTP_DELETE = 1,      ///< the registry removes a local service
            HTTP_GET = 2,         ///< the registry looks for a service
            SOMEIP_FIND = 3,      ///< a FIND was received
            SOMEIP_OFFER = 4,     ///< an OFFER with TTL > 0 was received
            SOMEIP_STOPOFFER = 5  ///< an OFFER with TTL 0 was received
        };

        ExternalEvent(WorkloadEvent_t eventType, SDService::Ptr record, const std::string& uuid = "");

        WorkloadEvent_t type;
        SDService::Ptr service;  ///< the record that the event is about
        std::string localUuid;   ///< for HTTP_DELETE: the registry's identifier
    };

    explicit SDStateMachine(SDCommunicationHub& hub);
    virtual ~SDStateMachine();

    SDStateMachine(const SDStateMachine&) = delete;
    SDStateMachine& operator=(const SDStateMachine&) = delete;

    /// Starts the timers. Records that were added before begin their phases now. When it throws, nothing
    /// runs.
    void start();
    /// Sends one stop-offer for every announced service in the periodic workload and stops the timers. Once
    /// it has returned, nothing more is taken from the network and no event is raised, until start(). Never
    /// throws.
    void stop();
    /// The same for a thread that works for the engine and must not wait for itself. The timers run on, and
    /// find nothing to do.
    void close();
    /// The same for one that delivers an event.
    void unsafe_stop();
    bool isRunning() const { return m_running; }

    /// Whether the calling thread is in an event or an interval.
    bool isLockedByThisThread() const { return EngineFrame::isOnThisThread(&m_workloadMutex); }

    /// Single entry point for external events. False when the event could not be handled; the reason is in
    /// the log. What the registry's subscriber throws passes to the caller.
    bool onExternalEvent(ExternalEvent& event);

    bool handlePUT(ExternalEvent& event);
    bool handleDELETE(ExternalEvent& event);
    bool handleGET(ExternalEvent& event);
    bool handleFIND(ExternalEvent& event);
    bool handleOFFER(ExternalEvent& event);
    bool handleSTOPOFFER(ExternalEvent& event);

    /// Restarts the time-to-live of the instance that is offered; false if it is not known. Nearly every
    /// offer is a renewal, which needs neither versions nor categories.
    bool renew(const SDService& offered);

    /// How many offers of this unit's services were sent back to it.
    std::uint64_t reflectedOffers() const { return m_reflectedOffers; }

    /// Writes the counted warnings that are due. What a flood has left over is reported within a second.
    void reportRefusals();

    /// Whether an offered service may be taken in. Everything may; a refusal would go into the unit's event
    /// memory.
    virtual bool checkCapabilities(const NuboServiceDescription& description);
    void writeEventLog(const std::string& name, const std::string& ip, unsigned short port);

    /// The announced services that are not being withdrawn, and the discovered ones.
    std::vector<ServiceStatus> getServices() const;

    /// Sends one stop-offer for every announced service in the periodic workload and forgets it.
    bool removeAllAnnouncedServices();

    static bool doesServiceMatch(const ServiceIdentity& identity, const SDService::Ptr& service);
    /// The largest of `start` and the records' instance IDs.
    static unsigned short findHighestInstanceID(const ServicesContainer& services, unsigned short start);

    /// Append the matching records to `found`, in the container's order; return whether `found` holds any.
    bool unsafe_findServices(const AperiodicServicesContainer& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    bool unsafe_findServices(const ServicesContainer& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    bool unsafe_findServices(const AperiodicWorkload& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    bool unsafe_findServices(const PeriodicWorkload& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    /// The same over both workloads, with a list for each.
    bool unsafe_findServices(const ServiceIdentity& identity, ServicesContainer& aperiodic,
                             ServicesContainer& periodic) const;
    /// Appends the matching records to `found`; true if there was at least one.
    bool unsafe_getDuplicates(const ServicesContainer& services, const ServiceIdentity& identity,
                              ServicesContainer& found) const;
    /// Sets `position` to the first record with that identifier, or to the end; true if there is one.
    bool unsafe_findByUuid(const std::string& localUuid, ServicesContainer& services,
                           ServicesContainer::iterator& position) const;

    bool unsafe_addPeriodicService(const SDService::Ptr& service);
    /// Schedules the record by its type and state and sets the timer. False, after an error line, for a
    /// record that has nothing to do in this workload.
    bool unsafe_addAperiodicService(const SDService::Ptr& service);
    /// Take the same record (not an equal one) out of the workload; true if it was there.
    bool unsafe_removePeriodicService(const SDService::Ptr& service);
    bool unsafe_removeAperiodicService(const SDService::Ptr& service);

protected:
    /// Holds the workload mutex. Threads that wait for it get it one after the other: a thread that gives it
    /// back and takes it again at once comes after those that wait.
    class WorkloadLock
    {
    public:
        explicit WorkloadLock(const SDStateMachine& machine)
            : m_frame(&machine.m_workloadMutex)
            , m_machine(machine)
        {
            lock();
        }
        ~WorkloadLock() { unlock(); }

        WorkloadLock(const WorkloadLock&) = delete;
        WorkloadLock& operator=(const WorkloadLock&) = delete;

        /// Lets those have the mutex that wait for it.
        void giveWay()
        {
            unlock();
            lock();
        }

    private:
        void lock();
        void unlock();

        const EngineFrame m_frame;
        const SDStateMachine& m_machine;
    };

    /// Sends what falls due at a certain time, one record per interval.
    class AperiodicWorker : public TimebasedWorker<SDStateMachine, AperiodicWorkload>
    {
    public:
        explicit AperiodicWorker(SDStateMachine& parent);

        void update() override;
        void unsafe_update() override;
        void onInterval(Poco::Timer& timer) override;

    private:
        void handleFirst(const Poco::Clock& now);
        /// Takes the record's next step; returns the milliseconds after which it is due again, or `isDone`.
        long handle(const SDService::Ptr& entry);
        long handleRepetition(SDService::Ptr& service);
        static long timerInterval(Poco::Clock::ClockDiff wait);

        static constexpr long isDone = -1;
    };

    /// Works over the long-lived records once a second.
    class PeriodicWorker : public TimebasedWorker<SDStateMachine, PeriodicWorkload>
    {
    public:
        explicit PeriodicWorker(SDStateMachine& parent);

        void start() override;
        void update() override;
        void unsafe_update() override;
        void onInterval(Poco::Timer& timer) override;

        /// Since when neighbours have been heard without a pause.
        Poco::Clock listeningSince() const;

    private:
        void begin();
        void offerOwn();
        /// Whether the record stays in the workload; what is to be sent of it goes into the batch.
        static bool handleLocal(const SDService::Ptr& entry, ServicesContainer& batch);
        static bool handleAnnounced(SDService::Ptr service, ServicesContainer& batch);
        void hearFirst(const Poco::Clock& heldUpSince, const Poco::Clock& now);
        void hearAgain();
        bool isOver(const Poco::Clock& now) const;
        void expire(WorkloadLock& lock);
        /// Whether the record had run out by then.
        bool expire(WorkloadEntry& entry, const Poco::Clock& heardUntil);

        Poco::Clock m_begin{Poco::Clock::ClockVal{0}};        // of the last interval
        Poco::Clock m_beginBefore{Poco::Clock::ClockVal{0}};  // of the one before; 0: none since the start
        Poco::Clock m_heardAt{Poco::Clock::ClockVal{0}};  // before, only what had run out by then is gone:
        Poco::Clock m_heldUpSince{Poco::Clock::ClockVal{0}};
        Poco::Clock m_hearingSince{Poco::Clock::ClockVal{0}};
        Poco::Clock m_listeningSince{Poco::Clock::ClockVal{0}};
    };

    SDCommunicationHub& m_hub;
    Poco::Random m_rnd;
    std::atomic<bool> m_running{false};
    mutable Poco::FastMutex m_workloadMutex;
    mutable std::mutex m_listingMutex;   // taken first
    std::uint64_t m_addressChanges = 0;  // that have been looked at
    RecordIndex m_index;
    AperiodicWorkload m_aperiodicWorkload{m_index};
    PeriodicWorkload m_periodicWorkload{m_index};
    AperiodicWorker m_aperiodicWorker;
    PeriodicWorker m_periodicWorker;

private:
    struct Matches;
    using Entry = WorkloadEntry;
    using Ports = std::bitset<65536>;

    bool unsafe_schedule(const SDService::Ptr& service, Entry* present);
    std::optional<long> firstDelay(const SDService& service);

    bool unsafe_announce(SDService::Ptr& service, unsigned short instanceID, Entry* replaced = nullptr);
    std::vector<Entry*> unsafe_announcedDuplicates(const SDService& service, const Matches& matches) const;
    unsigned short unsafe_nextOwnInstance(const Matches& matches) const;
    bool unsafe_removePeriodic(Entry& entry);
    bool unsafe_removeAperiodic(Entry& entry);
    void reportWaitingAnswers(const std::string& name) const;
    bool unsafe_answerOnce(const SDService::Ptr& announced);
    void unsafe_erase(Entry& entry);

    bool unsafe_renew(const SDService& offered);
    bool unsafe_discover(SDService::Ptr& service, unsigned short instanceID, const Matches& matches,
                         Entry* search = nullptr);
    bool unsafe_isReflected(const SDService& offered, const NameEntries* name);
    void unsafe_endReflections(const SDService& announced) const noexcept;
    void unsafe_endReflections();
    void unsafe_endReflections(const Entry& own, Ports& ports) const;
    bool unsafe_reportUnexpected(const ServiceIdentity& identity) const;
    void unsafe_displace(Entry& entry);
    void unsafe_tellGone(Entry& entry);

    void unsafe_sendSafely(const SDService::Ptr& service);
    void unsafe_sendSafely(const ServicesContainer& services);
    void setClosed(bool isClosed);
    void unsafe_withdraw(WorkloadLock* lock);
    void unsafe_dropAnswers();

    mutable Poco::FastMutex m_turnMutex;  // held by the thread that gets the workload mutex next
    bool m_isClosed = false;              // nothing is taken from the network
    std::atomic<std::uint64_t> m_reflectedOffers{0};
    DropCounter m_refusals;
    std::atomic<DiscoveryBounds::Outcome> m_lastRefusal{DiscoveryBounds::Outcome::Refused};
    DropCounter m_displacements;
};

/// List a container's records for the log: their names, or their names with type and state.
struct ServicesContainer_Printer
{
    const ServicesContainer& services;
};
std::ostream& operator<<(std::ostream& stream, const ServicesContainer_Printer& printer);

struct ServicesContainer_TypeAndStatePrinter
{
    const ServicesContainer& services;
};
std::ostream& operator<<(std::ostream& stream, const ServicesContainer_TypeAndStatePrinter& printer);

}  // namespace Nubo::ServiceDiscovery
