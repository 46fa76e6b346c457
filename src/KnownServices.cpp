#include "KnownServices.h"

#include "ServiceDiscovery.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <tuple>
#include <utility>

namespace Nubo::ServiceDiscovery {

namespace {

using Payload = ServiceListEventPayload;
using Delegate = Poco::AbstractDelegate<Payload>;
using ServicePtr = std::shared_ptr<const KnownServices::Service>;

/// Identity of an instance, and sort key of the table.
using Key = std::tuple<std::string, std::string, unsigned short, int>;

Key keyOf(const NuboServiceDescription& description)
{
    return {description.getName(), description.getIpAddressString(), description.getPort(),
            static_cast<int>(description.getL4Proto())};
}

KnownServices::Identify counter()
{
    return [number = std::uint64_t{0}](const NuboServiceDescription&) mutable {
        return "service-" + std::to_string(++number);
    };
}

struct ByName
{
    bool operator()(const ServicePtr& service, const std::string& name) const
    {
        return service->description.getName() < name;
    }
    bool operator()(const std::string& name, const ServicePtr& service) const
    {
        return name < service->description.getName();
    }
};

}  // namespace

/// Shared with the delegate, which may still be called once after it has been removed.
class KnownServices::Table
{
public:
    explicit Table(Identify identify) : m_identify(identify ? std::move(identify) : counter()) {}

    void onServiceListChanged(Payload& payload)
    {
        if (payload.getEventType() == Payload::SERVICE_DISCOVERED)
            payload.setLocalUuid(add(*payload.getServiceDescription()));
        else
            remove(payload.getLocalUuid());
    }

    std::shared_ptr<const Snapshot> snapshot() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_snapshot || m_snapshot->revision() != m_revision) {
            Snapshot::List services;
            services.reserve(m_services.size());
            for (const auto& [key, service] : m_services)
                services.push_back(service);
            m_snapshot = std::make_shared<const Snapshot>(std::move(services), m_revision);
        }
        return m_snapshot;
    }

    ServicePtr find(const std::string& uuid) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_byUuid.find(uuid);
        return found == m_byUuid.end() ? nullptr : found->second->second;
    }

    std::size_t size() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_services.size();
    }

    std::uint64_t revision() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_revision;
    }

    std::uint64_t waitForChange(std::uint64_t seen, std::chrono::milliseconds atMost) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, atMost, [&] { return m_revision != seen; });
        return m_revision;
    }

private:
    using Services = std::map<Key, ServicePtr>;
    using Uuids = std::map<std::string, Services::iterator>;

    /// Returns the identifier, or an empty one when the service is not added. If it throws, the table is
    /// unchanged.
    std::string add(const NuboServiceDescription& description)
    {
        std::string uuid = m_identify(description);
        if (uuid.empty())
            return uuid;
        auto service = std::make_shared<Service>(Service{uuid, description, 0});
        service->description.setLocalUuid(uuid);
        Key key = keyOf(description);
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            const auto named = m_byUuid.find(uuid);
            if (named != m_byUuid.end() && named->second != m_services.find(key))
                return {};  // another service has this identifier
            service->revision = m_revision + 1;
            insert(std::move(key), std::move(service));
            ++m_revision;
        }
        m_changed.notify_all();
        return uuid;
    }

    /// Replaces a service with the same key: the engine discards a service without an event when another
    /// subscriber throws.
    void insert(Key&& key, ServicePtr&& service)
    {
        const auto [entry, isNew] = m_services.try_emplace(std::move(key));
        try {
            m_byUuid[service->uuid] = entry;
        }
        catch (...) {
            if (isNew)
                m_services.erase(entry);
            throw;
        }
        if (!isNew && entry->second->uuid != service->uuid)
            m_byUuid.erase(entry->second->uuid);
        entry->second = std::move(service);
    }

    void remove(const std::string& uuid)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            const auto found = m_byUuid.find(uuid);
            if (found == m_byUuid.end())
                return;
            m_services.erase(found->second);
            m_byUuid.erase(found);
            ++m_revision;
        }
        m_changed.notify_all();
    }

    const Identify m_identify;
    mutable std::mutex m_mutex;  // guards the members below
    mutable std::condition_variable m_changed;
    Services m_services;
    Uuids m_byUuid;
    std::uint64_t m_revision = 0;
    mutable std::shared_ptr<const Snapshot> m_snapshot;  // the last one returned; null before
};

namespace {

class TableDelegate : public Delegate
{
public:
    TableDelegate(std::function<void(Payload&)> call, const void* table)
        : m_call(std::move(call))
        , m_table(table)
    {}

    bool notify(const void* /*sender*/, Payload& payload) override
    {
        m_call(payload);
        return true;
    }
    bool equals(const Delegate& other) const override
    {
        const auto* const delegate = dynamic_cast<const TableDelegate*>(other.unwrap());
        return delegate && delegate->m_table == m_table;
    }
    Delegate* clone() const override { return new TableDelegate(*this); }
    void disable() override {}  // the event disables its wrapper around this delegate

private:
    const std::function<void(Payload&)> m_call;
    const void* const m_table;
};

}  // namespace

KnownServices::Snapshot::Snapshot(List services, std::uint64_t revision)
    : m_services(std::move(services))
    , m_revision(revision)
{}

KnownServices::Snapshot::Range KnownServices::Snapshot::ofName(const std::string& name) const
{
    const auto [first, last] = std::equal_range(m_services.begin(), m_services.end(), name, ByName());
    return {first, last};
}

KnownServices::KnownServices(ServiceDiscovery& discovery, Identify identify)
    : m_discovery(discovery)
    , m_table(std::make_shared<Table>(std::move(identify)))
{
    m_discovery.ServiceListChanged += TableDelegate(
        [table = m_table](Payload& payload) { table->onServiceListChanged(payload); }, m_table.get());
}

KnownServices::~KnownServices()
{
    m_discovery.ServiceListChanged -= TableDelegate({}, m_table.get());
}

std::shared_ptr<const KnownServices::Snapshot> KnownServices::snapshot() const
{
    return m_table->snapshot();
}

std::shared_ptr<const KnownServices::Service> KnownServices::find(const std::string& uuid) const
{
    return m_table->find(uuid);
}

std::size_t KnownServices::size() const
{
    return m_table->size();
}

std::uint64_t KnownServices::revision() const
{
    return m_table->revision();
}

std::uint64_t KnownServices::waitForChange(std::uint64_t seen, std::chrono::milliseconds atMost) const
{
    return m_table->waitForChange(seen, atMost);
}

}  // namespace Nubo::ServiceDiscovery
