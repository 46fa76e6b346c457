#pragma once

#include "DataLayer/ServiceEvents.h"
#include "Export.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

class ServiceDiscovery;

/// The services of other units that a ServiceDiscovery currently knows: a registry's table, updated by
/// ServiceListChanged.
///
///     ServiceDiscovery discovery;
///     KnownServices services(discovery);
///     discovery.startup(Poco::Net::IPAddress("fd00::12"));
///     for (std::uint64_t seen = 0;; seen = services.waitForChange(seen, std::chrono::minutes(1))) {
///         for (const auto& service : *services.snapshot())
///             std::cout << service->description.getUri() << std::endl;
///     }
///
/// Create it before startup() to include every service. It assigns the identifiers, so no other subscriber
/// may do so. All operations are thread-safe and may be called within ServiceListChanged; none calls into the
/// engine. The object may be destroyed at any time before the ServiceDiscovery, even while an event is being
/// delivered.
class KEL_SD_EXPORT KnownServices
{
public:
    struct Service
    {
        std::string uuid;                    ///< the identifier assigned to the service
        NuboServiceDescription description;  ///< including that identifier
        std::uint64_t revision;              ///< revision of the table since which it contains the service
    };

    /// Immutable copy of the table, sorted by name, address, port and protocol.
    class KEL_SD_EXPORT Snapshot
    {
    public:
        using List = std::vector<std::shared_ptr<const Service>>;
        using const_iterator = List::const_iterator;

        /// The services of one name. Valid as long as the snapshot.
        struct Range
        {
            const_iterator begin() const { return first; }
            const_iterator end() const { return last; }
            bool empty() const { return first == last; }
            std::size_t size() const { return static_cast<std::size_t>(last - first); }

            const_iterator first;
            const_iterator last;
        };

        Snapshot(List services, std::uint64_t revision);

        const_iterator begin() const { return m_services.begin(); }
        const_iterator end() const { return m_services.end(); }
        std::size_t size() const { return m_services.size(); }
        bool empty() const { return m_services.empty(); }
        Range ofName(const std::string& name) const;
        std::uint64_t revision() const { return m_revision; }

    private:
        const List m_services;
        const std::uint64_t m_revision;
    };

    /// Returns the identifier of a discovered service. If it is empty or belongs to another service, the
    /// service is not added, and its next offer calls this again. Called on threads of the engine, one call
    /// at a time. It must return promptly.
    using Identify = std::function<std::string(const NuboServiceDescription& description)>;

    /// Subscribes to ServiceListChanged. Without `identify`, the identifiers are "service-1", "service-2", …
    explicit KnownServices(ServiceDiscovery& discovery, Identify identify = {});
    ~KnownServices();

    KnownServices(const KnownServices&) = delete;
    KnownServices& operator=(const KnownServices&) = delete;

    /// Returns the current table. O(n) after a change, otherwise O(1).
    std::shared_ptr<const Snapshot> snapshot() const;

    /// Returns the service with that identifier, or null.
    std::shared_ptr<const Service> find(const std::string& uuid) const;

    std::size_t size() const;

    /// Increases with every service that is discovered or gone; 0 before the first.
    std::uint64_t revision() const;

    /// Waits until the revision differs from `seen`, or until the time is over. Returns the revision.
    std::uint64_t waitForChange(std::uint64_t seen, std::chrono::milliseconds atMost) const;

private:
    class Table;

    ServiceDiscovery& m_discovery;
    const std::shared_ptr<Table> m_table;
};

}  // namespace Nubo::ServiceDiscovery
