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

/// A record in a workload, with its links into the index. The workload owns it; only the workload and the
/// index change it.
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
        Answer,      ///< a scheduled answer to a FIND
        Own,         ///< a service of this unit, in any other phase
        Discovered,  ///< a service of another unit, in the periodic workload
        Other        ///< none of these; such a record does not belong in the workload
    };

    WorkloadEntry(const SDService::Ptr& record, Workload workload, const Poco::Clock& due);

    /// A null record has a place in the workload but not in the index.
    bool isIndexed() const { return !isNull(); }

    /// Sort order of a workload: by due time, then by insertion.
    static bool isBefore(const WorkloadEntry* one, const WorkloadEntry* other)
    {
        return one->due == other->due ? one->order < other->order : one->due < other->due;
    }

    WorkloadEntry(const WorkloadEntry&) = delete;
    WorkloadEntry& operator=(const WorkloadEntry&) = delete;

    // The members that a repeated offer touches come first, to fit into as few cache lines as possible.
    HashLink<WorkloadEntry> byInstance;
    ListLink<WorkloadEntry> inRole;
    Poco::Clock renewed;          ///< time of the last offer of a discovered service
    NameEntries* name = nullptr;  ///< set by the index
    ListLink<WorkloadEntry> inName;
    ListLink<WorkloadEntry> inWorkload;
    const Workload workload;
    const Role role;
    const bool isUnexpected;  ///< its type and state did not fit the workload at insertion
    // Copied at insertion: the index must count and remove the entry under the same values.
    const std::uint16_t instanceID;
    const std::uint16_t serviceID;
    Poco::Clock due;           ///< due time in the aperiodic workload; 0 in the periodic one
    std::uint64_t order = 0;   ///< insertion number, shared by both workloads
    std::size_t textSize;      ///< bytes
    Sender* sender = nullptr;  ///< sender of a discovered service; null when unknown
    HashLink<WorkloadEntry> byUuid;
};

/// Discovered services in the order of their last offers, the oldest first.
using RenewalList = IntrusiveList<WorkloadEntry, &WorkloadEntry::inRole>;

/// A unit that sent offers, identified by its address without port and scope.
struct Sender
{
    explicit Sender(const SDService::SenderAddress& unit) : address(unit) {}

    const SDService::SenderAddress address;
    std::size_t records = 0;  ///< number of discovered services that this unit was the first to offer
    std::size_t text = 0;     ///< size of their texts in bytes
    HashLink<Sender> byAddress;
};

/// All records of one name in both workloads.
struct NameEntries
{
    using List = IntrusiveList<WorkloadEntry, &WorkloadEntry::inName>;

    /// Data needed only for several records, allocated separately because nearly every name has just one.
    struct Several
    {
        explicit Several(const NameEntries& name);

        /// RecordIndex::makeRoom() must have reserved room for the entry.
        void add(const WorkloadEntry& entry) noexcept;
        void remove(const WorkloadEntry& entry) noexcept;
        void releaseUnused(std::uint16_t serviceID, const Sender* sender) noexcept;

        InstanceNumbers numbers;  ///< numbers of all records except searches
        /// The same per service ID, except for IDs that match by name alone.
        std::map<std::uint16_t, InstanceNumbers> byServiceID;
        std::map<const Sender*, std::size_t> discoveredBySender;
    };

    const std::string& text() const;

    /// Return the number of records that match a service ID (0xFFFE and 0xFFFF match all of the name), and
    /// the highest instance number among them; searches have none. The cost grows only with the number of
    /// searches and, logarithmically, of service IDs.
    std::size_t count(std::uint16_t serviceID) const;
    std::uint16_t highestInstance(std::uint16_t serviceID) const;

    /// Returns the lowest instance number up to `last` that no matching record has, or 0 when there is none.
    std::uint16_t lowestFreeInstance(std::uint16_t serviceID, std::uint16_t last) const;

    /// Returns the number of discovered services of the name that `sender` was the first to offer.
    std::size_t discoveredOf(const Sender* sender) const;

    /// Returns one of this unit's own services, the same one in every call until they change, or null when
    /// there is none.
    const WorkloadEntry* firstOwn() const;

    /// Returns the instance numbers of this unit's own services. Throws std::bad_alloc.
    InstanceNumbers ownNumbers() const;

    bool empty() const { return entries == 0 && searches.empty(); }

    HashLink<NameEntries> byName;
    List searches;
    List aperiodic;             ///< this unit's services and answers, and misplaced records
    List periodic;              ///< this unit's services, and misplaced records
    List discovered;            ///< in the order of their last offers, the oldest first
    std::uint32_t entries = 0;  ///< number of entries except searches
    std::uint32_t discoveredCount = 0;
    std::uint32_t unexpected = 0;
    std::unique_ptr<Several> several;  ///< exists from the second entry on
};

/// Finds the records of both workloads by name, by name and endpoint, and by the registry's identifier, and
/// counts everything that DiscoveryBounds limits. The cost does not depend on the total number of records.
///
/// The workloads mirror every insertion and removal here. A record's keys must not change while it is in the
/// index, except through identify(). While a workload holds a null record, look-ups throw
/// Poco::NullPointerException, as a walk over the workloads would. Not thread-safe: the workload mutex guards
/// it.
class RecordIndex
{
public:
    using Entry = WorkloadEntry;

    RecordIndex() = default;
    RecordIndex(const RecordIndex&) = delete;
    RecordIndex& operator=(const RecordIndex&) = delete;

    /// Inserts the entry. Throws std::bad_alloc and changes nothing when memory is short.
    void insert(Entry& entry);
    void erase(Entry& entry) noexcept;

    /// Moves an entry of the aperiodic workload behind all others with the same due time.
    void reorder(Entry& entry) { entry.order = ++m_lastOrder; }

    /// Assigns the registry's identifier to a discovered service.
    void identify(Entry& entry, std::string&& localUuid) noexcept;

    /// Records that the service has been offered again.
    void renew(Entry& entry) noexcept;

    /// Returns the records of the name, or null when there are none. Valid until the last one is erased.
    const NameEntries* find(const std::string& name) const;

    /// Returns the matching records in the workload's order. The identity must have a name. O(n log n) in the
    /// number of records of the name.
    std::vector<Entry*> findAll(const ServiceIdentity& identity, Entry::Workload workload) const;

    /// Returns the matching records in the workload's order. The identity must have a name and an endpoint.
    std::vector<Entry*> findInstance(const ServiceIdentity& identity, Entry::Workload workload) const;

    /// Returns the only record of type DISCOVERED with the same name and endpoint in both workloads; null
    /// when there are none or several.
    Entry* findDiscovered(const SDService& offered) const;

    /// Whether this unit has a service of that name at the address and port, regardless of protocol and
    /// scope.
    bool hasOwn(const std::string& name, const Poco::Net::IPAddress& address, std::uint16_t port) const;

    /// Returns the number of matching records in that role. The identity must have a name and an endpoint.
    std::size_t countInstance(const ServiceIdentity& identity, Entry::Role role) const;

    /// Returns the records with that identifier, in the workload's order.
    std::vector<Entry*> findUuid(const std::string& localUuid, Entry::Workload workload) const;

    /// Returns the first entry that holds this record, not an equal one, or null.
    Entry* find(const SDService::Ptr& record, Entry::Workload workload) const noexcept;

    /// Returns null unless that unit was the first to offer one of the discovered services.
    const Sender* find(const SDService::SenderAddress& address) const { return lookUp(address); }

    std::size_t size() const { return m_instances.size(); }
    std::size_t answers() const { return m_answers; }
    std::size_t discovered() const { return m_discovered; }
    std::size_t discoveredText() const { return m_discoveredText; }  ///< in bytes

    /// Returns the discovered service that has gone longest without an offer, or null when there is none.
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
