#pragma once

#include "LogicLayer/SDStateMachine.h"
#include "ServiceDiscovery.h"
#include "common/Target.h"

#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

/// Invariants that hold for an engine at any time, for any input.
namespace Nubo::ServiceDiscovery::Fuzzing {

/// Identity of an instance of a service: name, address, port, transport.
using Instance = std::tuple<std::string, std::string, unsigned short, OptionL4Protocol::L4Protocol_t>;

inline Instance instanceOf(const NuboServiceDescription& description)
{
    return {description.getName(), description.getIpAddressString(), description.getPort(),
            description.getL4Proto()};
}

/// A registry that checks that each event is consistent with the previous ones.
class Registry
{
public:
    /// Reaction to an event.
    enum class Mood
    {
        Takes,
        Refuses,  ///< assigns no identifier to a discovered service
        Throws
    };

    explicit Registry(ServiceDiscovery& discovery) : m_discovery(discovery)
    {
        m_discovery.ServiceListChanged += Poco::delegate(this, &Registry::onServiceListChanged);
    }
    ~Registry() { m_discovery.ServiceListChanged -= Poco::delegate(this, &Registry::onServiceListChanged); }

    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    void forget()
    {
        m_known.clear();
        m_lastNumber = 0;
        mood = Mood::Takes;
    }

    /// The services currently discovered, by the identifiers that this registry assigned.
    const std::map<std::string, Instance>& known() const { return m_known; }

    Mood mood = Mood::Takes;

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        require(payload.getServiceDescription() != nullptr, "an event describes its service");
        const NuboServiceDescription& description = *payload.getServiceDescription();
        if (payload.getEventType() == ServiceDiscovery::EventType::SERVICE_GONE) {
            const auto known = m_known.find(payload.getLocalUuid());
            require(known != m_known.end(), "only a discovered service can be gone");
            require(known->second == instanceOf(description), "an identifier stays with its instance");
            m_known.erase(known);
        }
        else {
            require(payload.getLocalUuid().empty(), "a discovered service has no identifier yet");
            require(!description.getVersions().empty(), "a discovered service has a version");
            require(description.getIpAddress().family() == Poco::Net::IPAddress::IPv6 &&
                        !description.getIpAddress().isWildcard() && !description.getIpAddress().isLoopback(),
                    "a discovered service has an address at which it can be reached");
            require(description.getUri() == description.generateUri(), "a discovered service has its URI");
            if (mood == Mood::Takes) {
                payload.setLocalUuid("discovered-" + std::to_string(++m_lastNumber));
                m_known.emplace(payload.getLocalUuid(), instanceOf(description));
            }
        }
        if (mood == Mood::Throws)
            throw Poco::RuntimeException("the registry is in no mood");
    }

    ServiceDiscovery& m_discovery;
    std::map<std::string, Instance> m_known;
    unsigned long m_lastNumber = 0;
};

/// Whether the record is announced and not being withdrawn. Excludes one-time answers.
inline bool isLive(const SDService& record)
{
    return record.getType() == SDService::Type::ANNOUNCED && record.getState() != SDService::State::ONCE &&
           record.getState() != SDService::State::SHUTDOWN_PHASE;
}

inline bool isAnswer(const SDService& record)
{
    return record.getType() == SDService::Type::ANNOUNCED && record.getState() == SDService::State::ONCE;
}

/// Counts keys, of which only one, or a limited number, may exist.
template <class Key>
class Counter
{
public:
    std::size_t add(const Key& key) { return ++m_counts[key]; }

private:
    std::map<Key, std::size_t> m_counts;
};

/// The records of a state machine.
struct Workloads
{
    const AperiodicWorkload& aperiodic;
    const PeriodicWorkload& periodic;

    ServicesContainer all() const
    {
        ServicesContainer records(periodic.begin(), periodic.end());
        for (const auto& [due, record] : aperiodic)
            records.push_back(record);
        return records;
    }
};

inline void checkAperiodic(const AperiodicWorkload& workload)
{
    using State = SDService::State;
    using Type = SDService::Type;
    constexpr std::size_t mostAnswers = 16;
    Counter<Instance> answers;
    Counter<std::string> searches;
    for (const auto& [due, record] : workload) {
        require(!record.isNull(), "the aperiodic workload has no empty record");
        const bool isBeginning =
            record->getState() == State::INITIAL_WAIT_PHASE || record->getState() == State::REPETITION_PHASE;
        if (isAnswer(*record))
            require(answers.add(instanceOf(record->getNuboDescription())) <= mostAnswers,
                    "at most 16 one-time answers of an instance wait");
        else if (record->getType() == Type::WANTED)
            require(searches.add(record->getNuboDescription().getName()) == 1, "a name is searched for once");
        else
            require(record->getType() == Type::ANNOUNCED, "discovered records are periodic");
        require(isAnswer(*record) || isBeginning, "an aperiodic record has a phase in which it is sent");
    }
}

/// Checks the periodic workload. The registry must know exactly the records of other units.
inline void checkPeriodic(const PeriodicWorkload& workload, const Registry& registry)
{
    using State = SDService::State;
    using Type = SDService::Type;
    std::map<std::string, Instance> discovered;
    // The service ID is part of a service's identity, just like its name.
    Counter<std::pair<unsigned short, Instance>> instances;
    for (const SDService::Ptr& record : workload) {
        require(!record.isNull(), "the periodic workload has no empty record");
        const NuboServiceDescription& description = record->getNuboDescription();
        if (record->getType() == Type::DISCOVERED) {
            require(record->getState() == State::MAIN_PHASE, "a discovered record has one phase");
            require(instances.add({record->getServiceId(), instanceOf(description)}) == 1,
                    "an instance is discovered once until it is gone");
            require(discovered.emplace(description.getLocalUuid(), instanceOf(description)).second,
                    "an identifier is given once");
        }
        else {
            require(record->getType() == Type::ANNOUNCED, "periodic records are announced or discovered");
            require(record->getState() == State::MAIN_PHASE || record->getState() == State::SHUTDOWN_PHASE,
                    "an announced periodic record is offered or withdrawn");
            require((record->getTTL() == 0) == (record->getState() == State::SHUTDOWN_PHASE),
                    "what is withdrawn, and only that, has no time to live");
        }
    }
    require(discovered == registry.known(), "the registry knows what is discovered, and nothing else");
}

/// Checks that announced records differ in their endpoints, and in their numbers.
inline void checkAnnounced(const ServicesContainer& records)
{
    std::set<const SDService*> seen;
    Counter<Instance> instances;
    Counter<std::pair<std::string, unsigned short>> numbers;
    for (const SDService::Ptr& record : records) {
        require(seen.insert(record.get()).second, "a record is in one workload, once");
        if (record->getType() != SDService::Type::ANNOUNCED || isAnswer(*record))
            continue;
        const NuboServiceDescription& description = record->getNuboDescription();
        require(instances.add(instanceOf(description)) == 1, "an instance is announced once");
        require(numbers.add({description.getName(), record->getInstanceId()}) == 1,
                "the announced instances of a service have different numbers");
    }
}

/// Checks that a look-up returns the same records as a walk over all of them.
inline void checkLookup(const SDStateMachine& machine, const Workloads& workloads,
                        const ServiceIdentity& identity)
{
    ServicesContainer aperiodic;
    ServicesContainer periodic;
    machine.unsafe_findServices(identity, aperiodic, periodic);
    ServicesContainer expectedAperiodic;
    ServicesContainer expectedPeriodic;
    machine.unsafe_findServices(workloads.aperiodic, identity, expectedAperiodic);
    machine.unsafe_findServices(workloads.periodic, identity, expectedPeriodic);
    require(aperiodic == expectedAperiodic && periodic == expectedPeriodic,
            "all records of an identity are found, in their workload's order");
}

inline void checkWorkloads(const SDStateMachine& machine, const Workloads& workloads,
                           const Registry& registry)
{
    checkAperiodic(workloads.aperiodic);
    checkPeriodic(workloads.periodic, registry);
    checkAnnounced(workloads.all());
    for (const SDService::Ptr& record : workloads.all()) {
        checkLookup(machine, workloads, ServiceIdentity(*record));
        checkLookup(machine, workloads, ServiceIdentity::ofInstance(*record, record->getType()));
    }
}

/// Removes all records, so that the state machine is as it was at the beginning.
inline void removeRecords(SDStateMachine& machine, const Workloads& workloads)
{
    for (const SDService::Ptr& record : workloads.all()) {
        machine.unsafe_removeAperiodicService(record);
        machine.unsafe_removePeriodicService(record);
        require(record.referenceCount() == 1, "nothing holds a record that is in no workload any more");
    }
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing
