#pragma once

#include "DataLayer/SDService.h"
#include "LogicLayer/DropCounter.h"
#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/ServiceIdentity.h"
#include "LogicLayer/TimebasedWorker.h"

#include <Poco/Clock.h>
#include <Poco/Mutex.h>
#include <Poco/Random.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
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
class SDStateMachine
{
public:
    using AperiodicServicesContainer = Nubo::ServiceDiscovery::AperiodicServicesContainer;
    using ServicesContainer = Nubo::ServiceDiscovery::ServicesContainer;

    /// While the periodic workload holds so many records, or so many bytes of texts in them, no further
    /// service is discovered: what the neighbours offer must not fill the unit's memory.
    static constexpr std::size_t largestWorkload = 131072;
    static constexpr std::size_t mostText = std::size_t{64} * 1024 * 1024;

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

    /// Starts the timers. Records that were added before begin their phases now.
    void start();
    /// Sends one stop-offer for every announced service in the periodic workload and stops the timers.
    void stop();
    bool isRunning() const { return m_running; }

    /// The one door for everything that happens outside. False when the event could not be handled; the
    /// reason is in the log. What the registry's subscriber throws passes to the caller.
    bool onExternalEvent(ExternalEvent& event);

    bool handlePUT(ExternalEvent& event);
    bool handleDELETE(ExternalEvent& event);
    bool handleGET(ExternalEvent& event);
    bool handleFIND(ExternalEvent& event);
    bool handleOFFER(ExternalEvent& event);
    bool handleSTOPOFFER(ExternalEvent& event);

    /// Lets the time-to-live of the instance that is offered begin anew; false if it is not known. That is
    /// what nearly every offer is about, and needs neither its versions nor its categories.
    bool renew(const SDService& offered);

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
    /// Sends what falls due at a certain time, one record an interval.
    class AperiodicWorker : public TimebasedWorker<SDStateMachine, AperiodicServicesContainer>
    {
    public:
        explicit AperiodicWorker(SDStateMachine& parent);

        void update() override;
        void unsafe_update() override;
        void onInterval(Poco::Timer& timer) override;

    private:
        /// Does the record's next step; returns the milliseconds after which it is due again, or
        /// `isDone`.
        long handle(SDService::Ptr& service);
        long handleRepetition(SDService::Ptr& service);
        static long timerInterval(Poco::Clock::ClockDiff wait);

        static constexpr long isDone = -1;
    };

    /// Works over the long-lived records once a second.
    class PeriodicWorker : public TimebasedWorker<SDStateMachine, ServicesContainer>
    {
    public:
        explicit PeriodicWorker(SDStateMachine& parent);

        void update() override;
        void unsafe_update() override;
        void onInterval(Poco::Timer& timer) override;

    private:
        /// Whether the record stays in the workload; what is to be sent of it goes into the batch.
        bool handle(SDService::Ptr& service, ServicesContainer& batch);
        bool handleAnnounced(SDService::Ptr& service, ServicesContainer& batch);
        bool handleDiscovered(const SDService::Ptr& service);
    };

    SDCommunicationHub& m_hub;
    Poco::Random m_rnd;
    std::atomic<bool> m_running{false};
    mutable Poco::FastMutex m_workloadMutex;
    AperiodicServicesContainer m_aperiodicWorkload;
    ServicesContainer m_periodicWorkload;
    RecordIndex m_aperiodicIndex;
    RecordIndex m_periodicIndex;
    AperiodicWorker m_aperiodicWorker;
    PeriodicWorker m_periodicWorker;

private:
    struct Matches;

    Matches unsafe_findMatches(const SDService& service) const;

    bool unsafe_schedule(const SDService::Ptr& service, const Poco::Clock& due);
    SDService::Ptr unsafe_takeFirstAperiodic();

    bool unsafe_announce(SDService::Ptr& service, unsigned short instanceID);
    bool unsafe_renew(const SDService& offered);
    bool unsafe_discover(SDService::Ptr& service, unsigned short instanceID);
    void unsafe_notifyGone(const SDService& service);
    bool unsafe_answerOnce(const SDService::Ptr& announced);
    void unsafe_sendSafely(const SDService::Ptr& service);
    void unsafe_sendSafely(const ServicesContainer& services);

    DropCounter m_refusals;
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
