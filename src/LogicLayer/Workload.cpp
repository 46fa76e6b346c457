#include "LogicLayer/Workload.h"

#include <memory>
#include <tuple>
#include <utility>

namespace Nubo::ServiceDiscovery {

using Entry = WorkloadEntry;

namespace {

/// Due time of all records in the periodic workload.
const Poco::Clock noTime(Poco::Clock::ClockVal{0});

}  // namespace

Entry& PeriodicWorkload::push_back(const SDService::Ptr& record)
{
    auto entry = std::make_unique<Entry>(record, Entry::Workload::Periodic, noTime);
    m_index.insert(*entry);
    if (entry->role != Entry::Role::Discovered) {
        m_locals.pushBack(*entry);
        ++m_localCount;
    }
    m_records.pushBack(*entry);
    ++m_size;
    return *entry.release();
}

void PeriodicWorkload::erase(Entry& entry) noexcept
{
    if (m_walk == &entry)
        m_walk = List::next(entry);
    if (m_localWalk == &entry)
        m_localWalk = LocalList::next(entry);
    if (entry.role != Entry::Role::Discovered) {
        m_locals.erase(entry);
        --m_localCount;
    }
    m_records.erase(entry);
    --m_size;
    m_index.erase(entry);
    delete &entry;
}

PeriodicWorkload::iterator PeriodicWorkload::erase(iterator position) noexcept
{
    const iterator next = std::next(position);
    erase(*position);
    return next;
}

bool PeriodicWorkload::erase(const SDService::Ptr& record) noexcept
{
    Entry* const entry = m_index.find(record, Entry::Workload::Periodic);
    if (entry)
        erase(*entry);
    return entry != nullptr;
}

void PeriodicWorkload::clear() noexcept
{
    while (!empty())
        erase(front());
}

AperiodicWorkload::iterator AperiodicWorkload::emplace(const Poco::Clock& due, const SDService::Ptr& record)
{
    const iterator position =
        m_records.emplace(std::piecewise_construct, std::forward_as_tuple(due),
                          std::forward_as_tuple(record, Entry::Workload::Aperiodic, due));
    try {
        m_index.insert(position->second);
    }
    catch (...) {
        m_records.erase(position);
        throw;
    }
    return position;
}

AperiodicWorkload::iterator AperiodicWorkload::erase(iterator position) noexcept
{
    m_index.erase(position->second);
    return m_records.erase(position);
}

bool AperiodicWorkload::erase(const SDService::Ptr& record) noexcept
{
    Entry* const entry = m_index.find(record, Entry::Workload::Aperiodic);
    if (entry)
        erase(*entry);
    return entry != nullptr;
}

void AperiodicWorkload::clear() noexcept
{
    while (!empty())
        erase(begin());
}

void AperiodicWorkload::reschedule(Entry& entry, const Poco::Clock& due) noexcept
{
    Records::node_type node = m_records.extract(positionOf(entry));
    node.key() = due;
    entry.due = due;
    m_index.reorder(entry);
    m_records.insert(std::move(node));
}

AperiodicWorkload::iterator AperiodicWorkload::positionOf(const Entry& entry)
{
    auto position = m_records.lower_bound(entry.due);
    while (&position->second != &entry)
        ++position;
    return position;
}

}  // namespace Nubo::ServiceDiscovery
