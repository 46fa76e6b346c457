#pragma once

#include "DataLayer/SDService.h"
#include "LogicLayer/ServiceIdentity.h"

#include <Poco/Clock.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <tsl/robin_map.h>

namespace Nubo::ServiceDiscovery {

/// Finds the records of a workload by name, by name and endpoint, or by the registry's identifier, without a
/// walk over all of them.
///
/// It stands beside the workload, which is the truth: whoever puts a record into the one or takes it out
/// does so with the other, and changes none of these of a record between. Records are found in the workload's
/// order: by the time at which they fall due, equal times in the order of insertion. A null record is not
/// kept.
class RecordIndex
{
public:
    enum Kind : std::size_t
    {
        ByName,
        ByInstance,
        ByUuid
    };

    /// Under which a record is kept. Different things may have the same key: whoever visits compares.
    struct Key
    {
        Kind kind;
        std::size_t hash;
    };

    RecordIndex()
    {
        constexpr float fullest = 0.8f;  // what is half empty fills the caches with nothing
        for (Table& table : m_records)
            table.max_load_factor(fullest);
    }

    /// By name, and by endpoint if the identity has one; none for an identity without a name.
    static std::optional<Key> keyOf(const ServiceIdentity& identity)
    {
        if (identity.name.isNull())
            return std::nullopt;
        const std::string& name = identity.name.value();
        if (identity.ip.isNull() || identity.port.isNull() || identity.l4proto.isNull())
            return keyOfName(name);
        return keyOfInstance(name, identity.ip.value(), identity.port.value(), identity.l4proto.value());
    }

    static Key keyOfUuid(const std::string& localUuid) { return {ByUuid, hash(localUuid)}; }

    /// A workload in the order of insertion gives every record the same time.
    void insert(const SDService::Ptr& record, const Poco::Clock& due = noTime())
    {
        if (record.isNull())
            return;
        for (const Key key : keysOf(*record))
            m_records[key.kind][key.hash].insert({due, record});
        ++m_size;
        m_textSize += record->getNuboDescription().getTextSize();
    }

    void erase(const SDService::Ptr& record)
    {
        if (record.isNull())
            return;
        bool isKnown = false;
        for (const Key key : keysOf(*record))
            isKnown = erase(key, record) || isKnown;
        if (!isKnown)
            return;
        --m_size;
        m_textSize -= record->getNuboDescription().getTextSize();
    }

    /// How many records it holds. When the workload holds another number, somebody has changed the workload
    /// alone, and the index is of no use.
    std::size_t size() const { return m_size; }

    /// The memory that the texts of all its records take, in bytes.
    std::size_t textSize() const { return m_textSize; }

    /// Calls `visit` with each record under the key, in the workload's order.
    template <class Visit>
    void visit(Key key, Visit visit) const
    {
        const Table& table = m_records[key.kind];
        const auto group = table.find(key.hash);
        if (group == table.end())
            return;
        for (const Record& record : group->second)
            visit(record.second);
    }

private:
    /// A record, and when it falls due.
    using Record = std::pair<Poco::Clock, SDService::Ptr>;

    /// The records under one key, by time. Nearly every key has one, which needs no memory of its own.
    class Records
    {
    public:
        const Record* begin() const { return m_several ? m_several->data() : &m_one; }
        const Record* end() const { return begin() + size(); }
        std::size_t size() const { return m_several ? m_several->size() : isSet(m_one); }

        void insert(Record record)
        {
            if (size() == 0) {
                m_one = std::move(record);
                return;
            }
            if (!m_several)
                m_several = std::make_unique<std::vector<Record>>(1, std::exchange(m_one, Record()));
            const auto behind = std::upper_bound(
                m_several->begin(), m_several->end(), record.first,
                [](const Poco::Clock& time, const Record& present) { return time < present.first; });
            m_several->insert(behind, std::move(record));
        }

        bool erase(const SDService::Ptr& record)
        {
            const Record* const found =
                std::find_if(begin(), end(), [&](const Record& present) { return present.second == record; });
            if (found == end())
                return false;
            if (size() == 1)
                *this = Records();
            else
                m_several->erase(m_several->begin() + (found - begin()));
            return true;
        }

    private:
        static std::size_t isSet(const Record& record) { return record.second.isNull() ? 0 : 1; }

        Record m_one;
        std::unique_ptr<std::vector<Record>> m_several;  // all of them, if there is more than one
    };

    // A table without nodes: with many records, each step to other memory is what a look-up takes.
    using Table = tsl::robin_map<std::size_t, Records>;

    static Poco::Clock noTime() { return Poco::Clock(Poco::Clock::ClockVal{0}); }

    static std::size_t hash(const std::string& text) { return std::hash<std::string>()(text); }

    static std::size_t combine(std::size_t one, std::size_t other)
    {
        constexpr std::size_t goldenRatio = 0x9e3779b97f4a7c15;  // spreads what differs in few bits
        return (one + goldenRatio) * goldenRatio ^ other;
    }

    static Key keyOfName(const std::string& name) { return {ByName, hash(name)}; }

    static Key keyOfInstance(const std::string& name, const std::string& ip, std::size_t port,
                             std::size_t protocol)
    {
        return {ByInstance, combine(combine(hash(name), hash(ip)), port << 8 | protocol)};
    }

    static std::array<Key, 3> keysOf(const SDService& record)
    {
        const NuboServiceDescription& description = record.getNuboDescription();
        return {keyOfName(description.getName()),
                keyOfInstance(description.getName(), description.getIpAddressString(), description.getPort(),
                              description.getL4Proto()),
                keyOfUuid(description.getLocalUuid())};
    }

    bool erase(Key key, const SDService::Ptr& record)
    {
        Table& table = m_records[key.kind];
        const auto group = table.find(key.hash);
        if (group == table.end() || !group.value().erase(record))
            return false;
        if (group->second.size() == 0)
            table.erase(group);
        return true;
    }

    std::array<Table, 3> m_records;  // by kind
    std::size_t m_size = 0;
    std::size_t m_textSize = 0;
};

}  // namespace Nubo::ServiceDiscovery
