#pragma once

#include "DataLayer/SDService.h"
#include "LogicLayer/RecordIndex.h"

#include <Poco/Clock.h>

#include <cstddef>
#include <map>

namespace Nubo::ServiceDiscovery {

/// The long-lived records in the order of insertion. Every insertion and removal also updates the index, so
/// that the two cannot diverge. Not thread-safe: the workload mutex guards it.
class PeriodicWorkload
{
public:
    using Entry = WorkloadEntry;
    using List = IntrusiveList<Entry, &Entry::inWorkload>;
    using value_type = SDService::Ptr;
    using size_type = std::size_t;
    using iterator = List::Iterator;
    using const_iterator = List::Iterator;

    /// This unit's services and misplaced records: the ones whose number other units cannot increase.
    using LocalList = IntrusiveList<Entry, &Entry::inRole>;

    explicit PeriodicWorkload(RecordIndex& index) : m_index(index) {}
    ~PeriodicWorkload() { clear(); }

    PeriodicWorkload(const PeriodicWorkload&) = delete;
    PeriodicWorkload& operator=(const PeriodicWorkload&) = delete;

    iterator begin() const { return m_records.begin(); }
    iterator end() const { return m_records.end(); }
    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    Entry& front() const { return *m_records.front(); }
    Entry& back() const { return *m_records.back(); }
    std::size_t localCount() const { return m_localCount; }

    /// Appends the record. Throws std::bad_alloc and changes nothing when memory is short. A null record gets
    /// a place in the order but cannot be looked up.
    Entry& push_back(const SDService::Ptr& record);

    void erase(Entry& entry) noexcept;
    iterator erase(iterator position) noexcept;
    /// Removes the first entry that holds this record, not an equal one. Returns false when there is none.
    bool erase(const SDService::Ptr& record) noexcept;
    void clear() noexcept;

    /// Walk over all records, or over the local ones. A walk can be interrupted and resumed, with insertions
    /// and removals in between. Only one walk of each kind exists at a time. walk() and walkLocals() return
    /// the next entry, or null at the end.
    void startWalk() { m_walk = m_records.front(); }
    Entry* walk() { return step<List>(m_walk); }
    bool isWalking() const { return m_walk != nullptr; }
    void startLocalWalk() { m_localWalk = m_locals.front(); }
    Entry* walkLocals() { return step<LocalList>(m_localWalk); }

private:
    template <class Walked>
    static Entry* step(Entry*& walk)
    {
        Entry* const entry = walk;
        if (entry)
            walk = Walked::next(*entry);
        return entry;
    }

    RecordIndex& m_index;
    List m_records;  // owned
    LocalList m_locals;
    std::size_t m_size = 0;
    std::size_t m_localCount = 0;
    Entry* m_walk = nullptr;
    Entry* m_localWalk = nullptr;
};

/// The records that have a due time, sorted by it; those with equal times in the order of insertion.
/// Otherwise like PeriodicWorkload.
class AperiodicWorkload
{
public:
    using Entry = WorkloadEntry;
    using Records = std::multimap<Poco::Clock, Entry>;
    using value_type = Records::value_type;
    using size_type = std::size_t;
    using iterator = Records::iterator;
    using const_iterator = Records::const_iterator;

    explicit AperiodicWorkload(RecordIndex& index) : m_index(index) {}
    ~AperiodicWorkload() { clear(); }

    AperiodicWorkload(const AperiodicWorkload&) = delete;
    AperiodicWorkload& operator=(const AperiodicWorkload&) = delete;

    iterator begin() { return m_records.begin(); }
    iterator end() { return m_records.end(); }
    const_iterator begin() const { return m_records.begin(); }
    const_iterator end() const { return m_records.end(); }
    std::size_t size() const { return m_records.size(); }
    bool empty() const { return m_records.empty(); }

    /// Inserts the record. Throws std::bad_alloc and changes nothing when memory is short.
    iterator emplace(const Poco::Clock& due, const SDService::Ptr& record);

    iterator erase(iterator position) noexcept;
    void erase(Entry& entry) noexcept { erase(positionOf(entry)); }
    bool erase(const SDService::Ptr& record) noexcept;
    void clear() noexcept;

    /// Changes the due time of an entry and moves it behind all others with the same time. Allocates nothing.
    void reschedule(Entry& entry, const Poco::Clock& due) noexcept;

private:
    iterator positionOf(const Entry& entry);

    RecordIndex& m_index;
    Records m_records;
};

}  // namespace Nubo::ServiceDiscovery
