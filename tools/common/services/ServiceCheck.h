#pragma once

#include "services/Fault.h"

#include <optional>
#include <vector>

#include <ServiceDiscovery.h>

namespace NuboSd {

struct ServiceEntry;

/// Finds reasons why services cannot be announced. Rules that only the library knows are tried on a library
/// that has no interfaces and is never started, so nothing is sent.
class ServiceCheck
{
public:
    /// Registers a dispatcher with the service locator; the destructor removes it.
    ServiceCheck();
    ~ServiceCheck();

    ServiceCheck(const ServiceCheck&) = delete;
    ServiceCheck& operator=(const ServiceCheck&) = delete;

    /// All faults of the service. A second service with the same instance is a fault too.
    std::vector<Fault> check(const ServiceEntry& service);

private:
    std::optional<Nubo::ServiceDiscovery::ServiceDiscovery> m_accepted;
};

}  // namespace NuboSd
