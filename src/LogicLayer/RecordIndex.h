#pragma once

#include "DataLayer/SDService.h"
#include "LogicLayer/HashTable.h"
#include "LogicLayer/InstanceNumbers.h"
#include "LogicLayer/IntrusiveList.h"
#include "LogicLayer/KeyedHash.h"
#include "LogicLayer/ServiceIdentity.h"

#include <Poco/Clock.h>
#include <Poco/Net/IPAddress.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Nubo::ServiceDiscovery {

struct NameEntries;
struct Sender;

/// A record in a workload, and its places in the index. The workload owns it; only workload and index change
/// it.
struct WorkloadEntry : SDService::Ptr
{
    enum class Workload : std::uint8_t
    {
        Aperiodic,
        Periodic
    };

    /// Why the record is in the workload.
    enum class Role : std::uint8_t
    {
        Search,      ///< a WANTED record in the aperiodic workload
        Answer,      ///< waits to answer a FIND
        Own,         ///< a service of this unit, in any other phase
        Discovered,  ///< a service of another unit, in the periodic workload
        Other        ///< none of these: it has no business there
    };

    WorkloadEntry(const SDService::Ptr& record, Workload workload, const Poco::Clock& due);

    /// A null record is in a workload, but cannot be looked up.
    bool isIndexed() const { return !isNull(); }

    /// The order of a workload.
    static bool isBefore(const WorkloadEntry* one, const WorkloadEntry* other)
    {
        return one->due == other->due ? one->order < other->order : one->due < other->due;
    }

    WorkloadEntry(const WorkloadEntry&) = delete;
    WorkloadEntry& operator=(const WorkloadEntry&) = delete;

    // What a repeated offer touches is together, in as few cache lines as possible.
    HashLink<WorkloadEntry> byInstance;
    ListLink<WorkloadEntry> inRole;
    Poco::Clock renewed;          ///< of a discovered service: when it was last offered
    NameEntries* name = nullptr;  ///< set by the index
    ListLink<WorkloadEntry> inName;
    ListLink<WorkloadEntry> inWorkload;
    const Workload workload;
    const Role role;
    const bool isUnexpected;  ///< by its type and state when it was inserted
    // What the index counts it by, as it was at the insertion.
    const std::uint16_t instanceID;
    const std::uint16_t serviceID;
    Poco::Clock due;           ///< in the aperiodic workload
    std::uint64_t order = 0;   ///< of insertion, over both workloads
    std::size_t textSize;      ///< bytes
    Sender* sender = nullptr;  ///< of a discovered service; null when it is not known
    HashLink<WorkloadEntry> byUuid;
};

/// Discovered services in the order of their last offers, the one that has gone longest without first.
using RenewalList = IntrusiveList<WorkloadEntry, &WorkloadEntry::inRole>;

/// The unit that sent offers, by its address without port and scope.
struct Sender
{
    explicit Sender(const SDService::SenderAddress& unit) : address(unit) {}

    const SDService::SenderAddress address;
    std::size_t records = 0;  ///< discovered services that it has offered first
    std::size_t text = 0;     ///< bytes of their texts
    HashLink<Sender> byAddress;
};

/// The records of one name in both workloads.
struct NameEntries
{
    using List = IntrusiveList<WorkloadEntry, &WorkloadEntry::inName>;

    /// What only several records need: nearly every name has one.
    struct Several
    {
        explicit Several(const NameEntries& name);

        /// There has to be room for the entry.
        void add(const WorkloadEntry& entry) noexcept;
        void remove(const WorkloadEntry& entry) noexcept;
        void releaseUnused(std::uint16_t serviceID, const Sender* sender) noexcept;

        InstanceNumbers numbers;  ///< of all records but searches
        /// The same by service ID, without those that are matched by name alone.
        std::map<std::uint16_t, InstanceNumbers> byServiceID;
        std::map<const Sender*, std::size_t> discoveredBySender;
    };

    const std::string& text() const;

    /// Records that match a service ID (0xFFFE and 0xFFFF: all of the name), and the highest instance number
    /// among them; searches are left out, as they have none. Cost the same however many there are.
    std::size_t count(std::uint16_t serviceID) const;
    std::uint16_t highestInstance(std::uint16_t serviceID) const;

    /// The lowest instance number up to `last` that none of them has; 0 when there is none.
    std::uint16_t lowestFreeInstance(std::uint16_t serviceID, std::uint16_t last) const;

    /// Discovered services of the name that this unit offered first.
    std::size_t discoveredOf(const Sender* sender) const;

    /// One of this unit's own services, the same one each time; null when there is none.
    const WorkloadEntry* firstOwn() const;

    /// The numbers of this unit's own services.
    InstanceNumbers ownNumbers() const;

    bool empty() const { return entries == 0 && searches.empty(); }

    HashLink<NameEntries> byName;
    List searches;
    List aperiodic;   ///< this unit's services and answers, and what has no business there
    List periodic;    ///< this unit's services, and what has no business there
    List discovered;  ///< in the order of their last offers, the one that has gone longest without first
    std::uint32_t entries = 0;  ///< but searches
    std::uint32_t discoveredCount = 0;
    std::uint32_t unexpected = 0;
    std::unique_ptr<Several> several;  ///< from two entries on
};

/// Finds the records of both workloads by name, by name and endpoint, and by the registry's identifier, and
/// counts what is bounded, each at a cost that does not depend on how many records there are.
///
/// The workloads keep it: every insertion into and removal from them passes here. What a record is found by
/// must not change meanwhile, except through identify(). As a walk over the workloads would, look-ups throw
/// Poco::NullPointerException while a workload holds a null record.
class RecordIndex
{
public:
    using Entry = WorkloadEntry;

    RecordIndex() = default;
    RecordIndex(const RecordIndex&) = delete;
    RecordIndex& operator=(const RecordIndex&) = delete;

    /// Takes the entry in wholly, or throws std::bad_alloc and leaves everything as it was.
    void insert(Entry& entry);
    void erase(Entry& entry) noexcept;

    /// Moves an entry of the aperiodic workload to the end of those that are due at the same time.
    void reorder(Entry& entry) { entry.order = ++m_lastOrder; }

    /// Gives a discovered service the registry's identifier.
    void identify(Entry& entry, std::string&& localUuid) noexcept;

    /// The service has been offered again.
    void renew(Entry& entry) noexcept;

    /// Null when there is none.
    const NameEntries* find(const std::string& name) const;

    /// The records that match, in the workload's order; the identity must have a name. Takes time for each
    /// record of the name.
    std::vector<Entry*> findAll(const ServiceIdentity& identity, Entry::Workload workload) const;

    /// The records that match, in the workload's order; the identity must have a name and an endpoint.
    std::vector<Entry*> findInstance(const ServiceIdentity& identity, Entry::Workload workload) const;

    /// The one record in both workloads that is a discovered service of the same name and endpoint; null when
    /// there is none, or when there are several.
    Entry* findDiscovered(const SDService& offered) const;

    /// Whether this unit has a service of that name at the address and port, whatever its protocol. Scopes
    /// are left out.
    bool hasOwn(const std::string& name, const Poco::Net::IPAddress& address, std::uint16_t port) const;

    /// How many such records have that role.
    std::size_t countInstance(const ServiceIdentity& identity, Entry::Role role) const;

    /// The records with that identifier, in the workload's order.
    std::vector<Entry*> findUuid(const std::string& localUuid, Entry::Workload workload) const;

    /// Where a record is in a workload; null when it is not there.
    Entry* find(const SDService::Ptr& record, Entry::Workload workload) const noexcept;

    /// Null when no discovered service was offered by that unit.
    const Sender* find(const SDService::SenderAddress& address) const { return lookUp(address); }

    std::size_t size() const { return m_instances.size(); }
    std::size_t answers() const { return m_answers; }
    std::size_t discovered() const { return m_discovered; }
    std::size_t discoveredText() const { return m_discoveredText; }  ///< bytes

    /// The discovered service that has gone longest without an offer; null when there is none.
    Entry* stalest() const { return m_renewals.front(); }

private:
    using Instances = HashTable<Entry, &Entry::byInstance>;
    using Uuids = HashTable<Entry, &Entry::byUuid>;
    using Names = HashTable<NameEntries, &NameEntries::byName>;
    using Senders = HashTable<Sender, &Sender::byAddress>;

    std::uint64_t hashOfInstance(std::string_view name, std::string_view scoped, std::uint16_t port,
                                 std::uint8_t protocol) const;
    std::uint64_t hashOfInstance(const ServiceIdentity& identity) const;
    std::uint64_t hashOfInstance(const SDService& record) const;
    NameEntries* lookUp(const std::string& name, std::uint64_t hash) const;
    Sender* lookUp(const SDService::SenderAddress& address) const;
    NameEntries& obtainName(const std::string& name);
    Sender* obtainSender(const Entry& entry);
    static void makeRoom(NameEntries& name, const Entry& entry, const Sender* sender);
    void link(Entry& entry, NameEntries& name, Sender* sender) noexcept;
    void refuseNulls() const;
    void linkUuid(Entry& entry) noexcept;
    void unlinkUuid(Entry& entry) noexcept;
    void linkDiscovered(Entry& entry) noexcept;
    void unlinkDiscovered(Entry& entry) noexcept;
    void releaseUnused(NameEntries& name, const Entry& entry, Sender* sender) noexcept;
    static NameEntries::List& listFor(const Entry& entry, NameEntries& name);

    KeyedHash m_hash;
    Names m_names;
    Senders m_senders;
    Instances m_instances;
    Uuids m_uuids;
    RenewalList m_renewals;
    std::uint64_t m_lastOrder = 0;
    std::size_t m_nulls = 0;
    std::size_t m_answers = 0;
    std::size_t m_discovered = 0;
    std::size_t m_discoveredText = 0;
};

}  // namespace Nubo::ServiceDiscovery
