#pragma once

#include "services/Fault.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>

#include <Poco/SharedPtr.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <ServiceDiscovery.h>

namespace NuboSd {

struct ServiceEntry;

/// Finds what cannot be announced. The library is asked for what only it knows: it has no interfaces here
/// and is never started, so that nothing is sent.
class ServiceCheck
{
public:
    /// Puts a dispatcher into the service locator, for as long as it exists.
    ServiceCheck();
    ~ServiceCheck();

    ServiceCheck(const ServiceCheck&) = delete;
    ServiceCheck& operator=(const ServiceCheck&) = delete;

    /// All that is wrong with the service, also that its instance was checked before.
    std::vector<Fault> check(const ServiceEntry& service);

private:
    std::optional<Nubo::ServiceDiscovery::ServiceDiscovery> m_accepted;
};

}  // namespace NuboSd
