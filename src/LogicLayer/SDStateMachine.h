#pragma once

#include "DataLayer/EngineFrame.h"
#include "DataLayer/SDService.h"
#include "DataLayer/ServiceEvents.h"
#include "LogicLayer/DiscoveryBounds.h"
#include "LogicLayer/DropCounter.h"
#include "LogicLayer/EventMemory.h"
#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/ServiceIdentity.h"
#include "LogicLayer/ServicesContainer.h"
#include "LogicLayer/TimebasedWorker.h"
#include "LogicLayer/Workload.h"

#include <Poco/Clock.h>
#include <Poco/Mutex.h>
#include <Poco/Random.h>

#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

class SDCommunicationHub;
struct Matches;

/// Keeps every service that the unit announces, searches for or has discovered, and drives each through its
/// phases.
///
/// Events enter through onExternalEvent() and change the two workloads; the two timed workers send records
/// when they are due. One mutex serialises all events and timer intervals. The caller of an operation named
/// unsafe_... must hold it. The hub's announce() and notifyServiceRegistry() are called with it held, so
/// neither may call back into the state machine.
///
/// The cost of an event depends neither on the number of services nor on the number of instances of a name.
class SDStateMachine
{
public:
    using AperiodicServicesContainer = Nubo::ServiceDiscovery::AperiodicServicesContainer;
    using ServicesContainer = Nubo::ServiceDiscovery::ServicesContainer;

    /// Limits of the known services of other units: their number, the bytes of their texts, and their number
    /// per name; see DiscoveryBounds. This unit's services are not limited.
    static constexpr std::size_t largestWorkload = DiscoveryBounds::mostRecords;
    static constexpr std::size_t mostText = DiscoveryBounds::mostText;
    static constexpr std::size_t mostInstances = DiscoveryBounds::mostInstances;

    struct ExternalEvent
    {
        enum WorkloadEvent_t : std::uint32_t
        {
            HTTP_PUT = 0,         ///< the registry adds a local service
            HTTP_DELETE = 1,      ///< the registry removes a local service
            HTTP_GET = 2,         ///< the registry searches for a service
            SOMEIP_FIND = 3,      ///< a FIND was received
            SOMEIP_OFFER = 4,     ///< an OFFER with TTL > 0 was received
            SOMEIP_STOPOFFER = 5  ///< an OFFER with TTL 0 was received
        };

        ExternalEvent(WorkloadEvent_t eventType, SDService::Ptr record, const std::string& uuid = "");

        WorkloadEvent_t type;
        SDService::Ptr service;  ///< the record concerned; unused for HTTP_DELETE
        std::string localUuid;   ///< for HTTP_DELETE: the registry's identifier
    };

    explicit SDStateMachine(SDCommunicationHub& hub, EventMemory eventMemory = platformEventMemory());
    virtual ~SDStateMachine();

    SDStateMachine(const SDStateMachine&) = delete;
    SDStateMachine& operator=(const SDStateMachine&) = delete;

    /// Starts the timers. Records that were added before begin their phases now. If it throws, no timer runs.
    void start();
    /// Sends one stop-offer per announced service in the periodic workload and stops the timers. After it has
    /// returned, the state machine ignores received entries and raises no event until start(). Never throws.
    void stop();
    /// Variant for a thread that works for the engine and must not wait for itself. The timers keep running
    /// without effect.
    void close();
    /// Variant for a thread that holds the workload mutex because it delivers an event.
    void unsafe_stop();
    bool isRunning() const { return m_running; }

    /// Whether the calling thread is processing an event or a timer interval.
    bool isLockedByThisThread() const { return EngineFrame::isOnThisThread(&m_workloadMutex); }

    /// Single entry point for external events. Logs the reason and returns false when the event could not be
    /// handled. Passes on what the registry's subscriber throws.
    bool onExternalEvent(ExternalEvent& event);

    bool handlePUT(ExternalEvent& event);
    bool handleDELETE(ExternalEvent& event);
    bool handleGET(ExternalEvent& event);
    bool handleFIND(ExternalEvent& event);
    bool handleOFFER(ExternalEvent& event);
    bool handleSTOPOFFER(ExternalEvent& event);

    /// Restarts the TTL of the offered instance; returns false if it is unknown. The record may be
    /// incomplete: nearly every offer is a renewal, which needs neither versions nor categories.
    bool renew(const SDService& offered);

    /// Returns the number of offers of this unit's services that were sent back to it.
    std::uint64_t reflectedOffers() const { return m_reflectedOffers; }

    /// Logs the numbers of refused and displaced services when a report is due. Called every second, so that
    /// the last ones of a flood are reported as well.
    void reportRefusals();

    /// Whether an offered service may be accepted. Always true here; a refusal is written to the unit's event
    /// memory.
    virtual bool checkCapabilities(const NuboServiceDescription& description);
    void writeEventLog(const std::string& name, const std::string& ip, unsigned short port);

    /// Returns the announced services that are not being withdrawn, and the discovered ones.
    std::vector<ServiceStatus> getServices() const;

    /// Sends one stop-offer per announced service in the periodic workload and removes the service. Drops the
    /// answers that have not been sent.
    bool removeAllAnnouncedServices();

    static bool doesServiceMatch(const ServiceIdentity& identity, const SDService::Ptr& service);
    /// Returns the largest of `start` and the records' instance IDs.
    static unsigned short findHighestInstanceID(const ServicesContainer& services, unsigned short start);

    /// Append the matching records to `found` in the container's order, and return whether `found` contains
    /// any.
    bool unsafe_findServices(const AperiodicServicesContainer& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    bool unsafe_findServices(const ServicesContainer& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    bool unsafe_findServices(const AperiodicWorkload& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    bool unsafe_findServices(const PeriodicWorkload& services, const ServiceIdentity& identity,
                             ServicesContainer& found) const;
    /// The same for both workloads, with a list for each.
    bool unsafe_findServices(const ServiceIdentity& identity, ServicesContainer& aperiodic,
                             ServicesContainer& periodic) const;
    /// Appends the matching records to `found`. Returns whether there was at least one.
    bool unsafe_getDuplicates(const ServicesContainer& services, const ServiceIdentity& identity,
                              ServicesContainer& found) const;
    /// Sets `position` to the first record with that identifier, or to the end. Returns whether there is one.
    bool unsafe_findByUuid(const std::string& localUuid, ServicesContainer& services,
                           ServicesContainer::iterator& position) const;

    const AperiodicWorkload& unsafe_aperiodicWorkload() const { return m_aperiodicWorkload; }
    const PeriodicWorkload& unsafe_periodicWorkload() const { return m_periodicWorkload; }

    bool unsafe_addPeriodicService(const SDService::Ptr& service);
    /// Schedules the record by its type and state and sets the timer. Logs an error and returns false for a
    /// record that does not belong in this workload.
    bool unsafe_addAperiodicService(const SDService::Ptr& service);
    /// Remove the same record (not an equal one) from the workload. Return whether it was there.
    bool unsafe_removePeriodicService(const SDService::Ptr& service);
    bool unsafe_removeAperiodicService(const SDService::Ptr& service);

protected:
    /// Scoped lock of the workload mutex. A thread that releases the mutex and locks it again at once lets a
    /// waiting thread go first.
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

        /// Yields the mutex to a waiting thread.
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

    /// Sends records when they are due, one per interval.
    class AperiodicWorker : public TimebasedWorker<SDStateMachine, AperiodicWorkload>
    {
    public:
        explicit AperiodicWorker(SDStateMachine& parent);

        void update() override;
        void unsafe_update() override;
        void onInterval(Poco::Timer& timer) override;

    private:
        void handleFirst(const Poco::Clock& now);
        /// Performs the record's next step. Returns the milliseconds until it is due again, or `isDone`.
        long handle(const SDService::Ptr& entry);
        long handleRepetition(SDService::Ptr& service);
        static long timerInterval(Poco::Clock::ClockDiff wait);

        static constexpr long isDone = -1;
    };

    /// Processes the long-lived records once per second.
    class PeriodicWorker : public TimebasedWorker<SDStateMachine, PeriodicWorkload>
    {
    public:
        explicit PeriodicWorker(SDStateMachine& parent);

        void start() override;
        void update() override;
        void unsafe_update() override;
        void onInterval(Poco::Timer& timer) override;

        /// Returns the time since which the unit has been listening without a pause.
        Poco::Clock listeningSince() const;

    private:
        void begin();
        void offerOwn();
        /// Adds the record to the batch if it is to be sent. Returns whether it stays in the workload.
        static bool handleLocal(const SDService::Ptr& entry, ServicesContainer& batch);
        static bool handleAnnounced(SDService::Ptr service, ServicesContainer& batch);
        void hearFirst(const Poco::Clock& heldUpSince, const Poco::Clock& now);
        void hearAgain();
        bool isOver(const Poco::Clock& now) const;
        void expire(WorkloadLock& lock);
        /// Removes the record if it had expired at that time. Returns whether it had.
        bool expire(WorkloadEntry& entry, const Poco::Clock& heardUntil);

        Poco::Clock m_begin{Poco::Clock::ClockVal{0}};        // start of the last interval
        Poco::Clock m_beginBefore{Poco::Clock::ClockVal{0}};  // of the one before it; 0: none since the start
        Poco::Clock m_heardAt{Poco::Clock::ClockVal{0}};      // until then expiry is judged at m_heldUpSince
        Poco::Clock m_heldUpSince{Poco::Clock::ClockVal{0}};
        Poco::Clock m_hearingSince{Poco::Clock::ClockVal{0}};  // when the wait until m_heardAt began
        Poco::Clock m_listeningSince{Poco::Clock::ClockVal{0}};
    };

    SDCommunicationHub& m_hub;
    const EventMemory m_eventMemory;
    Poco::Random m_rnd;
    std::atomic<bool> m_running{false};
    mutable Poco::FastMutex m_workloadMutex;
    mutable Poco::FastMutex m_turnMutex;  // held by the thread that gets the workload mutex next
    mutable std::mutex m_listingMutex;    // locked before the other two
    std::uint64_t m_addressChanges = 0;   // the hub's count when last processed
    RecordIndex m_index;
    AperiodicWorkload m_aperiodicWorkload{m_index};
    PeriodicWorkload m_periodicWorkload{m_index};
    AperiodicWorker m_aperiodicWorker;
    PeriodicWorker m_periodicWorker;

private:
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

    bool m_isClosed = false;  // received entries are ignored
    std::atomic<std::uint64_t> m_reflectedOffers{0};
    DropCounter m_refusals;
    std::atomic<DiscoveryBounds::Outcome> m_lastRefusal{DiscoveryBounds::Outcome::Refused};
    DropCounter m_displacements;
};

}  // namespace Nubo::ServiceDiscovery
