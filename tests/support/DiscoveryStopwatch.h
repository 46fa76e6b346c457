#pragma once

#include "ServiceDiscovery.h"

#include <Poco/Delegate.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace Nubo::ServiceDiscovery::Testing {

/// Measures the time from a start, set by the caller, until a unit discovers the service.
class DiscoveryStopwatch
{
public:
    using Clock = std::chrono::steady_clock;

    explicit DiscoveryStopwatch(ServiceDiscovery& discovery) : m_discovery(discovery)
    {
        m_discovery.ServiceListChanged += Poco::delegate(this, &DiscoveryStopwatch::onServiceListChanged);
    }
    ~DiscoveryStopwatch()
    {
        m_discovery.ServiceListChanged -= Poco::delegate(this, &DiscoveryStopwatch::onServiceListChanged);
    }

    DiscoveryStopwatch(const DiscoveryStopwatch&) = delete;
    DiscoveryStopwatch& operator=(const DiscoveryStopwatch&) = delete;

    void start(const std::string& name) { m_starts[name] = Clock::now(); }

    /// Number of discovered services.
    std::size_t stopped() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_ends.size();
    }

    /// Time until that service was discovered.
    Clock::duration time(const std::string& name) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_ends.at(name) - m_starts.at(name);
    }

private:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ends.emplace(payload.getServiceDescription()->getName(), Clock::now());
    }

    ServiceDiscovery& m_discovery;
    std::map<std::string, Clock::time_point> m_starts;
    mutable std::mutex m_mutex;
    std::map<std::string, Clock::time_point> m_ends;
};

}  // namespace Nubo::ServiceDiscovery::Testing
