#pragma once

#include "DataLayer/SDService.h"

#include <Poco/Clock.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Finds the records of a workload by name without a walk over all of them.
///
/// It stands beside the workload, which is the truth: whoever puts a record into the one or takes it out
/// does so with the other. Records of one name are kept in the workload's order: by the time at which they
/// fall due, equal times in the order of insertion. A null record is not kept.
class NameIndex
{
public:
    /// A workload in the order of insertion gives every record the same time.
    void insert(const SDService::Ptr& record, const Poco::Clock& due = noTime())
    {
        if (record.isNull())
            return;
        Records& records = m_records[nameOf(record)];
        const auto behind = std::upper_bound(
            records.begin(), records.end(), due,
            [](const Poco::Clock& time, const Record& present) { return time < present.first; });
        records.emplace(behind, due, record);
        ++m_size;
    }

    void erase(const SDService::Ptr& record)
    {
        if (record.isNull())
            return;
        const auto group = m_records.find(nameOf(record));
        if (group == m_records.end())
            return;
        Records& records = group->second;
        const auto found = std::find_if(records.begin(), records.end(),
                                        [&](const Record& present) { return present.second == record; });
        if (found == records.end())
            return;
        records.erase(found);
        --m_size;
        if (records.empty())
            m_records.erase(group);
    }

    /// How many records it holds. When the workload holds another number, somebody has changed the workload
    /// alone, and the index is of no use.
    std::size_t size() const { return m_size; }

    /// Calls `visit` with each record of that name, in the workload's order.
    template <class Visit>
    void visit(const std::string& name, Visit visit) const
    {
        const auto group = m_records.find(name);
        if (group == m_records.end())
            return;
        for (const Record& record : group->second)
            visit(record.second);
    }

private:
    using Record = std::pair<Poco::Clock, SDService::Ptr>;
    using Records = std::vector<Record>;

    static Poco::Clock noTime() { return Poco::Clock(Poco::Clock::ClockVal{0}); }
    static const std::string& nameOf(const SDService::Ptr& record)
    {
        return record->getNuboDescription().getName();
    }

    std::unordered_map<std::string, Records> m_records;
    std::size_t m_size = 0;
};

}  // namespace Nubo::ServiceDiscovery
