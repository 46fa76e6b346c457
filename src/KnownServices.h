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

/// The services of other units that a ServiceDiscovery knows at the moment: a registry's table, kept by its
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
/// Made before startup(), it holds every service. It gives each its identifier, so no other subscriber may.
/// All operations may be called from any thread, within ServiceListChanged as well, and none calls into the
/// engine. The object may be destroyed at any time before the ServiceDiscovery is: an event that is being
/// delivered meanwhile does no harm.
class KEL_SD_EXPORT KnownServices
{
public:
    struct Service
    {
        std::string uuid;                    ///< the identifier that the service got
        NuboServiceDescription description;  ///< with that identifier
        std::uint64_t revision;              ///< of the table, when the service was discovered
    };

    /// What was known at one moment, ordered by name, then by address, port and protocol. It does not change
    /// any more.
    class KEL_SD_EXPORT Snapshot
    {
    public:
        using List = std::vector<std::shared_ptr<const Service>>;
        using const_iterator = List::const_iterator;

        /// Services of one name.
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

    /// Makes the identifier of a discovered service. With an empty one, or one that another service has, the
    /// service is not taken in, and its next offer asks again. Called on a thread of the engine, by one
    /// thread at a time.
    using Identify = std::function<std::string(const NuboServiceDescription& description)>;

    /// Subscribes. Without `identify`, services are called "service-1", "service-2", …
    explicit KnownServices(ServiceDiscovery& discovery, Identify identify = {});
    ~KnownServices();

    KnownServices(const KnownServices&) = delete;
    KnownServices& operator=(const KnownServices&) = delete;

    /// Takes O(n) after a change, and no time without one.
    std::shared_ptr<const Snapshot> snapshot() const;

    /// Null when none has that identifier.
    std::shared_ptr<const Service> find(const std::string& uuid) const;

    std::size_t size() const;

    /// Grows with every service that is discovered or gone; 0 before the first.
    std::uint64_t revision() const;

    /// Waits until the revision is another one, at most for so long; returns it.
    std::uint64_t waitForChange(std::uint64_t seen, std::chrono::milliseconds atMost) const;

private:
    class Table;

    ServiceDiscovery& m_discovery;
    const std::shared_ptr<Table> m_table;
};

}  // namespace Nubo::ServiceDiscovery
