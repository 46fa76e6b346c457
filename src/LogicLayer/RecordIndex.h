#pragma once

#include "DataLayer/SDService.h"
#include "LogicLayer/ServiceIdentity.h"

#include <Poco/Clock.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Finds the records of a workload by name, or by name and endpoint, without a walk over all of them.
///
/// It stands beside the workload, which is the truth: whoever puts a record into the one or takes it out
/// does so with the other, and changes neither name, endpoint nor texts of a record between. Records are
/// found in the workload's order: by the time at which they fall due, equal times in the order of insertion.
/// A null record is not kept.
class RecordIndex
{
public:
    /// A workload in the order of insertion gives every record the same time.
    void insert(const SDService::Ptr& record, const Poco::Clock& due = noTime())
    {
        if (record.isNull())
            return;
        insert(m_byName[nameOf(record)], record, due);
        insert(m_byInstance[instanceOf(record)], record, due);
        ++m_size;
        m_textSize += record->getNuboDescription().getTextSize();
    }

    void erase(const SDService::Ptr& record)
    {
        if (record.isNull() || !erase(m_byName, nameOf(record), record))
            return;
        erase(m_byInstance, instanceOf(record), record);
        --m_size;
        m_textSize -= record->getNuboDescription().getTextSize();
    }

    /// How many records it holds. When the workload holds another number, somebody has changed the workload
    /// alone, and the index is of no use.
    std::size_t size() const { return m_size; }

    /// The memory that the texts of all its records take, in bytes.
    std::size_t textSize() const { return m_textSize; }

    /// Whether records of that identity can be found here: those that have a name.
    static bool canFind(const ServiceIdentity& identity) { return !identity.name.isNull(); }

    /// Calls `visit` with each record that has the identity's name, and its endpoint if it has one, in the
    /// workload's order. Whether the rest of the identity matches is for the caller to see.
    template <class Visit>
    void visit(const ServiceIdentity& identity, Visit visit) const
    {
        const bool hasEndpoint =
            !identity.ip.isNull() && !identity.port.isNull() && !identity.l4proto.isNull();
        const std::string& name = identity.name.value();
        if (hasEndpoint)
            visitAll(m_byInstance,
                     instance(name, identity.ip.value(), identity.port.value(), identity.l4proto.value()),
                     visit);
        else
            visitAll(m_byName, name, visit);
    }

private:
    using Record = std::pair<Poco::Clock, SDService::Ptr>;
    using Records = std::vector<Record>;
    using RecordsByKey = std::unordered_map<std::string, Records>;

    static Poco::Clock noTime() { return Poco::Clock(Poco::Clock::ClockVal{0}); }

    static const std::string& nameOf(const SDService::Ptr& record)
    {
        return record->getNuboDescription().getName();
    }

    static std::string instanceOf(const SDService::Ptr& record)
    {
        const NuboServiceDescription& description = record->getNuboDescription();
        return instance(description.getName(), description.getIpAddressString(), description.getPort(),
                        description.getL4Proto());
    }

    static std::string instance(const std::string& name, const std::string& ip, unsigned port,
                                unsigned protocol)
    {
        return ip + ' ' + std::to_string(port) + ' ' + std::to_string(protocol) + ' ' + name;
    }

    static void insert(Records& records, const SDService::Ptr& record, const Poco::Clock& due)
    {
        const auto behind = std::upper_bound(
            records.begin(), records.end(), due,
            [](const Poco::Clock& time, const Record& present) { return time < present.first; });
        records.emplace(behind, due, record);
    }

    static bool erase(RecordsByKey& table, const std::string& key, const SDService::Ptr& record)
    {
        const auto group = table.find(key);
        if (group == table.end())
            return false;
        Records& records = group->second;
        const auto found = std::find_if(records.begin(), records.end(),
                                        [&](const Record& present) { return present.second == record; });
        if (found == records.end())
            return false;
        records.erase(found);
        if (records.empty())
            table.erase(group);
        return true;
    }

    template <class Visit>
    static void visitAll(const RecordsByKey& table, const std::string& key, Visit visit)
    {
        const auto group = table.find(key);
        if (group == table.end())
            return;
        for (const Record& record : group->second)
            visit(record.second);
    }

    RecordsByKey m_byName;
    RecordsByKey m_byInstance;
    std::size_t m_size = 0;
    std::size_t m_textSize = 0;
};

}  // namespace Nubo::ServiceDiscovery
